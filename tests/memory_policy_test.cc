#include "common/memory_policy.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace vantu {
namespace memory_policy {
namespace {

TEST(MemoryPolicyTest, ClearingKeepsSmallBuffersAndFreesLargeOnes) {
  for (size_t capacity :
       {size_t{16}, kLargestKeptString, kLargestKeptString + 1, size_t{1} << 20}) {
    SCOPED_TRACE(capacity);
    std::string text;
    text.reserve(capacity);
    text.assign(capacity, 'x');
    const size_t reserved = text.capacity();
    clearKeepingSmall(&text);
    EXPECT_TRUE(text.empty());
    if (reserved > kLargestKeptString) {
      EXPECT_EQ(std::string().capacity(), text.capacity());
    } else {
      EXPECT_EQ(reserved, text.capacity());
    }
  }
}

TEST(MemoryPolicyTest, LargeRequestsAreThoseOverEitherBound) {
  struct Case {
    size_t blocks;
    size_t bytes;
    bool large;
  } cases[] = {
      {0, 0, false},
      {16384, 1 << 20, false},
      {16385, 0, true},
      {0, (1 << 20) + 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.blocks << " blocks, " << c.bytes << " bytes");
    EXPECT_EQ(c.large, isLargeRequest(c.blocks, c.bytes));
  }
}

TEST(MemoryPolicyTest, TrimIsDueAtMostOnceASecond) {
  using std::chrono::milliseconds;
  TrimSchedule schedule;
  const TrimSchedule::Clock::time_point start{std::chrono::hours(100)};
  EXPECT_TRUE(schedule.due(start));  // the first one is never held back
  EXPECT_FALSE(schedule.due(start));
  EXPECT_FALSE(schedule.due(start + milliseconds(999)));
  EXPECT_TRUE(schedule.due(start + milliseconds(1000)));
  // The second counts from the last trim, not from the first.
  EXPECT_FALSE(schedule.due(start + milliseconds(1999)));
  EXPECT_TRUE(schedule.due(start + milliseconds(2000)));
  // A fresh schedule at the clock's origin is due too.
  EXPECT_TRUE(TrimSchedule().due(TrimSchedule::Clock::time_point()));
}

TEST(MemoryPolicyTest, ReleasingFreeMemoryFromManyThreadsAtOnceIsSafe) {
  // The schedule is the process's; the sanitizers watch this one.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 100; ++i) releaseFreeMemory();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace memory_policy
}  // namespace vantu
