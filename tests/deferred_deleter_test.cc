#include "common/deferred_deleter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/closure.h"
#include "common/event_thread.h"
#include "common/map_util.h"
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

  // Never had an owner.
  Target unowned;
  auto orphan =
      makeWeakFunction(std::weak_ptr<Target>(), std::bind(&Target::hit, &unowned, tracker));
  orphan();
  EXPECT_EQ(0, unowned.hits);

  // Destroying the callable releases what was bound into it.
  stored = nullptr;
  EXPECT_EQ(3, tracker.use_count());
}

TEST(WeakFunctionTest, OwnerReleasedDuringTheCallLivesUntilItReturns) {
  // The call runs on another thread; while it runs, this thread drops the
  // last outside reference. The owner must die only when the call returns, on
  // the calling thread.
  struct Owner {
    Owner(std::atomic<bool>* destroyed, Mutex* mutex, ConditionVariable* cv, bool* in_call,
          bool* dropped, bool* alive_at_end)
        : destroyed(destroyed),
          mutex(mutex),
          cv(cv),
          in_call(in_call),
          dropped(dropped),
          alive_at_end(alive_at_end) {}
    ~Owner() { *destroyed = true; }
    void call() {
      MutexLock lock(*mutex);
      *in_call = true;
      cv->notifyAll();
      while (!*dropped) cv->wait(*mutex);
      *alive_at_end = !*destroyed;
    }
    std::atomic<bool>* destroyed;
    Mutex* mutex;
    ConditionVariable* cv;
    bool* in_call;
    bool* dropped;
    bool* alive_at_end;
  };
  std::atomic<bool> destroyed{false};
  Mutex mutex;
  ConditionVariable cv;
  bool in_call = false, dropped = false, alive_at_end = false;
  auto owner = std::make_shared<Owner>(&destroyed, &mutex, &cv, &in_call, &dropped, &alive_at_end);
  Owner* raw = owner.get();
  auto call = makeWeakFunction(std::weak_ptr<Owner>(owner), std::bind(&Owner::call, raw));
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
    void fail() { throw std::runtime_error("boom"); }
  };
  auto owner = std::make_shared<Thrower>();
  auto call =
      makeWeakFunction(std::weak_ptr<Thrower>(owner), std::bind(&Thrower::fail, owner.get()));
  EXPECT_THROW(call(), std::runtime_error);
  EXPECT_EQ(1, owner.use_count());  // the strong reference taken for the call is gone

  // A one-shot closure whose call throws is not deleted by Run: it still holds
  // its bound arguments, and whoever caught the exception deletes it.
  auto tracker = std::make_shared<int>(0);
  struct Target {
    void fail(const std::shared_ptr<int>&) { throw std::runtime_error("boom"); }
  };
  auto target = std::make_shared<Target>();
  google::protobuf::Closure* closure =
      relay::newClosure(makeWeakFunction(std::weak_ptr<Target>(target),
                                         std::bind(&Target::fail, target.get(), tracker)),
                        true);
  EXPECT_THROW(closure->Run(), std::runtime_error);
  EXPECT_EQ(1, target.use_count());
  EXPECT_EQ(2, tracker.use_count());  // still alive
  delete closure;
  EXPECT_EQ(1, tracker.use_count());
}

