#include "common/event_thread.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/fast_thread_local.h"
#include "common/mutex.h"

namespace vantu {
namespace internal {

// What a TimerHandle points at.
struct TimerState {
  explicit TimerState(bool delayed) : delayed(delayed) {}
  const bool delayed;
  std::atomic<bool> cancelled{false};
  // Delayed timers only, event thread only: the armed libevent timer, the
  // function it will run, and when (libevent's coarse clock may wake it a
  // few milliseconds before; it then waits for the rest).
  struct event* timer = nullptr;
  std::function<void()> fn;
  Time due;
};

}  // namespace internal

namespace {

using internal::TimerState;

VANTU_FAST_THREAD_LOCAL bool on_event_thread = false;

// Work that defers more work runs again in the same pass of the loop, without
// a poll in between, at most this many batches in a row; then the loop polls.
// Running on saves a poll per batch where deferred work answers deferred work
// (RPC calls issued from completions); the bound keeps such work from starving
// the sockets.
constexpr int kMaxBatchesWithoutPoll = 16;

// Stopping runs the queue dry; work that keeps deferring more work forever is
// cut off after this many rounds.
constexpr int kMaxDrainRoundsAtStop = 1000;

// The loop and its queue. Made once, on first use, and never destroyed: calls
// may still arrive from static destructors after it stopped, and must find it.
// Owned by the process; see the free functions below for who may call what.
class EventThread {
 public:
  EventThread() {
    evthread_use_pthreads();
    base_ = event_base_new();
    {
      MutexLock lock(mutex_);
      wake_ = event_new(base_, -1, 0, &EventThread::onWake, this);
      wake_after_poll_ = evtimer_new(base_, &EventThread::onWake, this);
    }
    turn_end_ = event_new(base_, -1, 0, &EventThread::onTurnEnd, this);
    thread_ = std::thread([this] { run(); });
  }

  // Queues one entry; false when the loop has stopped and the entry was parked.
  bool post(std::function<void()> fn, std::shared_ptr<TimerState> timer) {
    MutexLock lock(mutex_);
    if (state_ == kStopped) {
      // Never run and never destroyed: destroying it would run the destructors
      // of what it captured on an exiting thread, which is what deferring was
      // meant to avoid. It stays reachable, so it is no leak either.
      parked_.push_back(std::move(fn));
      return false;
    }
    queue_.push_back(Entry{std::move(fn), std::move(timer)});
    if (!wake_pending_) {
      // Under mutex_, so that the stopping loop cannot free wake_ in between.
      // libevent never holds its base lock while it runs our callbacks, so
      // taking it inside mutex_ cannot deadlock.
      wake_pending_ = true;
      event_active(wake_, EV_READ, 1);
    }
    return true;
  }

  void addStopHook(const std::function<void()>& fn) {
    MutexLock lock(mutex_);
    stop_hooks_.push_back(fn);
  }

  // Event thread only.
  bool runAtEndOfTurn(void (*fn)()) {
    if (turn_end_ == nullptr) return false;
    // The first of a turn: queued behind the callbacks already active, so
    // it runs after them and before the loop next polls.
    if (turn_end_fns_.empty()) event_active(turn_end_, EV_READ, 1);
    turn_end_fns_.push_back(fn);
    return true;
  }

  bool stopped() {
    MutexLock lock(mutex_);
    return state_ == kStopped;
  }

  struct event_base* base() {
    return stopped() ? nullptr : base_;
  }

  // Event thread only: arms a delayed timer for `state`, due at state->due.
  void armTimer(const std::shared_ptr<TimerState>& state) {
    if (state->cancelled.load()) return;
    state->timer = evtimer_new(base_, &EventThread::onTimer, state.get());
    addTimer(state.get());
    armed_[state.get()] = state;
  }

  static void addTimer(TimerState* state) {
    const int64_t left = (state->due - Time::now()).toMicroseconds();
    const int64_t us = left < 0 ? 0 : left;
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    evtimer_add(state->timer, &tv);
  }

  // Event thread only: forgets a cancelled delayed timer (frees its event and
  // what its function captured).
  void disarmTimer(TimerState* state) {
    auto it = armed_.find(state);
    if (it == armed_.end()) return;
    std::shared_ptr<TimerState> keep = std::move(it->second);
    armed_.erase(it);
    event_free(keep->timer);
    keep->timer = nullptr;
    keep->fn = nullptr;
  }

