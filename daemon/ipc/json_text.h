// JSON helpers for the daemon's wire messages: a strict parser for what
// peers send, and fast hand-built output for the hot answer paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <json/json.h>

namespace lumokit::ipc {

// Parses one JSON text strictly (no comments, no trailing data, no
// duplicate keys). False with a readable `error` on failure.
bool parse_json(const char* data, size_t length, Json::Value* out, std::string* error);
inline bool parse_json(const std::string& text, Json::Value* out, std::string* error) {
  return parse_json(text.data(), text.size(), out, error);
}

// Compact one-line text of `value`.
std::string write_json(const Json::Value& value);

// Appends `text` as a quoted JSON string. Bytes that are not valid UTF-8
// become U+FFFD so that every peer can decode the result.
void append_json_string(std::string& out, const char* data, size_t length);
inline void append_json_string(std::string& out, const std::string& text) {
  append_json_string(out, text.data(), text.size());
}

// {"op":"error","message":...}
std::string error_message(const std::string& message);

// Builder for flat objects, e.g. ObjectWriter().str("op", "x").num("n", 1).done().
class ObjectWriter {
 public:
  ObjectWriter() { text_.push_back('{'); }
  ObjectWriter& str(const char* key, const std::string& value);
  ObjectWriter& num(const char* key, int64_t value);
  ObjectWriter& boolean(const char* key, bool value);
  // `json` must already be valid JSON text.
  ObjectWriter& raw(const char* key, const std::string& json);
  std::string done();
  void reserve(size_t n) { text_.reserve(n); }

 private:
  void key(const char* name);
  std::string text_;
};

}  // namespace lumokit::ipc
