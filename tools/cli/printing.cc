#include "printing.h"

#include <cstdio>
#include <mutex>
#include <sstream>

#include "exit_codes.h"
#include "ipc/json_text.h"

namespace lumokit::cli {

int usage_error(const std::string& message) {
  std::fprintf(stderr, "lumokit: %s\n", message.c_str());
  return kUsage;
}

namespace {

std::mutex out_mtx;

std::string compact(const Json::Value& v) { return lumokit::ipc::write_json(v); }

std::string text_of(const Json::Value& v) { return v.isString() ? v.asString() : compact(v); }

// "0x1001/1, 0x2002/3" from [{"opcode":"0x1001","subsystem":1},...].
std::string pair_list(const Json::Value& pairs) {
  std::string out;
  for (const Json::Value& p : pairs) {
    if (!p.isObject()) continue;
    if (!out.empty()) out += ", ";
    out += text_of(p["opcode"]) + "/" + text_of(p["subsystem"]);
  }
  return out.empty() ? "none" : out;
}

// {"opcodes":[{"opcode" : 4097, "subsystems": [{"id" : 1}]}]} -> "0x1001/1".
std::string describe_crash(const std::string& text) {
  Json::Value v;
  std::string error;
  if (!lumokit::ipc::parse_json(text, &v, &error) || !v.isObject() || !v["opcodes"].isArray()) {
    return text;
  }
  std::string out;
  for (const Json::Value& op : v["opcodes"]) {
    if (!op.isObject() || !op["opcode"].isUInt()) continue;
    char hex[16];
    std::snprintf(hex, sizeof(hex), "0x%X", op["opcode"].asUInt());
    for (const Json::Value& ss : op["subsystems"]) {
      if (!out.empty()) out += ", ";
      out += std::string(hex) + "/" + (ss.isObject() ? text_of(ss["id"]) : text_of(ss));
    }
  }
  return out.empty() ? "nothing" : out;
}

// A task answer: its status and return value when it has them.
std::string describe_task_answer(const std::string& text) {
  if (text.empty()) return "the manager could not read the request (empty answer)";
  Json::Value v;
  std::string error;
  if (!lumokit::ipc::parse_json(text, &v, &error) || !v.isObject()) return text;
  std::string out;
  if (v.isMember("status")) out += "status " + text_of(v["status"]);
  if (v.isMember("return")) out += (out.empty() ? "" : ", ") + std::string("return ") + text_of(v["return"]);
  if (v.isMember("message")) out += (out.empty() ? "" : ", ") + text_of(v["message"]);
  if (v.isMember("error") && v["error"].isString()) {
    out += (out.empty() ? "" : ", ") + v["error"].asString();
  }
  return out.empty() ? text : out;
}

}  // namespace

void print_line(const std::string& line) {
  std::lock_guard<std::mutex> lock(out_mtx);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

std::string describe_capability(const std::string& report) {
  Json::Value v;
  std::string error;
  if (!lumokit::ipc::parse_json(report, &v, &error) || !v.isObject() ||
      !v["capability"].isObject() || !v["capability"]["opcodes"].isArray()) {
    return report;
  }
  std::string out;
  for (const Json::Value& op : v["capability"]["opcodes"]) {
    if (!op.isObject()) continue;
    if (!out.empty()) out += "; ";
    out += text_of(op["opcode"]);
    std::string name = op["name"].isString() ? op["name"].asString() : "";
    if (!name.empty() && name != " ") out += " " + name;
    std::string subs;
    for (const Json::Value& ss : op["subsystems"]) {
      if (!ss.isObject() || !ss.isMember("id")) continue;
      subs += (subs.empty() ? "" : ",") + text_of(ss["id"]);
    }
    if (!subs.empty()) out += " [" + subs + "]";
  }
  return out.empty() ? "no services" : out;
}

std::string describe_message(const Message& msg) {
  const Json::Value& j = msg.json;
  if (!j.isObject() || !j["op"].isString()) return msg.raw;
  const std::string op = j["op"].asString();
  if (op == "error") return "error: " + text_of(j["message"]);
  if (op != "callback") return msg.raw;
  const std::string session = text_of(j["session_id"]);
  const std::string text = j["text"].isString() ? j["text"].asString() : "";
  const bool failed = j["error"].isIntegral() && j["error"].asInt64() != 0;
  if (j["kind"].isIntegral() && j["kind"].asInt64() == 1) {
    if (failed) return "session not opened: no plugin accepted it";
    return "session " + session + " open: " + describe_capability(text);
  }
  if (failed) return "session " + session + ": plugin gone, lost " + describe_crash(text);
  return "session " + session + " answer #" + text_of(j["handle"]) + ": " +
         describe_task_answer(text);
}

std::string describe_status(const Json::Value& status) {
  std::ostringstream out;
  const Json::Value& state = status["state"];
  out << "manager " << (status["ready"].asBool() ? "ready" : "not ready") << ", system service "
      << (status["sys_alive"].asBool() ? "running" : "not running") << ", "
      << status["clients"].asUInt64() << " client connection(s)\n";
  const Json::Value& plugins = state["plugins"];
  if (plugins.empty()) out << "no plugins\n";
  for (const Json::Value& p : plugins) {
    out << "plugin " << text_of(p["service_id"]) << ": state " << text_of(p["state"])
        << (p["died"].asBool() ? " (died)" : "") << ", " << text_of(p["queued"]) << " queued\n";
    for (const Json::Value& pair : p["pairs"]) {
      out << "  " << text_of(pair["opcode"]) << "/" << text_of(pair["subsystem"])
          << (pair["ready"].asBool() ? " ready" : " not ready") << "\n";
    }
  }
  const Json::Value& sessions = state["sessions"];
  if (sessions.empty()) out << "no sessions\n";
  for (const Json::Value& s : sessions) {
    out << "session " << text_of(s["session_id"]) << ": pid " << text_of(s["pid"]) << ", uid "
        << text_of(s["uid"]) << ", plugins " << compact(s["plugins"]) << "\n";
    out << "  connected: " << pair_list(s["connected"]) << "\n";
    out << "  granted:   " << pair_list(s["granted"]) << "\n";
  }
  std::string text = out.str();
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

void print_message(const Message& msg, bool json_mode) {
  print_line(json_mode ? msg.raw : describe_message(msg));
}

}  // namespace lumokit::cli
