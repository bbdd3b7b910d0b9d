// The chaos soak's shared parts: one clock for the soak and its plugins
// (CLOCK_MONOTONIC is system-wide, so times the plugins log compare with the
// soak's own), the API definition of slot N (opcode 0x3000+N, subsystem 1,
// "echo" and "gated" with one string argument each), what the soak records
// while it runs, the client threads, and the checks run at the end.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

namespace lumokit::soak {

constexpr int64_t kMs = 1000000LL;
constexpr int64_t kSec = 1000000000LL;
constexpr uint32_t kOpcodeBase = 0x3000;
constexpr uint32_t kSubsystem = 1;
constexpr uint32_t kPlugins = 8;               // slot N serves opcode 0x3000+N
constexpr uint32_t kSessions = 100;            // open at any time, spread over the clients
constexpr uint32_t kClients = 10;              // connections, one thread each
constexpr int64_t kTaskTimeoutNs = 15 * kSec;  // a task unanswered by then is lost

inline int64_t mono_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * kSec + ts.tv_nsec;
}

inline Json::Value api_def(uint32_t slot) {
  char text[512];
  std::snprintf(text, sizeof(text),
                R"([{"opcode":"0x%X","name":"soak%u","subsystems":[{"id":%u,"functions":[)"
                R"({"name":"echo","num_of_args":1,"args":[{"type":"string"}]},)"
                R"({"name":"gated","num_of_args":1,"args":[{"type":"string"}]}]}]}])",
                kOpcodeBase + slot, slot, kSubsystem);
  Json::Value out;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  reader->parse(text, text + std::char_traits<char>::length(text), &out, nullptr);
  return out;
}

// One run of a plugin process in a slot. Times are mono_ns(); 0 = never.
struct Incarnation {
  uint32_t slot = 0, number = 0;  // number: 1, 2, ... within the slot
  int32_t service_id = -1;
  int64_t t_spawn = 0, t_ready = 0;
  int64_t t_kill = 0;                               // SIGKILL sent, or its unexpected exit seen
  int64_t t_gone = 0;                               // first admin status without its service id
  std::map<uint32_t, std::vector<int64_t>> starts;  // session -> start times
  std::set<uint32_t> ends;                          // sessions whose end it acknowledged
  std::string events_path;
  std::string name() const {
    return "slot " + std::to_string(slot) + " incarnation " + std::to_string(number) +
           " (service id " + std::to_string(service_id) + ")";
  }
};
using Incarnations = std::vector<std::vector<Incarnation>>;  // per slot, in order
using Outage = std::pair<int64_t, int64_t>;  // of the system service: down, up (0: still down)

struct SessionRecord {
  struct Attach {  // a successful create_session (first) or re-attach
    int64_t t_req = 0, t_ans = 0;
    std::set<uint32_t> slots;  // pairs listed in the capability report
  };
  uint32_t id = 0, client = 0;
  int32_t pid = 0;
  uint32_t uid = 0;
  std::vector<Attach> attaches;
  std::vector<std::pair<int64_t, uint32_t>> notices;  // crash notices: time, slot
  // Send time of the last find_pid_uid whose answer came: every callback
  // the daemon made before it had reached the client by then.
  int64_t t_barrier = 0;
};

// A task that got no answer, or the manager's "no plugin serves it" (-5).
struct TaskMiss {
  uint32_t slot = 0;
  bool gated = false;
  // t_due: the latest time the daemon can have begun handling it, later
  // than t_send when it queued behind a create_session of its connection.
  int64_t t_send = 0, t_due = 0;
  int64_t t_answer = 0;  // of the -5; 0 for a lost task
};

// Failures by check name, shared by every thread of the soak.
struct Failures {
  void add(const std::string& check, const std::string& detail) {
    std::lock_guard<std::mutex> lock(mtx);
    items[check].push_back(detail);
  }
  std::mutex mtx;
  std::map<std::string, std::vector<std::string>> items;
};

enum class Phase : int {
  kRun = 0,  // tasks, re-attaches, disconnects
  kDrain,    // no new work; settle what is outstanding, then a barrier and quiet
  kClose,    // disconnect and end the thread
};

// One client connection: its settings, what it shares with the main thread,
// and what it recorded, read after its thread has ended.
struct ClientState {
  std::string socket;
  int interval_ms = 100;  // between two tasks of a session
  uint64_t seed = 1;
  std::atomic<bool> drained{false};  // nothing outstanding, barrier done
  std::atomic<uint64_t> creates_refused{0};
  std::mutex mtx;  // guards the two below, published when drained
  bool connected = false;
  std::vector<SessionRecord> open_sessions;
  std::vector<SessionRecord> records;
  std::vector<TaskMiss> misses;
  uint64_t tasks_sent = 0, answered = 0, gated_answered = 0, disconnects = 0;
};

// Client `index`: opens its share of the sessions, keeps tasks flowing on
// them, checks every answer against its task, records crash notices and
// re-attaches the session later, and now and then drops the connection and
// starts over with new sessions. Returns at Phase::kClose.
void run_client(uint32_t index, const std::atomic<int>& phase, ClientState& state,
                Failures& failures);

// "0x3005" -> slot 5.
bool read_slot(const std::string& opcode, uint32_t* slot);

// Every notice must follow a death of a plugin incarnation that had started
// the session, at most once each; every death the session certainly had to
// hear of (its answer listed the pair, the daemon forgot the plugin before
// its last barrier) must have been told. Returns how many such deaths.
uint64_t check_crash_notices(const Incarnations& all, const std::vector<ClientState>& clients,
                             Failures& failures);

// A task may go unanswered only around a death of its plugin (or, gated, an
// outage of the system service); "no plugin serves the pair" only while its
// slot had no ready plugin.
void check_task_misses(const Incarnations& all, const std::vector<ClientState>& clients,
                       const std::vector<Outage>& outages, Failures& failures);

struct DumpExpectation {
  std::vector<SessionRecord> open_sessions;  // owned by connections still open
  Incarnations incarnations;                 // the last of a slot runs unless killed
  uint64_t refused_creates = 0;              // may each leave a granted-only record
  uint64_t clients = 0;
  std::string label;  // "with clients", "after the clients left"
};

// The admin status against what must be there: nothing of a gone plugin or
// session; every open session present with its callback and ids.
void check_state_dump(const Json::Value& status, const DumpExpectation& expect, Failures& failures);

}  // namespace lumokit::soak
