#ifndef RELAY_RPC_DEADLINE_H_
#define RELAY_RPC_DEADLINE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/time.h"
#include "relay/deadline_queue.h"

namespace vantu {
namespace relay {

class RPC;

// The caller's deadline as the server reads it from "Rpc-Timeout": `now`
// plus that many milliseconds. Zero (none) unless the value is plain decimal
// digits, at most a day's worth.
Time deadlineFromTimeout(const std::string& value, Time now);

// One started call that its caller may abandon, shared by the server's record
// of the call and by CallCanceller. The record finishes it before its
// controller is reused or freed; from then on a cancel does nothing. Any
// thread.
class CallTicket {
 public:
  explicit CallTicket(RPC* controller) : controller_(controller) {}
  CallTicket(const CallTicket&) = delete;
  CallTicket& operator=(const CallTicket&) = delete;

  // Cancels the call's controller (IsCanceled() true, the service's
  // NotifyOnCancel callback runs on this thread) unless it has finished.
  void cancel();
  // The call is over: its controller is no longer ours to touch. Waits for a
  // cancel under way on another thread.
  void finish();
  bool finished();

 private:
  // Recursive: a service may complete its call (and so finish it) from
  // inside its cancel callback.
  Mutex mutex_{Mutex::kRecursive};
  RPC* controller_ VANTU_GUARDED_BY(mutex_);
};

// Cancels the calls of one server whose callers gave up on them: when the
// deadline they sent passes, or when their connection ends (the caller closed
// it, or it broke). Used when HttpServerOptions::cancel_abandoned_calls is on.
//
// Owned by the server's HttpServerImpl; its timer holds it weakly. Event
// thread only; tickets are finished from any thread.
class CallCanceller : public std::enable_shared_from_this<CallCanceller> {
 public:
  CallCanceller() = default;
  CallCanceller(const CallCanceller&) = delete;
  CallCanceller& operator=(const CallCanceller&) = delete;

  // Watches a call started on `connection` with the caller's `deadline`
  // (zero: none); the ticket goes with the call's record.
  std::shared_ptr<CallTicket> watch(RPC* controller, Time deadline, const void* connection);
  // `connection` ended: its calls still running are cancelled.
  void connectionEnded(const void* connection);

 private:
  void arm();
  void expire();

  // Event thread only.
  DeadlineQueue<std::shared_ptr<CallTicket>> deadlines_;
  std::function<void()> expire_;  // made on first use
  std::unordered_map<const void*, std::vector<std::shared_ptr<CallTicket>>> by_connection_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_RPC_DEADLINE_H_
