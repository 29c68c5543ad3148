#include "relay/http_server.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <atomic>
#include <string_view>
#include <thread>

#include "common/closure.h"
#include "common/deferred_deleter.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "common/map_util.h"
#include "common/weak_function.h"
#include "relay/call_record_cache.h"
#include "relay/connection_registry.h"
#include "relay/handler_match.h"
#include "relay/http_server_observer.h"
#include "relay/rpc.h"
#include "relay/rpc_deadline.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_server";
constexpr char kSourceFile[] = "relay/http_server";

std::atomic<int> g_live_servers{0};

// Writes a response to a connection that may have gone: the header block, then
// the content, as two sends that no other response's bytes come between.
// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is the contract's
void sendResponse(HttpConnectionHandlerWeakPtr connection, const HttpResponsePtr& response,
                  bool to_head_request = false) {
  std::shared_ptr<HttpConnectionHandler> handler = connection.lock();
  if (!handler) return;
  handler->sendAnswer(response.get(), to_head_request);
}

// Writes the failure form of an RPC answer. Error texts travel in a header
// line, so CR and LF become blanks: no service text can add header lines.
void sendRPCError(HttpConnectionHandlerWeakPtr connection, const HttpResponsePtr& response,
                  uint32_t id, const std::string& error_text) {
  std::string text = error_text;
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  // "%d" is the wire format: ids above 2^31 - 1 go out negative, and readers
  // keep the low 32 bits.
  response->setHeaderF(RPCChannel::kHeaderId, "%d", id);
  response->setHeader(RPCChannel::kHeaderFailed, "1");
  response->setHeader(RPCChannel::kHeaderError, text);
  sendResponse(std::move(connection), response);
}

std::string typeUrl(const google::protobuf::Message& message) {
  return "/" + message.GetDescriptor()->full_name();
}

// The connection was owed this call's answer: settled on the event thread,
// after the answer's bytes, which from another thread are handed over through
// the event thread's queue that this follows.
void settleAnswer(const HttpConnectionHandlerWeakPtr& connection) {
  if (!isEventThread()) {
    defer([connection] { settleAnswer(connection); });
    return;
  }
  if (std::shared_ptr<HttpConnectionHandler> handler = connection.lock()) handler->answerSettled();
}

// Owns a record until it is given back, settling the answer it owed.
struct GiveBack {
  void operator()(HttpServerImpl::RPCInfo* record) const {
    // Before its controller is reused or freed.
    if (record->ticket) record->ticket->finish();
    if (record->owes_answer) settleAnswer(record->connection);
    CallRecordCache::give(record);
  }
};
using RecordPtr = std::unique_ptr<HttpServerImpl::RPCInfo, GiveBack>;

// The bound call of an RPC's completion closure: hands the record to RPCDone,
// or frees it when RPCDone never runs because the server was gone by the time
// the service completed the call.
class RPCCompletion {
 public:
  RPCCompletion(HttpServerImpl* impl, HttpServerImpl::RPCInfo* info) : impl_(impl), info_(info) {}

  void operator()() { impl_->RPCDone(info_.release()); }

 private:
  HttpServerImpl* impl_;
  RecordPtr info_;
};

}  // namespace

struct HttpServerImpl::Handler {
  Handler(const std::string& regex, HttpRequestHandler handler)
      : pattern(regex), callback(std::move(handler)) {}

  const HandlerPattern pattern;
  const HttpRequestHandler callback;
};

// ---------------------------------------------------------------------------
// HttpServerImpl

std::shared_ptr<HttpServerImpl> HttpServerImpl::create() {
  std::shared_ptr<HttpServerImpl> impl(new HttpServerImpl,
                                       LibEventThreadDeferredDeleter<HttpServerImpl>());
  impl->weak_this_ = impl;
  return impl;
}

int liveHttpServersForTesting() { return g_live_servers.load(); }

HttpServerImpl::RPCInfo::RPCInfo() = default;
HttpServerImpl::RPCInfo::~RPCInfo() = default;

HttpServerImpl::HttpServerImpl()
    : type_resolver_(google::protobuf::util::NewTypeResolverForDescriptorPool(
          "", google::protobuf::DescriptorPool::generated_pool())),
      connections_(new ConnectionRegistry(Duration())) {}

void HttpServerImpl::setObserver(std::shared_ptr<HttpServerObserver> observer) {
  MutexLock lock(mutex_);
  observer_.store(observer.get(), std::memory_order_release);
  if (observer) observers_.push_back(std::move(observer));
}

