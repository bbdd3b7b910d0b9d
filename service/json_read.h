// Reading members of received JSON without exceptions: a member of a type
// that cannot be read as asked gives the default, as a missing one does.
#pragma once

#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include <json/json.h>

inline const Json::Value* json_member(const Json::Value& obj, const char* key) {
  if (!obj.isObject()) return nullptr;
  return obj.find(key, key + strlen(key));
}

inline std::string json_text(const Json::Value& obj, const char* key, const char* fallback) {
  const Json::Value* v = json_member(obj, key);
  if (v == nullptr || v->isNull() || v->isArray() || v->isObject()) return fallback;
  return v->asString();
}

inline uint32_t json_uint(const Json::Value& obj, const char* key, uint32_t fallback) {
  const Json::Value* v = json_member(obj, key);
  if (v == nullptr) return fallback;
  return v->isConvertibleTo(Json::uintValue) && !v->isString() ? v->asUInt() : fallback;
}

inline int32_t json_int(const Json::Value& obj, const char* key, int32_t fallback) {
  const Json::Value* v = json_member(obj, key);
  if (v == nullptr) return fallback;
  return v->isConvertibleTo(Json::intValue) && !v->isString() ? v->asInt() : fallback;
}

// jsoncpp throws, rather than failing, on input nested past its depth limit:
// such a text is simply not JSON here.
inline bool parse_json_safely(Json::CharReader& reader, const char* begin, const char* end,
                              Json::Value* root, std::string* errors) {
  try {
    return reader.parse(begin, end, root, errors);
  } catch (const std::exception& e) {
    if (errors != nullptr) *errors = e.what();
    return false;
  }
}

inline std::string json_write_compact(const Json::Value& v) {
  static const Json::StreamWriterBuilder* builder = [] {
    auto* b = new Json::StreamWriterBuilder();
    (*b)["indentation"] = "";
    return b;
  }();
  return Json::writeString(*builder, v);
}
