#ifndef RELAY_RESILIENT_CHANNEL_H_
#define RELAY_RESILIENT_CHANNEL_H_

#include <google/protobuf/message.h>
#include <google/protobuf/service.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/time.h"
#include "relay/deadline_queue.h"
#include "relay/rpc_channel_options.h"
#include "relay/rpc_endpoints.h"

namespace vantu {
namespace relay {

class RPC;

// The calls of a channel made with options (RPCChannel::create(address or
// target, options)): it keeps every call until it is answered, cancelled,
// past its deadline or refused, writes each on the connection RPCEndpoints
// chooses, and decides what a lost connection means for each call: a call
// never written waits for the next connection, a call written fails with
// RPCChannel::kErrorConnectionLost (or, without reconnect, stays pending as
// on the channel of create(address)), a call the server refused unrun goes
// out again.
//
// Owned by its RPCChannel through a shared pointer whose deleter destroys it
// on the event thread; destroying it completes every pending call with
// "Canceled" in ascending id order. callMethod may be called from any
// thread; done closures run on the event thread (on the caller's thread for a
// call refused at once, on the cancelling thread for a cancel), never with
// the channel's mutex held.
class ResilientChannel final : public RPCEndpoints::Listener,
                               public std::enable_shared_from_this<ResilientChannel> {
 public:
  static std::shared_ptr<ResilientChannel> create(const RPCTarget& target,
                                                  const RPCChannelOptions& options);
  ~ResilientChannel();
  ResilientChannel(const ResilientChannel&) = delete;
  ResilientChannel& operator=(const ResilientChannel&) = delete;

  // RPCChannel::CallMethod. Any thread.
  void callMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request, google::protobuf::Message* response,
                  google::protobuf::Closure* done);

  // RPCEndpoints::Listener
  void connectionReady(RPCConnection* connection) override;
  void answersArrived(RPCConnection* connection,
                      const std::vector<HttpResponsePtr>& answers) override;
  void connectionLost(RPCConnection* connection) override;
  void resolveFailed() override;

 private:
  // One call from CallMethod to its completion.
  struct Call {
    uint32_t id = 0;
    const google::protobuf::MethodDescriptor* method = nullptr;
    RPC* controller = nullptr;                           // not owned
    const google::protobuf::Message* request = nullptr;  // not owned
    google::protobuf::Message* response = nullptr;       // not owned
    google::protobuf::Closure* done = nullptr;           // not owned; may be null
    Time deadline;                                       // zero: none
    RPCConnection* connection = nullptr;                 // written on it, not answered yet
    bool waiting = false;                                // in the queue for a connection
    bool orphaned = false;  // written on a connection lost without reconnect
  };

  // The pending calls and the lock over them. The channel owns it; the cancel
  // closures hold it weakly, so that a cancel between the channel's release
  // and its destruction still completes its call (see RPCChannel::RPCHandler
  // for the same reason). Any thread.
  struct Calls {
    // Completes the call `id` as canceled, if it is still pending. The
    // cancelling thread.
    void onCancel(uint32_t id);

    Mutex mutex;
    uint32_t next_id VANTU_GUARDED_BY(mutex) = 0;
    std::unordered_map<uint32_t, Call> pending VANTU_GUARDED_BY(mutex);
    // Calls waiting for a connection, in the order they came; entries whose
    // call has gone on are skipped.
    std::deque<uint32_t> unwritten VANTU_GUARDED_BY(mutex);
    // The calls' deadlines, and the timer due at the earliest; entries of
    // calls that have gone on are left to the queue.
    DeadlineQueue<uint32_t> deadlines VANTU_GUARDED_BY(mutex);
    // A flush is queued on the event thread.
    bool flush_queued VANTU_GUARDED_BY(mutex) = false;
  };

  ResilientChannel(const RPCChannelOptions& options);

  // Writes the calls waiting for a connection while one is ready, and arms
  // the deadline timer. Event thread.
  void flush();
  // Arranges a flush: at the end of the answers being handled, or queued.
  void requestFlush() VANTU_REQUIRES(calls_->mutex);
  // Writes `call` on `connection`. Event thread.
  void write(Call* call, RPCConnection* connection) VANTU_REQUIRES(calls_->mutex);
  // Fails the calls whose deadline has passed. Event thread.
  void expire();
  // Keeps the deadline timer due at the earliest deadline. Event thread.
  void armDeadlineTimer() VANTU_REQUIRES(calls_->mutex);
  // A deadline entry whose call has gone on (or has another deadline now).
  static bool isStale(const std::unordered_map<uint32_t, Call>& pending,
                      const std::pair<Time, uint32_t>& entry);
  // A connection the server asked to close ends once nothing written on it
  // is pending. Event thread.
  void closeIfRetiredAndIdle(RPCConnection* connection);

  // Completes a call that has left the table: with `answer`'s outcome, or
  // failed with `error`. Then runs its done closure. Any thread, no lock.
  static void complete(const Call& call, const HttpResponse* answer, const std::string& error);

  // Constant after construction.
  const RPCChannelOptions options_;
  const std::shared_ptr<Calls> calls_;
  std::shared_ptr<RPCEndpoints> endpoints_;  // set by create()

  // Set by create(): what the deadline timer runs.
  std::function<void()> expire_;

  // Event thread only.
  bool handling_answers_ = false;  // calls issued meanwhile are written after
  bool flush_after_answers_ = false;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_RESILIENT_CHANNEL_H_
