#include "common/mutex.h"

#include <cerrno>
#include <ctime>

namespace vantu {

Mutex::Mutex(Kind kind) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  if (kind == kRecursive) pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex() { pthread_mutex_destroy(&mutex_); }

void Mutex::lock() { pthread_mutex_lock(&mutex_); }

void Mutex::unlock() { pthread_mutex_unlock(&mutex_); }

ConditionVariable::ConditionVariable() {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  // Time::now reads the monotonic clock; deadlines must be on the same one.
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&cond_, &attributes);
  pthread_condattr_destroy(&attributes);
}

ConditionVariable::~ConditionVariable() { pthread_cond_destroy(&cond_); }

void ConditionVariable::wait(Mutex& mutex) { pthread_cond_wait(&cond_, &mutex.mutex_); }

bool ConditionVariable::timedWaitAbsolute(Mutex& mutex, const Time& deadline) {
  uint64_t us = deadline.toMicroseconds();
  timespec ts;
  ts.tv_sec = static_cast<time_t>(us / 1000000);
  ts.tv_nsec = static_cast<long>((us % 1000000) * 1000);
  return pthread_cond_timedwait(&cond_, &mutex.mutex_, &ts) != ETIMEDOUT;
}

void ConditionVariable::notifyOne() { pthread_cond_signal(&cond_); }

void ConditionVariable::notifyAll() { pthread_cond_broadcast(&cond_); }

}  // namespace vantu