  // At process exit, from whichever thread runs the exit handlers.
  void stop() {
    {
      MutexLock lock(mutex_);
      if (state_ != kRunning) return;
      state_ = kStopping;
      // Woken in the same critical section: once kStopping is visible, a
      // batch already under way may stop the loop and free wake_ at once.
      if (!on_event_thread) event_active(wake_, EV_READ, 1);
    }
    if (on_event_thread) {
      // exit() was called from a callback: drain here; the loop is on our
      // stack, so it can neither be joined nor freed.
      drainAndStop();
      thread_.detach();
      return;
    }
    thread_.join();
    event_base_free(base_);
  }

 private:
  struct Entry {
    std::function<void()> fn;
    std::shared_ptr<TimerState> timer;  // set when the entry can be cancelled
  };
  enum State { kRunning, kStopping, kStopped };

  void run() {
    on_event_thread = true;
    event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY);
  }

  static void onWake(evutil_socket_t, short, void* arg) {
    static_cast<EventThread*>(arg)->runQueued();
  }

  static void onTurnEnd(evutil_socket_t, short, void* arg) {
    static_cast<EventThread*>(arg)->runTurnEnd();
  }

  void runTurnEnd() {
    // What these functions ask for runs at the end of the next turn. Run
    // from a vector of its own (a function that exits the process runs
    // this again inside), which lends its capacity back afterwards.
    std::vector<void (*)()> running = std::move(spare_turn_end_);
    running.swap(turn_end_fns_);
    for (void (*fn)() : running) fn();
    running.clear();
    spare_turn_end_ = std::move(running);
  }

  static void onTimer(evutil_socket_t, short, void* arg) {
    EventThread& self = instanceForCallbacks();
    auto it = self.armed_.find(static_cast<TimerState*>(arg));
    if (it == self.armed_.end()) return;
    if (Time::now() < it->second->due && !it->second->cancelled.load()) {
      addTimer(it->second.get());  // woken early: wait for the rest
      return;
    }
    std::shared_ptr<TimerState> state = std::move(it->second);
    self.armed_.erase(it);
    event_free(state->timer);
    state->timer = nullptr;
    std::function<void()> fn = std::move(state->fn);
    if (!state->cancelled.load()) fn();
  }

  static EventThread& instanceForCallbacks();

  // Runs one batch: everything queued when the batch started. What is queued
  // meanwhile runs in the next one. libevent runs an event activated during
  // its callbacks in the same pass, without polling in between; so after
  // kMaxBatchesWithoutPoll such batches the next one is woken by a timer due
  // at once instead, which libevent only fires after its next poll.
  void runQueued() {
    bool stopping;
    {
      MutexLock lock(mutex_);
      wake_pending_ = true;  // posts during the batch leave the waking to us
      running_.swap(queue_);
      stopping = state_ == kStopping;
    }
    runBatch();
    if (stopping) {
      drainAndStop();
      return;
    }
    MutexLock lock(mutex_);
    if (queue_.empty() || state_ != kRunning) {
      // Stopping: stop() has activated wake_ already.
      wake_pending_ = false;
      batches_without_poll_ = 0;
      return;
    }
    if (++batches_without_poll_ < kMaxBatchesWithoutPoll) {
      event_active(wake_, EV_READ, 1);
      return;
    }
    batches_without_poll_ = 0;
    const timeval now = {0, 0};
    evtimer_add(wake_after_poll_, &now);
  }

  void runBatch() {
    for (Entry& entry : running_) {
      if (entry.timer && entry.timer->cancelled.load()) continue;
      entry.fn();
    }
    // Destroyed here, on the event thread, keeping the vector's capacity.
    running_.clear();
  }

  void drainAndStop() {
    std::vector<std::function<void()>> hooks;
    {
      MutexLock lock(mutex_);
      hooks.swap(stop_hooks_);
    }
    for (auto& hook : hooks) hook();
    for (int round = 0;; ++round) {
      {
        MutexLock lock(mutex_);
        if (queue_.empty() || round == kMaxDrainRoundsAtStop) {
          for (Entry& entry : queue_) parked_.push_back(std::move(entry.fn));
          queue_.clear();
          state_ = kStopped;
          event_free(wake_);
          wake_ = nullptr;
          event_free(wake_after_poll_);
          wake_after_poll_ = nullptr;
          break;
        }
        running_.swap(queue_);
      }
      runBatch();
      runTurnEnd();
    }
    // From here on the caller of runAtEndOfTurn does its own work.
    struct event* turn_end = turn_end_;
    turn_end_ = nullptr;
    runTurnEnd();
    event_free(turn_end);
    for (auto& entry : armed_) {
      event_free(entry.second->timer);
      entry.second->timer = nullptr;
      entry.second->fn = nullptr;
    }
    armed_.clear();
    event_base_loopbreak(base_);
  }