void HttpServerImpl::configure(const HttpServerOptions& options) {
  options_ = options;
  // Deadlines are checked a few times within the shortest timeout, at most
  // once a second and at least every 10 ms.
  Duration shortest;
  for (Duration timeout : {options.header_timeout, options.idle_timeout}) {
    if (timeout > Duration() && (shortest == Duration() || timeout < shortest)) shortest = timeout;
  }
  Duration period;
  if (shortest > Duration()) {
    period = Duration::microseconds(shortest.toMicroseconds() / 4);
    if (period < Duration::milliseconds(10)) period = Duration::milliseconds(10);
    if (period > Duration::seconds(1)) period = Duration::seconds(1);
  }
  connections_.reset(new ConnectionRegistry(period));
  if (options.cancel_abandoned_calls) canceller_ = std::make_shared<CallCanceller>();
}

HttpServerImpl::~HttpServerImpl() { type_resolver_.reset(); }

void HttpServerImpl::registerHandler(const std::string& regex, HttpRequestHandler handler) {
  auto entry = std::make_shared<Handler>(regex, std::move(handler));
  MutexLock lock(mutex_);
  handlers_.push_back(std::move(entry));
}

// The weak pointer by value is the published signature.
void HttpServerImpl::callRequestHandler(
    const HttpRequestPtr& request, const HttpResponsePtr& response,
    HttpConnectionHandlerWeakPtr connection) {  // NOLINT(performance-unnecessary-value-param)
  if (request->headers.count(RPCChannel::kHeaderService) != 0) {
    handleRPCs(request, response, connection);
    return;
  }
  VANTU_LOG(5, kLogger, kSourceFile) << "This is a standard HTTP request";

  // The path is matched where it lies in the URL's text, not copied: a 64 MB
  // path must not cost another 64 MB here.
  const url_parse::Component path = request->url.parsed_for_possibly_invalid_spec().path;
  const std::string_view subject =
      path.len > 0
          ? std::string_view(request->url.possibly_invalid_spec().data() + path.begin, path.len)
          : std::string_view();
  std::shared_ptr<Handler> matched;
  {
    MutexLock lock(mutex_);
    for (const std::shared_ptr<Handler>& handler : handlers_) {
      if (handler->pattern.fullMatch(subject.data(), subject.size())) {
        matched = handler;
        break;
      }
    }
  }
  HttpServerObserver* observer = this->observer();
  if (matched) {
    VANTU_LOG(5, kLogger, kSourceFile)
        << "Regexp " << matched->pattern.pattern() << " matches URL " << subject;
    const Time started = observer != nullptr ? Time::now() : Time();
    matched->callback(request, response);
    const Duration handler_time = observer != nullptr ? Time::now() - started : Duration();
    sendResponse(connection, response, request->method == kHttpHead);
    if (observer != nullptr) {
      observer->requestAnswered(matched->pattern.pattern(), response->status_code, handler_time);
    }
    return;
  }
  VANTU_LOG(2, kLogger, kSourceFile) << "No handler found for " << subject;
  response->status_code = HttpResponse::kNotFound;
  sendResponse(connection, response, request->method == kHttpHead);
  if (observer != nullptr) observer->requestAnswered(std::string(), HttpResponse::kNotFound, {});
}

void HttpServerImpl::registerRPCService(const std::shared_ptr<google::protobuf::Service>& service) {
  const std::string& name = service->GetDescriptor()->full_name();
  MutexLock lock(mutex_);
  services_[name] = service;
}

std::vector<const google::protobuf::ServiceDescriptor*> HttpServerImpl::serviceDescriptors() const {
  std::vector<const google::protobuf::ServiceDescriptor*> descriptors;
  MutexLock lock(mutex_);
  for (const auto& entry : services_) descriptors.push_back(entry.second->GetDescriptor());
  return descriptors;
}

