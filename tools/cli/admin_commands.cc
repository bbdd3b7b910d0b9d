#include "admin_commands.h"

#include <cstdio>

#include "daemon_link.h"
#include "exit_codes.h"
#include "ipc/json_text.h"
#include "ipc/runtime_paths.h"
#include "printing.h"

namespace lumokit::cli {

namespace {

using lumokit::ipc::ObjectWriter;

// Sends one admin request; prints the reply via `describe` (or raw JSON).
int admin_call(const Settings& settings, const std::string& op, const std::string& request,
               std::string (*describe)(const Json::Value&)) {
  DaemonLink link;
  std::string error;
  std::string path = lumokit::ipc::runtime_file(settings.runtime_dir, lumokit::ipc::kAdminSocketName);
  if (!link.open(path, nullptr, &error)) {
    std::fprintf(stderr, "lumokit: %s (is lumokitd running?)\n", error.c_str());
    return kFailed;
  }
  Message reply;
  // Ending a session waits for each plugin's acknowledgement (3 s at most).
  auto timeout = settings.timeout + std::chrono::seconds(op == "end_session" ? 30 : 0);
  if (!link.request(request, reply_to(op), timeout, &reply, &error)) {
    std::fprintf(stderr, "lumokit: %s\n", error.c_str());
    return kFailed;
  }
  bool failed = reply.json["op"] == "error";
  if (settings.json) {
    print_line(reply.raw);
  } else if (failed) {
    print_line("error: " + reply.json["message"].asString());
  } else {
    print_line(describe(reply.json));
  }
  return failed ? kFailed : kOk;
}

std::string show_status(const Json::Value& v) { return describe_status(v); }
std::string show_property(const Json::Value& v) {
  return v["name"].asString() + "=" + v["value"].asString();
}
std::string show_permission(const Json::Value& v) {
  return std::string(v["granted"].asBool() ? "granted " : "revoked ") + v["permission"].asString() +
         " for pid " + std::to_string(v["pid"].asInt()) + ", uid " + std::to_string(v["uid"].asInt());
}
std::string show_alive(const Json::Value& v) {
  return std::string("system service ") + (v["alive"].asBool() ? "running" : "stopped");
}
std::string show_privacy_log(const Json::Value& v) {
  std::string out;
  for (const Json::Value& call : v["calls"]) {
    if (!out.empty()) out += "\n";
    out += (call["stop"].asBool() ? "stop  " : "start ") + call["operation"].asString() + " pid " +
           std::to_string(call["pid"].asInt()) + " uid " + std::to_string(call["uid"].asInt());
  }
  return out.empty() ? "no privacy operations recorded" : out;
}
std::string show_end_session(const Json::Value& v) {
  return "session " + std::to_string(v["session_id"].asUInt()) +
         (v["ended"].asBool() ? " ended" : " could not be ended completely");
}

}  // namespace

const char* admin_usage() {
  return "  status                       plugins, sessions and connections\n"
         "  cancel SESSION               end a session of any client\n"
         "  prop get NAME                read a system property\n"
         "  prop set NAME VALUE          set a system property\n"
         "  perm grant|revoke PID UID PERMISSION\n"
         "                               change an app's permission in the system service\n"
         "  sys kill|start               stop or start the system service\n"
         "  privacy-log                  privacy operations the system service recorded\n";
}

int run_admin_command(const Settings& settings, const std::vector<std::string>& w, bool* handled) {
  *handled = true;
  const std::string cmd = w.empty() ? "" : w[0];
  if (cmd == "status") {
    if (w.size() != 1) return usage_error("status takes no arguments");
    return admin_call(settings, "status", ObjectWriter().str("op", "status").done(), show_status);
  }
  if (cmd == "cancel") {
    uint32_t session = 0;
    if (w.size() != 2 || !parse_u32(w[1], &session)) return usage_error("usage: cancel SESSION");
    return admin_call(settings, "end_session",
                      ObjectWriter().str("op", "end_session").num("session_id", session).done(),
                      show_end_session);
  }
  if (cmd == "prop") {
    if (w.size() == 3 && w[1] == "get") {
      return admin_call(settings, "get_property",
                        ObjectWriter().str("op", "get_property").str("name", w[2]).done(),
                        show_property);
    }
    if (w.size() == 4 && w[1] == "set") {
      return admin_call(
          settings, "set_property",
          ObjectWriter().str("op", "set_property").str("name", w[2]).str("value", w[3]).done(),
          show_property);
    }
    return usage_error("usage: prop get NAME | prop set NAME VALUE");
  }
  if (cmd == "perm") {
    int32_t pid = 0;
    int32_t uid = 0;
    if (w.size() != 5 || (w[1] != "grant" && w[1] != "revoke") || !parse_i32(w[2], &pid) ||
        !parse_i32(w[3], &uid) || w[4].empty()) {
      return usage_error("usage: perm grant|revoke PID UID PERMISSION");
    }
    return admin_call(settings, "sys_set_permission",
                      ObjectWriter()
                          .str("op", "sys_set_permission")
                          .num("pid", pid)
                          .num("uid", uid)
                          .str("permission", w[4])
                          .boolean("granted", w[1] == "grant")
                          .done(),
                      show_permission);
  }
  if (cmd == "sys") {
    if (w.size() == 2 && (w[1] == "kill" || w[1] == "start")) {
      const std::string op = "sys_" + w[1];
      return admin_call(settings, op, ObjectWriter().str("op", op).done(), show_alive);
    }
    return usage_error("usage: sys kill | sys start");
  }
  if (cmd == "privacy-log") {
    if (w.size() != 1) return usage_error("privacy-log takes no arguments");
    return admin_call(settings, "sys_privacy_log",
                      ObjectWriter().str("op", "sys_privacy_log").done(), show_privacy_log);
  }
  *handled = false;
  return kUsage;
}

}  // namespace lumokit::cli
