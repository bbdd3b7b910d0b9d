// The host stand-in for the platform service manager: look-ups of the one
// instance, death links, and the controls that kill and restart it.
#include <cstring>
#include <memory>
#include <mutex>

#include "host_lumo_sys.h"
#include "host_state.h"
#include "lumo_sys.h"
#include "lumo_sys_host.h"

namespace lumosys {
namespace {

// Only the system service's instance exists on the host.
bool is_our_instance(const char* instance) {
  return instance != nullptr && std::strcmp(instance, kLumoSysInstance) == 0;
}

}  // namespace

bool isDeclared(const char* instance) {
  if (!is_our_instance(instance)) return false;
  host::HostState& state = host::host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  return state.declared;
}

std::shared_ptr<ILumoSys> waitForService(const char* instance) {
  // Waiting for an instance that can never exist would hang the caller forever.
  if (!is_our_instance(instance)) return nullptr;
  host::HostState& state = host::host_state();
  std::unique_lock<std::mutex> lock(state.mtx);
  state.registered_cv.wait(lock, [&state] { return state.alive; });
  return std::make_shared<host::HostLumoSys>(state.incarnation);
}

std::shared_ptr<ILumoSys> getService(const char* instance) {
  if (!is_our_instance(instance)) return nullptr;
  host::HostState& state = host::host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!state.alive) return nullptr;
  return std::make_shared<host::HostLumoSys>(state.incarnation);
}

DeathRecipient* newDeathRecipient(DeathCallback callback) {
  if (callback == nullptr) return nullptr;
  host::HostState& state = host::host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  state.recipients.push_back(std::make_unique<DeathRecipient>(DeathRecipient{callback}));
  return state.recipients.back().get();
}

bool linkToDeath(const std::shared_ptr<ILumoSys>& service, DeathRecipient* recipient,
                 void* cookie) {
  const auto proxy = std::dynamic_pointer_cast<host::HostLumoSys>(service);
  if (!proxy || recipient == nullptr || recipient->callback == nullptr) return false;
  host::HostState& state = host::host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  // Linking to a binder that already died fails, as DEAD_OBJECT does.
  if (!host::serving_locked(state, proxy->incarnation())) return false;
  state.links.push_back(host::DeathLink{recipient, cookie});
  return true;
}

void startThreadPool() {
  // Nothing to start: the host delivers every notice and callback on a thread
  // of its own.
}

namespace host {

bool is_alive() {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  return state.alive;
}

void kill() {
  HostState& state = host_state();
  Death death;
  {
    std::lock_guard<std::mutex> lock(state.mtx);
    death = die_locked(state);
  }
  deliver_death(std::move(death));
}

void start() {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (!state.alive) start_locked(state);
}

void reset() {
  HostState& state = host_state();
  HostPolicy old_policy;
  std::shared_ptr<ILumoSysCallback> old_callback;
  {
    std::lock_guard<std::mutex> lock(state.mtx);
    state.declared = false;
    state.alive = false;
    old_policy = std::move(state.policy);
    state.policy = HostPolicy();
    old_callback = std::move(state.callback);
    state.callback.reset();
    // Links are forgotten without notice: nothing died, the world was reset.
    state.links.clear();
    state.privacy_log.clear();
    state.check_calls = 0;
    state.pending_failures.clear();
  }
}

}  // namespace host
}  // namespace lumosys
