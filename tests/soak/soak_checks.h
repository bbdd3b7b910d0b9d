// The soak's verdicts, computed from what was recorded: crash notices
// against plugin deaths, lost and refused tasks against the chaos, the
// daemon's state dump against the clients that are still there, and the
// logs against sanitizer reports.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "soak_records.h"

namespace lumokit::soak {

struct NoticeTally {
  uint64_t received = 0;
  uint64_t required = 0;  // deaths a session had to hear of
};

// Every notice must match a death of a plugin incarnation that had started
// the session, at most once each; every death a session certainly had to
// hear of (its answer listed the pair, the death was forgotten before its
// last barrier) must have been told exactly once. `unowned_drops` names
// sessions for which the daemon logged a dropped notice before it had an
// owner; it only explains a missing notice.
NoticeTally check_crash_notices(const std::vector<Incarnation>& incarnations,
                                const std::vector<SessionRecord>& sessions,
                                const std::set<uint32_t>& unowned_drops, FailureLog& failures);

struct TaskTally {
  uint64_t lost_explained = 0;
  uint64_t unserved_explained = 0;
};

// A task may go unanswered only around a death of its plugin (or, gated,
// around an outage of the system service); "no plugin serves the pair" only
// while its slot had no ready plugin.
TaskTally check_task_misses(const std::vector<WorkerTotals>& totals,
                            const std::vector<Incarnation>& incarnations,
                            const std::vector<SysOutage>& outages, FailureLog& failures);

struct DumpExpectation {
  std::vector<SessionRecord> live_sessions;   // owned by connections still open
  std::vector<int32_t> live_service_ids;      // the plugins running now
  std::vector<Incarnation> incarnations;      // every incarnation so far
  uint64_t failed_creates = 0;                // may each leave a granted-only record
  uint64_t clients = 0;
  std::string label;                          // "with clients", "after clients left"
};

struct DumpTally {
  uint64_t granted_only = 0;
  uint64_t stale_started = 0;  // a plugin's started entry for a gone session, by design
};

// The state dump against the expectation: nothing of a gone plugin or
// session; every live session present with its callback and ids.
DumpTally check_state_dump(const Json::Value& status, const DumpExpectation& expect,
                           FailureLog& failures);

// Sessions for which the daemon log shows a crash notice dropped because
// no connection owned the session, before any client left it.
std::set<uint32_t> unowned_notice_drops(const std::string& log);

// Sanitizer log files in `dir` and reports in the given output files.
void check_sanitizer_output(const std::string& dir, const std::vector<std::string>& outputs,
                            FailureLog& failures);

}  // namespace lumokit::soak
