#include "relay/rpc.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <vector>

#include "common/logging.h"
#include "tests/log_capture.h"

namespace vantu {
namespace {

// This program's clock, in place of the library's for every caller: when
// scripted, the n-th reading (from 0) is 1000 + n microseconds.
std::atomic<bool> clock_scripted{false};
std::atomic<int> clock_reads{0};

}  // namespace

Time Time::now() {
  if (clock_scripted) return Time::fromMicroseconds(1000 + clock_reads++);
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return Time::fromMicroseconds(static_cast<uint64_t>(ts.tv_sec) * 1000000 +
                                static_cast<uint64_t>(ts.tv_nsec) / 1000);
}

namespace relay {
namespace {

// Counts its runs and its deletion.
class CountingClosure : public google::protobuf::Closure {
 public:
  CountingClosure(int* runs, int* deletions) : runs_(runs), deletions_(deletions) {}
  ~CountingClosure() override { ++*deletions_; }
  void Run() override { ++*runs_; }

 private:
  int* runs_;
  int* deletions_;
};

TEST(RPCTest, DeadlineAtTheCurrentTimeCancelsAtOnce) {
  // A deadline equal to the clock's reading has passed: one look, no wait.
  clock_reads = 0;
  clock_scripted = true;
  RPC rpc;
  EXPECT_FALSE(rpc.timedWaitAbsolute(Time::fromMicroseconds(1000)));
  clock_scripted = false;
  EXPECT_EQ(1, clock_reads.load());
  EXPECT_TRUE(rpc.IsCanceled());
  EXPECT_FALSE(rpc.Failed());  // no channel here to complete it
}

TEST(RPCTest, CancelCallbackRunsAtMostOnceAndOnlyBeforeCompletionOrReset) {
  int runs = 0, deletions = 0;
  CountingClosure kept(&runs, &deletions);  // a callback that is run is never deleted
  {
    RPC rpc;
    rpc.NotifyOnCancel(&kept);
    rpc.StartCancel();
    rpc.StartCancel();
    EXPECT_EQ(1, runs);
  }
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));
    rpc.setDone();  // completion discards it unrun
    EXPECT_EQ(1, deletions);
    rpc.StartCancel();
  }
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));  // destroyed unrun
  }
  EXPECT_EQ(1, runs);
  EXPECT_EQ(2, deletions);
  // Reset returns to the initial state, and deletes a stored callback unrun.
  RPC rpc;
  rpc.SetFailed("boom");
  rpc.StartCancel();
  rpc.NotifyOnCancel(&kept);  // canceled: run at once, not kept
  EXPECT_EQ(2, runs);
  rpc.Reset();
  EXPECT_FALSE(rpc.Failed());
  EXPECT_FALSE(rpc.IsCanceled());
  EXPECT_EQ("", rpc.ErrorText());
  rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));
  rpc.Reset();
  EXPECT_EQ(2, runs);
  EXPECT_EQ(3, deletions);
  EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(1)));
}

TEST(RPCTest, SecondNotifyOnCancelIsReportedAndReplacesTheFirst) {
  vantu::testing::LogCapture log;
  int first_runs = 0, first_deletions = 0, second_runs = 0, second_deletions = 0;
  CountingClosure second(&second_runs, &second_deletions);
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&first_runs, &first_deletions));
    rpc.NotifyOnCancel(&second);
    EXPECT_EQ(1, first_deletions);
    rpc.StartCancel();
    EXPECT_EQ(0, first_runs);
    EXPECT_EQ(1, second_runs);
  }
  const std::vector<LogRecord> records = log.take();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(1, records[0].level);
  EXPECT_EQ("check", records[0].logger);
  EXPECT_EQ("relay/rpc", records[0].file);
  EXPECT_EQ(116, records[0].line);
  EXPECT_EQ("virtual void vantu::relay::RPC::NotifyOnCancel(google::protobuf::Closure*)",
            records[0].function);
  EXPECT_EQ(
      "Check failed !cancel_callback_.get() NotifyOnCancel must be called no more than once per "
      "request.",
      records[0].text);
}

// The short cut for plain digits reads what strtol reads, low 32 bits kept.
TEST(CallNumberTest, ReadsWhatStrtolReads) {
  for (const char* text : {"", "0", "17", "-1", "+5", " 7", "007", "123456789", "999999999",
                           "1234567890", "4294967295", "4294967296", "-2147483648",
                           "99999999999999999999", "12a", "a1", "1 ", "\t3", "0x10"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(static_cast<uint32_t>(strtol(text, nullptr, 10)), readCallNumber(text));
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