void HttpServerImpl::handleRPCs(const HttpRequestPtr& request, const HttpResponsePtr& response,
                                HttpConnectionHandlerWeakPtr connection) {
  static const std::string* const kMissing = new std::string();
  auto header = [&request](const std::string& name) -> const std::string& {
    auto it = request->headers.find(name);
    return it == request->headers.end() ? *kMissing : it->second;
  };
  const std::string& service_name = header(RPCChannel::kHeaderService);
  const std::string& method_name = header(RPCChannel::kHeaderMethod);
  const uint32_t id = readCallNumber(header(RPCChannel::kHeaderId));
  // Odd as it reads, this text is part of the logging contract.
  VANTU_LOG(5, kLogger, kSourceFile)
      << "This is a RPC!!! " << service_name << " " << method_name << " " << id;

  HttpServerObserver* observer = this->observer();
  const Time started = observer != nullptr ? Time::now() : Time();
  auto refuseCall = [&](const char* error_text, HttpServerObserver::RpcOutcome outcome) {
    sendRPCError(connection, response, id, error_text);
    if (observer != nullptr) {
      observer->rpcFinished(service_name, method_name, outcome, Time::now() - started);
    }
  };
  std::shared_ptr<google::protobuf::Service> service;
  {
    MutexLock lock(mutex_);
    service = findPtrOrNull(services_, service_name);
  }
  if (!service) {
    refuseCall("Service not found.", HttpServerObserver::RpcOutcome::kServiceNotFound);
    return;
  }
  const google::protobuf::MethodDescriptor* method =
      service->GetDescriptor()->FindMethodByName(method_name);
  if (method == nullptr) {
    refuseCall("Method not found.", HttpServerObserver::RpcOutcome::kMethodNotFound);
    return;
  }

  RecordPtr info(CallRecordCache::take(service.get(), method));
  if (header(RPCChannel::kHeaderContentType) == "application/json") {
    info->format = RPCInfo::kJson;
  }
  bool decoded;
  if (info->format == RPCInfo::kJson) {
    const std::string body = request->body;
    VANTU_LOG(6, kLogger, kSourceFile) << "JSON request " << body;
    std::string bytes;
    decoded = google::protobuf::util::JsonToBinaryString(type_resolver_.get(),
                                                         typeUrl(*info->request), body, &bytes)
                  .ok() &&
              info->request->ParseFromString(bytes);
  } else {
    decoded = info->request->ParseFromString(request->body);
  }
  if (!decoded) {
    refuseCall("Can't parse request.", HttpServerObserver::RpcOutcome::kBadRequest);
    return;
  }
  info->http_response = response;
  info->id = id;
  info->connection = connection;
  info->controller->setPeer(request->peer_info);
  info->method = method;
  info->started = started;
  const std::string& timeout = header(RPCChannel::kHeaderTimeout);
  if (!timeout.empty()) info->controller->setDeadline(deadlineFromTimeout(timeout, Time::now()));
  if (observer != nullptr) {
    info->observed = true;
    observer->rpcStarted(service_name, method_name);
  }
  VANTU_LOG(6, kLogger, kSourceFile) << "Calling method. Request=" << info->request->DebugString();

  // One-shot and weak on this object: a completion that comes after the server
  // is gone sends nothing and frees the record.
  std::shared_ptr<HttpServerImpl> self(weak_this_);
  if (std::shared_ptr<HttpConnectionHandler> handler = connection.lock()) {
    handler->oweAnswer();
    info->owes_answer = true;
    if (canceller_) {
      info->ticket =
          canceller_->watch(info->controller.get(), info->controller->deadline(), handler.get());
    }
  }
  RPCInfo* record = info.release();
  google::protobuf::Closure* done =
      newClosure(makeWeakFunction(weak_this_, RPCCompletion(this, record)), true);
  service->CallMethod(method, record->controller.get(), record->request.get(),
                      record->response.get(), done);
}

void HttpServerImpl::RPCDone(RPCInfo* info) {
  RecordPtr owned(info);
  const bool failed = info->controller->Failed();
  HttpServerObserver* observer = this->observer();
  if (observer != nullptr && info->observed) {
    observer->rpcFinished(
        info->method->service()->full_name(), info->method->name(),
        failed ? HttpServerObserver::RpcOutcome::kFailed : HttpServerObserver::RpcOutcome::kOk,
        Time::now() - info->started);
  }
  if (failed) {
    sendRPCError(info->connection, info->http_response, info->id, info->controller->ErrorText());
    return;
  }
  std::vector<char>& content = info->http_response->content;
  if (info->format == RPCInfo::kJson) {
    std::string body;
    info->http_response->setHeader(RPCChannel::kHeaderContentType, "application/json");
    // The conversion's status is not examined: a message the process itself
    // built always converts, and whatever text it left is sent.
    (void)google::protobuf::util::BinaryToJsonString(type_resolver_.get(), typeUrl(*info->response),
                                                     info->response->SerializeAsString(), &body,
                                                     json_options_);
    VANTU_LOG(6, kLogger, kSourceFile) << info->response->DebugString() << " json:" << body;
    content.insert(content.end(), body.begin(), body.end());
  } else {
    // The wire format goes straight into the answer's content, uncopied.
    const size_t at = content.size();
    content.resize(at + info->response->ByteSizeLong());
    info->response->SerializeWithCachedSizesToArray(
        reinterpret_cast<uint8_t*>(content.data() + at));
  }
  // Signed, as in sendRPCError.
  info->http_response->setHeaderF(RPCChannel::kHeaderId, "%d", info->id);
  info->http_response->setHeader(RPCChannel::kHeaderFailed, "0");
  sendResponse(info->connection, info->http_response);
}

