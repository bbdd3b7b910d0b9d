#include "task_request.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <json/json.h>

#include "ipc/json_text.h"

namespace lumokit::cli {

namespace {

Json::Value argument(const std::string& word) {
  Json::Value arg(Json::objectValue);
  size_t colon = word.find(':');
  if (colon == std::string::npos) {
    arg["type"] = word;
    return arg;
  }
  const std::string type = word.substr(0, colon);
  const std::string value = word.substr(colon + 1);
  arg["type"] = type;
  if (type == "int" || type == "long") {
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(value.c_str(), &end, 10);
    if (errno == 0 && !value.empty() && *end == '\0') {
      arg["value"] = Json::Int64(v);
      return arg;
    }
  } else if (type == "float" || type == "double") {
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(value.c_str(), &end);
    if (errno == 0 && !value.empty() && *end == '\0') {
      arg["value"] = v;
      return arg;
    }
  } else if (type == "bool" && (value == "true" || value == "false")) {
    arg["value"] = value == "true";
    return arg;
  }
  arg["value"] = value;
  return arg;
}

}  // namespace

bool parse_u32(const std::string& text, uint32_t* out) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool parse_i32(const std::string& text, int32_t* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
  *out = static_cast<int32_t>(v);
  return true;
}

bool parse_task_words(const std::vector<std::string>& words, TaskCall* out, std::string* error) {
  if (words.size() < 3) {
    *error = "a task needs OPCODE SUBSYS FUNC [TYPE:VALUE ...]";
    return false;
  }
  TaskCall task;
  uint32_t opcode = 0;
  if (!parse_u32(words[0], &opcode)) {
    *error = "opcode \"" + words[0] + "\" is not a number (e.g. 0x1001)";
    return false;
  }
  // The manager reads the opcode text as hexadecimal; writing it that way
  // makes "4097" and "0x1001" mean the same here.
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%X", opcode);
  task.opcode = hex;
  if (!parse_u32(words[1], &task.subsystem)) {
    *error = "subsystem \"" + words[1] + "\" is not a number";
    return false;
  }
  task.function = words[2];
  if (task.function.empty()) {
    *error = "the function name is empty";
    return false;
  }
  task.args.assign(words.begin() + 3, words.end());
  for (const std::string& a : task.args) {
    if (a.empty() || a[0] == ':') {
      *error = "argument \"" + a + "\" needs a type, as TYPE or TYPE:VALUE";
      return false;
    }
  }
  *out = task;
  return true;
}

std::string build_task_request(const TaskCall& task, uint32_t session_id, uint32_t transac_id) {
  Json::Value req(Json::objectValue);
  req["session_id"] = session_id;
  req["transac_id"] = transac_id;
  req["opcode"] = task.opcode;
  req["subsys_id"] = task.subsystem;
  Json::Value& func = req["func"] = Json::Value(Json::objectValue);
  func["name"] = task.function;
  func["num_of_args"] = static_cast<Json::UInt>(task.args.size());
  Json::Value& args = func["args"] = Json::Value(Json::arrayValue);
  for (const std::string& word : task.args) args.append(argument(word));
  return lumokit::ipc::write_json(req);
}

}  // namespace lumokit::cli
