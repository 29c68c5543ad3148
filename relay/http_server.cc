#include "relay/http_server.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>

#include <atomic>
#include <string_view>
#include <thread>

#include "common/deferred_deleter.h"
#include "common/event_thread.h"
#include "common/logging.h"
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

}  // namespace

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
  // Streams end cleanly (their terminating chunk), and get a moment to go.
  runOnEventThreadAndWait([&connections] { connections.endStreams(); });
  if (connections.waitUntilEmpty(Time::now() + Duration::seconds(1))) return false;
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