// ---------------------------------------------------------------------------
// HttpServer

std::shared_ptr<HttpServer> HttpServer::create(const SocketAddress& address, int n) {
  std::shared_ptr<HttpServer> server(new HttpServer(n),
                                     LibEventThreadDeferredDeleter<HttpServer>());
  if (!server->initialize(address)) return std::shared_ptr<HttpServer>();
  return server;
}

std::shared_ptr<HttpServer> HttpServer::create(const SocketAddress& address, int n,
                                               const HttpServerOptions& options) {
  const std::string problem = options.problem();
  if (!problem.empty()) {
    VANTU_LOG(2, kLogger, kSourceFile) << "Unusable server options: " << problem;
    return std::shared_ptr<HttpServer>();
  }
  std::shared_ptr<HttpServer> server(new HttpServer(n, options),
                                     LibEventThreadDeferredDeleter<HttpServer>());
  if (options.tls.enabled() && !server->enableTls(options)) return std::shared_ptr<HttpServer>();
  if (!server->initialize(address)) return std::shared_ptr<HttpServer>();
  return server;
}

HttpServer::HttpServer(int n)
    : TcpServer(std::bind(&HttpServer::newConnection, this), n), impl_(HttpServerImpl::create()) {
  ++g_live_servers;
}

HttpServer::HttpServer(int n, const HttpServerOptions& options) : HttpServer(n) {
  impl_->configure(options);
  setMaxConnections(options.max_connections);
  setReusePort(options.reuse_port);
  // A peer that stops reading holds a connection as an idle one would.
  setSendTimeout(options.idle_timeout);
}

HttpServer::~HttpServer() {
  impl_.reset();
  --g_live_servers;
}

bool HttpServer::drain(const Duration& timeout, const Duration& announce) {
  if (isEventThread()) {
    VANTU_LOG(1, "check", kSourceFile) << "Check failed !isEventThread() drain would wait forever";
    return false;
  }
  draining_.store(true, std::memory_order_release);
  std::this_thread::sleep_for(std::chrono::microseconds(announce.toMicroseconds()));
  const Time deadline = Time::now() + timeout;
  ConnectionRegistry& connections = impl_->connections();
  runOnEventThreadAndWait([this, &connections] {
    stopListening();
    connections.startDrain();
  });
  if (connections.waitUntilEmpty(deadline)) return true;
  runOnEventThreadAndWait([&connections] { connections.abortAll(); });
  // Aborted connections close at the event thread's next turn.
  connections.waitUntilEmpty(Time::now() + Duration::seconds(5));
  return false;
}

void HttpServer::registerHandler(const std::string& regex, HttpRequestHandler handler) {
  impl_->registerHandler(regex, std::move(handler));
}

std::string HttpServer::literalPattern(const std::string& path) {
  return HandlerPattern::literal(path);
}

void HttpServer::registerRPCService(const std::shared_ptr<google::protobuf::Service>& service) {
  impl_->registerRPCService(service);
}

std::vector<const google::protobuf::ServiceDescriptor*> HttpServer::serviceDescriptors() const {
  return impl_->serviceDescriptors();
}

void HttpServer::setObserver(std::shared_ptr<HttpServerObserver> observer) {
  impl_->setObserver(std::move(observer));
}

std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                          char_stream::PullStreamTraits>>
HttpServer::newConnection() {
  std::weak_ptr<HttpServerImpl> impl = impl_;
  // Not make_shared: pending RPCs hold the connection weakly, and a shared
  // allocation would keep a closed connection's memory until they finish.
  std::shared_ptr<HttpConnectionHandler> handler(new HttpConnectionHandler(impl));
  handler->weak_this_ = handler;
  impl_->connections().add(handler.get());
  handler->registered_ = true;
  if (HttpServerObserver* observer = impl_->observer()) {
    handler->observed_ = true;
    observer->connectionOpened();
  }
  handler->updateDeadline();
  return handler;
}

}  // namespace relay
}  // namespace vantu
