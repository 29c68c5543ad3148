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
    deadlines_.push(deadline, ticket);
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
  if (!expire_) {
    std::weak_ptr<CallCanceller> weak = weak_from_this();
    expire_ = makeWeakFunction(weak, std::bind(&CallCanceller::expire, this));
  }
  deadlines_.arm(
      [](const std::pair<Time, std::shared_ptr<CallTicket>>& entry) {
        return entry.second->finished();
      },
      expire_);
}

void CallCanceller::expire() {
  deadlines_.timerFired();
  // Cancelled once taken out of the queue: a service may start work from its
  // callback.
  for (const auto& entry : deadlines_.takeDue(Time::now())) entry.second->cancel();
  arm();
}

}  // namespace relay
}  // namespace vantu
