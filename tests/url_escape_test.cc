#include "relay/url_escape.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

namespace vantu {
namespace relay {
namespace {

TEST(UrlEscapeTest, UnescapeDecodesEachEscapeOnce) {
  // A "%" without two hexadecimal digits after it is an ordinary byte; a
  // decoded byte never starts another escape or becomes a blank; a NUL,
  // escaped or raw, ends the result.
  struct Case {
    std::string escaped;
    std::string text;
  } cases[] = {
      {"", ""},
      {"a+b%20c", "a b c"},
      {"%41%62", "Ab"},
      {"%2B", "+"},
      {"+%2B+", " + "},
      {"%aF%Af", "\xAF\xAF"},
      {"%E2%82%AC", "\xE2\x82\xAC"},
      {"100%", "100%"},
      {"%4", "%4"},
      {"%zz", "%zz"},
      {"%4g", "%4g"},
      {"%%", "%%"},
      {"%%41", "%A"},
      {"%4%41", "%4A"},
      {"%2541", "%41"},
      {"%252B", "%2B"},
      {"%25%34%31", "%41"},
      {"a%00b", "a"},
      {"%00", ""},
      {std::string("a\0%41", 5), "a"},
      {std::string("\0b", 2), ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.escaped);
    const std::string original = c.escaped;
    EXPECT_EQ(c.text, urlUnescape(original));
    EXPECT_EQ(c.escaped, original);  // the copying form leaves its argument alone
    std::string in_place = c.escaped;
    urlUnescape(&in_place);
    EXPECT_EQ(c.text, in_place);
  }
}

TEST(UrlEscapeTest, EscapeKeepsOnlyUnreservedBytes) {
  struct Case {
    std::string text;
    std::string escaped;
  } cases[] = {
      {"", ""},
      {"abcXYZ0189", "abcXYZ0189"},
      {"-_.!~*'()", "-_.!~*'()"},
      {"a b", "a%20b"},
      {"/?#&=+%", "%2F%3F%23%26%3D%2B%25"},
      {"\xE2\x82\xAC", "%E2%82%AC"},
      {std::string("\0\x7f\xff", 3), "%00%7F%FF"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.escaped);
    EXPECT_EQ(c.escaped, urlEscape(c.text));
  }
  // Longer than the escaping buffer's inline capacity.
  std::string expected, text;
  for (int i = 0; i < 2000; ++i) expected += "x%20", text += "x ";
  EXPECT_EQ(expected, urlEscape(text));
}

TEST(UrlEscapeTest, UnescapeUndoesEscapeForTextWithoutNul) {
  const unsigned seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int i = 0; i < 2000; ++i) {
    const int length = std::uniform_int_distribution<int>(0, i % 10 == 0 ? 5000 : 40)(random);
    std::string text;
    for (int j = 0; j < length; ++j) text += static_cast<char>(1 + random() % 255);
    const std::string escaped = urlEscape(text);
    ASSERT_EQ(std::string::npos, escaped.find_first_of(" +\x80\xff")) << escaped;
    ASSERT_EQ(text, urlUnescape(escaped));
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
