// A soak client: one connection with one session at a time, checking every
// message of the daemon against what this client asked for.
#include <random>
#include <thread>

#include "e2e_rig.h"
#include "ipc/json_text.h"
#include "soak.h"

namespace lumokit::soak {
namespace {

constexpr auto kSteadyAnswer = seconds(20);  // a plugin never killed answers by then
constexpr auto kGiveUp = seconds(3);         // a killed slot's task then leaves the window
constexpr auto kControlLimit = seconds(30);  // create_session, find_pid_uid

bool is(const Json::Value& v, int64_t n) { return v.isIntegral() && v.asInt64() == n; }
std::string text_of(const Json::Value& v) { return ipc::write_json(v).substr(0, 300); }

class Client {
 public:
  Client(Soak& soak, int index, std::mt19937_64& rng)
      : soak_(soak), index_(index), rng_(rng), conn_(soak.socket) {}

  void run() {
    Json::Value create = request("create_session");
    create["handle"] = 7;
    create["pid"] = 40000 + index_;
    create["uid"] = 10123;
    log_.asked = Clock::now();
    // Nothing else can come before the answer on a new connection.
    const Json::Value answer = conn_.call(create, kControlLimit);
    log_.answered = Clock::now();
    if (!created(answer)) return;
    const Time end = log_.answered + milliseconds(rng_() % 6000 + 2000);
    for (Time barrier{}; log_.barrier == Time{};) {
      const Time now = Clock::now();
      bool steady_waiting = false;
      for (auto& [transac, task] : tasks_) {
        const bool steady = task.slot < kSteadySlots;
        if (!task.given_up && now - task.sent > (steady ? kSteadyAnswer : kGiveUp)) {
          task.given_up = true;  // a killed slot's task may be lost, a steady one not
          if (steady) soak_.fail("routing", who() + "no answer in 20 s to nonce " + task.nonce);
        }
        steady_waiting = steady_waiting || (steady && !task.given_up);
      }
      // At its end the session waits for the answers of the plugins never
      // killed, then asks find_pid_uid and closes.
      if (barrier != Time{} && now - barrier > kControlLimit) {
        return soak_.fail("daemon alive", who() + "no find_pid_uid answer within 30 s");
      } else if (barrier == Time{} && now < end && !soak_.stop) {
        send_task(now);
      } else if (barrier == Time{} && !steady_waiting) {
        conn_.send(request("find_pid_uid"));
        barrier = now;
      }
      if (!conn_.silent_for(milliseconds(10))) on_message(conn_.next(), barrier);
    }
    std::lock_guard<std::mutex> lock(soak_.mtx);
    soak_.sessions.push_back(log_);
    soak_.tasks += transac_;
    soak_.answers += answers_;
  }

 private:
  struct Task {
    int slot;
    std::string nonce;
    Time sent;
    bool given_up;
  };

  std::string who() const {
    return "client " + std::to_string(index_) + " session " + std::to_string(log_.id) + ": ";
  }

  Json::Value request(const char* op) const {
    Json::Value msg = e2e::op(op);
    msg["session_id"] = log_.id;
    return msg;
  }

  // False when refused, which may leave a granted-only record by design.
  bool created(const Json::Value& m) {
    const Json::Value report = is(m["error"], 0) ? e2e::parse(m["text"].asString()) : Json::Value();
    for (const auto& op : report["capability"]["opcodes"]) log_.slots.insert(slot_of(op["opcode"]));
    log_.id = m["session_id"].asUInt();
    if (!is(m["kind"], 1) || !is(m["handle"], 7) || log_.slots.count(-1) != 0 ||
        log_.slots.empty() != (log_.id == 0)) {
      soak_.fail("routing", who() + "create_session answered " + text_of(m));
    }
    connected_ = log_.slots;
    std::lock_guard<std::mutex> lock(soak_.mtx);
    soak_.refused_creates += log_.id == 0 ? 1 : 0;
    return log_.id != 0;
  }