TEST(ClosureTest, OneShotDeletesItselfAndPermanentSurvives) {
  struct Case {
    const char* name;
    bool self_deleting;
    bool owner_alive;
  };
  const Case cases[] = {{"one-shot, owner alive", true, true},
                        {"one-shot, owner gone", true, false},
                        {"permanent, owner alive", false, true},
                        {"permanent, owner gone", false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto owner = std::make_shared<Target>();
    Target* raw = owner.get();
    auto tracker = std::make_shared<int>(0);
    google::protobuf::Closure* closure = relay::newClosure(
        makeWeakFunction(std::weak_ptr<Target>(owner), std::bind(&Target::hit, raw, tracker)),
        c.self_deleting);
    EXPECT_EQ(2, tracker.use_count());
    if (!c.owner_alive) owner.reset();
    closure->Run();
    if (c.owner_alive) {
      EXPECT_EQ(1, raw->hits);
    }
    if (c.self_deleting) {
      // Deleted by Run: the bound tracker copy is gone (and LSan sees no leak).
      EXPECT_EQ(1, tracker.use_count());
      continue;
    }
    closure->Run();
    if (c.owner_alive) {
      EXPECT_EQ(2, raw->hits);
    }
    EXPECT_EQ(2, tracker.use_count());
    delete closure;
    EXPECT_EQ(1, tracker.use_count());
  }
}

// Records where and when it is destroyed.
struct Watched {
  explicit Watched(std::atomic<int>* destroyed_on_event_thread, std::atomic<int>* destroyed)
      : on_event_thread(destroyed_on_event_thread), destroyed(destroyed) {}
  virtual ~Watched() {
    if (isEventThread()) ++*on_event_thread;
    ++*destroyed;
  }
  std::atomic<int>* on_event_thread;
  std::atomic<int>* destroyed;
};

struct WatchedChild : Watched {
  using Watched::Watched;
};

TEST(DeferredDeleterTest, LastReferenceDroppedAnywhereDeletesOnTheEventThreadLater) {
  std::atomic<int> on_event_thread{0};
  std::atomic<int> destroyed{0};

  // Dropped on this thread while the event thread is busy: the weak reference
  // fails at once, the destructor waits for the event thread.
  Mutex mutex;
  ConditionVariable cv;
  bool blocked = false;
  bool release = false;
  defer([&] {
    MutexLock lock(mutex);
    blocked = true;
    cv.notifyAll();
    while (!release) cv.wait(mutex);
  });
  {
    MutexLock lock(mutex);
    while (!blocked) cv.wait(mutex);
  }
  std::shared_ptr<Watched> object(new WatchedChild(&on_event_thread, &destroyed),
                                  LibEventThreadDeferredDeleter<Watched>());
  std::weak_ptr<Watched> weak = object;
  object.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(0, destroyed.load());
  {
    MutexLock lock(mutex);
    release = true;
    cv.notifyAll();
  }
  waitForDeferredWork();
  EXPECT_EQ(1, destroyed.load());
  EXPECT_EQ(1, on_event_thread.load());

  // Dropped on the event thread itself: still not inside the caller's frame.
  std::shared_ptr<Watched> other(new Watched(&on_event_thread, &destroyed),
                                 LibEventThreadDeferredDeleter<Watched>());
  int destroyed_inline = -1;
  runOnEventThreadAndWait([&] {
    other.reset();
    destroyed_inline = destroyed.load() - 1;
  });
  waitForDeferredWork();
  EXPECT_EQ(0, destroyed_inline);
  EXPECT_EQ(2, destroyed.load());
  EXPECT_EQ(2, on_event_thread.load());
}

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

TEST(DeferredDeleterTest, NullIsQueuedLikeAnyPointer) {
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

TEST(MapUtilTest, FindPtrOrNullSharesOrGivesEmpty) {
  std::map<std::string, std::shared_ptr<int>> map;
  map["present"] = std::make_shared<int>(7);
  std::shared_ptr<int> found = findPtrOrNull(map, "present");
  ASSERT_NE(nullptr, found);
  EXPECT_EQ(7, *found);
  EXPECT_EQ(2, map["present"].use_count());

  EXPECT_EQ(nullptr, findPtrOrNull(map, "missing"));
  EXPECT_EQ(nullptr, findPtrOrNull(map, "Present"));  // exact match only
  EXPECT_EQ(1u, map.size());

  std::map<int, const char*> raw = {{1, "one"}};
  EXPECT_STREQ("one", findPtrOrNull(raw, 1));
  EXPECT_EQ(nullptr, findPtrOrNull(raw, 2));
}

}  // namespace
}  // namespace vantu
