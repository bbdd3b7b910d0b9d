// A soak client connection on its own thread: what it sends, and how every
// message of the daemon is matched to the request or task it answers.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <thread>

#include "ipc/json_text.h"
#include "ipc/seqpacket.h"
#include "soak.h"

namespace lumokit::soak {

namespace {

constexpr int64_t kControlLimitNs = 40 * kSec;  // 8 plugins x 3 s of waits, and slack
constexpr int64_t kSilentNs = 3 * kSec;         // a denied task must stay unanswered this long
constexpr long kWindow = 2;                     // outstanding tasks per session
constexpr int kLifeMs = 12000;                  // mean life of a connection
constexpr int kGatedOneIn = 5;                  // share of gated tasks
constexpr uint32_t kDeniedEvery = 5;            // every 5th client lacks the gated permission

std::string opcode_text(uint32_t slot) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%X", kOpcodeBase + slot);
  return text;
}

// The parser stores numbers signed whatever their sign, so Json::Value
// equality with an unsigned would fail: compare by value.
bool is_uint(const Json::Value& v, uint64_t expected) {
  return v.isUInt64() && v.asUInt64() == expected;
}

std::string short_text(const Json::Value& v) { return lumokit::ipc::write_json(v).substr(0, 300); }

class Client {
 public:
  Client(uint32_t index, const std::atomic<int>& phase, ClientState& out, Failures& failures)
      : index_(index), phase_(phase), out_(out), failures_(failures), rng_(out.seed) {}

