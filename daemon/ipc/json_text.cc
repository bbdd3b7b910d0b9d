#include "json_text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
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

// The length of the run at p that goes out as it is: printable ASCII other
// than a quote or a backslash. Eight bytes a step, as answers are mostly
// long plain runs.
size_t plain_run(const unsigned char* p, size_t length) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHighs = 0x8080808080808080ull;
  size_t i = 0;
  while (i < length) {
    uint64_t w = 0x4141414141414141ull;  // plain filler past the end
    const size_t take = length - i < 8 ? length - i : 8;
    if (take == 8) {
      std::memcpy(&w, p + i, 8);  // one load
    } else {
      std::memcpy(&w, p + i, take);
    }
    const uint64_t quote = w ^ (kOnes * '"');
    const uint64_t slash = w ^ (kOnes * '\\');
    // A high bit set in each byte that is a quote, a backslash, below 0x20
    // or at least 0x80; exact up to the first one.
    const uint64_t hits = (((quote - kOnes) & ~quote) | ((slash - kOnes) & ~slash) |
                           ((w - kOnes * 0x20) & ~w) | w) &
                          kHighs;
    if (hits != 0) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
      return i + (static_cast<unsigned>(__builtin_ctzll(hits)) >> 3);
#else
      while (p[i] >= 0x20 && p[i] < 0x80 && p[i] != '"' && p[i] != '\\') ++i;
      return i;
#endif
    }
    i += take;
  }
  return length;
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
  // Written through a cursor into room made ahead: the text as it is plus a
  // little for escapes, more when escapes use that up.
  size_t at = out.size();
  out.resize(at + length + length / 8 + 8);
  auto make_room = [&](size_t need) {
    if (out.size() - at < need) out.resize(std::max(out.size() + out.size() / 2, at + need));
  };
  out[at++] = '"';
  size_t i = 0;
  while (i < length) {
    // Copy the longest run that needs no escaping in one go.
    const size_t run = plain_run(p + i, length - i);
    make_room(run + 8);  // the run, one escape, the closing quote
    std::memcpy(&out[at], data + i, run);
    at += run;
    i += run;
    if (i == length) break;
    const unsigned char c = p[i];
    if (c >= 0x80) {
      const size_t n = utf8_sequence(p + i, length - i);
      if (n == 0) {
        std::memcpy(&out[at], "\xEF\xBF\xBD", 3);
        at += 3;
        i += 1;
      } else {
        std::memcpy(&out[at], data + i, n);
        at += n;
        i += n;
      }
      continue;
    }
    // Two-character escapes, then \u00XX for the other control characters.
    char short_escape = 0;
    switch (c) {
      case '"': short_escape = '"'; break;
      case '\\': short_escape = '\\'; break;
      case '\n': short_escape = 'n'; break;
      case '\r': short_escape = 'r'; break;
      case '\t': short_escape = 't'; break;
      case '\b': short_escape = 'b'; break;
      case '\f': short_escape = 'f'; break;
      default: break;
    }
    if (short_escape != 0) {
      out[at] = '\\';
      out[at + 1] = short_escape;
      at += 2;
    } else {
      const char esc[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      std::memcpy(&out[at], esc, sizeof(esc));
      at += sizeof(esc);
    }
    ++i;
  }
  make_room(1);
  out[at++] = '"';
  out.resize(at);
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
