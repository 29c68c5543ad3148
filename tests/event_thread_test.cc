#include "common/event_thread.h"

#include <event2/event.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "tests/event_thread_blocker.h"
#include "tests/waiting.h"

namespace vantu {
namespace {

using testing::EventThreadBlocker;

TEST(EventThreadTest, DeferredWorkRunsInOrderOnTheEventThreadNeverInsideItsCaller) {
  constexpr int kThreads = 4, kPerThread = 2000;
  // Touched only on the event thread; read here after waitForDeferredWork.
  std::vector<std::pair<int, int>> ran;
  int off_thread_runs = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        auto record = [&, t, i] {
          if (!isEventThread()) ++off_thread_runs;
          ran.emplace_back(t, i);
        };
        // Both kinds share one queue and one order.
        if (i % 2 == 0) {
          defer(record);
        } else {
          scheduleDeferred(record);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  waitForDeferredWork();

  ASSERT_EQ(static_cast<size_t>(kThreads * kPerThread), ran.size());
  EXPECT_EQ(0, off_thread_runs);
  std::vector<int> next(kThreads, 0);
  for (const auto& entry : ran) {
    ASSERT_EQ(next[entry.first], entry.second) << "thread " << entry.first << " out of order";
    ++next[entry.first];
  }

  // Deferring never runs inside the caller, and waiting from the loop returns.
  bool outer_finished = false, inner_saw_outer_finished = false;
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    EXPECT_TRUE(isEventThread());
    defer([&] { inner_saw_outer_finished = outer_finished; });
    // Would deadlock if it waited for the queue it is running from.
    waitForDeferredWork();
    outer_finished = true;
  }));
  waitForDeferredWork();
  EXPECT_TRUE(inner_saw_outer_finished);
}

// What a turn's end-of-turn functions record; event thread only.
std::vector<int>* turn_log = nullptr;
int turn_end_asks_left = 0;

void logTurnEnd() {
  turn_log->push_back(-1);
  // Asked again from its own run: not lost, and not run in the same pass.
  if (turn_end_asks_left > 0) {
    --turn_end_asks_left;
    runAtEndOfTurn(&logTurnEnd);
    turn_log->push_back(-2);
  }
}

TEST(EventThreadTest, EndOfTurnFunctionsRunAfterTheTurnsCallbacksOncePerAsk) {
  std::vector<int> log;
  bool asked_off_thread = runAtEndOfTurn(&logTurnEnd);
  EXPECT_FALSE(asked_off_thread);
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    turn_log = &log;
    turn_end_asks_left = 1;
    // Three deferred functions run in one turn: the two asks made by the
    // first run after the third, each once; the ask made by the first of
    // those runs after them.
    defer([&] {
      log.push_back(1);
      EXPECT_TRUE(runAtEndOfTurn(&logTurnEnd));
      EXPECT_TRUE(runAtEndOfTurn(&logTurnEnd));
    });
    defer([&] { log.push_back(2); });
    defer([&] { log.push_back(3); });
  }));
  waitForDeferredWork();
  waitForDeferredWork();
  ASSERT_TRUE(runOnEventThreadAndWait([] { turn_log = nullptr; }));
  EXPECT_EQ((std::vector<int>{1, 2, 3, -1, -2, -1, -1}), log);
}

// A producer that defers itself again and again must not keep the loop from
// its sockets: the pipe is readable before the producer starts, so the loop
// sees it at its next poll, which must come within a few dozen rounds.
TEST(EventThreadTest, WorkThatKeepsDeferringWorkLetsTheSocketsBeRead) {
  constexpr int kMaxRounds = 1000;
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  struct Shared {
    Mutex mutex;
    ConditionVariable done_cv;
    bool done VANTU_GUARDED_BY(mutex) = false;
    // Event thread only.
    int rounds = 0;
    int rounds_when_read = -1;
    struct event* readable = nullptr;
    std::function<void()> produce;
  } shared;
  shared.produce = [&shared] {
    ++shared.rounds;
    if (shared.rounds_when_read < 0 && shared.rounds < kMaxRounds) {
      defer(shared.produce);
      return;
    }
    MutexLock lock(shared.mutex);
    shared.done = true;
    shared.done_cv.notifyAll();
  };
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    shared.readable = event_new(
        eventThreadBase(), fds[0], EV_READ,
        [](evutil_socket_t, short, void* arg) {
          auto* s = static_cast<Shared*>(arg);
          s->rounds_when_read = s->rounds;
        },
        &shared);
    event_add(shared.readable, nullptr);
    ASSERT_EQ(1, write(fds[1], "x", 1));
    defer(shared.produce);
  }));
  {
    MutexLock lock(shared.mutex);
    while (!shared.done) shared.done_cv.wait(shared.mutex);
  }
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    event_free(shared.readable);
    shared.produce = nullptr;
  }));
  close(fds[0]);
  close(fds[1]);
  EXPECT_GE(shared.rounds_when_read, 0) << "the pipe was never read";
  EXPECT_LE(shared.rounds_when_read, 32) << "the producer ran on without a poll";
}

