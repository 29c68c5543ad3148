#ifndef RELAY_RPC_H_
#define RELAY_RPC_H_

#include <google/protobuf/message.h>
#include <google/protobuf/service.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "common/mutex.h"
#include "common/non_copyable.h"
#include "common/socket_address.h"
#include "common/time.h"
#include "net/request_response_connection_handler.h"
#include "relay/http_request_parser.h"
#include "relay/peer_info.h"
#include "relay/rpc_channel_options.h"

namespace vantu {

class TimerHandle;

namespace relay {

class ResilientChannel;
class TcpSocket;

// The controller of one remote call, on either side of the wire.
//
// Client: the application makes one, hands it to a stub over an RPCChannel, and
// either gets its done closure run or waits here (a timed wait that expires
// cancels the call). Server: one per incoming call, handed to the service,
// which fails the call with SetFailed.
//
// Every operation may be called from any thread. Callbacks run outside the
// controller's mutex; the cancel callback is deleted under it, so its
// destructor must not call back into the controller.
class RPC : public google::protobuf::RpcController {
 public:
  RPC();
  ~RPC() override;
  RPC(const RPC&) = delete;
  RPC& operator=(const RPC&) = delete;

  // google::protobuf::RpcController
  void Reset() override;
  bool Failed() const override;
  std::string ErrorText() const override;
  void StartCancel() override;
  void SetFailed(const std::string& reason) override;
  bool IsCanceled() const override;
  void NotifyOnCancel(google::protobuf::Closure* callback) override;

  // Blocks until the call has completed.
  void wait();
  // Waits for completion until `deadline`. True: completed. False: the deadline
  // passed first, and the call was canceled.
  bool timedWaitAbsolute(const Time& deadline);
  bool timedWaitRelative(const Duration& timeout);
  // Marks the call completed successfully.
  void setDone();

  // Client: the time by which the next call made with this controller must
  // be answered, set before the call; a channel made with options fails the
  // call when it passes and tells the server how long is left. Server: the
  // caller's deadline for this call, when it sent one. Zero: none. Reset
  // clears it.
  void setDeadline(const Time& deadline);
  Time deadline() const;

  // Server: who made the call (see relay/peer_info.h), set before the
  // service's method runs and valid until the call completes;
  // PeerInfo::unknown() on a client's controller. Reset clears it.
  const PeerInfo& peer() const;
  void setPeer(std::shared_ptr<const PeerInfo> peer);

 private:
  void setDoneInternal() VANTU_REQUIRES(mutex_);

  bool done_ VANTU_GUARDED_BY(mutex_) = false;
  bool failed_ VANTU_GUARDED_BY(mutex_) = false;
  bool canceled_ VANTU_GUARDED_BY(mutex_) = false;
  std::string error_text_ VANTU_GUARDED_BY(mutex_);
  Time deadline_ VANTU_GUARDED_BY(mutex_);
  mutable Mutex mutex_;
  ConditionVariable cond_;
  std::unique_ptr<google::protobuf::Closure> cancel_callback_ VANTU_GUARDED_BY(mutex_);
  // Written by the server before the call reaches the service (which the
  // hand-over orders) and by Reset between calls: no lock.
  std::shared_ptr<const PeerInfo> peer_;
};

// A call id or flag as both ends read it: strtol in base 10, keeping the low
// 32 bits, so that "%d" of any 32-bit id reads back as the same id. A value
// of up to nine plain digits is read without strtol.
uint32_t readCallNumber(const std::string& text);

// Appends the head of one call as a client writes it, the empty line that
// ends it left out: the request line, Host, Content-Length of `body_size`,
// then Rpc-Id, Rpc-Service and Rpc-Method.
void appendCallHead(std::string* head, size_t body_size, uint32_t id,
                    const google::protobuf::MethodDescriptor& method);

// Sends one call's head and then its body on `connection`, the two together.
// A large body is handed to the socket whole, not copied, and *body is left
// empty; a small one is copied and *body keeps its buffer for the next call.
void sendCall(RequestResponseConnectionHandler* connection, const std::string& head,
              std::string* body);

class RPCChannel;
// The channel as create() returns it: destroyed on the event thread.
using RPCChannelPtr = std::shared_ptr<RPCChannel>;

// The client side of RPC over HTTP: one TCP connection to one server, on which
// any number of calls overlap and are matched to their answers by id.
//
// Made with options (create(address, options), create(target, options)) it
// reaches one server or several, connects without blocking, and with the
// options of RPCChannelOptions::resilient() survives lost connections and
// server restarts and bounds every call by a deadline that the server hears
// too (see relay/rpc_channel_options.h). Such a channel runs its done
// closures without holding its mutex.
//
// Made by create(); the last RPCChannelPtr may be dropped on any thread, and
// destroying the channel completes every pending call with "Canceled".
// CallMethod may be called from any thread, also from several at once and from
// inside a done closure (except one run because the channel is being
// destroyed: the channel is gone by then). A call completes through its controller, which must be
// an RPC, and its done closure, if any; done closures run on the event thread
// (or on the thread that cancels) with the channel's mutex held.
class RPCChannel : public google::protobuf::RpcChannel, public NonCopyable {
  friend class RPCChannelTestPeer;

 public:
  // The header names of the protocol, shared by client and server.
  static const std::string kHeaderService;      // "Rpc-Service"
  static const std::string kHeaderMethod;       // "Rpc-Method"
  static const std::string kHeaderId;           // "Rpc-Id"
  static const std::string kHeaderFailed;       // "Rpc-Failed"
  static const std::string kHeaderError;        // "Rpc-Error"
  static const std::string kHeaderContentType;  // "Content-Type"
  // The caller's remaining budget for the call, in milliseconds: sent by a
  // channel made with options for every call that has a deadline.
  static const std::string kHeaderTimeout;  // "Rpc-Timeout"
  // "1" on a failure answer: the server did not run the call (it was
  // draining), so the call may be sent to another server.
  static const std::string kHeaderNotRun;  // "Rpc-Not-Run"