  Mutex mutex_;
  std::vector<Entry> queue_ VANTU_GUARDED_BY(mutex_);
  bool wake_pending_ VANTU_GUARDED_BY(mutex_) = false;
  State state_ VANTU_GUARDED_BY(mutex_) = kRunning;
  std::vector<std::function<void()>> stop_hooks_ VANTU_GUARDED_BY(mutex_);
  std::vector<std::function<void()>> parked_ VANTU_GUARDED_BY(mutex_);

  // Constant after construction.
  struct event_base* base_ = nullptr;
  std::thread thread_;

  // Activated under mutex_ whenever the queue gets work; freed under it when
  // the loop stops.
  struct event* wake_ VANTU_GUARDED_BY(mutex_) = nullptr;
  // Wakes the next batch when the last one left work behind: see runQueued.
  struct event* wake_after_poll_ VANTU_GUARDED_BY(mutex_) = nullptr;

  // Event thread only. turn_end_ is null once the loop stops.
  std::vector<Entry> running_;
  // Batches chained in this pass of the loop; back to 0 when a batch leaves
  // nothing behind or hands the next one to the timer.
  int batches_without_poll_ = 0;
  struct event* turn_end_ = nullptr;
  std::vector<void (*)()> turn_end_fns_;
  std::vector<void (*)()> spare_turn_end_;
  std::unordered_map<TimerState*, std::shared_ptr<TimerState>> armed_;
};

// Atomic because stopEventThreadAtExit may run on a thread that did not make it.
std::atomic<EventThread*> the_thread{nullptr};

void stopAtExit() { the_thread.load(std::memory_order_acquire)->stop(); }

EventThread& instance() {
  static EventThread* thread = [] {
    EventThread* made = new EventThread;
    the_thread.store(made, std::memory_order_release);
    atexit(stopAtExit);
    return made;
  }();
  return *thread;
}

EventThread& EventThread::instanceForCallbacks() {
  return *the_thread.load(std::memory_order_acquire);
}

}  // namespace

TimerHandle::TimerHandle() = default;
TimerHandle::TimerHandle(std::shared_ptr<internal::TimerState> state) : state_(std::move(state)) {}
TimerHandle::TimerHandle(TimerHandle&& other) noexcept = default;
TimerHandle& TimerHandle::operator=(TimerHandle&& other) noexcept = default;
TimerHandle::~TimerHandle() = default;

void TimerHandle::cancel() {
  if (!state_ || state_->cancelled.exchange(true) || !state_->delayed) return;
  // A delayed timer also holds a libevent event and its function until it
  // fires; release both now rather than at the deadline.
  std::shared_ptr<internal::TimerState> state = state_;
  if (isEventThread()) {
    instance().disarmTimer(state.get());
  } else {
    instance().post([state] { instance().disarmTimer(state.get()); }, nullptr);
  }
}

void defer(const std::function<void()>& fn) { instance().post(fn, nullptr); }

TimerHandle scheduleDeferred(const std::function<void()>& fn) {
  auto state = std::make_shared<internal::TimerState>(false);
  instance().post(fn, state);
  return TimerHandle(state);
}

TimerHandle scheduleDeferred(const std::function<void()>& fn, Duration delay) {
  auto state = std::make_shared<internal::TimerState>(true);
  state->fn = fn;
  state->due = Time::now() + (delay < Duration() ? Duration() : delay);
  // Armed on the event thread, so that only that thread touches the timer.
  instance().post([state] { instance().armTimer(state); }, nullptr);
  return TimerHandle(state);
}

void waitForDeferredWork() {
  if (isEventThread()) return;
  runOnEventThreadAndWait([] {});
}

bool runOnEventThreadAndWait(const std::function<void()>& fn) {
  if (isEventThread()) {
    fn();
    return true;
  }
  Mutex mutex;
  ConditionVariable done_cv;
  bool done = false;
  bool queued = instance().post(
      [&] {
        fn();
        MutexLock lock(mutex);
        done = true;
        done_cv.notifyAll();
      },
      nullptr);
  if (!queued) return false;
  MutexLock lock(mutex);
  while (!done) done_cv.wait(mutex);
  return true;
}

bool runAtEndOfTurn(void (*fn)()) { return on_event_thread && instance().runAtEndOfTurn(fn); }

bool isEventThread() { return on_event_thread; }

void stopEventThreadAtExit() {
  EventThread* thread = the_thread.load(std::memory_order_acquire);
  if (thread != nullptr) thread->stop();
}

struct event_base* eventThreadBase() {
  return instance().base();
}

void atEventThreadStop(const std::function<void()>& fn) { instance().addStopHook(fn); }

}  // namespace vantu
