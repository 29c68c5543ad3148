#ifndef COMMON_EVENT_THREAD_H_
#define COMMON_EVENT_THREAD_H_

#include <functional>
#include <memory>

#include "common/time.h"

struct event_base;

namespace vantu {

// The process's one event thread: a libevent loop on a thread of its own that
// runs every network callback and every piece of deferred work. It starts the
// first time anything here needs it and stops at process exit, after running
// what was still queued (so that objects handed to deferred deletion really are
// deleted). Work deferred after it stopped is never run.
//
// All functions below may be called from any thread unless they say otherwise.

// Runs `fn` later on the event thread. Functions run in the order they were
// deferred, whichever threads deferred them (scheduleDeferred without a delay
// shares the same queue). Never runs `fn` before returning, even when called on
// the event thread.
void defer(const std::function<void()>& fn);

namespace internal {
struct TimerState;
}  // namespace internal

// Names one function scheduled with scheduleDeferred, so that it can be
// cancelled. Owned by whoever scheduled the function; movable, not copyable.
// Dropping a handle does not cancel anything.
class TimerHandle {
 public:
  TimerHandle();
  explicit TimerHandle(std::shared_ptr<internal::TimerState> state);
  TimerHandle(TimerHandle&& other) noexcept;
  TimerHandle& operator=(TimerHandle&& other) noexcept;
  TimerHandle(const TimerHandle&) = delete;
  TimerHandle& operator=(const TimerHandle&) = delete;
  ~TimerHandle();

  // The function will not run if it has not started yet; one already running
  // is not interrupted. Any thread; a no-op on an empty handle.
  void cancel();

 private:
  std::shared_ptr<internal::TimerState> state_;
};

// As defer, but the function can be cancelled through the returned handle.
TimerHandle scheduleDeferred(const std::function<void()>& fn);

// Runs `fn` on the event thread once `delay` has passed (a libevent timer).
TimerHandle scheduleDeferred(const std::function<void()>& fn, Duration delay);

// Blocks until everything deferred before the call has run. On the event thread
// it returns at once (waiting there could never end); after the event thread
// stopped it returns at once as well.
void waitForDeferredWork();

// Runs `fn` on the event thread and waits for it to return: at once when called
// on the event thread. Returns false, without running `fn`, when the event
// thread has already stopped.
bool runOnEventThreadAndWait(const std::function<void()>& fn);

// Event thread only: runs `fn` once the callbacks of the loop's current turn
// have run, before it waits for events again; a function asked for twice in
// one turn runs twice. For work that is cheaper done once for a turn's many
// events than once for each (handing counts over in one step). False, and
// `fn` is not run, when called on another thread or once the loop is
// stopping: the caller then does the work itself.
bool runAtEndOfTurn(void (*fn)());

// True on the event thread. Does not start it.
bool isEventThread();

// The event thread's libevent base (starting the thread if needed), or null
// once it has stopped. Events made on it are to be added, removed and freed on
// the event thread.
struct event_base* eventThreadBase();

// Registers `fn` to run on the event thread when the process exits, after the
// work queued before exit and before the loop stops. The TCP layer uses it to
// close connections that are still open so that nothing outlives the loop.
void atEventThreadStop(const std::function<void()>& fn);

// From an exit handler only: stops the event thread now, as its own exit
// handler would later, if it ever started (it does not start it). For a
// library whose exit handler tears down what the thread's last work still
// uses: registered after the thread started, that handler runs first.
void stopEventThreadAtExit();

}  // namespace vantu

#endif  // COMMON_EVENT_THREAD_H_
