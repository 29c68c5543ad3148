#ifndef TESTS_WAITING_H_
#define TESTS_WAITING_H_

// Waiting in tests: for a condition, or for what other threads hand over.
// Every wait is bounded by a generous guard (30 s), so that what never
// happens fails the test instead of hanging it; the guard is not a timing
// check.

#include <poll.h>

#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/time.h"

namespace vantu {
namespace testing {

// Asks `condition` every millisecond, for up to 30 s, until it holds; false
// if it never did. For what nothing tells the test of (another process, a
// count on another thread).
template <class Condition>
bool eventually(Condition condition) {
  const Time deadline = Time::now() + Duration::seconds(30);
  while (!condition()) {
    if (Time::now() > deadline) return false;
    poll(nullptr, 0, 1);
  }
  return true;
}

// Values handed over from any thread (a handler's done, a stream, a call's
// outcome), kept in arrival order for the test to wait for and take. Any
// thread; the test owns it.
template <class T>
class Collected {
 public:
  Collected() = default;
  Collected(const Collected&) = delete;
  Collected& operator=(const Collected&) = delete;

  void add(T value) {
    MutexLock lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notifyAll();
  }
  // Waits until `count` values have arrived in all; false if they did not.
  bool waitFor(size_t count) {
    const Time deadline = Time::now() + Duration::seconds(30);
    MutexLock lock(mutex_);
    while (values_.size() < count) {
      if (!changed_.timedWaitAbsolute(mutex_, deadline) && values_.size() < count) return false;
    }
    return true;
  }
  // The index-th value; waits for it first (a default T if it never came).
  T at(size_t index) {
    if (!waitFor(index + 1)) return T();
    MutexLock lock(mutex_);
    return values_[index];
  }
  // What arrived so far, once `count` values have (or the guard ran out).
  std::vector<T> all(size_t count = 0) {
    waitFor(count);
    MutexLock lock(mutex_);
    return values_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<T> values_ VANTU_GUARDED_BY(mutex_);
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_WAITING_H_
