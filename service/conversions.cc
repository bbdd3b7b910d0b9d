// Text-to-number conversions used by every JSON path. Failures are results,
// never exceptions.
#include <android/log.h>

#include <cstdio>
#include <stdexcept>

#include "Service.h"

namespace lumokit {
int toupper(int c) { return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c; }
}  // namespace lumokit

namespace {

// Standard unsigned-long conversion; keeps the low 32 bits of the result.
int convert_unsigned(const std::string& text, int base, unsigned int* out) {
  try {
    unsigned long value = std::stoul(text, nullptr, base);
    *out = static_cast<unsigned int>(value & 0xFFFFFFFFul);
    return 0;
  } catch (const std::invalid_argument&) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Invalid input, no conversion");
  } catch (const std::out_of_range&) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Invalid input, out of range input");
  } catch (...) {
    __android_log_print(ANDROID_LOG_ERROR, kTagLink, "Invalid input");
  }
  return -1;
}

bool is_hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

int string_to_uint32_validation(std::string text, unsigned int* out) {
  return convert_unsigned(text, 10, out);
}

bool isValidHexadecimalString(const std::string& text) {
  if (text.size() < 2 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
  for (size_t i = 2; i < text.size(); ++i) {
    if (!is_hex_digit(text[i])) return false;
  }
  return true;
}

int hexadecimalstring_to_uint32_validation(std::string text, unsigned int* out) {
  if (!isValidHexadecimalString(text)) return -1;
  if (text.size() == 2) {  // "0x" alone: the conversion would stop at 'x' and give 0
    *out = 0;
    return 0;
  }
  return convert_unsigned(text, 16, out);
}

std::string uint32_to_hexstring(unsigned int value) {
  char digits[16];
  int n = snprintf(digits, sizeof(digits), "%02x", value);
  std::string text = "0x";
  text.reserve(2 + static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) text.push_back(static_cast<char>(lumokit::toupper(digits[i])));
  return text;
}
