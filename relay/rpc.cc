#include "relay/rpc.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <vector>

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

// A reply as this library's server writes it for a call that succeeded:
// "HTTP/1.1 200 OK", then Connection, Content-Length, Rpc-Failed "0" and
// Rpc-Id, each as "Name: value" on a line of its own ended by CR LF, then the
// empty line and the body. Such a reply, complete in `data`, is read here
// where it lies: the general parser would give the same id and body, and
// nothing else of the reply is read. Returns its size in bytes with *id and
// *body set, or 0 for anything else (another form, another header, a failure,
// or a reply not yet whole), which is then left to the general parser.
size_t matchPlainReply(const char* data, size_t size, uint32_t* id, const char** body,
                       size_t* body_size) {
  static constexpr char kStart[] = "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: ";
  static constexpr char kFailed[] = "\r\nRpc-Failed: 0\r\nRpc-Id: ";
  constexpr size_t kStartSize = sizeof(kStart) - 1;
  constexpr size_t kFailedSize = sizeof(kFailed) - 1;
  const char* const end = data + size;
  if (size < kStartSize || std::memcmp(data, kStart, kStartSize) != 0) return 0;
  const char* at = data + kStartSize;
  // Content-Length: one to nine digits, no leading zero, so that any reader
  // of the number agrees on it.
  const char* digits = at;
  size_t length = 0;
  while (at < end && *at >= '0' && *at <= '9' && at - digits < 9) {
    length = length * 10 + static_cast<size_t>(*at - '0');
    ++at;
  }
  if (at == digits || (*digits == '0' && at - digits > 1)) return 0;
  if (static_cast<size_t>(end - at) < kFailedSize || std::memcmp(at, kFailed, kFailedSize) != 0) {
    return 0;
  }
  at += kFailedSize;
  // Rpc-Id as "%d" writes it: an optional minus and one to ten digits.
  const char* id_start = at;
  if (at < end && *at == '-') ++at;
  const char* id_digits = at;
  while (at < end && *at >= '0' && *at <= '9' && at - id_digits < 10) ++at;
  if (at == id_digits) return 0;
  const char* id_end = at;
  if (end - at < 4 || std::memcmp(at, "\r\n\r\n", 4) != 0) return 0;
  at += 4;
  if (static_cast<size_t>(end - at) < length) return 0;
  // Short enough for the string's own buffer: no allocation.
  *id = readCallNumber(std::string(id_start, id_end - id_start));
  *body = at;
  *body_size = length;
  return static_cast<size_t>(at + length - data);
}

// A call's deferred write, queued behind whatever the event thread was given
// before it. Holds the handler weakly, as a WeakFunction would, in one object
// instead of a bind, a function and a timer handle.
struct DeferredSend {
  std::weak_ptr<RPCChannel::RPCHandler> handler;
  const google::protobuf::MethodDescriptor* method;
  const google::protobuf::Message* request;
  uint32_t id;

  void operator()() const {
    static const std::shared_ptr<TimerHandle> kNoTimer;
    if (std::shared_ptr<RPCChannel::RPCHandler> strong = handler.lock()) {
      strong->doSendRequest(kNoTimer, method, request, static_cast<int>(id));
    }
  }
};

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
  // The fixed text and both numbers go in one piece, through a buffer on the
  // stack: appended bit by bit, the head cost more than the rest of the write.
  static constexpr char kStart[] = "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: ";
  static constexpr char kId[] = "\r\nRpc-Id: ";
  static constexpr char kService[] = "\r\nRpc-Service: ";
  static constexpr char kMethod[] = "\r\nRpc-Method: ";
  // Room for "%d" of any int, sign included.
  constexpr size_t kNumber = 12;
  char fixed[sizeof(kStart) + sizeof(kId) + sizeof(kService) + 2 * kNumber];
  char* at = std::copy(kStart, kStart + sizeof(kStart) - 1, fixed);
  at = std::to_chars(at, at + kNumber, static_cast<int>(body_size)).ptr;
  at = std::copy(kId, kId + sizeof(kId) - 1, at);
  at = std::to_chars(at, at + kNumber, static_cast<int>(id)).ptr;
  at = std::copy(kService, kService + sizeof(kService) - 1, at);
  const std::string& service = method.service()->full_name();
  const std::string& name = method.name();
  const size_t service_size = std::char_traits<char>::length(service.c_str());
  const size_t name_size = std::char_traits<char>::length(name.c_str());
  head->reserve(head->size() + (at - fixed) + service_size + sizeof(kMethod) + name_size + 2);
  head->append(fixed, at - fixed);
  head->append(service.c_str(), service_size);
  head->append(kMethod, sizeof(kMethod) - 1);
  head->append(name.c_str(), name_size);
  head->append("\r\n", 2);
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
  // Replies already read but left for a later turn complete with their
  // answers, as they would have in the turn that read them; only calls
  // with no reply yet are canceled.
  std::string waiting;
  waiting.swap(unread_);
  for (size_t at = 0; at < waiting.size();) {
    at += readReplies(waiting.data() + at, waiting.size() - at);
  }
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
  // Written later, on the event thread, in the order calls were issued. The
  // send holds the handler weakly: once the handler is gone it does nothing.
  defer(DeferredSend{shared_from_this(), method, request, id});
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
  if (body.size() <= memory_policy::kLargestGatheredContent) {
    // A small body rides in the head's buffer: one hand-over to the socket
    // instead of two, the same bytes.
    head.append(body);
    send(head);
  } else {
    sendCall(this, head, &body);
  }
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

