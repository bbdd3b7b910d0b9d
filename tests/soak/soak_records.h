// What the soak records while it runs, for the checks at the end: plugin
// incarnations with the sessions each started, outages of the system
// service, and per client session its attaches, crash notices and barriers.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace lumokit::soak {

constexpr uint32_t kOpcodeBase = 0x3000;
constexpr uint32_t kSubsystem = 1;
// Time a task may take before it counts as lost.
constexpr int64_t kTaskTimeoutNs = 15LL * 1000000000LL;

// One run of a plugin process in a slot. Times are mono_ns(); 0 = never.
struct Incarnation {
  uint32_t slot = 0;
  uint32_t number = 0;  // 1, 2, ... within the slot
  int32_t service_id = -1;
  int64_t t_spawn = 0;
  int64_t t_ready = 0;
  int64_t t_kill = 0;  // SIGKILL sent
  int64_t t_gone = 0;  // first admin status without its service id
  std::map<uint32_t, std::vector<int64_t>> starts;  // session -> start times
  std::map<uint32_t, std::vector<int64_t>> ends;    // session -> end times
  std::string events_path;
  std::string log_path;
};

struct SysOutage {
  int64_t t_down = 0;
  int64_t t_up = 0;  // 0 while still down
};

// A successful create_session (first) or re-attach answer.
struct AttachRecord {
  int64_t t_req = 0;
  int64_t t_ans = 0;
  std::set<uint32_t> slots;  // pairs listed in the capability report
};

struct NoticeRecord {
  int64_t t = 0;
  uint32_t slot = 0;
};

struct SessionRecord {
  uint32_t id = 0;
  uint32_t worker = 0;
  int32_t pid = 0;
  uint32_t uid = 0;
  bool denied = false;  // its client lacks the gated permission
  std::vector<AttachRecord> attaches;
  std::vector<NoticeRecord> notices;
  // Send time of the last find_pid_uid whose answer came: every callback
  // the daemon made before it had reached the client by then.
  int64_t t_barrier = 0;
  int64_t t_close = 0;  // 0: its connection is still open
};

// A task that got no answer, or the manager's "no plugin serves it" (-5).
struct TaskMiss {
  uint32_t slot = 0;
  bool gated = false;
  bool denied = false;
  int64_t t_send = 0;
  // Latest time the daemon can have begun handling it: later than t_send
  // when it queued behind a create_session of the same connection.
  int64_t t_due = 0;
  int64_t t_answer = 0;  // 0 for a lost task
};

struct WorkerTotals {
  uint64_t tasks_sent = 0;
  uint64_t answered = 0;         // plugin answers that checked out
  uint64_t gated_answered = 0;   // of those, gated tasks of permitted clients
  uint64_t denied_silent = 0;    // gated tasks of denied clients, unanswered as they must be
  uint64_t creates_failed = 0;   // new sessions refused (error 1)
  uint64_t reattach_ok = 0;
  uint64_t reattach_failed = 0;
  uint64_t disconnects = 0;
  uint64_t notices = 0;
  std::vector<TaskMiss> lost;
  std::vector<TaskMiss> unserved;  // status -5
};

// Failures by check name, shared by every thread of the soak.
class FailureLog {
 public:
  void add(const std::string& check, const std::string& detail);
  bool failed(const std::string& check) const;
  size_t count() const;
  // Prints up to `per_check` details per check to stderr.
  void print(size_t per_check) const;
  // Writes every detail, one per line, to `path`.
  void write_all(const std::string& path) const;

 private:
  mutable std::mutex mtx_;
  std::map<std::string, std::vector<std::string>> items_;
};

}  // namespace lumokit::soak
