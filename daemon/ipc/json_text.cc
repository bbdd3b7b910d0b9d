#include "json_text.h"

#include <exception>
#include <memory>

namespace lumokit::ipc {

namespace {

Json::CharReader& strict_reader() {
  // One reader per thread: building one costs more than a small parse.
  thread_local std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["allowSpecialFloats"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  return *reader;
}

constexpr char kHex[] = "0123456789abcdef";

// Length of the valid UTF-8 sequence at p (1..4), or 0 when invalid.
size_t utf8_sequence(const unsigned char* p, size_t left) {
  unsigned char c = p[0];
  size_t need;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    need = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    need = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;  // no UTF-16 surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    need = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (left < need) return 0;
  if (p[1] < lo || p[1] > hi) return 0;
  for (size_t i = 2; i < need; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return need;
}

}  // namespace

bool parse_json(const char* data, size_t length, Json::Value* out, std::string* error) {
  std::string errs;
  bool parsed;
  try {
    parsed = strict_reader().parse(data, data + length, out, &errs);
  } catch (const std::exception& e) {  // nested past the reader's depth limit
    parsed = false;
    errs = e.what();
  }
  if (!parsed) {
    // The reader's text carries a trailing newline; keep messages one line.
    while (!errs.empty() && (errs.back() == '\n' || errs.back() == ' ')) errs.pop_back();
    for (char& c : errs) {
      if (c == '\n') c = ' ';
    }
    *error = errs.empty() ? "not valid JSON" : errs;
    return false;
  }
  return true;
}

std::string write_json(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

void append_json_string(std::string& out, const char* data, size_t length) {
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  out.reserve(out.size() + length + 2);
  out.push_back('"');
  size_t i = 0;
  while (i < length) {
    // Copy the longest run that needs no escaping in one go.
    size_t run = i;
    while (run < length && p[run] >= 0x20 && p[run] < 0x80 && p[run] != '"' && p[run] != '\\') {
      ++run;
    }
    if (run > i) {
      out.append(data + i, run - i);
      i = run;
      if (i == length) break;
    }
    unsigned char c = p[i];
    if (c >= 0x80) {
      size_t n = utf8_sequence(p + i, length - i);
      if (n == 0) {
        out.append("\xEF\xBF\xBD");
        i += 1;
      } else {
        out.append(data + i, n);
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"': out.append("\\\""); break;
      case '\\': out.append("\\\\"); break;
      case '\n': out.append("\\n"); break;
      case '\r': out.append("\\r"); break;
      case '\t': out.append("\\t"); break;
      case '\b': out.append("\\b"); break;
      case '\f': out.append("\\f"); break;
      default: {
        char esc[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out.append(esc, sizeof(esc));
      }
    }
    ++i;
  }
  out.push_back('"');
}

std::string error_message(const std::string& message) {
  return ObjectWriter().str("op", "error").str("message", message).done();
}

void ObjectWriter::key(const char* name) {
  if (text_.size() > 1) text_.push_back(',');
  text_.push_back('"');
  text_.append(name);
  text_.append("\":");
}

ObjectWriter& ObjectWriter::str(const char* name, const std::string& value) {
  key(name);
  append_json_string(text_, value);
  return *this;
}

ObjectWriter& ObjectWriter::num(const char* name, int64_t value) {
  key(name);
  text_.append(std::to_string(value));
  return *this;
}

ObjectWriter& ObjectWriter::boolean(const char* name, bool value) {
  key(name);
  text_.append(value ? "true" : "false");
  return *this;
}

ObjectWriter& ObjectWriter::raw(const char* name, const std::string& json) {
  key(name);
  text_.append(json);
  return *this;
}

std::string ObjectWriter::done() {
  text_.push_back('}');
  return std::move(text_);
}

}  // namespace lumokit::ipc
