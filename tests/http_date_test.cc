#include "relay/http_date.h"

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <ctime>
#include <string>
#include <thread>

namespace vantu {
namespace relay {
namespace {

// The expected texts are Python's email.utils.formatdate(t, usegmt=True).
TEST(HttpDateTest, FormatsImfFixdate) {
  struct Case {
    time_t when;
    const char* text;
  } cases[] = {
      {0, "Thu, 01 Jan 1970 00:00:00 GMT"},
      {784111777, "Sun, 06 Nov 1994 08:49:37 GMT"},  // RFC 9110's own example
      {951782400, "Tue, 29 Feb 2000 00:00:00 GMT"},  // a leap day
      {1700000000, "Tue, 14 Nov 2023 22:13:20 GMT"},
      {1719791999, "Sun, 30 Jun 2024 23:59:59 GMT"},
      {4102444800, "Fri, 01 Jan 2100 00:00:00 GMT"},  // four-digit years beyond 2038
  };
  setlocale(LC_TIME, "");  // whatever the environment names: still English

  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.text, formatHttpDate(c.when));
  }
}

// The second the call saw, between two readings of the clock.
::testing::AssertionResult isDateBetween(const std::string& text, time_t before, time_t after) {
  for (time_t t = before; t <= after; ++t) {
    if (text == formatHttpDate(t)) return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << text << " is not a second in [" << before << ", " << after << "]";
}

TEST(HttpDateTest, TheKeptTextFollowsTheClock) {
  time_t before = time(nullptr);
  EXPECT_TRUE(isDateBetween(httpDate(), before, time(nullptr)));
  // Once the clock has moved on, the text kept from the last second is not
  // the answer any more.
  const time_t first = before;
  for (int i = 0; i < 5000 && time(nullptr) == first; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  before = time(nullptr);
  ASSERT_NE(first, before) << "the clock did not move in 5 s";
  EXPECT_TRUE(isDateBetween(httpDate(), before, time(nullptr)));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
