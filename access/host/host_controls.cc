// Test and daemon controls of the emulated service: loading a policy,
// changing grants (with the callback binder would deliver), the privacy-call
// log, the call counter and injected failures.
#include <mutex>
#include <thread>
#include <utility>

#include "host_policy.h"
#include "host_state.h"
#include "lumo_sys_host.h"

namespace lumosys::host {
namespace {

void apply_policy(HostPolicy policy) {
  HostState& state = host_state();
  Death death;
  {
    std::lock_guard<std::mutex> lock(state.mtx);
    std::swap(state.policy, policy);
    state.declared = state.policy.declared;
    if (state.declared) {
      if (!state.alive) start_locked(state);
    } else {
      // An undeclared instance is not registered either.
      death = die_locked(state);
    }
  }
  deliver_death(std::move(death));
}

}  // namespace

bool load_policy_text(const std::string& json_text, std::string* error) {
  HostPolicy policy;
  if (!parse_policy(json_text, "policy text", &policy, error)) return false;
  apply_policy(std::move(policy));
  return true;
}

bool load_policy_file(const std::string& path, std::string* error) {
  std::string text;
  if (!read_policy_file(path, &text, error)) return false;
  HostPolicy policy;
  if (!parse_policy(text, path, &policy, error)) return false;
  apply_policy(std::move(policy));
  return true;
}

bool set_permission(int32_t pid, int32_t uid, const std::string& permission, bool granted) {
  HostState& state = host_state();
  std::shared_ptr<ILumoSysCallback> callback;
  {
    std::lock_guard<std::mutex> lock(state.mtx);
    if (!state.alive) return false;
    HostApp& app = state.policy.apps[static_cast<uint32_t>(uid)];
    if (granted) {
      app.granted.insert(permission);
    } else {
      app.granted.erase(permission);
    }
    callback = state.callback;
  }
  if (callback) {
    // Binder delivers the call on one of the manager's pool threads, never on
    // the thread that changed the grant.
    std::thread delivery(
        [&callback, pid, uid, &permission, granted] {
          callback->onpermissionchanged(pid, uid, permission, granted);
        });
    delivery.join();
  }
  return true;
}

std::vector<PrivacyCall> privacy_log() {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  return state.privacy_log;
}

void clear_privacy_log() {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  state.privacy_log.clear();
}

int checkGrantedPermissions_calls() {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  return state.check_calls;
}

void fail_next(const std::string& operation, int count) {
  HostState& state = host_state();
  std::lock_guard<std::mutex> lock(state.mtx);
  if (count <= 0) {
    state.pending_failures.erase(operation);
  } else {
    state.pending_failures[operation] = count;
  }
}

}  // namespace lumosys::host
