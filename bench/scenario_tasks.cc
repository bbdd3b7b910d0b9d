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

void issue_task(size_t, uint32_t sid, const std::string& text) {
  perform_task(text, on_task_answer, sid);
}

// With `with_sizes`, the size curve follows on the same session; its first
// point is the figure.
Result run_tasks(size_t sessions, int plugins, uint32_t per_session, uint32_t window, bool log_on,
                 bool with_sizes) {
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
  r = drive(load, issue_task);
  if (r.error.empty() && with_sizes) {
    r.series.push_back(r.p50_us);
    for (size_t i = 1; i < kMessageSizes.size() && r.error.empty(); ++i) {
      load.text_size = kMessageSizes[i];
      load.per_session = kSizeRoundTrips[i];
      load.warmup = size_warmup(kSizeRoundTrips[i]);
      const Result point = drive(load, issue_task);
      r.error = point.error;
      r.series.push_back(point.p50_us);
    }
  }
  stop_children(&load.peers);
  return r;
}

}  // namespace

Result run_task_1x1() { return run_tasks(1, 1, kLatencyTasks, 1, false, true); }
Result run_task_1x1_log() { return run_tasks(1, 1, kLatencyTasks, 1, true, false); }
Result run_task_4x4() {
  return run_tasks(4, 4, kThroughputTasksPerSession, kThroughputWindow, false, false);
}
Result run_task_4x1() {
  return run_tasks(4, 1, kThroughputTasksPerSession, kThroughputWindow, false, false);
}

// The task round trip of one session while more and more sessions are open:
// the figure at 1 open session, then again at each count of the curve.
Result run_task_sessions() {
  Result r;
  std::string socket;
  if (!start_manager(false, &socket, &r.error)) return r;
  Load load;
  if (!start_plugins(socket, kBaseOpcode, 1, 1, true, &load.peers, &r.error)) return r;
  load.opcodes = {kBaseOpcode};
  load.per_session = kLatencyTasks;
  load.marker = "\"exec_task\"";
  uint32_t open = 0;
  for (uint32_t target : kOpenSessionCounts) {
    for (; open < target && r.error.empty(); ++open) {
      const uint32_t sid = open_session(open);
      if (sid == 0) r.error = "create_session failed";
      if (load.session_ids.empty()) load.session_ids.push_back(sid);
    }
    if (!r.error.empty()) break;
    const Result point = drive(load, issue_task);
    if (!point.error.empty()) {
      r.error = point.error;
      break;
    }
    if (r.series.empty()) r = point;  // the figure: one open session
    r.series.push_back(point.p50_us);
  }
  stop_children(&load.peers);
  return r;
}

}  // namespace bench
