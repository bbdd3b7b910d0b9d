// One client connection of the soak, on its own thread: opens its share of
// the sessions, keeps tasks flowing on them, checks every answer against
// the task it answers, records crash notices and re-attaches the session
// later, and now and then drops the connection and starts over with new
// sessions.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "soak_link.h"
#include "soak_records.h"

namespace lumokit::soak {

enum class Phase : int {
  kRun = 0,  // tasks, re-attaches, disconnects
  kDrain,    // no new work; settle what is outstanding, then a barrier
  kHold,     // connected and quiet while the state is inspected
  kClose,    // disconnect and end the thread
};

struct WorkerConfig {
  uint32_t index = 0;
  uint32_t sessions = 10;
  uint32_t plugins = 8;
  std::string client_socket;
  int task_interval_ms = 100;
  uint32_t window = 2;
  int life_ms = 12000;
  uint64_t seed = 1;
  int32_t pid = 0;
  uint32_t uid = 0;
  bool denied = false;  // the uid lacks the gated permission
};

class ClientWorker {
 public:
  ClientWorker(WorkerConfig config, const std::atomic<int>& phase, FailureLog& failures);
  void run();

  // Set (release) once the drain is complete: nothing outstanding, barrier done.
  bool drained() const { return drained_.load(std::memory_order_acquire); }
  // After drained(): the sessions open now, as the worker sees them.
  std::vector<SessionRecord> live_sessions() const;
  // Messages that arrived while holding (there should be none).
  uint64_t hold_messages() const { return hold_messages_.load(); }
  bool connected_now() const { return connected_.load(); }
  // Refused creations so far (each may leave a granted-only record).
  uint64_t creates_failed_now() const { return creates_failed_.load(); }

  // After the thread has ended.
  const std::vector<SessionRecord>& records() const { return records_; }
  const WorkerTotals& totals() const { return totals_; }

 private:
  struct Outstanding {
    uint32_t slot = 0;
    bool gated = false;
    std::string nonce;
    int64_t t_send = 0;
    uint64_t behind = 0;  // the control request in flight when it was sent, 0 none
  };
  struct Live {
    size_t record = 0;
    std::vector<uint32_t> task_slots;  // pairs granted at creation
    std::set<uint32_t> connected;
    std::map<uint32_t, Outstanding> outstanding;
    std::map<uint32_t, int64_t> silent;  // denied tasks: transac -> must stay silent until
    std::set<uint32_t> timed_out;
    uint32_t next_transac = 1;
    int64_t next_task_at = 0;
    int64_t reattach_at = 0;
  };
  enum class Control { kCreate, kReattach, kBarrier };
  struct Pending {
    Control kind = Control::kCreate;
    uint32_t handle = 0;
    uint32_t session = 0;
    int64_t t_req = 0;
    uint64_t seq = 0;
  };

  bool connect_now();
  void disconnect(bool final_close);
  void fail(const std::string& check, const std::string& detail);
  void send_control(Control kind, uint32_t session);
  void maybe_control(Phase phase, int64_t now);
  void send_tasks(int64_t now);
  void expire(int64_t now);
  void pump(Phase phase, int wait_ms);
  void note_control_done(uint64_t seq, int64_t now);
  void on_message(const std::string& text);
  void on_callback(const Json::Value& msg);
  void on_control_answer(const Json::Value& msg);
  void replay_early(uint32_t opened);
  void on_notice(Live& live, const Json::Value& msg);
  void on_task_answer(Live& live, uint32_t session_id, const Json::Value& msg);
  void on_barrier(const Json::Value& msg);
  bool report_slots(const std::string& report, std::set<uint32_t>* slots, std::string* error);
  int64_t jitter(int mean_ms);
  void publish_live();

  WorkerConfig config_;
  const std::atomic<int>& phase_;
  FailureLog& failures_;
  std::mt19937_64 rng_;
  Link link_;
  std::map<uint32_t, Live> live_;
  std::vector<SessionRecord> records_;
  WorkerTotals totals_;
  std::optional<Pending> control_;
  // Callbacks for an unknown session that came while a creation was pending.
  std::vector<Json::Value> early_;
  uint32_t next_handle_ = 1;
  uint64_t next_control_seq_ = 1;
  std::map<uint64_t, int64_t> control_done_;  // control seq -> when its answer came
  uint32_t to_create_ = 0;
  int64_t create_at_ = 0;
  int64_t disconnect_at_ = 0;
  bool drain_barrier_done_ = false;
  std::atomic<bool> drained_{false};
  std::atomic<bool> connected_{false};
  std::atomic<uint64_t> hold_messages_{0};
  std::atomic<uint64_t> creates_failed_{0};
  mutable std::mutex snapshot_mtx_;
  std::vector<SessionRecord> snapshot_;
};

}  // namespace lumokit::soak