  // How calls on a channel made with options fail, beyond the server's own
  // error texts, "Can't parse response." and "Canceled".
  // Written on a connection that was lost before the answer came: the
  // server may have run the call.
  static const std::string kErrorConnectionLost;
  // Never written: no server could be reached before the deadline.
  static const std::string kErrorUnreachable;
  // Written, and not answered before the deadline.
  static const std::string kErrorDeadlineExceeded;
  // Refused at once: max_pending calls were pending.
  static const std::string kErrorTooManyPending;
  // The error text of the server's "not run" answer while it drains.
  static const std::string kErrorDraining;

  // The connection handler that carries the calls; owned by its channel and
  // destroyed on the event thread.
  class RPCHandler : public RequestResponseConnectionHandler,
                     public std::enable_shared_from_this<RPCHandler>,
                     private NonCopyable {
   public:
    RPCHandler();
    ~RPCHandler() override;

    // Issues one call: records it and schedules its write. Caller's thread.
    void sendRequest(const google::protobuf::MethodDescriptor* method,
                     google::protobuf::RpcController* controller,
                     const google::protobuf::Message* request, google::protobuf::Message* response,
                     google::protobuf::Closure* done);
    // Writes the request if the call is still pending. Event thread.
    void doSendRequest(const std::shared_ptr<TimerHandle>& timer,
                       const google::protobuf::MethodDescriptor* method,
                       const google::protobuf::Message* request, int id);
    // Completes the call a response answers. Event thread.
    void handleResponse(const HttpResponsePtr& response);
    // The same for a success reply read where it lies: its id and body.
    void handlePlainReply(uint32_t id, const char* body, size_t body_size);

    // RequestResponseConnectionHandler
    void notifyOutputShutdown() override;
    void notifyInputShutdown(std::string* data) override;
    void notifyIncomingData(std::string* data) override;
    size_t notifyIncomingBytes(const char* data, size_t size) override;

   private:
    friend class RPCChannelTestPeer;  // sets the next id: ids wrap only after 2^32 calls

    struct PendingRequest {
      uint32_t id = 0;
      google::protobuf::RpcController* controller = nullptr;  // not owned; an RPC
      google::protobuf::Message* response = nullptr;          // not owned
      google::protobuf::Closure* done = nullptr;              // not owned; may be null
    };

    // The calls in flight and the lock over them. The handler owns it; the
    // cancel closures hold it weakly. It is not the handler itself that they
    // hold because the handler expires as soon as its channel lets go of it,
    // while its destruction (which completes every pending call) waits for the
    // event thread: a call canceled in between must still be found, and
    // completed then and there, not by the destructor after its caller was told
    // it was over. Any thread.
    struct Calls {
      // Completes the call `id` as canceled, if it is still pending. The
      // cancelling thread.
      void onCancelRPC(int id);

      // Recursive, so that a done closure may issue the next call on the same
      // channel. Held while a call is written, completed or canceled.
      Mutex mutex{Mutex::kRecursive};
      // Last id handed out; under the mutex so that several threads may issue
      // calls at once.
      uint32_t next_id VANTU_GUARDED_BY(mutex) = 0;
      std::map<unsigned, PendingRequest> pending VANTU_GUARDED_BY(mutex);
    };

    // Event thread only.
    HttpResponseParser parser_;
    // The last bytes the parser was given ended in a CR, whose LF it may still
    // be waiting for: the next bytes go to it too.
    bool parser_cr_at_end_ = false;
    // Replies received and not yet handled: at most kRepliesPerTurn replies
    // are handled per turn of the event loop, and the rest wait for a later
    // one. The calls that the handled replies' done closures issue are then
    // written before the rest are handled, so that the server works on them
    // while this side works on the rest, instead of each side waiting for the
    // other's whole batch. Event thread only.
    static constexpr int kRepliesPerTurn = 16;
    std::string unread_;

    // Handles the replies in `data`, up to kRepliesPerTurn of them in the
    // server's own success form; returns the bytes used, the rest not yet
    // looked at. Event thread.
    size_t readReplies(const char* data, size_t size);
    void scheduleMoreReplies();
    void readMoreReplies();

    // Constant after construction.
    const std::shared_ptr<Calls> calls_;
  };

  // A channel connected to `address`, or an empty pointer when no connection
  // could be made.
  static RPCChannelPtr create(const SocketAddress& address);
  // A channel to `address` that behaves as `options` say. Returns at once,
  // without waiting for the connection; an empty pointer only when the
  // options cannot be used (logged at level 2).
  static RPCChannelPtr create(const SocketAddress& address, const RPCChannelOptions& options);
  // The same for every server of `target` (see RPCTarget: "HOST:PORT", a
  // comma-separated list, "dns:///NAME:PORT"); an empty pointer also when the
  // target cannot be read. Names are looked up on a thread of their own.
  static RPCChannelPtr create(const std::string& target, const RPCChannelOptions& options);

  RPCChannel();
  ~RPCChannel() override;

  // google::protobuf::RpcChannel
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request, google::protobuf::Message* response,
                  google::protobuf::Closure* done) override;

 private:
  explicit RPCChannel(std::shared_ptr<ResilientChannel> resilient);
  static RPCChannelPtr createResilient(const RPCTarget& target, const RPCChannelOptions& options);

  std::shared_ptr<TcpSocket> socket_;
  std::shared_ptr<RPCHandler> handler_;
  // Set when made with options; it then carries every call.
  std::shared_ptr<ResilientChannel> resilient_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_RPC_H_
