// The waits between attempts to reach a server.
#include "relay/rpc_endpoints.h"

#include <gtest/gtest.h>

namespace vantu {
namespace relay {
namespace {

TEST(ReconnectBackoffTest, DoublesPerFailureUpToItsCeilingWithinTheJitter) {
  const ReconnectBackoff backoff(Duration::milliseconds(100), Duration::seconds(2));
  const struct {
    int failures;
    double unit;  // the random draw
    int64_t us;
  } kCases[] = {
      {0, 0.7, 0},            // after a connection that worked: at once
      {1, 0.5, 100000},       // the nominal wait
      {1, 0.0, 80000},        // 20 % less
      {1, 0.999999, 119999},  // almost 20 % more
      {2, 0.5, 200000},      {3, 0.5, 400000}, {5, 0.5, 1600000}, {6, 0.5, 2000000},  // the ceiling
      {6, 0.0, 1600000},     // the ceiling, with jitter
      {1000, 0.5, 2000000},  // never past it, however many
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.failures) + " failures, draw " + std::to_string(c.unit));
    EXPECT_EQ(c.us, backoff.delay(c.failures, c.unit).toMicroseconds());
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
