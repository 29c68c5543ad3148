#ifndef TESTS_EVENT_THREAD_BLOCKER_H_
#define TESTS_EVENT_THREAD_BLOCKER_H_

#include "common/event_thread.h"
#include "common/mutex.h"

namespace vantu {
namespace testing {

// Holds the event thread inside a deferred function from construction until
// release() or destruction: once it holds, everything deferred before it has
// run and nothing deferred after it runs. The constructor waits until it holds
// unless given kQueueOnly (for a blocker queued behind another one; then call
// waitUntilHeld()). Not for use on the event thread.
class EventThreadBlocker {
 public:
  enum Start { kWaitUntilHeld, kQueueOnly };

  explicit EventThreadBlocker(Start start = kWaitUntilHeld) {
    defer([this] {
      MutexLock lock(mutex_);
      entered_ = true;
      cv_.notifyAll();
      while (!released_) cv_.wait(mutex_);
      finished_ = true;
      cv_.notifyAll();
    });
    if (start == kWaitUntilHeld) waitUntilHeld();
  }
  ~EventThreadBlocker() {
    release();
    MutexLock lock(mutex_);
    while (!finished_) cv_.wait(mutex_);
  }
  EventThreadBlocker(const EventThreadBlocker&) = delete;
  EventThreadBlocker& operator=(const EventThreadBlocker&) = delete;

  void waitUntilHeld() {
    MutexLock lock(mutex_);
    while (!entered_) cv_.wait(mutex_);
  }

  void release() {
    MutexLock lock(mutex_);
    released_ = true;
    cv_.notifyAll();
  }

 private:
  Mutex mutex_;
  ConditionVariable cv_;
  bool entered_ VANTU_GUARDED_BY(mutex_) = false;
  bool released_ VANTU_GUARDED_BY(mutex_) = false;
  bool finished_ VANTU_GUARDED_BY(mutex_) = false;
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_EVENT_THREAD_BLOCKER_H_
