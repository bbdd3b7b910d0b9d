// Lifecycle of the emulated service: incarnations, death, injected failures.
#include "host_state.h"

#include <thread>

namespace lumosys::host {

HostState& host_state() {
  static HostState* const state = new HostState();
  return *state;
}

void start_locked(HostState& state) {
  ++state.incarnation;
  state.alive = true;
  state.registered_cv.notify_all();
}

Death die_locked(HostState& state) {
  Death death;
  if (!state.alive) return death;
  state.alive = false;
  // A restarted service process starts with no registered callback.
  death.dropped_callback = std::move(state.callback);
  state.callback.reset();
  death.links.swap(state.links);
  return death;
}

void deliver_death(Death death) {
  death.dropped_callback.reset();
  for (const DeathLink& link : death.links) {
    // Detached: a recipient may block until the service is back.
    std::thread([link] { link.recipient->callback(link.cookie); }).detach();
  }
}

bool serving_locked(const HostState& state, uint64_t incarnation) {
  return state.alive && state.incarnation == incarnation;
}

bool take_failure_locked(HostState& state, const std::string& operation) {
  const auto it = state.pending_failures.find(operation);
  if (it == state.pending_failures.end()) return false;
  if (--it->second <= 0) state.pending_failures.erase(it);
  return true;
}

}  // namespace lumosys::host
