// The text-to-number conversions against a reference written here from the
// rules: the standard unsigned conversion, keeping the low 32 bits.
#include <cstdlib>
#include <cstring>
#include <string>

#include <android/log.h>
#include <lumokit/host_platform.h>

#include "Service.h"

namespace {

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

int digit_value(char c, int base) {
  int v = -1;
  if (c >= '0' && c <= '9') v = c - '0';
  if (c >= 'a' && c <= 'z') v = c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') v = c - 'A' + 10;
  return v < base ? v : -1;
}

// -1: no conversion, -2: out of range, 0: value in *out.
int reference(const std::string& text, int base, uint64_t* out) {
  size_t i = 0;
  while (i < text.size() && is_space(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (base == 16 && i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X') &&
      i + 2 < text.size() && digit_value(text[i + 2], 16) >= 0) {
    i += 2;
  }
  if (i >= text.size() || digit_value(text[i], base) < 0) return -1;
  unsigned __int128 magnitude = 0;
  bool overflow = false;
  for (; i < text.size() && digit_value(text[i], base) >= 0; ++i) {
    magnitude = magnitude * static_cast<unsigned>(base) + static_cast<unsigned>(digit_value(text[i], base));
    if (magnitude > UINT64_MAX) overflow = true, magnitude = UINT64_MAX;
  }
  if (overflow) return -2;
  const uint64_t value = static_cast<uint64_t>(magnitude);
  *out = negative ? static_cast<uint64_t>(0) - value : value;
  return 0;
}

bool hex_form(const std::string& text) {
  if (text.size() < 2 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
  for (size_t i = 2; i < text.size(); ++i) {
    if (digit_value(text[i], 16) < 0) return false;
  }
  return true;
}

void expect(bool ok) {
  if (!ok) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  lumokit::host::set_log_min_priority(ANDROID_LOG_SILENT);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  uint64_t ref = 0;
  unsigned int out = 0x5A5A5A5A;

  const int dec = string_to_uint32_validation(text, &out);
  const int dec_ref = reference(text, 10, &ref);
  expect(dec == (dec_ref == 0 ? 0 : -1));
  expect(dec == 0 ? out == static_cast<uint32_t>(ref) : out == 0x5A5A5A5A);

  out = 0x5A5A5A5A;
  const int hex = hexadecimalstring_to_uint32_validation(text, &out);
  expect(isValidHexadecimalString(text) == hex_form(text));
  if (!hex_form(text)) {
    expect(hex == -1 && out == 0x5A5A5A5A);
  } else {
    const int hex_ref = text.size() == 2 ? (ref = 0, 0) : reference(text, 16, &ref);
    expect(hex == (hex_ref == 0 ? 0 : -1));
    if (hex == 0) expect(out == static_cast<uint32_t>(ref));
  }

  if (size >= 4) {
    uint32_t v;
    memcpy(&v, data, 4);
    unsigned int back = 0;
    expect(hexadecimalstring_to_uint32_validation(uint32_to_hexstring(v), &back) == 0 && back == v);
  }
  return 0;
}
