// The shape a task request must have, and the error answer the manager
// writes itself when a task cannot reach a plugin.
#include <android/log.h>

#include "json_read.h"
#include "session_tables.h"

namespace {

bool is_uint_member(const Json::Value& obj, const char* key) {
  const Json::Value* v = json_member(obj, key);
  return v != nullptr && v->isUInt();
}

bool has_member_of(const Json::Value& obj, const char* key, bool (Json::Value::*test)() const) {
  const Json::Value* v = json_member(obj, key);
  return v != nullptr && (v->*test)();
}

}  // namespace

bool sanitizingJson(const Json::Value& value) {
  if (value.isNull() || !value.isObject()) return false;
  if (!is_uint_member(value, "session_id")) return false;
  if (!is_uint_member(value, "transac_id")) return false;
  if (!has_member_of(value, "opcode", &Json::Value::isString)) return false;
  if (!is_uint_member(value, "subsys_id")) return false;
  const Json::Value* func = json_member(value, "func");
  if (func == nullptr || !func->isObject()) return false;
  if (!has_member_of(*func, "name", &Json::Value::isString)) return false;
  if (!is_uint_member(*func, "num_of_args")) return false;
  const Json::Value* args = json_member(*func, "args");
  if (args == nullptr || !args->isArray()) return false;
  for (const Json::Value& arg : *args) {
    if (!has_member_of(arg, "type", &Json::Value::isString)) return false;
  }
  return true;
}

std::string create_error_response(std::string request, int32_t status) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!parse_json_safely(*reader, request.data(), request.data() + request.size(), &root,
                         &errors)) {
    __android_log_print(ANDROID_LOG_ERROR, kTagSession, "parsing of json file failed (%s)!!",
                        errors.c_str());
    return "";
  }
  std::string text = "{\"opcode\":\"";
  text += json_text(root, "opcode", "none");
  text += "\",\"name\":\"";
  text += json_text(root, "name", "none");
  text += "\",\"subsys_id\":";
  text += std::to_string(json_uint(root, "subsys_id", 0));
  text += ",\"transac_id\":";
  text += std::to_string(json_uint(root, "transac_id", 0));
  text += ",\"status\":";
  text += std::to_string(status);
  text += ",\"return\":0,\"func\": {}}";
  return text;
}
