// System-service helpers for tests: the emulated service loaded with a policy
// and the manager linked to it as at boot, client sessions opened and ended
// against a raw plugin.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "manager_harness.h"

namespace lumokit::test {

// Polls `pred` every 10 ms until it holds or `timeout` passes.
bool wait_until(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

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

// Opens a session for the client (pid, uid) with `plugin` accepting it;
// returns the session id, 0 when no session was opened.
uint32_t open_session(RawPlugin& plugin, int32_t pid, uint32_t uid, uint32_t client_handle);

// Ends the whole session, `plugin` acknowledging; cancel_session's result.
uint32_t cancel_whole_session(RawPlugin& plugin, uint32_t session_id);

}  // namespace lumokit::test
