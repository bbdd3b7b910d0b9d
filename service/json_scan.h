// Single-pass reading of strict JSON (RFC 8259) on the hot message paths:
// the few members a path needs are picked out of the text without building
// a document. A reader either vouches that the JSON library, given the same
// text, accepts it and yields the same values, or it answers "fall back" and
// the caller parses with the library as before. Only plain shapes are
// vouched for; comments, a byte-order mark, anything after the value,
// control characters in strings, lone surrogates, deep nesting, numbers
// whose conversion to a double could overflow or underflow, escapes in the
// picked values or in the member names beside them, and a picked member
// given twice all fall back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Deepest nesting of objects and arrays vouched for, the outer value included.
constexpr int kJsonScanMaxDepth = 64;

// A cursor over strict JSON text. Every call first skips blanks; every
// failure means "not plain strict JSON here" and leaves the cursor anywhere.
class JsonScanner {
 public:
  JsonScanner(const char* text, size_t size) : p_(text), end_(text + size) {}

  // Takes `c` if it comes next.
  bool take(char c) {
    skip_blanks();
    if (p_ == end_ || *p_ != c) return false;
    ++p_;
    return true;
  }
  // The next byte, 0 when nothing is left.
  char peek() {
    skip_blanks();
    return p_ == end_ ? '\0' : *p_;
  }
  // True when nothing but blanks is left.
  bool at_end() {
    skip_blanks();
    return p_ == end_;
  }
  // A string: `raw` is the text between the quotes as written, `escaped`
  // tells whether it holds a backslash.
  bool string(std::string_view* raw, bool* escaped);
  // A number token, as written.
  bool number(std::string_view* token);
  // Any value, with at most `depth_left` levels of objects and arrays.
  bool skip_value(int depth_left);

 private:
  void skip_blanks() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
  }
  bool hex4(unsigned int* value);
  bool literal(const char* word, size_t size);

  const char* p_;
  const char* end_;
};

// "0", or decimal digits without a leading zero, below 2^32.
bool json_plain_uint32(std::string_view token, uint32_t* out);

// Appends the text of a string that JsonScanner::string accepted, decoded
// byte for byte as the JSON library decodes it.
void json_decode_string(std::string_view raw, std::string* out);

// The members of a plugin message that the connection handler reads before
// it needs a document; missing ones read as the handler's defaults.
struct PluginMessageScan {
  std::string_view req_type{"none"};
  uint32_t session_id = 0;
  uint32_t transac_id = 0;
};

// True when `text` is one plain object whose "req_type" (if any) is a string
// without escapes and whose "session_id" and "transac_id" (if any) are plain
// unsigned 32-bit decimals. Views point into `text`.
bool scan_plugin_message(const char* text, size_t size, PluginMessageScan* out);

// Argument types of a task: a handful inline, any more on the heap.
class ArgTypeList {
 public:
  void clear() {
    size_ = 0;
    spill_.clear();
  }
  void push_back(std::string_view type) {
    if (size_ < kInline) {
      inline_[size_] = type;
    } else {
      spill_.push_back(type);
    }
    ++size_;
  }
  size_t size() const { return size_; }
  std::string_view operator[](size_t i) const { return i < kInline ? inline_[i] : spill_[i - kInline]; }

 private:
  static constexpr size_t kInline = 8;
  std::array<std::string_view, kInline> inline_{};
  std::vector<std::string_view> spill_;
  size_t size_ = 0;
};

// What task execution needs from a well-formed task request.
struct TaskRequestScan {
  uint32_t session_id = 0;
  uint32_t transac_id = 0;
  std::string_view opcode;
  uint32_t subsys_id = 0;
  std::string_view name;  // "func"."name"
  uint32_t num_of_args = 0;
  ArgTypeList arg_types;  // "type" of each element of "func"."args", in order
};

// True when `text` is one plain object that passes the request sanitising
// with every checked member in its plain shape: numbers as plain unsigned
// 32-bit decimals, "opcode", "name" and each "type" strings without escapes.
// Views point into `text`.
bool scan_task_request(const char* text, size_t size, TaskRequestScan* out);

// One wanted member of a flat object, as scan_flat_object found it.
struct JsonFlatMember {
  enum Kind { kMissing, kString, kNumber, kLiteral };
  // Implicit, so that a wanted list reads {{"op"}, {"session_id"}}.
  JsonFlatMember(const char* wanted_name) : name(wanted_name) {}
  const char* name;
  Kind kind = kMissing;
  std::string_view text;  // string: between the quotes as written; otherwise the token
  bool escaped = false;   // string only: holds a backslash
};

// True when `text` is one plain object whose members all have names without
// escapes from `wanted`, each at most once, and values that are strings,
// numbers, true, false or null. Such a text is also accepted by the JSON
// library's strict mode (no duplicate names, nothing after the value).
bool scan_flat_object(const char* text, size_t size, JsonFlatMember* wanted, size_t count);
