#include "relay/rpc_deadline.h"

#include <algorithm>
#include <functional>

#include "common/weak_function.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

// A longer budget is as good as none.
constexpr uint64_t kLongestTimeoutMs = 24ull * 60 * 60 * 1000;

using Entry = std::pair<Time, std::shared_ptr<CallTicket>>;

// Orders the heap so that its top is the earliest deadline.
struct Later {
  bool operator()(const Entry& a, const Entry& b) const { return a.first > b.first; }
};

}  // namespace

Time deadlineFromTimeout(const std::string& value, Time now) {
  if (value.empty() || value.size() > 9) return Time();
  uint64_t ms = 0;
  for (char c : value) {
    if (c < '0' || c > '9') return Time();
    ms = ms * 10 + static_cast<uint64_t>(c - '0');
  }
  if (ms > kLongestTimeoutMs) return Time();
  return now + Duration::milliseconds(static_cast<int64_t>(ms));
}

// ---------------------------------------------------------------------------
// CallTicket

void CallTicket::cancel() {
  MutexLock lock(mutex_);
  // Under the lock, so that the call cannot finish (and its controller be
  // reused) meanwhile; the service's callback runs here.
  if (controller_ != nullptr) controller_->StartCancel();
}

void CallTicket::finish() {
  MutexLock lock(mutex_);
  controller_ = nullptr;
}

bool CallTicket::finished() {
  MutexLock lock(mutex_);
  return controller_ == nullptr;
}

// ---------------------------------------------------------------------------
// CallCanceller

CallCanceller::~CallCanceller() { timer_.cancel(); }

std::shared_ptr<CallTicket> CallCanceller::watch(RPC* controller, Time deadline,
                                                 const void* connection) {
  auto ticket = std::make_shared<CallTicket>(controller);
  std::vector<std::shared_ptr<CallTicket>>& calls = by_connection_[connection];
  // Finished calls leave a connection's list when it has doubled.
  if (calls.size() >= 16 && (calls.size() & (calls.size() - 1)) == 0) {
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const std::shared_ptr<CallTicket>& t) { return t->finished(); }),
                calls.end());
  }
  calls.push_back(ticket);
  if (deadline != Time()) {
    deadlines_.emplace_back(deadline, ticket);
    std::push_heap(deadlines_.begin(), deadlines_.end(), Later());
    arm();
  }
  return ticket;
}

void CallCanceller::connectionEnded(const void* connection) {
  auto it = by_connection_.find(connection);
  if (it == by_connection_.end()) return;
  std::vector<std::shared_ptr<CallTicket>> calls = std::move(it->second);
  by_connection_.erase(it);
  for (const std::shared_ptr<CallTicket>& ticket : calls) ticket->cancel();
}

void CallCanceller::arm() {
  // Finished calls go when they reach the top, or all at once when the heap
  // has doubled since it was last cleaned.
  if (deadlines_.size() > 2 * compacted_size_ + 64) {
    deadlines_.erase(std::remove_if(deadlines_.begin(), deadlines_.end(),
                                    [](const Entry& entry) { return entry.second->finished(); }),
                     deadlines_.end());
    std::make_heap(deadlines_.begin(), deadlines_.end(), Later());
    compacted_size_ = deadlines_.size();
  }
  while (!deadlines_.empty() && deadlines_.front().second->finished()) {
    std::pop_heap(deadlines_.begin(), deadlines_.end(), Later());
    deadlines_.pop_back();
  }
  if (deadlines_.empty()) return;
  const Time due = deadlines_.front().first;
  if (timer_due_ != Time() && timer_due_ <= due) return;
  timer_.cancel();
  timer_due_ = due;
  const Time now = Time::now();
  std::weak_ptr<CallCanceller> weak = weak_from_this();
  timer_ = scheduleDeferred(makeWeakFunction(weak, std::bind(&CallCanceller::expire, this)),
                            due > now ? due - now : Duration());
}

void CallCanceller::expire() {
  timer_due_ = Time();
  const Time now = Time::now();
  std::vector<std::shared_ptr<CallTicket>> due;
  while (!deadlines_.empty() && deadlines_.front().first <= now) {
    std::pop_heap(deadlines_.begin(), deadlines_.end(), Later());
    due.push_back(std::move(deadlines_.back().second));
    deadlines_.pop_back();
  }
  // Cancelled once the heap is whole again: a service may start work from its
  // callback.
  for (const std::shared_ptr<CallTicket>& ticket : due) ticket->cancel();
  arm();
}

}  // namespace relay
}  // namespace vantu
