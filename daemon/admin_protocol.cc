#include "admin_protocol.h"

#include <cutils/properties.h>
#include <lumokit/host_platform.h>

#include "LumoManager.h"
#include "LumokitSessionManager.h"
#include "daemon_log.h"
#include "host/lumo_sys_host.h"
#include "ipc/json_text.h"
#include "message_fields.h"
#include "monitor_hub.h"
#include "session_cleanup.h"
#include "session_routing.h"
#include "state_view.h"

namespace lumokitd {

namespace {

using lumokit::ipc::error_message;
using lumokit::ipc::write_json;

Json::Value reply_for(const char* op) {
  Json::Value out(Json::objectValue);
  out["op"] = op;
  return out;
}

// Property names as the platform accepts them: printable, no blanks.
bool valid_property_name(const std::string& name, std::string* error) {
  if (name.empty()) {
    *error = "property name must not be empty";
    return false;
  }
  for (unsigned char c : name) {
    if (c <= 0x20 || c >= 0x7F) {
      *error = "property name \"" + name + "\" contains a blank or a control character";
      return false;
    }
  }
  return true;
}

std::string do_get_property(const Json::Value& msg) {
  std::string name, error;
  if (!read_string(msg, "name", true, &name, &error) || !valid_property_name(name, &error)) {
    return error_message(error);
  }
  Json::Value out = reply_for("get_property");
  out["name"] = name;
  out["value"] = lumokit::host::get_property(name, "");
  return write_json(out);
}

std::string do_set_property(const Json::Value& msg) {
  std::string name, value, error;
  if (!read_string(msg, "name", true, &name, &error) ||
      !read_string(msg, "value", true, &value, &error) || !valid_property_name(name, &error)) {
    return error_message(error);
  }
  if (value.size() >= PROPERTY_VALUE_MAX) {
    return error_message("property value must be shorter than " +
                         std::to_string(PROPERTY_VALUE_MAX) + " bytes");
  }
  lumokit::host::set_property(name, value);
  log_info("admin set property %s to \"%s\"", name.c_str(), value.c_str());
  Json::Value out = reply_for("set_property");
  out["name"] = name;
  out["value"] = value;
  return write_json(out);
}

std::string do_set_permission(const Json::Value& msg) {
  std::string permission, error;
  int32_t pid = 0;
  int32_t uid = 0;
  bool granted = false;
  if (!read_int32(msg, "pid", true, &pid, &error) || !read_int32(msg, "uid", true, &uid, &error) ||
      !read_string(msg, "permission", true, &permission, &error) ||
      !read_bool(msg, "granted", true, &granted, &error)) {
    return error_message(error);
  }
  if (permission.empty()) return error_message("member \"permission\" must not be empty");
  if (!lumosys::host::set_permission(pid, uid, permission, granted)) {
    return error_message("the system service is not running");
  }
  Json::Value out = reply_for("sys_set_permission");
  out["pid"] = pid;
  out["uid"] = uid;
  out["permission"] = permission;
  out["granted"] = granted;
  return write_json(out);
}

std::string do_sys_kill() {
  lumosys::host::kill();
  log_info("admin stopped the system service");
  Json::Value out = reply_for("sys_kill");
  out["alive"] = lumosys::host::is_alive();
  return write_json(out);
}

std::string do_sys_start() {
  lumosys::host::start();
  log_info("admin started the system service");
  Json::Value out = reply_for("sys_start");
  out["alive"] = lumosys::host::is_alive();
  return write_json(out);
}

std::string do_privacy_log() {
  Json::Value out = reply_for("sys_privacy_log");
  Json::Value& calls = out["calls"] = Json::Value(Json::arrayValue);
  for (const lumosys::host::PrivacyCall& call : lumosys::host::privacy_log()) {
    Json::Value entry(Json::objectValue);
    entry["operation"] = call.operation;
    entry["pid"] = call.pid;
    entry["uid"] = call.uid;
    entry["stop"] = call.stop;
    calls.append(entry);
  }
  return write_json(out);
}

std::string do_status(ConnectionRegistry& registry) {
  Json::Value state;
  std::string error;
  if (!parse_state(lumokit_state_dump(), &state, &error)) {
    return error_message("cannot read the manager state: " + error);
  }
  Json::Value out = reply_for("status");
  out["state"] = state;
  out["sys_alive"] = lumosys::host::is_alive();
  out["ready"] = lumokit::host::get_property("vendor.lumokit.ready", "0") == "1";
  out["clients"] = static_cast<Json::UInt64>(registry.client_count());
  out["admins"] = static_cast<Json::UInt64>(registry.admin_count());
  out["owned_sessions"] = static_cast<Json::UInt64>(owned_session_count());
  out["monitors"] = static_cast<Json::UInt64>(monitor_count());
  return write_json(out);
}

// Ends any session, whoever owns it, the way a disconnect would.
std::string do_end_session(uint64_t admin, const Json::Value& msg) {
  std::string error;
  uint32_t session_id = 0;
  if (!read_uint32(msg, "session_id", true, &session_id, &error)) return error_message(error);
  std::shared_ptr<ClientConnection> owner = session_owner(session_id);
  bool ended = end_session(admin, session_id);
  if (ended && owner) release_session(session_id, owner.get());
  log_info("admin ended session %u", session_id);
  Json::Value out = reply_for("end_session");
  out["session_id"] = session_id;
  out["ended"] = ended;
  return write_json(out);
}

}  // namespace

bool is_monitor_request(const char* data, size_t length) {
  Json::Value msg;
  std::string op, error;
  return read_request(data, length, &msg, &op, &error) && op == "monitor";
}

std::string handle_admin_message(ConnectionRegistry& registry, uint64_t admin, const char* data,
                                 size_t length) {
  Json::Value msg;
  std::string op, error;
  if (!read_request(data, length, &msg, &op, &error)) return error_message(error);
  if (op == "status") return do_status(registry);
  if (op == "get_property") return do_get_property(msg);
  if (op == "set_property") return do_set_property(msg);
  if (op == "sys_set_permission") return do_set_permission(msg);
  if (op == "sys_kill") return do_sys_kill();
  if (op == "sys_start") return do_sys_start();
  if (op == "sys_privacy_log") return do_privacy_log();
  if (op == "end_session") return do_end_session(admin, msg);
  return error_message("unknown op \"" + op + "\"");
}

}  // namespace lumokitd
