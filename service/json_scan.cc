#include "json_scan.h"

#include <cstring>

namespace {

// Powers of ten between which a double converts without overflow or
// underflow: the first significant digit of a vouched number lies in this
// range (or the number is zero). Outside it the JSON library's answer
// depends on its C++ library: libc++ (Android) refuses an underflow that
// libstdc++ turns into zero, so such numbers are left to the library.
constexpr long kMaxPowerOfTen = 307;
constexpr long kMinPowerOfTen = -307;
// Counters stop here; far beyond either bound, and no overflow.
constexpr long kCountCap = 100000;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Bytes from p to end, counted without a signed subtraction: the library
// traps signed overflow, which makes every signed subtraction a call.
size_t bytes_between(const char* p, const char* end) {
  return static_cast<size_t>(reinterpret_cast<uintptr_t>(end) - reinterpret_cast<uintptr_t>(p));
}

// A high bit set in each byte of `w` that is a quote, a backslash or below
// 0x20; exact up to the first such byte (bits above it may be spurious).
uint64_t special_bytes(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHighs = 0x8080808080808080ull;
  const uint64_t quote = w ^ (kOnes * '"');
  const uint64_t slash = w ^ (kOnes * '\\');
  return (((quote - kOnes) & ~quote) | ((slash - kOnes) & ~slash) | ((w - kOnes * 0x20) & ~w)) &
         kHighs;
}

// The first byte in [p, end) that a string cannot hold as it is: a quote, a
// backslash or a control character. Eight bytes a step.
const char* plain_run_end(const char* p, const char* end) {
  size_t left = bytes_between(p, end);
  while (left > 0) {
    uint64_t w = 0x4141414141414141ull;  // plain filler past the end
    const size_t take = left < 8 ? left : 8;
    if (take == 8) {
      memcpy(&w, p, 8);  // one load
    } else {
      memcpy(&w, p, take);
    }
    const uint64_t hits = special_bytes(w);
    if (hits != 0) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
      return p + (static_cast<unsigned>(__builtin_ctzll(hits)) >> 3);
#else
      while (*p != '"' && *p != '\\' && static_cast<unsigned char>(*p) >= 0x20) ++p;
      return p;
#endif
    }
    p += take;
    left -= take;
  }
  return p;
}

unsigned int hex4_value(const char* p) {
  unsigned int v = 0;
  for (int i = 0; i < 4; ++i) v = v * 16 + static_cast<unsigned int>(hex_digit(p[i]));
  return v;
}

// Writes `cp` as UTF-8 at `w`; returns the end.
char* put_utf8(unsigned int cp, char* w) {
  if (cp < 0x80) {
    *w++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *w++ = static_cast<char>(0xC0 | (cp >> 6));
    *w++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *w++ = static_cast<char>(0xE0 | (cp >> 12));
    *w++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *w++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *w++ = static_cast<char>(0xF0 | (cp >> 18));
    *w++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *w++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *w++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return w;
}

// A member name at a level whose names are compared: escaped names could
// spell a wanted one, so they fall back.
bool plain_name(JsonScanner& s, std::string_view* name) {
  bool escaped = false;
  return s.string(name, &escaped) && !escaped && s.take(':');
}

bool plain_string(JsonScanner& s, std::string_view* value) {
  bool escaped = false;
  return s.string(value, &escaped) && !escaped;
}

bool plain_uint(JsonScanner& s, uint32_t* value) {
  std::string_view token;
  return s.number(&token) && json_plain_uint32(token, value);
}

// Walks the members of an object whose "{" has been taken, handing each
// name to `member`, which must consume the value. Ends after the "}".
template <typename Member>
bool each_member(JsonScanner& s, Member member) {
  if (s.take('}')) return true;
  for (;;) {
    std::string_view name;
    if (!plain_name(s, &name) || !member(name)) return false;
    if (s.take(',')) continue;
    return s.take('}');
  }
}

// One element of "func"."args": an object with a plain string "type".
bool scan_arg(JsonScanner& s, int depth_left, TaskRequestScan* out) {
  if (!s.take('{')) return false;
  bool seen_type = false;
  const bool ok = each_member(s, [&](std::string_view name) {
    if (name != "type") return s.skip_value(depth_left - 1);
    std::string_view type;
    if (seen_type || !plain_string(s, &type)) return false;
    seen_type = true;
    out->arg_types.push_back(type);
    return true;
  });
  return ok && seen_type;
}

bool scan_args(JsonScanner& s, int depth_left, TaskRequestScan* out) {
  if (!s.take('[')) return false;
  if (s.take(']')) return true;
  for (;;) {
    if (depth_left < 2 || !scan_arg(s, depth_left - 1, out)) return false;
    if (s.take(',')) continue;
    return s.take(']');
  }
}

bool scan_func(JsonScanner& s, int depth_left, TaskRequestScan* out) {
  if (!s.take('{')) return false;
  bool seen_name = false, seen_count = false, seen_args = false;
  const bool ok = each_member(s, [&](std::string_view name) {
    if (name == "name") {
      if (seen_name) return false;
      seen_name = true;
      return plain_string(s, &out->name);
    }
    if (name == "num_of_args") {
      if (seen_count) return false;
      seen_count = true;
      return plain_uint(s, &out->num_of_args);
    }
    if (name == "args") {
      if (seen_args) return false;
      seen_args = true;
      return scan_args(s, depth_left - 1, out);
    }
    return s.skip_value(depth_left - 1);
  });
  return ok && seen_name && seen_count && seen_args;
}

}  // namespace

