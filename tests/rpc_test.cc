#include "relay/rpc.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "common/logging.h"

namespace vantu {
namespace {

// This program's clock. Defining Time::now() here puts it in the place of the
// library's for every caller, the library included (its calls are bound to the
// executable's definition). It reads the real monotonic clock unless a
// ScriptedClock gives the readings.
std::mutex clock_mutex;
std::vector<uint64_t>* clock_script = nullptr;  // readings to give; the last repeats
int clock_reads = 0;

class ScriptedClock {
 public:
  explicit ScriptedClock(std::vector<uint64_t> readings) : readings_(std::move(readings)) {
    std::lock_guard<std::mutex> lock(clock_mutex);
    clock_script = &readings_;
    clock_reads = 0;
  }
  ~ScriptedClock() {
    std::lock_guard<std::mutex> lock(clock_mutex);
    clock_script = nullptr;
  }
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;

  int reads() const {
    std::lock_guard<std::mutex> lock(clock_mutex);
    return clock_reads;
  }

 private:
  std::vector<uint64_t> readings_;
};

}  // namespace

Time Time::now() {
  {
    std::lock_guard<std::mutex> lock(clock_mutex);
    if (clock_script != nullptr) {
      ++clock_reads;
      const uint64_t reading = clock_script->front();
      if (clock_script->size() > 1) clock_script->erase(clock_script->begin());
      return Time::fromMicroseconds(reading);
    }
  }
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

TEST(RPCTest, FreshControllerAndZeroTimeoutCancels) {
  RPC rpc;
  EXPECT_FALSE(rpc.Failed());
  EXPECT_FALSE(rpc.IsCanceled());
  EXPECT_EQ("", rpc.ErrorText());
  EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(0)));
  EXPECT_TRUE(rpc.IsCanceled());
  EXPECT_FALSE(rpc.Failed());  // nobody completed it: no channel here
}

TEST(RPCTest, CompletionTestedBeforeTheClock) {
  RPC rpc;
  rpc.setDone();
  EXPECT_TRUE(rpc.timedWaitAbsolute(Time::fromMicroseconds(0)));
  EXPECT_FALSE(rpc.IsCanceled());
  EXPECT_FALSE(rpc.Failed());
  rpc.wait();  // returns at once
  // setDone after SetFailed leaves the call failed; SetFailed again overwrites.
  rpc.SetFailed("x");
  rpc.setDone();
  EXPECT_TRUE(rpc.Failed());
  rpc.SetFailed("y");
  EXPECT_EQ("y", rpc.ErrorText());
}

TEST(RPCTest, DeadlineAtTheCurrentTimeCancelsAtOnce) {
  // A deadline equal to the clock's reading has passed: one look at the clock,
  // no wait for it to move on.
  ScriptedClock clock({1000, 1001});
  RPC rpc;
  EXPECT_FALSE(rpc.timedWaitAbsolute(Time::fromMicroseconds(1000)));
  EXPECT_EQ(1, clock.reads());
  EXPECT_TRUE(rpc.IsCanceled());
  EXPECT_FALSE(rpc.Failed());  // no channel here to complete it
}

TEST(RPCTest, SetFailedWakesAWaiterOnAnotherThread) {
  RPC rpc;
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    rpc.wait();
    woke = true;
  });
  rpc.SetFailed("x");
  waiter.join();
  EXPECT_TRUE(woke);
  EXPECT_TRUE(rpc.Failed());
  EXPECT_EQ("x", rpc.ErrorText());

  RPC timed;
  std::thread completer([&] { timed.setDone(); });
  EXPECT_TRUE(timed.timedWaitRelative(Duration::seconds(60)));
  completer.join();
  EXPECT_FALSE(timed.IsCanceled());
}

