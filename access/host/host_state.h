// The one process-wide state of the host stand-in: the service manager's view
// of the instance (declared, registered, which incarnation) and what the
// emulated service holds. Everything is guarded by `mtx`; callbacks and death
// notices are made after it is released.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host_policy.h"
#include "lumo_sys.h"
#include "lumo_sys_host.h"

namespace lumosys {

// A recipient only remembers which function to call; the cookie travels with
// each link.
struct DeathRecipient {
  DeathCallback callback;
};

namespace host {

// Operation names as fail_next() takes them.
inline constexpr const char* kOpCheckGrantedPermissions = "checkGrantedPermissions";
inline constexpr const char* kOpQueryInfo = "queryInfo";
inline constexpr const char* kOpUpdatePrivacyOperation = "updatePrivacyOperation";
inline constexpr const char* kOpGetAPIInfo = "getAPIInfo";
inline constexpr const char* kOpSetPermissionChangeCallback = "setPermissionChangeCallback";

struct DeathLink {
  DeathRecipient* recipient;
  void* cookie;
};

struct HostState {
  std::mutex mtx;
  std::condition_variable registered_cv;  // signalled when an incarnation starts

  bool declared = false;
  bool alive = false;
  // Each start() is a new incarnation; proxies of older ones are dead objects.
  uint64_t incarnation = 0;

  HostPolicy policy;
  std::shared_ptr<ILumoSysCallback> callback;  // lost when the service dies
  std::vector<DeathLink> links;                // links to the live incarnation only
  // Recipients are never freed (callers keep raw pointers for the process's
  // life); holding them here keeps them reachable for leak checkers.
  std::vector<std::unique_ptr<DeathRecipient>> recipients;
  std::vector<PrivacyCall> privacy_log;
  int check_calls = 0;
  std::map<std::string, int> pending_failures;
};

// Never destroyed: detached notice threads and waiters may outlive main().
HostState& host_state();

// What a death leaves to do once `mtx` is released: the notices that are due
// and the callback the dead service held (released outside the lock, since
// its destructor is the manager's code).
struct Death {
  std::vector<DeathLink> links;
  std::shared_ptr<ILumoSysCallback> dropped_callback;
};

// Both need `mtx` held.
void start_locked(HostState& state);
// Marks the service dead; a service that is not alive leaves nothing to do.
Death die_locked(HostState& state);

// Fires each notice on its own detached thread, as binder does; the caller
// must not hold `mtx` (a recipient may call back into the service manager).
void deliver_death(Death death);

// True when `incarnation` is the live one; a call on anything else fails like
// a call on a dead binder.
bool serving_locked(const HostState& state, uint64_t incarnation);

// Consumes one pending injected failure of `operation`, if any.
bool take_failure_locked(HostState& state, const std::string& operation);

}  // namespace host
}  // namespace lumosys
