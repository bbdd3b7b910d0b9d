// System-service helpers for tests: the emulated service loaded with a policy
// and the manager linked to it as at boot.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "manager_harness.h"

namespace lumokit::test {

// Loads `policy`, marks the boot complete (1-second wait steps), starts the
// manager's service getter and waits until the link is complete. False with
// `error` saying which step failed.
bool connect_sys_service(const std::string& policy, std::string* error);

// Waits until the manager's permission-change callback is registered with the
// live service: a probe grant change (for a process and app no test uses)
// must reach it.
bool wait_for_sys_callback(std::chrono::milliseconds timeout);

// Number of cached permission states (under the cache's own mutex).
size_t perminfo_cache_size();

}  // namespace lumokit::test
