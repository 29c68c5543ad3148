#ifndef RELAY_DEADLINE_QUEUE_H_
#define RELAY_DEADLINE_QUEUE_H_

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "common/time.h"

namespace vantu {
namespace relay {

// Deadlines of things that mostly finish before them (calls), and the one
// event-thread timer due at the earliest that still matters. Entries are
// not removed when their thing finishes: they go when they reach the top, or
// all at once when most of the queue is such leftovers, so that adding and
// finishing cost no search.
//
// A member of its owner, used under the owner's lock or on the event thread
// only; the timer's function must hold the owner weakly.
template <typename Key>
class DeadlineQueue {
 public:
  using Entry = std::pair<Time, Key>;

  ~DeadlineQueue() { timer_.cancel(); }

  void push(Time deadline, Key key) {
    entries_.emplace_back(deadline, std::move(key));
    std::push_heap(entries_.begin(), entries_.end(), Later());
  }

  // Takes out the entries due at `now`, earliest first, leftovers included.
  std::vector<Entry> takeDue(Time now) {
    std::vector<Entry> due;
    while (!entries_.empty() && entries_.front().first <= now) {
      std::pop_heap(entries_.begin(), entries_.end(), Later());
      due.push_back(std::move(entries_.back()));
      entries_.pop_back();
    }
    return due;
  }

  // Drops the leftovers (`stale(entry)` true) that stand in the way, and
  // keeps the timer due at the earliest live deadline: `expire` runs on the
  // event thread then (after timerFired(), which the owner calls first).
  // Event thread.
  template <typename Stale>
  void arm(Stale stale, const std::function<void()>& expire) {
    if (entries_.size() > 2 * compacted_size_ + 64) {
      entries_.erase(std::remove_if(entries_.begin(), entries_.end(), stale), entries_.end());
      std::make_heap(entries_.begin(), entries_.end(), Later());
      compacted_size_ = entries_.size();
    }
    while (!entries_.empty() && stale(entries_.front())) {
      std::pop_heap(entries_.begin(), entries_.end(), Later());
      entries_.pop_back();
    }
    if (entries_.empty()) return;
    const Time due = entries_.front().first;
    // A timer due no later still fires in time; it arms again for the rest.
    if (timer_due_ != Time() && timer_due_ <= due) return;
    timer_.cancel();
    timer_due_ = due;
    const Time now = Time::now();
    timer_ = scheduleDeferred(expire, due > now ? due - now : Duration());
  }

  // The timer has fired: the next arm() sets a new one. Event thread.
  void timerFired() { timer_due_ = Time(); }

 private:
  // Orders the heap so that its top is the earliest.
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const { return a.first > b.first; }
  };

  std::vector<Entry> entries_;  // a min-heap by deadline
  size_t compacted_size_ = 0;
  TimerHandle timer_;
  Time timer_due_;  // zero: not armed
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_DEADLINE_QUEUE_H_