bool JsonScanner::hex4(unsigned int* value) {
  if (end_ - p_ < 4) return false;
  for (int i = 0; i < 4; ++i) {
    if (hex_digit(p_[i]) < 0) return false;
  }
  *value = hex4_value(p_);
  p_ += 4;
  return true;
}

bool JsonScanner::string(std::string_view* raw, bool* escaped) {
  if (!take('"')) return false;
  const char* start = p_;
  bool any_escape = false;
  for (;;) {
    p_ = plain_run_end(p_, end_);
    if (p_ == end_) return false;
    const char c = *p_;
    if (c == '"') break;
    if (c != '\\') return false;  // a raw control character
    any_escape = true;
    if (++p_ == end_) return false;
    switch (*p_++) {
      case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
        break;
      case 'u': {
        unsigned int unit = 0;
        if (!hex4(&unit)) return false;
        if (unit >= 0xDC00 && unit <= 0xDFFF) return false;  // a low half alone
        if (unit >= 0xD800 && unit <= 0xDBFF) {
          // A high half counts only with its low half right after it.
          if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
          p_ += 2;
          if (!hex4(&unit) || unit < 0xDC00 || unit > 0xDFFF) return false;
        }
        break;
      }
      default:
        return false;
    }
  }
  *raw = std::string_view(start, bytes_between(start, p_));
  *escaped = any_escape;
  ++p_;
  return true;
}

bool JsonScanner::number(std::string_view* token) {
  skip_blanks();
  const char* start = p_;
  if (p_ != end_ && *p_ == '-') ++p_;
  if (p_ == end_ || !is_digit(*p_)) return false;
  bool zero = true;  // every digit so far is 0
  long lead = 0;     // power of ten of the first significant digit
  if (*p_++ != '0') {
    zero = false;
    while (p_ != end_ && is_digit(*p_)) {
      ++p_;
      if (++lead > kMaxPowerOfTen) return false;
    }
  }
  if (p_ != end_ && *p_ == '.') {
    ++p_;
    if (p_ == end_ || !is_digit(*p_)) return false;
    for (long place = -1; p_ != end_ && is_digit(*p_); ++p_) {
      if (zero && *p_ != '0') {
        zero = false;
        lead = place;
      }
      if (place > -kCountCap) --place;
    }
  }
  long exponent = 0;
  if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
    ++p_;
    bool negative = false;
    if (p_ != end_ && (*p_ == '+' || *p_ == '-')) negative = *p_++ == '-';
    if (p_ == end_ || !is_digit(*p_)) return false;
    while (p_ != end_ && is_digit(*p_)) {
      if (exponent < kCountCap) exponent = exponent * 10 + (*p_ - '0');
      ++p_;
    }
    if (negative) exponent = -exponent;
  }
  // Zero converts exactly, whatever its exponent.
  if (!zero && (lead + exponent > kMaxPowerOfTen || lead + exponent < kMinPowerOfTen)) return false;
  *token = std::string_view(start, bytes_between(start, p_));
  return true;
}

bool JsonScanner::literal(const char* word, size_t size) {
  if (static_cast<size_t>(end_ - p_) < size) return false;
  for (size_t i = 0; i < size; ++i) {
    if (p_[i] != word[i]) return false;
  }
  p_ += size;
  return true;
}

bool JsonScanner::skip_value(int depth_left) {
  skip_blanks();
  if (p_ == end_) return false;
  switch (*p_) {
    case '"': {
      std::string_view raw;
      bool escaped;
      return string(&raw, &escaped);
    }
    case '{':
      if (depth_left < 1) return false;
      ++p_;
      if (take('}')) return true;
      for (;;) {
        std::string_view name;
        bool escaped;
        if (!string(&name, &escaped) || !take(':') || !skip_value(depth_left - 1)) return false;
        if (take(',')) continue;
        return take('}');
      }
    case '[':
      if (depth_left < 1) return false;
      ++p_;
      if (take(']')) return true;
      for (;;) {
        if (!skip_value(depth_left - 1)) return false;
        if (take(',')) continue;
        return take(']');
      }
    case 't':
      return literal("true", 4);
    case 'f':
      return literal("false", 5);
    case 'n':
      return literal("null", 4);
    default: {
      std::string_view token;
      return number(&token);
    }
  }
}

