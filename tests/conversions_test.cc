// Text-to-number conversions at their edges, with the log lines they emit.
#include <gtest/gtest.h>

#include "Service.h"
#include "manager_harness.h"

using lumokit::test::LogCapture;

namespace {

struct Case {
  const char* text;
  int result;
  unsigned int value;  // meaningful when result is 0
  const char* log;     // expected error line, or "" for none
};

void check(int (*convert)(std::string, unsigned int*), const Case& c) {
  LogCapture log;
  unsigned int out = 0xDEADBEEF;
  EXPECT_EQ(convert(c.text, &out), c.result) << c.text;
  EXPECT_EQ(out, c.result == 0 ? c.value : 0xDEADBEEF) << c.text;
  if (*c.log) {
    EXPECT_TRUE(log.contains(std::string("E/LUMOKIT_SESSION_MANAGER: ") + c.log)) << c.text;
  } else {
    EXPECT_TRUE(log.lines().empty()) << c.text;
  }
}

}  // namespace

TEST(Conversions, Hexadecimal) {
  const Case cases[] = {
      {"0x", 0, 0, ""},
      {"0X1f", 0, 31, ""},
      {"0xFFFFFFFF", 0, 4294967295u, ""},
      {"0x1FFFFFFFF", 0, 4294967295u, ""},  // low 32 bits kept
      {"0x100000001", 0, 1, ""},
      {"0x10000000000000000", -1, 0, "Invalid input, out of range input"},
      {"0x1G", -1, 0, ""},
      {"1f", -1, 0, ""},
      {"x1", -1, 0, ""},
      {"", -1, 0, ""},
      {"0x 1", -1, 0, ""},
  };
  for (const Case& c : cases) check(hexadecimalstring_to_uint32_validation, c);
  EXPECT_TRUE(isValidHexadecimalString("0x"));
  EXPECT_TRUE(isValidHexadecimalString("0xabcDEF0123456789abcdef"));  // length is not limited
  EXPECT_FALSE(isValidHexadecimalString("0"));
}

TEST(Conversions, Decimal) {
  const Case cases[] = {
      {"4097", 0, 4097, ""},
      {"4294967295", 0, 4294967295u, ""},
      {"4294967296", 0, 0, ""},
      {"-1", 0, 0xFFFFFFFFu, ""},
      {"  12ab", 0, 12, ""},
      {"abc", -1, 0, "Invalid input, no conversion"},
      {"", -1, 0, "Invalid input, no conversion"},
      {"99999999999999999999999", -1, 0, "Invalid input, out of range input"},
  };
  for (const Case& c : cases) check(string_to_uint32_validation, c);
}

TEST(Conversions, CanonicalHexText) {
  const std::pair<unsigned int, const char*> cases[] = {
      {0, "0x00"}, {5, "0x05"}, {10, "0x0A"}, {255, "0xFF"}, {4096, "0x1000"},
      {0xabc, "0xABC"}, {0xFFFFFFFF, "0xFFFFFFFF"},
  };
  for (const auto& c : cases) EXPECT_EQ(uint32_to_hexstring(c.first), c.second);
  EXPECT_EQ(lumokit::toupper('q'), 'Q');
  EXPECT_EQ(lumokit::toupper('{'), '{');
  EXPECT_EQ(lumokit::toupper(0xE9), 0xE9);  // no locale
}
