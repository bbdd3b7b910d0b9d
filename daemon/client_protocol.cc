#include "client_protocol.h"

#include "LumokitSessionManager.h"
#include "daemon_log.h"
#include "ipc/json_text.h"
#include "json_scan.h"
#include "message_fields.h"
#include "monitor_hub.h"
#include "session_cleanup.h"
#include "session_routing.h"

namespace lumokitd {

namespace {

using lumokit::ipc::error_message;
using lumokit::ipc::ObjectWriter;

// A connection thread keeps its task buffer up to this size between tasks.
constexpr size_t kKeptTaskCapacity = 64 * 1024;

std::string not_owner(uint32_t session_id) {
  return error_message("session " + std::to_string(session_id) +
                       " belongs to another connection");
}

std::string do_create_session(ClientConnection& conn, const ClientPolicy& policy,
                              const Json::Value& msg) {
  std::string error;
  uint32_t session_id = 0;
  uint32_t handle = 0;
  std::string request;
  int32_t pid = static_cast<int32_t>(conn.peer_pid());
  uint32_t uid = static_cast<uint32_t>(conn.peer_uid());
  int32_t stated_pid = pid;
  uint32_t stated_uid = uid;
  if (!read_uint32(msg, "session_id", false, &session_id, &error) ||
      !read_uint32(msg, "handle", false, &handle, &error) ||
      !read_string(msg, "request", false, &request, &error) ||
      !read_int32(msg, "pid", false, &stated_pid, &error) ||
      !read_uint32(msg, "uid", false, &stated_uid, &error)) {
    return error_message(error);
  }
  if (policy.trust_client_ids) {
    pid = stated_pid;
    uid = stated_uid;
  }
  if (session_id != 0 && owned_by_other(session_id, &conn)) return not_owner(session_id);

  if (monitors_watching()) {
    MonitorEvent event = client_call_event(conn.id(), "create_session", session_id,
                                           request.data(), request.size());
    event.handle = handle;
    event.pid = pid;
    event.uid = uid;
    record_client_call(std::move(event));
  }
  CallScope scope(&conn, session_id, /*creating=*/true);
  create_session(std::move(request), route_manager_callback, session_id, handle, pid, uid);
  return std::string();
}

std::string run_task(ClientConnection& conn, uint32_t session_id, const std::string& text) {
  if (owned_by_other(session_id, &conn)) return not_owner(session_id);
  if (monitors_watching()) {
    record_client_call(
        client_call_event(conn.id(), "perform_task", session_id, text.data(), text.size()));
  }
  CallScope scope(&conn, session_id);
  perform_task(text, route_manager_callback, session_id);
  return std::string();
}

std::string do_perform_task(ClientConnection& conn, const Json::Value& msg) {
  std::string error;
  uint32_t session_id = 0;
  if (!read_uint32(msg, "session_id", true, &session_id, &error)) return error_message(error);
  const Json::Value& request = msg["request"];
  if (!request.isString()) {
    return error_message(msg.isMember("request") ? "member \"request\" must be a string"
                                                 : "missing member \"request\"");
  }
  // The task text goes to the plugin byte for byte; read it without a copy.
  const char* begin = nullptr;
  const char* end = nullptr;
  request.getString(&begin, &end);
  return run_task(conn, session_id, std::string(begin, end));
}

// The usual task envelope, {"op":"perform_task","session_id":N,"request":"..."}
// with nothing else in it, read in one pass. False for anything else, which
// the full parser then reads and answers.
bool read_task_envelope(const char* data, size_t length, uint32_t* session_id,
                        std::string* request) {
  JsonFlatMember members[] = {{"op"}, {"session_id"}, {"request"}};
  if (!scan_flat_object(data, length, members, 3)) return false;
  const JsonFlatMember& op = members[0];
  const JsonFlatMember& id = members[1];
  const JsonFlatMember& text = members[2];
  if (op.kind != JsonFlatMember::kString || op.escaped || op.text != "perform_task") return false;
  if (id.kind != JsonFlatMember::kNumber || !json_plain_uint32(id.text, session_id)) return false;
  if (text.kind != JsonFlatMember::kString) return false;
  request->clear();
  json_decode_string(text.text, request);
  return true;
}

std::string do_cancel_session(ClientConnection& conn, const Json::Value& msg) {
  std::string error;
  uint32_t session_id = 0;
  uint32_t opcode = 0;
  uint32_t subsys = 0;
  if (!read_uint32(msg, "session_id", true, &session_id, &error) ||
      !read_uint32(msg, "opcode", false, &opcode, &error) ||
      !read_uint32(msg, "subsys", false, &subsys, &error)) {
    return error_message(error);
  }
  if (owned_by_other(session_id, &conn)) return not_owner(session_id);

  uint32_t result;
  {
    CallScope scope(&conn, session_id);
    result = cancel_for(conn.id(), session_id, opcode, subsys);
  }
  // The manager drops a session's ids only when the session has ended.
  int32_t pid = 0;
  uint32_t uid = 0;
  if (find_pid_uid_session_id(session_id, &pid, &uid) == 0) release_session(session_id, &conn);
  return ObjectWriter()
      .str("op", "cancel_session")
      .num("session_id", session_id)
      .num("result", result)
      .done();
}

std::string do_find_pid_uid(ClientConnection& conn, const Json::Value& msg) {
  std::string error;
  uint32_t session_id = 0;
  if (!read_uint32(msg, "session_id", true, &session_id, &error)) return error_message(error);
  if (owned_by_other(session_id, &conn)) return not_owner(session_id);

  int32_t pid = 0;
  uint32_t uid = 0;
  uint32_t found = find_pid_uid_session_id(session_id, &pid, &uid);
  ObjectWriter out;
  out.str("op", "find_pid_uid").num("session_id", session_id).num("found", found);
  if (found == 1) out.num("pid", pid).num("uid", uid);
  return out.done();
}

}  // namespace

std::string handle_client_message(ClientConnection& conn, const ClientPolicy& policy,
                                  const char* data, size_t length) {
  uint32_t session_id = 0;
  // Reused by the connection's thread so that a task costs no allocation here.
  thread_local std::string task_text;
  if (read_task_envelope(data, length, &session_id, &task_text)) {
    std::string reply = run_task(conn, session_id, task_text);
    if (task_text.capacity() > kKeptTaskCapacity) std::string().swap(task_text);
    return reply;
  }
  Json::Value msg;
  std::string op, error;
  if (!read_request(data, length, &msg, &op, &error)) return error_message(error);
  if (op == "perform_task") return do_perform_task(conn, msg);
  if (op == "create_session") return do_create_session(conn, policy, msg);
  if (op == "cancel_session") return do_cancel_session(conn, msg);
  if (op == "find_pid_uid") return do_find_pid_uid(conn, msg);
  return error_message("unknown op \"" + op + "\"");
}

}  // namespace lumokitd
