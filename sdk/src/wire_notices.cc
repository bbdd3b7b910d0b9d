// Reading what the manager sends on its own: session starts and ends,
// tasks and permission changes.
#include <cctype>
#include <limits>
#include <string>

#include "lumokit/plugin_wire.h"

namespace lumokit::wire {
namespace {

bool parse_decimal_u32(const std::string& text, uint32_t* out) {
  if (text.empty() || text.size() > 10) return false;
  unsigned long long value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > std::numeric_limits<uint32_t>::max()) return false;
  *out = static_cast<uint32_t>(value);
  return true;
}

bool read_u32(const Json::Value& obj, const char* key, uint32_t* out, std::string* error) {
  const Json::Value& v = obj[key];
  if (!v.isUInt()) {
    *error = std::string("\"") + key + "\" is missing or not an unsigned 32-bit number";
    return false;
  }
  *out = v.asUInt();
  return true;
}

bool read_decimal_text(const Json::Value& obj, const char* key, uint32_t* out,
                       std::string* error) {
  const Json::Value& v = obj[key];
  if (!v.isString() || !parse_decimal_u32(v.asString(), out)) {
    *error = std::string("\"") + key + "\" is missing or not a decimal text";
    return false;
  }
  return true;
}

}  // namespace

bool parse_hex_u32(const std::string& text, uint32_t* out) {
  size_t i = 0;
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) i = 2;
  if (i == text.size()) return false;
  unsigned long long value = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    const unsigned digit = std::isdigit(static_cast<unsigned char>(c))
                               ? static_cast<unsigned>(c - '0')
                               : static_cast<unsigned>(std::tolower(c) - 'a' + 10);
    value = value * 16 + digit;
    if (value > std::numeric_limits<uint32_t>::max()) return false;
  }
  *out = static_cast<uint32_t>(value);
  return true;
}

bool parse_session_start(const Json::Value& msg, SessionStart* out, std::string* error) {
  SessionStart start;
  if (!read_u32(msg, "session_id", &start.session_id, error)) return false;
  const Json::Value& opcodes = msg["opcodes"];
  if (!opcodes.isArray()) {
    *error = "\"opcodes\" is missing or not an array";
    return false;
  }
  for (const Json::Value& entry : opcodes) {
    uint32_t opcode = 0;
    if (!entry.isObject() || !entry["id"].isString() ||
        !parse_hex_u32(entry["id"].asString(), &opcode)) {
      *error = "an opcode entry has no hexadecimal \"id\"";
      return false;
    }
    const Json::Value& subsystems = entry["subsystems"];
    if (!subsystems.isArray()) {
      *error = "opcode " + entry["id"].asString() + " has no \"subsystems\" array";
      return false;
    }
    for (const Json::Value& sub : subsystems) {
      if (!sub.isObject() || !sub["id"].isUInt()) {
        *error = "a subsystem of opcode " + entry["id"].asString() + " has no unsigned \"id\"";
        return false;
      }
      start.requested.push_back({opcode, sub["id"].asUInt()});
    }
  }
  *out = std::move(start);
  return true;
}

bool parse_end_session(const Json::Value& msg, uint32_t* session_id, std::string* error) {
  return read_u32(msg, "session_id", session_id, error);
}

bool is_task_request(const Json::Value& msg) {
  return msg.isObject() && msg.isMember("transac_id") && msg.isMember("func");
}

bool parse_task_request(const Json::Value& msg, TaskRequest* out, std::string* error) {
  // The ids first, so that a caller can still answer a malformed task.
  if (!read_u32(msg, "session_id", &out->session_id, error)) return false;
  if (!read_u32(msg, "transac_id", &out->transac_id, error)) return false;
  if (!msg["opcode"].isString()) {
    *error = "\"opcode\" is missing or not a string";
    return false;
  }
  out->opcode_text = msg["opcode"].asString();
  if (!parse_hex_u32(out->opcode_text, &out->opcode)) out->opcode = 0;
  if (!read_u32(msg, "subsys_id", &out->subsystem, error)) return false;
  const Json::Value& func = msg["func"];
  if (!func.isObject() || !func["name"].isString()) {
    *error = "\"func\" is not an object with a \"name\"";
    return false;
  }
  out->function = func["name"].asString();
  if (!func["args"].isArray()) {
    *error = "\"func\".\"args\" is missing or not an array";
    return false;
  }
  out->args = func["args"];
  out->message = msg;
  return true;
}

bool parse_permission_change(const Json::Value& msg, PermissionChange* out, std::string* error) {
  PermissionChange change;
  if (!read_decimal_text(msg, "opcode", &change.opcode, error)) return false;
  if (!read_decimal_text(msg, "ss_id", &change.subsystem, error)) return false;
  if (!read_decimal_text(msg, "session_id", &change.session_id, error)) return false;
  if (!msg["permission"].isString()) {
    *error = "\"permission\" is missing or not a string";
    return false;
  }
  change.permission = msg["permission"].asString();
  const Json::Value& status = msg["status"];
  if (!status.isString() || (status.asString() != "1" && status.asString() != "0")) {
    *error = "\"status\" is not \"1\" or \"0\"";
    return false;
  }
  change.granted = status.asString() == "1";
  *out = std::move(change);
  return true;
}

}  // namespace lumokit::wire
