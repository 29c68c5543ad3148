#include "relay/http_server.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/type_resolver.h>
#include <google/protobuf/util/type_resolver_util.h>
#include <pcrecpp.h>

#include <atomic>
#include <cstdlib>

#include "common/closure.h"
#include "common/deferred_deleter.h"
#include "common/logging.h"
#include "common/map_util.h"
#include "common/weak_function.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_server";
constexpr char kSourceFile[] = "relay/http_server";

std::atomic<int> g_live_servers{0};
std::atomic<int> g_live_rpc_records{0};

// Writes a response to a connection that may have gone: the header block, then
// the content, as two sends that no other response's bytes come between.
void sendResponse(HttpConnectionHandlerWeakPtr connection, const HttpResponsePtr& response) {
  std::shared_ptr<HttpConnectionHandler> handler = connection.lock();
  if (!handler) return;
  std::string header;
  response->outputHeader(&header);
  RequestResponseConnectionHandler::SendGuard guard(*handler);
  handler->send(header);
  handler->send(std::string(response->content.begin(), response->content.end()));
}

// Writes the failure form of an RPC answer. Error texts travel in a header
// line, so CR and LF become blanks: no service text can add header lines.
void sendRPCError(HttpConnectionHandlerWeakPtr connection, const HttpResponsePtr& response,
                  uint32_t id, const std::string& error_text) {
  std::string text = error_text;
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  response->setHeaderF(RPCChannel::kHeaderId, "%d", id);
  response->setHeader(RPCChannel::kHeaderFailed, "1");
  response->setHeader(RPCChannel::kHeaderError, text);
  sendResponse(std::move(connection), response);
}

std::string typeUrl(const google::protobuf::Message& message) {
  return "/" + message.GetDescriptor()->full_name();
}

// The bound call of an RPC's completion closure: hands the record to RPCDone,
// or frees it when RPCDone never runs because the server was gone by the time
// the service completed the call.
class RPCCompletion {
 public:
  RPCCompletion(HttpServerImpl* impl, HttpServerImpl::RPCInfo* info) : impl_(impl), info_(info) {}
  RPCCompletion(RPCCompletion&& other) noexcept : impl_(other.impl_), info_(other.info_) {
    other.info_ = nullptr;
  }
  RPCCompletion(const RPCCompletion&) = delete;
  RPCCompletion& operator=(const RPCCompletion&) = delete;
  ~RPCCompletion() { delete info_; }

  void operator()() {
    HttpServerImpl::RPCInfo* info = info_;
    info_ = nullptr;
    impl_->RPCDone(info);
  }

 private:
  HttpServerImpl* impl_;
  HttpServerImpl::RPCInfo* info_;
};

}  // namespace

struct HttpServerImpl::Handler {
  Handler(const std::string& regex, HttpRequestHandler handler)
      : regex_(regex), pattern_(regex), callback_(std::move(handler)) {}

  pcrecpp::RE regex_;
  std::string pattern_;
  HttpRequestHandler callback_;
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
int liveRPCRecordsForTesting() { return g_live_rpc_records.load(); }

HttpServerImpl::RPCInfo::RPCInfo() { ++g_live_rpc_records; }
HttpServerImpl::RPCInfo::~RPCInfo() { --g_live_rpc_records; }

HttpServerImpl::HttpServerImpl()
    : type_resolver_(google::protobuf::util::NewTypeResolverForDescriptorPool(
          "", google::protobuf::DescriptorPool::generated_pool())) {}

HttpServerImpl::~HttpServerImpl() { type_resolver_.reset(); }

void HttpServerImpl::registerHandler(const std::string& regex, HttpRequestHandler handler) {
  auto entry = std::make_shared<Handler>(regex, std::move(handler));
  MutexLock lock(mutex_);
  handlers_.push_back(std::move(entry));
}

void HttpServerImpl::callRequestHandler(const HttpRequestPtr& request,
                                        const HttpResponsePtr& response,
                                        HttpConnectionHandlerWeakPtr connection) {
  if (request->headers.count(RPCChannel::kHeaderService) != 0) {
    handleRPCs(request, response, connection);
    return;
  }
  VANTU_LOG(5, kLogger, kSourceFile) << "This is a standard HTTP request";

  const url_parse::Component path = request->url.parsed_for_possibly_invalid_spec().path;
  const std::string subject =
      path.len > 0 ? request->url.possibly_invalid_spec().substr(path.begin, path.len)
                   : std::string();
  std::shared_ptr<Handler> matched;
  {
    MutexLock lock(mutex_);
    for (const std::shared_ptr<Handler>& handler : handlers_) {
      if (handler->regex_.FullMatch(subject)) {
        matched = handler;
        break;
      }
    }
  }
  if (matched) {
    VANTU_LOG(5, kLogger, kSourceFile)
        << "Regexp " << matched->pattern_ << " matches URL " << subject;
    matched->callback_(request, response);
    sendResponse(connection, response);
    return;
  }
  VANTU_LOG(2, kLogger, kSourceFile) << "No handler found for " << subject;
  response->status_code = HttpResponse::kNotFound;
  sendResponse(connection, response);
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
  auto header = [&request](const std::string& name) -> std::string {
    auto it = request->headers.find(name);
    return it == request->headers.end() ? std::string() : it->second;
  };
  const std::string service_name = header(RPCChannel::kHeaderService);
  const std::string method_name = header(RPCChannel::kHeaderMethod);
  const uint32_t id =
      static_cast<uint32_t>(strtol(header(RPCChannel::kHeaderId).c_str(), nullptr, 10));
  VANTU_LOG(5, kLogger, kSourceFile)
      << "This is a RPC!!! " << service_name << " " << method_name << " " << id;

  std::shared_ptr<google::protobuf::Service> service;
  {
    MutexLock lock(mutex_);
    service = findPtrOrNull(services_, service_name);
  }
  if (!service) {
    sendRPCError(connection, response, id, "Service not found.");
    return;
  }
  const google::protobuf::MethodDescriptor* method =
      service->GetDescriptor()->FindMethodByName(method_name);
  if (method == nullptr) {
    sendRPCError(connection, response, id, "Method not found.");
    return;
  }

  std::unique_ptr<RPCInfo> info(new RPCInfo);
  info->request.reset(service->GetRequestPrototype(method).New());
  info->response.reset(service->GetResponsePrototype(method).New());
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
    sendRPCError(connection, response, id, "Can't parse request.");
    return;
  }
  info->controller.reset(new RPC);
  info->http_response = response;
  info->id = id;
  info->connection = connection;
  VANTU_LOG(6, kLogger, kSourceFile) << "Calling method. Request=" << info->request->DebugString();

