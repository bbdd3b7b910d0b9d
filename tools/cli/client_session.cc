#include "client_session.h"

#include <thread>

#include "ipc/json_text.h"
#include "ipc/runtime_paths.h"
#include "printing.h"

namespace lumokit::cli {

namespace {

using lumokit::ipc::ObjectWriter;

bool is_error(const Message& m) { return m.json.isObject() && m.json["op"] == "error"; }

std::string error_text(const Message& m) {
  const Json::Value& msg = m.json["message"];
  return msg.isString() ? msg.asString() : m.raw;
}

}  // namespace

bool ClientSession::connect(std::string* error) {
  std::string path = lumokit::ipc::runtime_file(settings_.runtime_dir, lumokit::ipc::kClientSocketName);
  return link_.open(path, [this](const Message& m) { on_unasked(m); }, error);
}

void ClientSession::on_unasked(const Message& msg) {
  const Json::Value& j = msg.json;
  if (j.isObject() && j["op"] == "callback" && j["error"].isIntegral() && j["error"].asInt() == 1 &&
      j["kind"].isIntegral() && j["kind"].asInt() == 2) {
    crashes_.fetch_add(1);
  }
  print_message(msg, settings_.json);
}

bool ClientSession::open(const Identity& who, uint32_t session_id, std::string* error) {
  uint32_t handle = next_handle_++;
  ObjectWriter req;
  req.str("op", "create_session").num("session_id", session_id).num("handle", handle);
  if (who.stated) req.num("pid", who.pid).num("uid", who.uid);
  Message answer;
  // Each plugin may take up to 3 s to start the session.
  if (!link_.request(req.done(), session_answer(handle), settings_.timeout + std::chrono::seconds(10),
                     &answer, error)) {
    return false;
  }
  print_message(answer, settings_.json);
  if (is_error(answer)) {
    *error = error_text(answer);
    return false;
  }
  const Json::Value& j = answer.json;
  if (j["error"].asInt() != 0 || !j["session_id"].isUInt() || j["session_id"].asUInt() == 0) {
    *error = "the manager did not open a session";
    return false;
  }
  session_id_ = j["session_id"].asUInt();
  return true;
}

bool ClientSession::wait_answer(const std::string& text, uint32_t transac_id, std::string* error) {
  std::string req = ObjectWriter()
                        .str("op", "perform_task")
                        .num("session_id", session_id_)
                        .str("request", text)
                        .done();
  Message answer;
  if (!link_.request(req, task_answer(session_id_, transac_id), settings_.timeout, &answer, error)) {
    return false;
  }
  print_message(answer, settings_.json);
  if (is_error(answer)) {
    *error = error_text(answer);
    return false;
  }
  return true;
}

bool ClientSession::run_task(const TaskCall& task, std::string* error) {
  uint32_t transac_id = next_transac_++;
  return wait_answer(build_task_request(task, session_id_, transac_id), transac_id, error);
}

bool ClientSession::run_raw(const std::string& request, std::string* error) {
  Json::Value parsed;
  std::string parse_error;
  uint32_t transac_id = 0;
  if (!lumokit::ipc::parse_json(request, &parsed, &parse_error) || !parsed.isObject()) {
    // Sent anyway: seeing how the manager treats bad text is the point.
    return wait_answer(request, transac_id, error);
  }
  if (parsed["transac_id"].isUInt()) transac_id = parsed["transac_id"].asUInt();
  const Json::Value& sid = parsed["session_id"];
  if (sid.isNull() || (sid.isIntegral() && sid.asInt64() == 0)) {
    // The caller cannot know the session's number in advance.
    parsed["session_id"] = session_id_;
    return wait_answer(lumokit::ipc::write_json(parsed), transac_id, error);
  }
  return wait_answer(request, transac_id, error);
}

bool ClientSession::cancel(uint32_t opcode, uint32_t subsys, std::string* error) {
  std::string req = ObjectWriter()
                        .str("op", "cancel_session")
                        .num("session_id", session_id_)
                        .num("opcode", opcode)
                        .num("subsys", subsys)
                        .done();
  Message answer;
  // A plugin that does not acknowledge holds the cancel for 3 s.
  if (!link_.request(req, reply_to("cancel_session"), settings_.timeout + std::chrono::seconds(10),
                     &answer, error)) {
    return false;
  }
  if (is_error(answer)) {
    print_message(answer, settings_.json);
    *error = error_text(answer);
    return false;
  }
  if (settings_.json) {
    print_line(answer.raw);
  } else {
    int64_t result = answer.json["result"].asInt64();
    print_line("session " + std::to_string(session_id_) + " cancel: result " + std::to_string(result) +
               (result == 2 ? " (nothing to end)" : ""));
  }
  return true;
}

bool ClientSession::find_pid_uid(std::string* error) {
  std::string req =
      ObjectWriter().str("op", "find_pid_uid").num("session_id", session_id_).done();
  Message answer;
  if (!link_.request(req, reply_to("find_pid_uid"), settings_.timeout, &answer, error)) return false;
  if (is_error(answer)) {
    print_message(answer, settings_.json);
    *error = error_text(answer);
    return false;
  }
  if (settings_.json) {
    print_line(answer.raw);
  } else if (answer.json["found"].asInt() == 1) {
    print_line("session " + std::to_string(session_id_) + ": pid " +
               std::to_string(answer.json["pid"].asInt()) + ", uid " +
               std::to_string(answer.json["uid"].asUInt()));
  } else {
    print_line("session " + std::to_string(session_id_) + " is not known to the manager");
  }
  return true;
}

bool ClientSession::await_crash(std::chrono::milliseconds timeout, std::string* error) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (crashes_.load() <= crashes_seen_) {
    if (link_.closed()) {
      *error = "the daemon closed the connection";
      return false;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      *error = "no crash notice within " + std::to_string(timeout.count()) + " ms";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  crashes_seen_ = crashes_.load();
  return true;
}

}  // namespace lumokit::cli