TEST(RPCTest, CancelCallbackRunsAtMostOnceAndOnlyBeforeCompletion) {
  int runs = 0, deletions = 0;
  {
    CountingClosure* callback = new CountingClosure(&runs, &deletions);
    {
      RPC rpc;
      rpc.NotifyOnCancel(callback);
      rpc.StartCancel();
      rpc.StartCancel();
      EXPECT_EQ(1, runs);
      EXPECT_TRUE(rpc.IsCanceled());
    }
    // The controller never deletes a callback it has run: that one is its
    // own (or, as here, its creator's) to free.
    EXPECT_EQ(0, deletions);
    delete callback;
  }
  runs = deletions = 0;
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));
    rpc.setDone();  // completion discards it unrun
    EXPECT_EQ(1, deletions);
    rpc.StartCancel();
    EXPECT_TRUE(rpc.IsCanceled());
    EXPECT_EQ(0, runs);
  }
  runs = deletions = 0;
  {
    RPC rpc;
    rpc.StartCancel();
    CountingClosure* callback = new CountingClosure(&runs, &deletions);
    rpc.NotifyOnCancel(callback);  // already canceled: run at once, not kept
    EXPECT_EQ(1, runs);
    delete callback;
  }
  EXPECT_EQ(1, deletions);
  runs = deletions = 0;
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));  // destroyed unrun
  }
  EXPECT_EQ(0, runs);
  EXPECT_EQ(1, deletions);
}

TEST(RPCTest, SecondNotifyOnCancelIsReportedAndReplacesTheFirst) {
  std::vector<LogRecord> records;
  setLogSink([&records](const LogRecord& r) { records.push_back(r); });
  int first_runs = 0, first_deletions = 0, second_runs = 0, second_deletions = 0;
  CountingClosure* second = nullptr;
  {
    RPC rpc;
    rpc.NotifyOnCancel(new CountingClosure(&first_runs, &first_deletions));
    second = new CountingClosure(&second_runs, &second_deletions);
    rpc.NotifyOnCancel(second);
    EXPECT_EQ(1, first_deletions);
    rpc.StartCancel();
    EXPECT_EQ(0, first_runs);
    EXPECT_EQ(1, second_runs);
  }
  EXPECT_EQ(0, second_deletions);  // run, so not deleted by the controller
  delete second;
  setLogSink(nullptr);
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

TEST(RPCTest, ResetReturnsToTheInitialState) {
  int runs = 0, deletions = 0;
  RPC rpc;
  rpc.SetFailed("boom");
  rpc.StartCancel();
  CountingClosure* ran = new CountingClosure(&runs, &deletions);
  rpc.NotifyOnCancel(ran);  // canceled: run at once, not kept
  EXPECT_EQ(1, runs);
  delete ran;
  rpc.Reset();
  EXPECT_FALSE(rpc.Failed());
  EXPECT_FALSE(rpc.IsCanceled());
  EXPECT_EQ("", rpc.ErrorText());
  rpc.NotifyOnCancel(new CountingClosure(&runs, &deletions));
  rpc.Reset();  // deletes the stored callback unrun
  EXPECT_EQ(1, runs);
  EXPECT_EQ(2, deletions);
  EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(1)));
}

}  // namespace
}  // namespace relay
}  // namespace vantu

namespace vantu {
namespace relay {
namespace {

// Ids and flags are read as strtol reads them, keeping the low 32 bits; the
// short cut for plain digits must not change a single reading.
TEST(CallNumberTest, ReadsWhatStrtolReads) {
  const char* const texts[] = {"",
                               "0",
                               "17",
                               "-1",
                               "+5",
                               " 7",
                               "007",
                               "123456789",
                               "999999999",
                               "1234567890",
                               "4294967295",
                               "4294967296",
                               "-2147483648",
                               "99999999999999999999",
                               "12a",
                               "a1",
                               "1 ",
                               "\t3",
                               "0x10"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(static_cast<uint32_t>(strtol(text, nullptr, 10)), readCallNumber(text));
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