  void run() {
    int64_t retry_at = 0;
    for (Phase phase = now_phase(); phase != Phase::kClose; phase = now_phase()) {
      const int64_t now = mono_ns();
      std::string error;
      if (fd_ < 0 && phase != Phase::kRun && !out_.drained) {
        publish();  // lost its connection late: nothing to drain, nothing open
      } else if (fd_ < 0 && phase == Phase::kRun && now >= retry_at) {
        retry_at = now + 500 * kMs;
        fd_ = lumokit::ipc::connect_seqpacket(out_.socket, &error);
        if (fd_ < 0) fail("daemon alive", "cannot connect: " + error);
        to_create_ = kSessions / kClients + (index_ < kSessions % kClients ? 1 : 0);
        create_at_ = now;
        disconnect_at_ = now + jitter(kLifeMs);
      }
      if (fd_ < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
      maybe_control(phase, now);
      if (phase == Phase::kRun) send_tasks(now);
      expire(now);
      pump();
    }
    if (fd_ >= 0) disconnect(true);
  }

 private:
  struct Outstanding {
    uint32_t slot = 0;
    bool gated = false;
    bool denied = false;  // gated, of a client without the permission: must stay unanswered
    std::string nonce;
    int64_t t_send = 0, t_due = 0;  // t_due 0 while queued behind a pending control request
  };
  struct Live {
    size_t record = 0;
    std::vector<uint32_t> task_slots;  // pairs granted at creation
    std::set<uint32_t> connected;
    std::map<uint32_t, Outstanding> outstanding;  // by transaction
    uint32_t next_transac = 1;
    int64_t next_task_at = 0, reattach_at = 0;
  };
  enum class Control { kCreate, kReattach, kBarrier };
  struct Pending {
    Control kind = Control::kCreate;
    uint32_t handle = 0, session = 0;
    int64_t t_req = 0;
  };

  Phase now_phase() const { return static_cast<Phase>(phase_.load()); }
  void fail(const std::string& check, const std::string& detail) {
    failures_.add(check, "client " + std::to_string(index_) + ": " + detail);
  }
  int64_t jitter(int mean_ms) {  // uniform over [mean/2, 3*mean/2]
    return std::uniform_int_distribution<int64_t>(mean_ms / 2, mean_ms + mean_ms / 2)(rng_) * kMs;
  }

  void disconnect(bool final_close) {
    live_.clear();
    control_.reset();
    to_create_ = 0;
    close(fd_);
    fd_ = -1;
    out_.disconnects += final_close ? 0 : 1;
  }

  bool send(const std::string& text, const std::string& what) {
    if (lumokit::ipc::send_message(fd_, text)) return true;
    fail("daemon alive", "cannot send " + what + ": " + std::strerror(errno));
    disconnect(false);
    return false;
  }

  bool quiet() const {
    return std::all_of(live_.begin(), live_.end(),
                       [](const auto& entry) { return entry.second.outstanding.empty(); });
  }

  void publish() {
    std::lock_guard<std::mutex> lock(out_.mtx);
    out_.connected = fd_ >= 0;
    out_.open_sessions.clear();
    for (const auto& entry : live_) out_.open_sessions.push_back(out_.records[entry.second.record]);
    out_.drained = true;
  }

  void send_control(Control kind, uint32_t session) {
    const char* op = kind == Control::kBarrier ? "find_pid_uid" : "create_session";
    lumokit::ipc::ObjectWriter msg;
    msg.str("op", op).num("session_id", session);
    if (kind != Control::kBarrier) {
      msg.num("handle", next_handle_).str("request", "{}").num("pid", pid_).num("uid", uid_);
    }
    if (send(msg.done(), op)) control_ = Pending{kind, next_handle_++, session, mono_ns()};
  }

  void maybe_control(Phase phase, int64_t now) {
    if (control_) {
      if (now - control_->t_req > kControlLimitNs) {
        fail("daemon alive", "no answer to a create_session or find_pid_uid within 40 s");
        disconnect(false);
      }
      return;
    }
    const uint32_t any_session = live_.empty() ? 0 : live_.begin()->first;
    if (phase == Phase::kRun && to_create_ > 0) {
      if (now >= create_at_) send_control(Control::kCreate, 0);
    } else if (phase == Phase::kRun && now >= disconnect_at_) {
      send_control(Control::kBarrier, any_session);  // the disconnect follows its answer
    } else if (phase == Phase::kRun) {
      for (auto& [id, live] : live_) {
        if (live.reattach_at != 0 && now >= live.reattach_at) {
          live.reattach_at = 0;
          return send_control(Control::kReattach, id);
        }
      }
    } else if (phase == Phase::kDrain && !out_.drained && quiet()) {
      send_control(Control::kBarrier, any_session);
    }
  }

  void send_tasks(int64_t now) {
    for (auto& [id, live] : live_) {
      // Denied tasks wait out their silence beside the window.
      const long busy = std::count_if(live.outstanding.begin(), live.outstanding.end(),
                                      [](const auto& task) { return !task.second.denied; });
      if (live.task_slots.empty() || now < live.next_task_at || busy >= kWindow) continue;
      const uint32_t slot = live.task_slots[rng_() % live.task_slots.size()];
      const bool gated = rng_() % kGatedOneIn == 0;
      const uint32_t transac = live.next_transac++;
      char nonce[24], task[256];
      std::snprintf(nonce, sizeof(nonce), "%016" PRIx64, static_cast<uint64_t>(rng_()));
      std::snprintf(task, sizeof(task),
                    R"({"session_id":%u,"transac_id":%u,"opcode":"%s","subsys_id":%u,"func":)"
                    R"({"name":"%s","num_of_args":1,"args":[{"type":"string","value":"%s"}]}})",
                    id, transac, opcode_text(slot).c_str(), kSubsystem, gated ? "gated" : "echo",
                    nonce);
      lumokit::ipc::ObjectWriter msg;
      msg.str("op", "perform_task").num("session_id", id).str("request", task);
      if (!send(msg.done(), "a task")) return;
      ++out_.tasks_sent;
      live.outstanding[transac] =
          Outstanding{slot, gated, gated && denied_, nonce, now, control_ ? 0 : now};
      live.next_task_at = now + jitter(out_.interval_ms);
    }
  }

  void expire(int64_t now) {
    for (auto& entry : live_) {
      for (auto it = entry.second.outstanding.begin(); it != entry.second.outstanding.end();) {
        const Outstanding& task = it->second;
        if (now - task.t_send <= (task.denied ? kSilentNs : kTaskTimeoutNs)) {
          ++it;
          continue;
        }
        const int64_t t_due = task.t_due != 0 ? task.t_due : now;
        if (!task.denied) out_.misses.push_back({task.slot, task.gated, task.t_send, t_due, 0});
        it = entry.second.outstanding.erase(it);
      }
    }
  }

  void pump() {
    for (int i = 0; i < 64 && fd_ >= 0; ++i) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, i == 0 ? 5 : 0) <= 0) return;
      size_t length = 0;
      const auto rx = lumokit::ipc::recv_message(fd_, buffer_, &length);
      if (rx != lumokit::ipc::RecvStatus::kMessage) {
        fail("daemon alive", rx == lumokit::ipc::RecvStatus::kClosed
                                 ? "the daemon closed the client connection"
                                 : std::string("receive failed: ") + std::strerror(errno));
        return disconnect(false);
      }
      const std::string text(buffer_.data.get(), length);
      // Drained, nothing runs that could call back.
      if (out_.drained) fail("routing", "a message while all was quiet: " + text.substr(0, 300));
      Json::Value msg;
      std::string error;
      try {
        if (!lumokit::ipc::parse_json(text, &msg, &error) || !msg.isObject()) {
          fail("protocol", "daemon sent no JSON object: " + text.substr(0, 200));
        } else if ((msg["op"] == "callback" && msg["kind"].asInt() == 1) ||
                   msg["op"] == "find_pid_uid") {
          on_control_answer(msg);
        } else if (msg["op"] == "callback") {
          on_callback(msg);
        } else {
          fail("protocol", "unexpected message " + text.substr(0, 300));
        }
      } catch (const Json::Exception& e) {  // a member of the wrong type
        fail("protocol", std::string(e.what()) + " in " + text.substr(0, 300));
      }
    }
  }

  // The answer to a create_session (kind 1 callback) or a find_pid_uid.
  void on_control_answer(const Json::Value& msg) {
    const bool barrier = msg["op"] == "find_pid_uid";
    if (!control_ || barrier != (control_->kind == Control::kBarrier) ||
        (!barrier && msg["handle"].asUInt() != control_->handle)) {
      return fail("routing", "an answer nobody waits for: " + short_text(msg));
    }
    const Pending pending = *control_;
    control_.reset();
    const int64_t now = mono_ns();
    for (auto& entry : live_) {  // tasks queued behind it were due by now
      for (auto& task : entry.second.outstanding) {
        if (task.second.t_due == 0) task.second.t_due = now;
      }
    }
    const uint32_t session_id = msg["session_id"].asUInt();
    if (barrier) return on_barrier(msg, pending);
    const bool refused = msg["error"].asInt() == 1 && session_id == 0 && msg["text"] == "{}";
    // Granted: the pairs of the capability report, each with subsystem 1.
    Json::Value report;
    std::string error;
    std::set<uint32_t> slots;
    bool granted = msg["error"].asInt() == 0 && session_id != 0 &&
                   lumokit::ipc::parse_json(msg["text"].asString(), &report, &error);
    for (const Json::Value& entry : granted ? report["capability"]["opcodes"] : Json::Value()) {
      uint32_t slot = kPlugins;
      // A plugin that left while the report was written lists no subsystem.
      const Json::Value& subsystems = entry["subsystems"];
      granted = granted && read_slot(entry["opcode"].asString(), &slot) && subsystems.isArray() &&
                std::all_of(subsystems.begin(), subsystems.end(),
                            [](const Json::Value& s) { return is_uint(s["id"], kSubsystem); });
      slots.insert(slot);
    }
    granted = granted && !slots.empty();
    if (!granted && !refused) fail("protocol", "bad create_session answer: " + short_text(msg));
    if (pending.kind == Control::kCreate && !granted) {
      out_.creates_refused += refused ? 1 : 0;
      create_at_ = now + jitter(600);
    } else if (pending.kind == Control::kCreate && live_.count(session_id) != 0) {
      fail("routing", "session id " + std::to_string(session_id) + " issued twice");
    } else if (pending.kind == Control::kCreate) {
      out_.records.push_back(
          SessionRecord{session_id, index_, pid_, uid_, {{pending.t_req, now, slots}}, {}, 0});
      Live& live = live_[session_id];
      live.record = out_.records.size() - 1;
      live.task_slots.assign(slots.begin(), slots.end());
      live.connected = slots;
      live.next_task_at = now;
      --to_create_;
    } else {
      Live& live = live_.at(pending.session);  // sessions leave only with the connection
      if (granted && session_id != pending.session) {
        fail("routing", "re-attach answered for another session: " + short_text(msg));
      } else if (granted) {
        out_.records[live.record].attaches.push_back({pending.t_req, now, slots});
        live.connected.insert(slots.begin(), slots.end());
      }
      for (uint32_t slot : live.task_slots) {
        if (live.connected.count(slot) == 0) live.reattach_at = now + jitter(1500);
      }
    }
  }

  void on_barrier(const Json::Value& msg, const Pending& pending) {
    const uint32_t session_id = msg["session_id"].asUInt();
    if (session_id != pending.session ||
        (live_.count(session_id) != 0 &&
         (!is_uint(msg["found"], 1) || !msg["pid"].isInt() || msg["pid"].asInt() != pid_ ||
          !is_uint(msg["uid"], uid_)))) {
      fail("routing", "wrong find_pid_uid answer: " + short_text(msg));
    }
    for (auto& entry : live_) out_.records[entry.second.record].t_barrier = pending.t_req;
    const Phase phase = now_phase();
    if (phase == Phase::kRun && mono_ns() >= disconnect_at_) {
      disconnect(false);
    } else if (phase == Phase::kDrain && !out_.drained && quiet()) {
      // A barrier sent for a disconnect in the run counts only when nothing
      // is outstanding; otherwise the drain sends its own.
      publish();
    }
  }

  void on_callback(const Json::Value& msg) {
    // The daemon holds callbacks of a session being opened until its answer
    // is out, so even then the session must be known here.
    const uint32_t session_id = msg["session_id"].asUInt();
    auto found = live_.find(session_id);
    if (msg["kind"].asInt() != 2 || found == live_.end()) {
      return fail("routing", "callback for a session not of this connection: " + short_text(msg));
    }
    Live& live = found->second;
    const uint32_t handle = msg["handle"].asUInt();
    const std::string text = msg["text"].asString();
    const std::string where = " (session " + std::to_string(session_id) + ", transaction " +
                              std::to_string(handle) + "): " + text.substr(0, 300);
    Json::Value body;
    std::string error;
    const bool parsed = lumokit::ipc::parse_json(text, &body, &error) && body.isObject();
    if (msg["error"].asInt() == 1) {  // a crash notice
      const Json::Value& pairs = parsed ? body["opcodes"] : Json::Value::nullSingleton();
      const bool one = pairs.size() == 1 && pairs[0]["opcode"].isUInt();
      const uint32_t slot = one ? pairs[0]["opcode"].asUInt() - kOpcodeBase : kPlugins;
      if (handle != 0 || slot >= kPlugins || pairs[0]["subsystems"].size() != 1 ||
          !is_uint(pairs[0]["subsystems"][0]["id"], kSubsystem)) {
        return fail("crash notices", "malformed crash notice: " + short_text(msg));
      }
      out_.records[live.record].notices.emplace_back(mono_ns(), slot);
      live.connected.erase(slot);
      if (live.reattach_at == 0) live.reattach_at = mono_ns() + jitter(1500);
      return;
    }
    auto it = live.outstanding.find(handle);
    if (it == live.outstanding.end()) {
      return fail("routing", "answer to no outstanding task (or after the time limit)" + where);
    }
    const Outstanding task = it->second;
    live.outstanding.erase(it);
    if (task.denied) {
      fail("gate", "a gated task of a client without the permission was answered" + where);
    } else if (!parsed) {
      fail("routing", "task answer is not a JSON object" + where);
    } else if (body["req_type"] == "exec_task") {
      if (!is_uint(body["session_id"], session_id) || !is_uint(body["transac_id"], handle) ||
          !is_uint(body["echo_session"], session_id) || !is_uint(body["echo_transac"], handle) ||
          body["nonce"] != task.nonce || !is_uint(body["slot"], task.slot) ||
          body["name"] != (task.gated ? "gated" : "echo") || !is_uint(body["status"], 0)) {
        return fail("routing", "answer does not belong to its task, nonce " + task.nonce + where);
      }
      ++out_.answered;
      out_.gated_answered += task.gated ? 1 : 0;
    } else if (!body.isMember("status") || !body.isMember("func") ||
               !is_uint(body["transac_id"], handle) || body["opcode"] != opcode_text(task.slot)) {
      fail("routing", "task answer of unknown shape or for another task" + where);
    } else if (body["status"].isInt() && body["status"].asInt() == -5) {
      out_.misses.push_back({task.slot, task.gated, task.t_send, task.t_send, mono_ns()});
    } else {
      fail("tasks", "manager refused a well-formed task" + where);
    }
  }

  const uint32_t index_;
  // Each client has a pid of its own; every 5th has a uid without the
  // gated permission.
  const bool denied_ = index_ % kDeniedEvery == kDeniedEvery - 1;
  const int32_t pid_ = static_cast<int32_t>(41000 + index_);
  const uint32_t uid_ = denied_ ? 10501 : 10500;
  const std::atomic<int>& phase_;
  ClientState& out_;
  Failures& failures_;
  std::mt19937_64 rng_;
  int fd_ = -1;
  lumokit::ipc::RecvBuffer buffer_;
  std::map<uint32_t, Live> live_;
  std::optional<Pending> control_;
  uint32_t next_handle_ = 1;
  uint32_t to_create_ = 0;
  int64_t create_at_ = 0, disconnect_at_ = 0;
};

}  // namespace

void run_client(uint32_t index, const std::atomic<int>& phase, ClientState& state,
                Failures& failures) {
  Client(index, phase, state, failures).run();
}

bool read_slot(const std::string& opcode, uint32_t* slot) {
  char* end = nullptr;
  const unsigned long v =
      std::strtoul(opcode.c_str() + std::min<size_t>(2, opcode.size()), &end, 16);
  if (opcode.rfind("0x", 0) != 0 || *end != '\0' || v < kOpcodeBase ||
      v >= kOpcodeBase + kPlugins) {
    return false;
  }
  *slot = static_cast<uint32_t>(v - kOpcodeBase);
  return true;
}

}  // namespace lumokit::soak
