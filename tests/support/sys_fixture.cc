#include "sys_fixture.h"

#include <lumokit/host_platform.h>

#include <atomic>

#include "LumoSysAccess.h"
#include "host/lumo_sys_host.h"

namespace lumokit::test {

bool wait_for_sys_callback(std::chrono::milliseconds timeout) {
  // Negative pids never belong to a client, so the probe touches no cache
  // entry; uid 1 is no app of any test policy.
  static std::atomic<int32_t> probe_pid{-1000};
  // Never destroyed: manager threads log at any time, also after a test.
  static LogCapture* const log = new LogCapture();
  return wait_until(
      [] {
        const int32_t pid = probe_pid.fetch_sub(1);
        if (!lumosys::host::set_permission(pid, 1, "lumokit.test.PROBE", true)) return false;
        return log->contains("onpermissionchanged pid : " + std::to_string(pid) + " ");
      },
      timeout);
}

bool connect_sys_service(const std::string& policy, std::string* error) {
  if (!lumosys::host::load_policy_text(policy, error)) return false;
  set_boot_wait_step_for_testing(1);
  lumokit::host::set_property("sys.boot_completed", "1");
  if (getLumokitSysServiceHandle() != 0) {
    *error = "getLumokitSysServiceHandle failed";
    return false;
  }
  if (!wait_for_sys_callback(std::chrono::milliseconds(5000))) {
    *error = "the permission-change callback was never registered";
    return false;
  }
  return true;
}

size_t perminfo_cache_size() {
  std::lock_guard<std::mutex> lock(pid_perminfo_map_mtx);
  return pid_perminfo_map.size();
}

}  // namespace lumokit::test
