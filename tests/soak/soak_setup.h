// The soak's work directory: runtime dir, system-service policy, per-slot
// API definitions with freshly signed tokens, and the sanitizer log
// settings that child processes inherit.
#pragma once

#include <cstdint>
#include <string>

#include "soak_options.h"

namespace lumokit::soak {

// Uids of the policy: the first holds the gated permission, the second not.
constexpr uint32_t kPermittedUid = 10500;
constexpr uint32_t kDeniedUid = 10501;
constexpr const char* kGatedPermission = "lumokit.permission.SOAK";

struct WorkDir {
  std::string root;
  std::string runtime;   // the daemon's --runtime-dir
  std::string policy;    // the daemon's --sys-policy
  std::string plugins;   // per incarnation: events and output
  std::string sanitizer; // sanitizer log_path prefix directory
  std::string daemon_log;
  std::string daemon_out;

  std::string api_def(uint32_t slot) const;
  std::string token(uint32_t slot) const;
};

// Creates the directory and every file in it; false with `error`.
bool prepare_work_dir(const Options& options, WorkDir* dir, std::string* error);

// Points ASAN/UBSAN/TSAN logs of child processes into the work directory,
// keeping options already set, and limits glibc's malloc arenas of the
// children (see the definition). Call before any thread is started.
void route_sanitizer_logs(const WorkDir& dir);

void remove_work_dir(const WorkDir& dir);

}  // namespace lumokit::soak
