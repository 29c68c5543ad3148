#include "relay/rpc.h"

#include <charconv>
#include <cstdlib>

#include "common/closure.h"
#include "common/deferred_deleter.h"
#include "common/event_thread.h"
#include "common/fast_thread_local.h"
#include "common/logging.h"
#include "common/memory_policy.h"
#include "common/string_util.h"
#include "common/weak_function.h"
#include "net/tcp_socket.h"
#include "relay/resilient_channel.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kSourceFile[] = "relay/rpc";

// Appends `value` as "%d" writes it.
void appendDecimal(std::string* out, int value) {
  char digits[16];
  const char* end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
  out->append(digits, end - digits);
}

}  // namespace

uint32_t readCallNumber(const std::string& text) {
  // Nine digits cannot overflow, and strtol would read them the same way.
  if (!text.empty() && text.size() <= 9) {
    uint32_t value = 0;
    bool digits = true;
    for (char c : text) {
      digits = digits && c >= '0' && c <= '9';
      value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    if (digits) return value;
  }
  return static_cast<uint32_t>(strtol(text.c_str(), nullptr, 10));
}

const std::string RPCChannel::kHeaderService = "Rpc-Service";
const std::string RPCChannel::kHeaderMethod = "Rpc-Method";
const std::string RPCChannel::kHeaderId = "Rpc-Id";
const std::string RPCChannel::kHeaderFailed = "Rpc-Failed";
const std::string RPCChannel::kHeaderError = "Rpc-Error";
const std::string RPCChannel::kHeaderContentType = "Content-Type";
const std::string RPCChannel::kHeaderTimeout = "Rpc-Timeout";
const std::string RPCChannel::kHeaderNotRun = "Rpc-Not-Run";
const std::string RPCChannel::kErrorConnectionLost =
    "Connection lost after the call was sent; the server may have run it.";
const std::string RPCChannel::kErrorUnreachable = "No server reachable before the deadline.";
const std::string RPCChannel::kErrorDeadlineExceeded = "Deadline exceeded.";
const std::string RPCChannel::kErrorTooManyPending = "Too many pending calls.";
const std::string RPCChannel::kErrorDraining = "Server is draining.";

void appendCallHead(std::string* head, size_t body_size, uint32_t id,
                    const google::protobuf::MethodDescriptor& method) {
  // "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: %d\r\n%s: %d\r\n%s: %s\r\n%s:
  // %s\r\n\r\n", the names as %s would take them (up to a NUL, which they never hold).
  head->append("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: ");
  appendDecimal(head, static_cast<int>(body_size));
  head->append("\r\n").append(RPCChannel::kHeaderId).append(": ");
  appendDecimal(head, static_cast<int>(id));
  head->append("\r\n").append(RPCChannel::kHeaderService).append(": ");
  head->append(method.service()->full_name().c_str());
  head->append("\r\n").append(RPCChannel::kHeaderMethod).append(": ").append(method.name().c_str());
  head->append("\r\n");
}

void sendCall(RequestResponseConnectionHandler* connection, const std::string& head,
              std::string* body) {
  RequestResponseConnectionHandler::SendGuard guard(connection);
  connection->send(head);
  if (body->size() > memory_policy::kLargestGatheredContent) {
    connection->sendOwned(std::move(*body));
    body->clear();
  } else {
    connection->send(*body);
  }
}

// ---------------------------------------------------------------------------
// RPC

RPC::RPC() = default;

RPC::~RPC() {
  MutexLock lock(mutex_);
  cancel_callback_.reset();
}

void RPC::Reset() {
  MutexLock lock(mutex_);
  done_ = false;
  failed_ = false;
  canceled_ = false;
  error_text_.clear();
  deadline_ = Time();
  cancel_callback_.reset();
  peer_.reset();
}

const PeerInfo& RPC::peer() const { return peer_ ? *peer_ : PeerInfo::unknown(); }

void RPC::setPeer(std::shared_ptr<const PeerInfo> peer) { peer_ = std::move(peer); }

bool RPC::Failed() const {
  MutexLock lock(mutex_);
  return failed_;
}

std::string RPC::ErrorText() const {
  MutexLock lock(mutex_);
  return error_text_;
}

bool RPC::IsCanceled() const {
  MutexLock lock(mutex_);
  return canceled_;
}

void RPC::SetFailed(const std::string& reason) {
  MutexLock lock(mutex_);
  error_text_ = reason;
  failed_ = true;
  setDoneInternal();
}

void RPC::setDone() {
  MutexLock lock(mutex_);
  setDoneInternal();
}

void RPC::setDoneInternal() {
  done_ = true;
  cond_.notifyAll();
  // Completion discards the cancel callback unrun.
  cancel_callback_.reset();
}

void RPC::StartCancel() {
  std::unique_ptr<google::protobuf::Closure> callback;
  {
    MutexLock lock(mutex_);
    if (canceled_) return;
    canceled_ = true;
    callback = std::move(cancel_callback_);
  }
  // Run outside the mutex: the callback completes the call on this controller.
  // Once run, the callback is no longer ours; it frees itself if it must.
  if (callback) callback.release()->Run();
}

void RPC::NotifyOnCancel(google::protobuf::Closure* callback) {
  {
    MutexLock lock(mutex_);
    if (!canceled_) {
      if (cancel_callback_) {
        // Function text and line number are fixed by the logging contract.
        VANTU_LOG_AT(1, "check", kSourceFile,
                     "virtual void vantu::relay::RPC::NotifyOnCancel(google::protobuf::Closure*)",
                     116)
            << "Check failed !cancel_callback_.get() "
            << "NotifyOnCancel must be called no more than once per request.";
      }
      cancel_callback_.reset(callback);  // the older one, if any, is deleted unrun
      return;
    }
  }
  // Already canceled: run at once, on this thread, outside the mutex.
  callback->Run();
}

void RPC::wait() {
  MutexLock lock(mutex_);
  while (!done_) cond_.wait(mutex_);
}

bool RPC::timedWaitAbsolute(const Time& deadline) {
  {
    MutexLock lock(mutex_);
    for (;;) {
      // Completion is tested before the clock: a completed call wins even
      // against a deadline in the past.
      if (done_) return true;
      if (deadline <= Time::now()) break;
      cond_.timedWaitAbsolute(mutex_, deadline);
    }
  }
  StartCancel();  // through the virtual table, so an override runs
  return false;
}

bool RPC::timedWaitRelative(const Duration& timeout) {
  return timedWaitAbsolute(Time::now() + timeout);
}

void RPC::setDeadline(const Time& deadline) {
  MutexLock lock(mutex_);
  deadline_ = deadline;
}

Time RPC::deadline() const {
  MutexLock lock(mutex_);
  return deadline_;
}

// ---------------------------------------------------------------------------
// RPCChannel

RPCChannelPtr RPCChannel::create(const SocketAddress& address) {
  RPCChannelPtr channel(new RPCChannel, LibEventThreadDeferredDeleter<RPCChannel>());
  channel->socket_ = TcpSocket::create(address);
  if (!channel->socket_) {
    // Function text and line number are fixed by the logging contract.
    VANTU_LOG_AT(2, "rpc", kSourceFile,
                 "static vantu::relay::RPCChannelPtr vantu::relay::RPCChannel::create(const "
                 "vantu::SocketAddress&)",
                 381)
        << "Failed to create a TCP socket.";
    return RPCChannelPtr();
  }
  channel->socket_->link(channel->handler_->streamSource(), channel->handler_->streamSink());
  return channel;
}

RPCChannelPtr RPCChannel::create(const SocketAddress& address, const RPCChannelOptions& options) {
  if (!address.isValid()) {
    VANTU_LOG(2, "rpc", kSourceFile) << "Unusable channel address " << address.toString();
    return RPCChannelPtr();
  }
  RPCTarget target;
  target.hosts.push_back(RPCTarget::HostPort{address.ip(), address.port()});
  return createResilient(target, options);
}

RPCChannelPtr RPCChannel::create(const std::string& text, const RPCChannelOptions& options) {
  RPCTarget target;
  std::string error;
  if (!RPCTarget::parse(text, &target, &error)) {
    VANTU_LOG(2, "rpc", kSourceFile) << "Unusable channel target: " << error;
    return RPCChannelPtr();
  }
  return createResilient(target, options);
}

RPCChannelPtr RPCChannel::createResilient(const RPCTarget& target,
                                          const RPCChannelOptions& options) {
  const std::string problem = options.problem();
  if (!problem.empty()) {
    VANTU_LOG(2, "rpc", kSourceFile) << "Unusable channel options: " << problem;
    return RPCChannelPtr();
  }
  RPCChannelPtr channel(new RPCChannel(ResilientChannel::create(target, options)),
                        LibEventThreadDeferredDeleter<RPCChannel>());
  return channel;
}

RPCChannel::RPCChannel() : handler_(new RPCHandler, LibEventThreadDeferredDeleter<RPCHandler>()) {}

RPCChannel::RPCChannel(std::shared_ptr<ResilientChannel> resilient)
    : resilient_(std::move(resilient)) {}

RPCChannel::~RPCChannel() {
  handler_.reset();
  socket_.reset();
  resilient_.reset();
}

void RPCChannel::CallMethod(const google::protobuf::MethodDescriptor* method,
                            google::protobuf::RpcController* controller,
                            const google::protobuf::Message* request,
                            google::protobuf::Message* response, google::protobuf::Closure* done) {
  if (resilient_) {
    resilient_->callMethod(method, controller, request, response, done);
    return;
  }
  handler_->sendRequest(method, controller, request, response, done);
}

// ---------------------------------------------------------------------------
// RPCChannel::RPCHandler

RPCChannel::RPCHandler::RPCHandler()
    : RequestResponseConnectionHandler(2048), calls_(std::make_shared<Calls>()) {}

RPCChannel::RPCHandler::~RPCHandler() {
  std::map<unsigned, PendingRequest> pending;
  {
    MutexLock lock(calls_->mutex);
    // Taken out of the table before anything is completed: a cancel already
    // under way on another thread (its closure taken before completion could
    // discard it) then finds nothing once it gets the lock, instead of
    // completing the call a second time.
    pending.swap(calls_->pending);
    for (auto& entry : pending) {
      PendingRequest& call = entry.second;
      call.controller->SetFailed("Canceled");
      if (call.done != nullptr) call.done->Run();
    }
  }
  shutdown();
  // The entries are dropped together, here, with the table.
}

void RPCChannel::RPCHandler::sendRequest(const google::protobuf::MethodDescriptor* method,
                                         google::protobuf::RpcController* controller,
                                         const google::protobuf::Message* request,
                                         google::protobuf::Message* response,
                                         google::protobuf::Closure* done) {
  if (controller->IsCanceled()) return;
  uint32_t id;
  {
    MutexLock lock(calls_->mutex);
    id = ++calls_->next_id;
  }
  // Self-deleting: run once by a cancellation and freed by itself, or discarded
  // unrun (and freed) by the controller on completion.
  controller->NotifyOnCancel(
      newClosure(makeWeakFunction(std::weak_ptr<Calls>(calls_),
                                  std::bind(&Calls::onCancelRPC, calls_.get(), id)),
                 true));
  {
    MutexLock lock(calls_->mutex);
    PendingRequest& call = calls_->pending[id];
    call.id = id;
    call.controller = controller;
    call.response = response;
    call.done = done;
  }
  std::weak_ptr<RPCHandler> self = shared_from_this();
  auto timer = std::make_shared<TimerHandle>();
  *timer = scheduleDeferred(std::function<void()>(makeWeakFunction(
      self, std::bind(&RPCHandler::doSendRequest, this, timer, method, request, id))));
}

void RPCChannel::RPCHandler::doSendRequest(const std::shared_ptr<TimerHandle>& /*timer*/,
                                           const google::protobuf::MethodDescriptor* method,
                                           const google::protobuf::Message* request, int id) {
  MutexLock lock(calls_->mutex);
  if (calls_->pending.find(static_cast<unsigned>(id)) == calls_->pending.end()) return;
  // Written on the event thread, into buffers it keeps from call to call.
  VANTU_FAST_THREAD_LOCAL std::string body;
  VANTU_FAST_THREAD_LOCAL std::string head;
  request->SerializeToString(&body);
  head.clear();
  appendCallHead(&head, body.size(), static_cast<uint32_t>(id), *method);
  head.append("\r\n");
  sendCall(this, head, &body);
  // A huge request's buffers are not kept.
  if (body.capacity() > (1 << 20)) std::string().swap(body);
}

void RPCChannel::RPCHandler::Calls::onCancelRPC(int id) {
  MutexLock lock(mutex);
  auto it = pending.find(static_cast<unsigned>(id));
  if (it == pending.end()) return;
  PendingRequest call = it->second;
  call.controller->SetFailed("Canceled");
  pending.erase(it);
  if (call.done != nullptr) call.done->Run();
}

void RPCChannel::RPCHandler::handleResponse(const HttpResponsePtr& response) {
  const uint32_t id = readCallNumber(response->headers[kHeaderId]);
  MutexLock lock(calls_->mutex);
  auto it = calls_->pending.find(id);
  if (it == calls_->pending.end()) return;
  PendingRequest call = it->second;
  if (call.controller != nullptr) {
    const int failed = static_cast<int32_t>(readCallNumber(response->headers[kHeaderFailed]));
    if (failed != 0) {
      call.controller->SetFailed(response->headers[kHeaderError]);
    } else if (call.response->ParseFromString(response->body)) {
      static_cast<RPC*>(call.controller)->setDone();
    } else {
      call.controller->SetFailed("Can't parse response.");
    }
  }
  // The entry goes before done runs: a done closure may issue a call that wraps
  // onto this id (recursive mutex) and must find its own entry afterwards.
  calls_->pending.erase(it);
  if (call.done != nullptr) call.done->Run();
}

void RPCChannel::RPCHandler::notifyIncomingData(std::string* data) {
  notifyIncomingBytes(data->data(), data->size());
  data->clear();
}

size_t RPCChannel::RPCHandler::notifyIncomingBytes(const char* data, size_t size) {
  // Read where the bytes lie: a reply's body is copied once, from the
  // socket's read buffer into its place.
  std::vector<HttpResponsePtr> responses;
  const bool parsed = parser_.parse(data, size, &responses);
  for (const HttpResponsePtr& response : responses) handleResponse(response);
  if (!parsed) shutdown();
  return size;
}

void RPCChannel::RPCHandler::notifyInputShutdown(std::string* data) {
  if (data->empty()) return;
  send("Unexpected EOF!");
  shutdown();
}

void RPCChannel::RPCHandler::notifyOutputShutdown() { source_.close(); }

}  // namespace relay
}  // namespace vantu