// A cancelled function never runs, and what it holds is released at once,
// not at its deadline: queued (as a timer or not) behind a busy event thread,
// cancelled before the event thread armed its timer, or after, from the event
// thread or from elsewhere.
TEST(EventThreadTest, CancelledFunctionsNeverRunAndReleaseWhatTheyHoldAtOnce) {
  enum When {
    kQueued,
    kTimerQueued,
    kArmedCancelledElsewhere,
    kArmedCancelledOnEventThread,
    kCancelledBeforeArming
  };
  for (When when : {kQueued, kTimerQueued, kArmedCancelledElsewhere, kArmedCancelledOnEventThread,
                    kCancelledBeforeArming}) {
    SCOPED_TRACE(when);
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> weak_held = held;
    std::atomic<int> runs{0};
    std::function<void()> fn = [held, &runs] { ++runs; };
    held.reset();
    if (when == kQueued || when == kTimerQueued) {
      EventThreadBlocker blocker;
      TimerHandle cancelled = when == kTimerQueued ? scheduleDeferred(fn, Duration::seconds(3600))
                                                   : scheduleDeferred(fn);
      cancelled.cancel();
      cancelled.cancel();  // twice is harmless
    } else if (when == kCancelledBeforeArming) {
      // On the event thread, before the queue arms it.
      runOnEventThreadAndWait([&] { scheduleDeferred(fn, Duration::seconds(3600)).cancel(); });
    } else {
      TimerHandle timer = scheduleDeferred(fn, Duration::seconds(3600));
      waitForDeferredWork();  // armed by now, and holding the function
      ASSERT_FALSE(weak_held.expired());
      if (when == kArmedCancelledOnEventThread) {
        runOnEventThreadAndWait([&] { timer.cancel(); });
      } else {
        timer.cancel();
      }
    }
    fn = nullptr;
    // Twice: a batch's functions are destroyed after its last one ran.
    waitForDeferredWork();
    waitForDeferredWork();
    EXPECT_TRUE(weak_held.expired()) << "the cancelled function's captures are still alive";
    EXPECT_EQ(0, runs.load());
  }
}

// libevent's clock is coarse: a timer it keeps may wake a few milliseconds
// before its time. What was scheduled with a delay never runs before it.
TEST(EventThreadTest, DelayedFunctionsNeverRunEarly) {
  testing::Collected<std::pair<Time, Time>> runs;  // when due, when run
  for (int i = 0; i < 40; ++i) {
    const Duration delay = Duration::milliseconds(1 + i % 20);
    const Time due = Time::now() + delay;
    scheduleDeferred(
        [&runs, due] {
          EXPECT_TRUE(isEventThread());
          runs.add({due, Time::now()});
        },
        delay);
  }
  for (const auto& run : runs.all(40)) EXPECT_LE(run.first, run.second);
}

// Process exit: work queued before it still runs (so deferred deletions
// happen), and work deferred after the loop stopped is dropped without a crash.
bool ran_after_stop = false;

void deferAfterStop() {
  // Registered before the event thread started, so it runs after the thread's
  // own exit handler.
  defer([] { ran_after_stop = true; });
  waitForDeferredWork();
  bool ok = eventThreadBase() == nullptr && !runOnEventThreadAndWait([] {}) && !ran_after_stop;
  _exit(ok ? 7 : 1);
}

TEST(EventThreadDeathTest, ExitRunsQueuedWorkThenDropsLaterWork) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        atexit(deferAfterStop);
        struct Noisy {
          ~Noisy() { fprintf(stderr, "deleted on event thread: %d\n", isEventThread()); }
        };
        // The deletion is queued behind a blocked event thread when exit
        // starts; the blocker is released by an exit handler that runs before
        // the event thread's own.
        static EventThreadBlocker* blocker = new EventThreadBlocker;
        atexit([] { blocker->release(); });
        Noisy* noisy = new Noisy;
        defer([noisy] { delete noisy; });
        exit(0);
      },
      ::testing::ExitedWithCode(7), "deleted on event thread: 1");
}

}  // namespace
}  // namespace vantu
