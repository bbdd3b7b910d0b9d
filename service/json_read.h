// Reading members of received JSON as the JSON library's "get with a default"
// reads them, without its exceptions: the default stands in for a missing
// member only, an explicit null reads as the empty text or 0, and numbers
// and booleans read as their text. What the library would refuse with an
// exception (text from an array or object) is reported as unreadable.
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

// A value as the library's text conversion gives it; false when that
// conversion would throw.
inline bool json_value_text(const Json::Value& v, std::string* out) {
  if (v.isArray() || v.isObject()) return false;
  *out = v.asString();
  return true;
}

// The member as text, `fallback` when it is missing; false (and `out`
// empty) when it cannot be read as text.
inline bool json_read_text(const Json::Value& obj, const char* key, const char* fallback,
                           std::string* out) {
  const Json::Value* v = json_member(obj, key);
  if (v == nullptr) {
    *out = fallback;
    return true;
  }
  if (json_value_text(*v, out)) return true;
  out->clear();
  return false;
}

// The member as text where an unreadable one has no meaning of its own: it
// reads as `fallback`, as a missing one does.
inline std::string json_text(const Json::Value& obj, const char* key, const char* fallback) {
  std::string text;
  return json_read_text(obj, key, fallback, &text) ? text : std::string(fallback);
}

// Numbers: a missing member, and one the library's conversion would refuse
// (text, a negative or too large number, an array or object), reads as
// `fallback`; null reads as 0, a fraction is cut, a boolean is 0 or 1.
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
