#include "common/string_util.h"

#include <gtest/gtest.h>

namespace vantu {
namespace {

TEST(StringUtilTest, PrintfFormatsShortAndLongTexts) {
  EXPECT_EQ("HTTP/1.1 200 OK\r\n", stringPrintf("HTTP/1.1 %d %s\r\n", 200, "OK"));
  std::string long_text(1000, 'x');
  EXPECT_EQ(long_text + "!", stringPrintf("%s!", long_text.c_str()));
  EXPECT_EQ("-1", stringPrintf("%d", static_cast<int>(4294967295u)));
}

TEST(StringUtilTest, ParseUInt32AcceptsOnlyUnsignedDecimalsThatFit) {
  struct Case {
    const char* text;
    bool ok;
    uint32_t value;
  } cases[] = {
      {"0", true, 0},     {"42", true, 42},         {"4294967295", true, 4294967295u},
      {"0004", true, 4},  {"4294967296", false, 0}, {"99999999999999999999", false, 0},
      {"", false, 0},     {"-1", false, 0},         {"+1", false, 0},
      {" 1", false, 0},   {"1 ", false, 0},         {"1a", false, 0},
      {"0x10", false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    uint32_t value = 7;
    EXPECT_EQ(c.ok, ParseUInt32(c.text, &value));
    EXPECT_EQ(c.ok ? c.value : 7u, value);
  }
}

TEST(StringUtilTest, ParseIntAcceptsSignedIntsThatFit) {
  struct Case {
    const char* text;
    bool ok;
    int value;
  } cases[] = {
      {"42", true, 42},
      {"-42", true, -42},
      {"+7", true, 7},
      {"2147483647", true, 2147483647},
      {"-2147483648", true, -2147483647 - 1},
      {"2147483648", false, 0},
      {"abc", false, 0},
      {"", false, 0},
      {"-", false, 0},
      {"1.5", false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    int value = 9;
    EXPECT_EQ(c.ok, ParseInt(c.text, &value));
    EXPECT_EQ(c.ok ? c.value : 9, value);
  }
}

}  // namespace
}  // namespace vantu
