// What a soak client does with each message of the daemon: matches
// answers to the request or task they answer, and records crash notices.
#include "client_wire.h"
#include "client_worker.h"
#include "soak_clock.h"

namespace lumokit::soak {

void ClientWorker::on_message(const std::string& text) {
  Json::Value msg;
  std::string error;
  if (!parse_text(text, &msg, &error)) {
    fail("protocol", "daemon sent no JSON: " + text.substr(0, 200));
    return;
  }
  const std::string op = msg["op"].asString();
  if (op == "callback") {
    on_callback(msg);
  } else if (op == "find_pid_uid") {
    on_barrier(msg);
  } else {
    fail("protocol", "unexpected message " + text.substr(0, 300));
  }
}

void ClientWorker::on_callback(const Json::Value& msg) {
  const int kind = msg["kind"].asInt();
  if (kind == 1) {
    on_control_answer(msg);
    return;
  }
  const uint32_t session_id = msg["session_id"].asUInt();
  auto it = live_.find(session_id);
  if (kind == 2 && it == live_.end() && control_ && control_->kind == Control::kCreate) {
    early_.push_back(msg);  // judged when the creation answers
    return;
  }
  if (kind != 2 || it == live_.end()) {
    fail("routing", "callback for a session this connection does not own: " +
                        json_text(msg).substr(0, 300));
    return;
  }
  if (msg["error"].asInt() == 1) {
    on_notice(it->second, msg);
  } else {
    on_task_answer(it->second, session_id, msg);
  }
}

bool ClientWorker::report_slots(const std::string& report, std::set<uint32_t>* slots,
                                std::string* error) {
  Json::Value root;
  if (!parse_text(report, &root, error)) return false;
  const Json::Value& opcodes = root["capability"]["opcodes"];
  if (!opcodes.isArray()) {
    *error = "no capability.opcodes array";
    return false;
  }
  for (const Json::Value& entry : opcodes) {
    uint32_t opcode = 0;
    if (!read_hex(entry["opcode"].asString(), &opcode) || opcode < kOpcodeBase ||
        opcode - kOpcodeBase >= config_.plugins) {
      *error = "unknown opcode " + json_text(entry["opcode"]);
      return false;
    }
    for (const Json::Value& sub : entry["subsystems"]) {
      if (sub["id"].asUInt() != kSubsystem) {
        *error = "unknown subsystem " + json_text(sub).substr(0, 100);
        return false;
      }
    }
    slots->insert(opcode - kOpcodeBase);
  }
  return true;
}

void ClientWorker::on_control_answer(const Json::Value& msg) {
  const uint32_t handle = msg["handle"].asUInt();
  if (!control_ || control_->kind == Control::kBarrier || handle != control_->handle) {
    fail("routing", "create_session answer nobody waits for: " + json_text(msg).substr(0, 300));
    return;
  }
  const Pending pending = *control_;
  control_.reset();
  const int64_t now = mono_ns();
  note_control_done(pending.seq, now);
  const uint32_t session_id = msg["session_id"].asUInt();
  const int error_flag = msg["error"].asInt();
  const std::string text = msg["text"].asString();
  std::set<uint32_t> slots;
  std::string error;

  if (pending.kind == Control::kCreate) {
    if (error_flag == 1 && session_id == 0 && text == "{}") {
      ++totals_.creates_failed;
      ++creates_failed_;
      create_at_ = now + jitter(600);
      replay_early(0);
      return;
    }
    if (error_flag != 0 || session_id == 0 || !report_slots(text, &slots, &error) ||
        slots.empty()) {
      fail("protocol", "bad create_session answer (" + error + "): " + json_text(msg).substr(0, 300));
      create_at_ = now + jitter(600);
      replay_early(0);
      return;
    }
    if (live_.count(session_id) != 0) {
      fail("routing", "session id " + std::to_string(session_id) + " issued twice");
      replay_early(0);
      return;
    }
    SessionRecord rec;
    rec.id = session_id;
    rec.worker = config_.index;
    rec.pid = config_.pid;
    rec.uid = config_.uid;
    rec.denied = config_.denied;
    rec.attaches.push_back(AttachRecord{pending.t_req, now, slots});
    records_.push_back(std::move(rec));
    Live live;
    live.record = records_.size() - 1;
    live.task_slots.assign(slots.begin(), slots.end());
    live.connected = slots;
    live.next_task_at = now;
    live_.emplace(session_id, std::move(live));
    if (to_create_ > 0) --to_create_;
    replay_early(session_id);
    return;
  }

  auto it = live_.find(pending.session);
  if (it == live_.end()) return;  // cannot happen: sessions leave only with the connection
  Live& live = it->second;
  if (error_flag == 0 && session_id == pending.session && report_slots(text, &slots, &error) &&
      !slots.empty()) {
    records_[live.record].attaches.push_back(AttachRecord{pending.t_req, now, slots});
    live.connected.insert(slots.begin(), slots.end());
    ++totals_.reattach_ok;
  } else if (error_flag == 1 && session_id == 0 && text == "{}") {
    ++totals_.reattach_failed;
  } else {
    fail("protocol", "bad re-attach answer for session " + std::to_string(pending.session) + " (" +
                         error + "): " + json_text(msg).substr(0, 300));
  }
  for (uint32_t slot : live.task_slots) {
    if (live.connected.count(slot) == 0) {
      live.reattach_at = now + jitter(1500);
      break;
    }
  }
}

void ClientWorker::replay_early(uint32_t opened) {
  std::vector<Json::Value> early;
  early.swap(early_);
  for (const Json::Value& msg : early) {
    if (opened != 0 && msg["session_id"].asUInt() == opened) {
      fail("routing", "a callback for session " + std::to_string(opened) +
                          " came before the create_session answer that opened it: " +
                          json_text(msg).substr(0, 200));
    }
    on_callback(msg);  // an unknown session is reported there
  }
}

void ClientWorker::on_notice(Live& live, const Json::Value& msg) {
  Json::Value notice;
  std::string error;
  const std::string text = msg["text"].asString();
  bool ok = msg["handle"].asUInt() == 0 && parse_text(text, &notice, &error) &&
            notice["opcodes"].isArray() && notice["opcodes"].size() == 1;
  uint32_t opcode = 0;
  if (ok) {
    const Json::Value& entry = notice["opcodes"][0];
    ok = entry["opcode"].isUInt() && entry["subsystems"].isArray() &&
         entry["subsystems"].size() == 1 && entry["subsystems"][0]["id"].isUInt() &&
         entry["subsystems"][0]["id"].asUInt() == kSubsystem;
    opcode = ok ? entry["opcode"].asUInt() : 0;
    ok = ok && opcode >= kOpcodeBase && opcode - kOpcodeBase < config_.plugins;
  }
  if (!ok) {
    fail("crash notices", "malformed crash notice: " + json_text(msg).substr(0, 300));
    return;
  }
  const uint32_t slot = opcode - kOpcodeBase;
  const int64_t now = mono_ns();
  records_[live.record].notices.push_back(NoticeRecord{now, slot});
  ++totals_.notices;
  live.connected.erase(slot);
  if (live.reattach_at == 0) live.reattach_at = now + jitter(1500);
}

void ClientWorker::on_task_answer(Live& live, uint32_t session_id, const Json::Value& msg) {
  const uint32_t transac = msg["handle"].asUInt();
  const std::string text = msg["text"].asString();
  const std::string where =
      " (session " + std::to_string(session_id) + ", transaction " + std::to_string(transac) + ")";
  if (live.silent.count(transac) != 0) {
    fail("gate", "a gated task of a client without the permission was answered" + where + ": " +
                     text.substr(0, 200));
    live.silent.erase(transac);
    return;
  }
  auto it = live.outstanding.find(transac);
  if (it == live.outstanding.end()) {
    fail("routing", std::string(live.timed_out.count(transac) ? "answer after the time limit"
                                                              : "answer to no outstanding task") +
                        where + ": " + text.substr(0, 200));
    return;
  }
  const Outstanding task = it->second;
  live.outstanding.erase(it);

  Json::Value answer;
  std::string error;
  if (!parse_text(text, &answer, &error) || !answer.isObject()) {
    fail("routing", "task answer is not a JSON object" + where + ": " + text.substr(0, 200));
    return;
  }
  if (answer["req_type"] == "exec_task") {
    const bool matches =
        is_uint(answer["session_id"], session_id) && is_uint(answer["transac_id"], transac) &&
        is_uint(answer["echo_session"], session_id) && is_uint(answer["echo_transac"], transac) &&
        answer["nonce"] == task.nonce && is_uint(answer["slot"], task.slot) &&
        answer["name"] == (task.gated ? "gated" : "echo") && is_int(answer["status"], 0);
    if (!matches) {
      fail("routing", "answer does not belong to the task" + where + ", slot " +
                          std::to_string(task.slot) + " nonce " + task.nonce + ": " +
                          text.substr(0, 300));
      return;
    }
    ++totals_.answered;
    if (task.gated) ++totals_.gated_answered;
    return;
  }
  if (answer.isMember("status") && answer.isMember("func")) {
    if (!is_uint(answer["transac_id"], transac) || answer["opcode"] != opcode_text(task.slot)) {
      fail("routing", "manager error answer for another task" + where + ": " + text.substr(0, 200));
      return;
    }
    if (is_int(answer["status"], -5)) {
      totals_.unserved.push_back(
          TaskMiss{task.slot, task.gated, false, task.t_send, task.t_send, mono_ns()});
      return;
    }
    fail("tasks", "manager refused a well-formed task" + where + ": " + text.substr(0, 200));
    return;
  }
  fail("routing", "task answer of unknown shape" + where + ": " + text.substr(0, 200));
}

void ClientWorker::on_barrier(const Json::Value& msg) {
  if (!control_ || control_->kind != Control::kBarrier) {
    fail("protocol", "find_pid_uid answer nobody waits for: " + json_text(msg));
    return;
  }
  const Pending pending = *control_;
  control_.reset();
  note_control_done(pending.seq, mono_ns());
  const uint32_t session_id = msg["session_id"].asUInt();
  if (session_id != pending.session) {
    fail("routing", "find_pid_uid answer for another session: " + json_text(msg));
  } else if (live_.count(session_id) != 0 &&
             (!is_uint(msg["found"], 1) || !is_int(msg["pid"], config_.pid) ||
              !is_uint(msg["uid"], config_.uid))) {
    fail("routing", "find_pid_uid for an open session: " + json_text(msg));
  }
  for (auto& entry : live_) records_[entry.second.record].t_barrier = pending.t_req;
  const Phase phase = static_cast<Phase>(phase_.load(std::memory_order_acquire));
  if (phase == Phase::kRun) {
    if (mono_ns() >= disconnect_at_) disconnect(false);
    return;
  }
  if (phase == Phase::kDrain && !drain_barrier_done_) {
    // A barrier sent for a disconnect in the run counts only when nothing
    // is outstanding; otherwise the drain sends its own.
    for (const auto& entry : live_) {
      if (!entry.second.outstanding.empty() || !entry.second.silent.empty()) return;
    }
    drain_barrier_done_ = true;
    publish_live();
    drained_.store(true, std::memory_order_release);
  }
}

}  // namespace lumokit::soak
