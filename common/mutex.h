#ifndef COMMON_MUTEX_H_
#define COMMON_MUTEX_H_

#include <pthread.h>

#include "common/thread_annotations.h"
#include "common/time.h"

namespace vantu {

// A mutual-exclusion lock. Recursive when constructed with kRecursive: the
// owning thread may lock it again, and must unlock it as often.
class VANTU_CAPABILITY("mutex") Mutex {
 public:
  enum Kind { kPlain, kRecursive };
  explicit Mutex(Kind kind = kPlain);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() VANTU_ACQUIRE();
  void unlock() VANTU_RELEASE();

 private:
  friend class ConditionVariable;
  pthread_mutex_t mutex_;
};

// Holds a Mutex for the life of a scope.
class VANTU_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VANTU_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() VANTU_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A condition variable used with a Mutex held exactly once by the caller.
class ConditionVariable {
 public:
  ConditionVariable();
  ~ConditionVariable();
  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  // Releases `mutex` while blocked; returns with it held. May wake spuriously.
  void wait(Mutex& mutex) VANTU_REQUIRES(mutex);
  // As wait, but gives up at `deadline` (Time::now's clock). Returns false when
  // the deadline passed, true when woken (possibly spuriously).
  bool timedWaitAbsolute(Mutex& mutex, const Time& deadline) VANTU_REQUIRES(mutex);
  void notifyOne();
  void notifyAll();

 private:
  pthread_cond_t cond_;
};

}  // namespace vantu

#endif  // COMMON_MUTEX_H_