bool json_plain_uint32(std::string_view token, uint32_t* out) {
  if (token.empty() || token.size() > 10) return false;
  if (token[0] == '0' && token.size() != 1) return false;
  uint64_t value = 0;
  for (char c : token) {
    if (!is_digit(c)) return false;
    value = value * 10 + (static_cast<uint64_t>(static_cast<unsigned char>(c)) - uint64_t{'0'});
  }
  if (value > UINT32_MAX) return false;
  *out = static_cast<uint32_t>(value);
  return true;
}

void json_decode_string(std::string_view raw, std::string* out) {
  // Decoding never lengthens the text: write in place, then trim.
  const size_t old_size = out->size();
  out->resize(old_size + raw.size());
  char* const base = &(*out)[0];
  char* w = base + old_size;
  const char* p = raw.data();
  const char* const end = p + raw.size();
  while (p != end) {
    const char* slash = static_cast<const char*>(memchr(p, '\\', bytes_between(p, end)));
    const char* run_end = slash != nullptr ? slash : end;
    const size_t run = bytes_between(p, run_end);
    memcpy(w, p, run);
    w += run;
    if (slash == nullptr) break;
    const char kind = slash[1];
    p = slash + 2;
    switch (kind) {
      case 'b': *w++ = '\b'; break;
      case 'f': *w++ = '\f'; break;
      case 'n': *w++ = '\n'; break;
      case 'r': *w++ = '\r'; break;
      case 't': *w++ = '\t'; break;
      case 'u': {
        unsigned int cp = hex4_value(p);
        p += 4;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
          const unsigned int low = hex4_value(p + 2);
          p += 6;
          cp = 0x10000 + ((cp & 0x3FF) << 10) + (low & 0x3FF);
        }
        w = put_utf8(cp, w);
        break;
      }
      default:  // '"', '\\' and '/' stand for themselves
        *w++ = kind;
    }
  }
  out->resize(bytes_between(base, w));
}

bool scan_plugin_message(const char* text, size_t size, PluginMessageScan* out) {
  *out = PluginMessageScan();
  JsonScanner s(text, size);
  if (!s.take('{')) return false;
  bool seen_kind = false, seen_session = false, seen_transac = false;
  const bool ok = each_member(s, [&](std::string_view name) {
    if (name == "req_type") {
      if (seen_kind) return false;
      seen_kind = true;
      return plain_string(s, &out->req_type);
    }
    if (name == "session_id") {
      if (seen_session) return false;
      seen_session = true;
      return plain_uint(s, &out->session_id);
    }
    if (name == "transac_id") {
      if (seen_transac) return false;
      seen_transac = true;
      return plain_uint(s, &out->transac_id);
    }
    return s.skip_value(kJsonScanMaxDepth - 1);
  });
  return ok && s.at_end();
}

bool scan_task_request(const char* text, size_t size, TaskRequestScan* out) {
  out->arg_types.clear();
  JsonScanner s(text, size);
  if (!s.take('{')) return false;
  enum : unsigned { kSession = 1, kTransac = 2, kOpcode = 4, kSubsys = 8, kFunc = 16, kAll = 31 };
  unsigned seen = 0;
  auto first = [&seen](unsigned bit) {
    if (seen & bit) return false;
    seen |= bit;
    return true;
  };
  const bool ok = each_member(s, [&](std::string_view name) {
    if (name == "session_id") return first(kSession) && plain_uint(s, &out->session_id);
    if (name == "transac_id") return first(kTransac) && plain_uint(s, &out->transac_id);
    if (name == "opcode") return first(kOpcode) && plain_string(s, &out->opcode);
    if (name == "subsys_id") return first(kSubsys) && plain_uint(s, &out->subsys_id);
    if (name == "func") return first(kFunc) && scan_func(s, kJsonScanMaxDepth - 1, out);
    return s.skip_value(kJsonScanMaxDepth - 1);
  });
  return ok && seen == kAll && s.at_end();
}

bool scan_flat_object(const char* text, size_t size, JsonFlatMember* wanted, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    wanted[i].kind = JsonFlatMember::kMissing;
    wanted[i].text = std::string_view();
    wanted[i].escaped = false;
  }
  JsonScanner s(text, size);
  if (!s.take('{')) return false;
  const bool ok = each_member(s, [&](std::string_view name) {
    JsonFlatMember* m = nullptr;
    for (size_t i = 0; i < count && m == nullptr; ++i) {
      if (name == wanted[i].name) m = &wanted[i];
    }
    if (m == nullptr || m->kind != JsonFlatMember::kMissing) return false;
    const char first = s.peek();
    if (first == '"') {
      m->kind = JsonFlatMember::kString;
      return s.string(&m->text, &m->escaped);
    }
    if (first == '-' || is_digit(first)) {
      m->kind = JsonFlatMember::kNumber;
      return s.number(&m->text);
    }
    // true, false or null; a container fails here for want of depth
    m->kind = JsonFlatMember::kLiteral;
    return s.skip_value(0);
  });
  return ok && s.at_end();
}