  // Two tasks in flight at most, to slots the session still has.
  void send_task(Time now) {
    size_t busy = 0;
    for (const auto& entry : tasks_) busy += entry.second.given_up ? 0 : 1;
    if (connected_.empty() || busy >= 2 || now < next_task_) return;
    const int slot = *std::next(connected_.begin(), static_cast<long>(rng_() % connected_.size()));
    const std::string nonce = std::to_string(index_) + ":" + std::to_string(rng_());
    Json::Value arg(Json::objectValue), args(Json::arrayValue), msg = request("perform_task");
    arg["type"] = "string";
    arg["value"] = nonce;
    args.append(arg);
    msg["request"] = e2e::task_text(log_.id, ++transac_, opcode_text(slot), 1, "echo", args);
    conn_.send(msg);
    tasks_[transac_] = Task{slot, nonce, now, false};
    next_task_ = now + milliseconds(rng_() % 25 + 5);
  }

  void on_message(const Json::Value& m, Time barrier) {
    if (m["op"] == "find_pid_uid" && barrier != Time{}) {
      if (!is(m["session_id"], log_.id) || !is(m["found"], 1) || !is(m["pid"], 40000 + index_)) {
        soak_.fail("routing", who() + "find_pid_uid answered " + text_of(m));
      }
      log_.barrier = barrier;
      return;
    }
    if (m["op"] != "callback" || !is(m["kind"], 2) || !is(m["session_id"], log_.id)) {
      return soak_.fail("routing", who() + "a message not for this connection: " + text_of(m));
    }
    const Json::Value body = e2e::parse(m["text"].asString());
    if (is(m["error"], 1)) {  // a crash notice
      const Json::Value& ops = body["opcodes"];
      const int slot = ops.size() == 1 ? slot_of(ops[0]["opcode"]) : -1;
      if (slot < 0 || !is(m["handle"], 0) || ops[0]["subsystems"].size() != 1 ||
          !is(ops[0]["subsystems"][0]["id"], 1)) {
        return soak_.fail("crash notices", who() + "malformed notice " + text_of(m));
      }
      log_.notices.emplace_back(Clock::now(), slot);
      connected_.erase(slot);
      return;
    }
    auto task = tasks_.find(m["handle"].asUInt());
    if (task == tasks_.end())
      return soak_.fail("routing", who() + "answer to no task " + text_of(m));
    const int slot = task->second.slot;
    const std::string nonce = task->second.nonce;
    tasks_.erase(task);
    // -5, nobody serves the pair: only while a killed slot's plugin is away.
    if (is(body["status"], -5) && slot >= kSteadySlots && body["opcode"] == opcode_text(slot))
      return;
    if (!is(body["status"], 0) || !is(body["session_id"], log_.id) ||
        !is(body["transac_id"], m["handle"].asUInt()) || body["nonce"] != nonce ||
        body["served"] != opcode_text(slot)) {
      return soak_.fail("routing", who() + "answer not to nonce " + nonce + ": " + text_of(m));
    }
    ++answers_;
  }

  Soak& soak_;
  const int index_;
  std::mt19937_64& rng_;
  e2e::JsonClient conn_;
  SessionLog log_;
  std::set<int> connected_;         // slots listed and not crashed since
  std::map<uint32_t, Task> tasks_;  // by transaction
  Time next_task_{};
  uint32_t transac_ = 0;
  uint64_t answers_ = 0;
};

}  // namespace

void run_client(Soak& soak, int index) {
  std::mt19937_64 rng(soak.seed * 7919 + static_cast<uint64_t>(index));
  while (!soak.stop) {
    try {
      Client(soak, index, rng).run();
    } catch (const std::exception& e) {  // the daemon closed, or sent what is no JSON
      soak.fail("routing", "client " + std::to_string(index) + ": " + e.what());
      std::this_thread::sleep_for(milliseconds(200));
    }
  }
}

}  // namespace lumokit::soak
