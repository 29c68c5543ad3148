#include "common/deferred_deleter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "common/closure.h"
#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/weak_function.h"
#include "tests/event_thread_blocker.h"

namespace vantu {
namespace {

struct Target {
  int hits = 0;
  void hit(const std::shared_ptr<int>& /*tracker*/) { ++hits; }
  int value() { return 42; }
};

TEST(WeakFunctionTest, CallsOnlyWhileTheOwnerLives) {
  auto owner = std::make_shared<Target>();
  auto tracker = std::make_shared<int>(0);
  auto call =
      makeWeakFunction(std::weak_ptr<Target>(owner), std::bind(&Target::hit, owner.get(), tracker));
  std::function<void()> stored = call;  // a copy, as the callers store it
  call();
  stored();
  EXPECT_EQ(2, owner->hits);
  EXPECT_EQ(3, tracker.use_count());  // each copy holds its bound arguments

  auto valued =
      makeWeakFunction<int>(std::weak_ptr<Target>(owner), std::bind(&Target::value, owner.get()));
  EXPECT_EQ(42, valued());

  // Once the owner is gone nothing runs (the bound raw pointer would dangle).
  owner.reset();
  call();
  stored();
  EXPECT_EQ(0, valued());

  // Destroying the callable releases what was bound into it.
  stored = nullptr;
  EXPECT_EQ(2, tracker.use_count());
}

TEST(WeakFunctionTest, OwnerReleasedDuringTheCallLivesUntilItReturns) {
  // The call runs on another thread; while it runs, this thread drops the
  // last outside reference. The owner must die only when the call returns.
  struct Owner {
    std::function<void()> body;
    std::atomic<bool>* destroyed;
    ~Owner() { *destroyed = true; }
    void call() { body(); }
  };
  Mutex mutex;
  ConditionVariable cv;
  bool in_call = false, dropped = false, alive_at_end = false;
  std::atomic<bool> destroyed{false};
  auto body = [&] {
    MutexLock lock(mutex);
    in_call = true;
    cv.notifyAll();
    while (!dropped) cv.wait(mutex);
    alive_at_end = !destroyed;
  };
  std::shared_ptr<Owner> owner(new Owner{body, &destroyed});
  auto call = makeWeakFunction(std::weak_ptr<Owner>(owner), std::bind(&Owner::call, owner.get()));
  std::thread caller([&] { call(); });
  {
    MutexLock lock(mutex);
    while (!in_call) cv.wait(mutex);
  }
  owner.reset();
  EXPECT_FALSE(destroyed.load());  // the call still holds it
  {
    MutexLock lock(mutex);
    dropped = true;
    cv.notifyAll();
  }
  caller.join();
  EXPECT_TRUE(alive_at_end);
  EXPECT_TRUE(destroyed.load());  // released when the call returned
  call();                         // and nothing runs afterwards
}

TEST(WeakFunctionTest, ACallThatThrowsReleasesTheOwner) {
  struct Thrower {
    void fail(const std::shared_ptr<int>&) { throw std::runtime_error("boom"); }
  };
  auto owner = std::make_shared<Thrower>();
  auto tracker = std::make_shared<int>(0);
  auto call = makeWeakFunction(std::weak_ptr<Thrower>(owner),
                               std::bind(&Thrower::fail, owner.get(), tracker));
  EXPECT_THROW(call(), std::runtime_error);
  EXPECT_EQ(1, owner.use_count());  // the strong reference taken for the call is gone

  // A one-shot closure whose call throws is not deleted by Run: it still holds
  // its bound arguments, and whoever caught the exception deletes it.
  google::protobuf::Closure* closure = relay::newClosure(std::move(call), true);
  EXPECT_THROW(closure->Run(), std::runtime_error);
  EXPECT_EQ(1, owner.use_count());
  EXPECT_EQ(2, tracker.use_count());  // still alive
  delete closure;
  EXPECT_EQ(1, tracker.use_count());
}

TEST(ClosureTest, OneShotDeletesItselfAndPermanentSurvives) {
  auto tracker = std::make_shared<int>(0);
  int runs = 0;
  // Deleted by Run: the bound tracker copy is gone (and LSan sees no leak).
  relay::newClosure([tracker, &runs] { ++runs; }, true)->Run();
  EXPECT_EQ(1, tracker.use_count());
  google::protobuf::Closure* permanent = relay::newClosure([tracker, &runs] { ++runs; }, false);
  permanent->Run();
  permanent->Run();
  EXPECT_EQ(3, runs);
  EXPECT_EQ(2, tracker.use_count());
  delete permanent;
}

// Where and when Watched objects are destroyed.
std::atomic<int> destroyed{0};
std::atomic<int> destroyed_on_event_thread{0};

struct Watched {
  ~Watched() {
    if (isEventThread()) ++destroyed_on_event_thread;
    ++destroyed;
  }
};

// Records the calls the deferred deletion makes, in place of deleting.
struct NullProbe {};
std::atomic<int> null_probe_calls{0};
std::atomic<int> null_probe_calls_on_event_thread{0};

}  // namespace

template <>
void libeventThreadDeferredDeleteDoDelete<NullProbe>(NullProbe* p) {
  if (p == nullptr) ++null_probe_calls;
  if (isEventThread()) ++null_probe_calls_on_event_thread;
}

namespace {

TEST(DeferredDeleterTest, LastReferenceOrNullDroppedAnywhereIsDeletedOnTheEventThreadLater) {
  destroyed = destroyed_on_event_thread = 0;
  // Dropped on this thread while the event thread is busy: the weak reference
  // fails at once, the destructor waits for the event thread.
  {
    testing::EventThreadBlocker blocker;
    std::shared_ptr<Watched> object(new Watched, LibEventThreadDeferredDeleter<Watched>());
    std::weak_ptr<Watched> weak = object;
    object.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(0, destroyed.load());
  }
  waitForDeferredWork();
  EXPECT_EQ(1, destroyed.load());
  EXPECT_EQ(1, destroyed_on_event_thread.load());

  // Dropped on the event thread itself: still not inside the caller's frame.
  std::shared_ptr<Watched> other(new Watched, LibEventThreadDeferredDeleter<Watched>());
  int destroyed_inline = -1;
  runOnEventThreadAndWait([&] {
    other.reset();
    destroyed_inline = destroyed.load() - 1;
  });
  waitForDeferredWork();
  EXPECT_EQ(0, destroyed_inline);
  EXPECT_EQ(2, destroyed_on_event_thread.load());

  // No shortcut for null: the deletion function is queued and runs later on
  // the event thread, where it does nothing.
  {
    testing::EventThreadBlocker blocker;
    libeventThreadDeferredDelete<NullProbe>(nullptr);
    EXPECT_EQ(0, null_probe_calls.load());
  }
  waitForDeferredWork();
  EXPECT_EQ(1, null_probe_calls.load());
  EXPECT_EQ(1, null_probe_calls_on_event_thread.load());
}

}  // namespace
}  // namespace vantu