  // One-shot and weak on this object: a completion that comes after the server
  // is gone sends nothing and frees the record.
  std::shared_ptr<HttpServerImpl> self(weak_this_);
  RPCInfo* record = info.release();
  google::protobuf::Closure* done =
      newClosure(makeWeakFunction(weak_this_, RPCCompletion(this, record)), true);
  service->CallMethod(method, record->controller.get(), record->request.get(),
                      record->response.get(), done);
}

void HttpServerImpl::RPCDone(RPCInfo* info) {
  std::unique_ptr<RPCInfo> owned(info);
  if (info->controller->Failed()) {
    sendRPCError(info->connection, info->http_response, info->id, info->controller->ErrorText());
    return;
  }
  std::string body;
  if (info->format == RPCInfo::kJson) {
    info->http_response->setHeader(RPCChannel::kHeaderContentType, "application/json");
    // The conversion's status is not examined: a message the process itself
    // built always converts, and whatever text it left is sent.
    (void)google::protobuf::util::BinaryToJsonString(type_resolver_.get(), typeUrl(*info->response),
                                                     info->response->SerializeAsString(), &body,
                                                     json_options_);
    VANTU_LOG(6, kLogger, kSourceFile) << info->response->DebugString() << " json:" << body;
  } else {
    info->response->SerializeToString(&body);
  }
  info->http_response->setHeaderF(RPCChannel::kHeaderId, "%d", info->id);
  info->http_response->setHeader(RPCChannel::kHeaderFailed, "0");
  info->http_response->content.insert(info->http_response->content.end(), body.begin(), body.end());
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

HttpServer::HttpServer(int n)
    : TcpServer(std::bind(&HttpServer::newConnection, this), n), impl_(HttpServerImpl::create()) {
  ++g_live_servers;
}

HttpServer::~HttpServer() {
  impl_.reset();
  --g_live_servers;
}

void HttpServer::registerHandler(const std::string& regex, HttpRequestHandler handler) {
  impl_->registerHandler(regex, std::move(handler));
}

void HttpServer::registerRPCService(const std::shared_ptr<google::protobuf::Service>& service) {
  impl_->registerRPCService(service);
}

std::vector<const google::protobuf::ServiceDescriptor*> HttpServer::serviceDescriptors() const {
  return impl_->serviceDescriptors();
}

std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                          char_stream::PullStreamTraits>>
HttpServer::newConnection() {
  std::weak_ptr<HttpServerImpl> impl = impl_;
  // Not make_shared: pending RPCs hold the connection weakly, and a shared
  // allocation would keep a closed connection's memory until they finish.
  std::shared_ptr<HttpConnectionHandler> handler(new HttpConnectionHandler(impl));
  handler->weak_this_ = handler;
  return handler;
}

// ---------------------------------------------------------------------------
// HttpConnectionHandler

HttpConnectionHandler::HttpConnectionHandler(std::weak_ptr<HttpServerImpl> impl)
    : RequestResponseConnectionHandler(2048), impl_(impl) {}

HttpConnectionHandler::~HttpConnectionHandler() {
  weak_this_.reset();
  impl_.reset();
}

void HttpConnectionHandler::notifyIncomingData(std::string* data) {
  std::shared_ptr<HttpServerImpl> impl = impl_;
  std::vector<HttpRequestPtr> requests;
  const bool parsed = parser_.parse(*data, &requests);
  data->clear();
  for (const HttpRequestPtr& request : requests) {
    impl->callRequestHandler(request, std::make_shared<HttpResponse>(), weak_this_);
  }
  if (!parsed) {
    HttpResponse bad_request;
    bad_request.status_code = HttpResponse::kBadRequest;
    bad_request.headers.erase("Connection");
    std::string header;
    bad_request.outputHeader(&header);
    SendGuard guard(*this);
    send(header);
    send(std::string(bad_request.content.begin(), bad_request.content.end()));
  }
}

void HttpConnectionHandler::notifyInputShutdown(std::string* data) {
  if (data->empty()) return;
  send("Unexpected EOF!");
  shutdown();
}

void HttpConnectionHandler::notifyOutputShutdown() { source_.close(); }

}  // namespace relay
}  // namespace vantu
