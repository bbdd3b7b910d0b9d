// Task round trips through the manager: live sessions on plugin processes
// that answer every task with "exec_task"; from perform_task to the
// session's callback.
#include "LumokitSessionManager.h"
#include "drive.h"
#include "manager_host.h"
#include "peer_roles.h"
#include "scenarios.h"
#include "tracker.h"

namespace bench {
namespace {

Result run_tasks(size_t sessions, int plugins, uint32_t per_session, uint32_t window, bool log_on) {
  Result r;
  std::string socket;
  if (!start_manager(log_on, &socket, &r.error)) return r;
  Load load;
  if (!start_plugins(socket, kBaseOpcode, plugins, 1, true, &load.peers, &r.error)) return r;
  for (size_t i = 0; i < sessions; ++i) {
    const uint32_t sid = open_session(static_cast<uint32_t>(i));
    if (sid == 0) {
      r.error = "create_session failed";
      stop_children(&load.peers);
      return r;
    }
    load.session_ids.push_back(sid);
    // Every session is started on every plugin; each uses one of them.
    load.opcodes.push_back(kBaseOpcode + static_cast<uint32_t>(i % static_cast<size_t>(plugins)));
  }
  load.per_session = per_session;
  load.window = window;
  load.marker = "\"exec_task\"";
  r = drive(load, [](size_t, uint32_t sid, const std::string& text) {
    perform_task(text, on_task_answer, sid);
  });
  stop_children(&load.peers);
  return r;
}

}  // namespace

Result run_task_1x1() { return run_tasks(1, 1, kLatencyTasks, 1, false); }
Result run_task_1x1_log() { return run_tasks(1, 1, kLatencyTasks, 1, true); }
Result run_task_4x4() { return run_tasks(4, 4, kThroughputTasksPerSession, kThroughputWindow, false); }
Result run_task_4x1() { return run_tasks(4, 1, kThroughputTasksPerSession, kThroughputWindow, false); }

}  // namespace bench