void RPCChannel::RPCHandler::handlePlainReply(uint32_t id, const char* body, size_t body_size) {
  // handleResponse's path for a success, with the body where it lies.
  MutexLock lock(calls_->mutex);
  auto it = calls_->pending.find(id);
  if (it == calls_->pending.end()) return;
  PendingRequest call = it->second;
  if (call.controller != nullptr) {
    if (call.response->ParseFromArray(body, static_cast<int>(body_size))) {
      static_cast<RPC*>(call.controller)->setDone();
    } else {
      call.controller->SetFailed("Can't parse response.");
    }
  }
  calls_->pending.erase(it);
  if (call.done != nullptr) call.done->Run();
}

size_t RPCChannel::RPCHandler::notifyIncomingBytes(const char* data, size_t size) {
  if (!unread_.empty()) {
    // Behind the replies still waiting for their turn.
    unread_.append(data, size);
    return size;
  }
  const size_t used = readReplies(data, size);
  if (used < size) {
    unread_.assign(data + used, size - used);
    scheduleMoreReplies();
  }
  return size;
}

void RPCChannel::RPCHandler::scheduleMoreReplies() {
  // After the writes of the calls that the replies just handled issued (their
  // deferred sends are queued ahead of this), so that those go out first.
  std::weak_ptr<RPCHandler> self = shared_from_this();
  defer([self] {
    if (std::shared_ptr<RPCHandler> handler = self.lock()) handler->readMoreReplies();
  });
}

void RPCChannel::RPCHandler::readMoreReplies() {
  // Nothing is added to unread_ meanwhile: bytes arrive only from the
  // socket's callbacks, never from inside this one.
  std::string bytes;
  bytes.swap(unread_);
  const size_t used = readReplies(bytes.data(), bytes.size());
  if (used < bytes.size()) {
    unread_.assign(bytes, used, std::string::npos);
    scheduleMoreReplies();
  }
}

size_t RPCChannel::RPCHandler::readReplies(const char* data, size_t size) {
  const char* scan = data;
  const char* const end = data + size;
  // Replies in the server's own success form are read straight from the
  // socket's buffer, one after the other, while the general parser has
  // nothing half-read (nor a line end to finish) and nobody wants its
  // per-header log records.
  if (!parser_.headInProgress() && !parser_.bodyInProgress() && !parser_.spent() &&
      !parser_cr_at_end_ && !isLoggerEnabled(5, "http_request_parser")) {
    uint32_t id;
    const char* body;
    size_t body_size;
    int handled = 0;
    while (scan < end) {
      if (handled == kRepliesPerTurn) return static_cast<size_t>(scan - data);
      const size_t used = matchPlainReply(scan, end - scan, &id, &body, &body_size);
      if (used == 0) break;
      scan += used;
      ++handled;
      handlePlainReply(id, body, body_size);
    }
    if (scan == end) return size;
  }
  // The rest, and every other form, through the general parser. A reply's
  // body is copied once, from the socket's read buffer into its place.
  std::vector<HttpResponsePtr> responses;
  const bool parsed = parser_.parse(scan, end - scan, &responses);
  // A chunk that ends in a CR may leave the parser waiting to skip an LF.
  if (scan < end) parser_cr_at_end_ = end[-1] == '\r';
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
