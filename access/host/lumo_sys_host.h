// Host backend of the system-service seam: an in-process stand-in for the
// platform service manager and an emulated `ILumoSys` driven by a JSON policy.
// Tests and the host daemon use these controls; the manager never does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumosys::host {

// Loads a policy (see docs/sys-policy.md). On success the instance is declared
// per the policy's "declared" and, when declared, registered (alive). On
// failure returns false with `error` naming the file and the problem, and
// nothing changes.
bool load_policy_file(const std::string& path, std::string* error);
bool load_policy_text(const std::string& json_text, std::string* error);

// Forget the policy and every registration: not declared, not alive.
void reset();

bool is_alive();
// The service dies: getService answers null, waitForService blocks, and the
// death recipients linked to the dead instance fire on a separate thread.
void kill();
// The service comes back (declared or not, it becomes registered).
void start();

// Grants or revokes `permission` for the app `uid` and tells the registered
// callback (pid, uid, permission, granted), on a separate thread as binder
// would; false when the service is not alive. Returns once the callback ran.
bool set_permission(int32_t pid, int32_t uid, const std::string& permission, bool granted);

struct PrivacyCall {
  std::string operation;
  int32_t pid;
  int32_t uid;
  bool stop;
};
std::vector<PrivacyCall> privacy_log();
void clear_privacy_log();

// Calls of checkGrantedPermissions so far (to tell cache hits from queries).
int checkGrantedPermissions_calls();
// Next `count` calls of the named operation answer a failed status.
void fail_next(const std::string& operation, int count);

}  // namespace lumosys::host
