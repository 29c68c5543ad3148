#ifndef RELAY_HTTP_SERVER_H_
#define RELAY_HTTP_SERVER_H_

#include <google/protobuf/service.h>
#include <google/protobuf/util/json_util.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/socket_address.h"
#include "net/request_response_connection_handler.h"
#include "net/tcp_server.h"
#include "relay/http_message.h"
#include "relay/http_request_parser.h"

namespace google {
namespace protobuf {
namespace util {
class TypeResolver;
}  // namespace util
}  // namespace protobuf
}  // namespace google

namespace vantu {
namespace relay {

class HttpConnectionHandler;
class RPC;

// The connection a request arrived on. Sending through it after the connection
// has gone does nothing.
using HttpConnectionHandlerWeakPtr = std::weak_ptr<HttpConnectionHandler>;

// An application's answer to plain HTTP requests: fills the response before it
// returns, on the event thread; must not throw.
using HttpRequestHandler = std::function<void(const HttpRequestPtr&, const HttpResponsePtr&)>;

// What a server and all its open connections share: the URL handlers, the
// protobuf services and the JSON transcoding objects. Owned jointly by the
// HttpServer and every open connection through shared pointers whose deleter
// destroys it on the event thread, so it outlives the server while connections
// remain. Registration may happen on any thread; dispatch runs on the event
// thread; RPCDone runs on whichever thread completes a call.
class HttpServerImpl {
 public:
  // One URL handler registration; defined in the .cc.
  struct Handler;

  // One RPC in progress, from its decoded request to its answer.
  struct RPCInfo {
    enum Format { kJson = 0, kBinary = 1 };
    RPCInfo();
    ~RPCInfo();
    RPCInfo(const RPCInfo&) = delete;
    RPCInfo& operator=(const RPCInfo&) = delete;

    std::unique_ptr<RPC> controller;  // null until the request has decoded
    std::unique_ptr<google::protobuf::Message> request;
    std::unique_ptr<google::protobuf::Message> response;
    HttpResponsePtr http_response;
    HttpConnectionHandlerWeakPtr connection;
    uint32_t id = 0;
    Format format = kBinary;
  };

  // The only way to make one: owned by a shared pointer with the event-thread
  // deleter, weak_this_ set.
  static std::shared_ptr<HttpServerImpl> create();
  HttpServerImpl();
  ~HttpServerImpl();
  HttpServerImpl(const HttpServerImpl&) = delete;
  HttpServerImpl& operator=(const HttpServerImpl&) = delete;

  // Appends a handler for request paths that fully match `regex` (PCRE, default
  // options). Registration order is dispatch priority. A pattern that does not
  // compile is accepted and never matches. Any thread, any time, also from
  // inside a running handler.
  void registerHandler(const std::string& regex, HttpRequestHandler handler);

  // Dispatches one request: RPCs to the registered services, everything else to
  // the first matching URL handler, or 404. Event thread.
  void callRequestHandler(const HttpRequestPtr& request, const HttpResponsePtr& response,
                          HttpConnectionHandlerWeakPtr connection);

  // Publishes `service` under its full name, replacing an earlier service of
  // that name. Any thread.
  void registerRPCService(const std::shared_ptr<google::protobuf::Service>& service);

  // The descriptors of the services registered now, in name order. Any thread.
  std::vector<const google::protobuf::ServiceDescriptor*> serviceDescriptors() const;

  // Starts one RPC; answers at once when the service, the method or the body
  // is wrong. Event thread.
  void handleRPCs(const HttpRequestPtr& request, const HttpResponsePtr& response,
                  HttpConnectionHandlerWeakPtr connection);

  // Completes one RPC: encodes the reply (or the failure) and sends it. Takes
  // ownership of `info`. Runs on the thread that completed the call.
  void RPCDone(RPCInfo* info);

 private:
  // Constant after create().
  std::weak_ptr<HttpServerImpl> weak_this_;

  // Guards handlers_ and services_ only; never held while application code
  // runs or anything is sent.
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<Handler>> handlers_ VANTU_GUARDED_BY(mutex_);
  std::map<std::string, std::shared_ptr<google::protobuf::Service>> services_
      VANTU_GUARDED_BY(mutex_);

  // Constant after construction.
  std::unique_ptr<google::protobuf::util::TypeResolver> type_resolver_;
  google::protobuf::util::JsonOptions json_options_;
};

// The embedded HTTP server: listens on one address and serves every accepted
// connection with an HttpConnectionHandler on the event thread.
//
// Made by create(), which returns a shared pointer whose deleter destroys the
// server on the event thread, so the last reference may be dropped on any
// thread. Registration operations may be called from any thread at any time.
class HttpServer : public TcpServer {
 public:
  // A server listening on `address` with listen backlog `n`, or an empty
  // pointer when listening cannot be set up.
  static std::shared_ptr<HttpServer> create(const SocketAddress& address, int n);

  explicit HttpServer(int n);
  ~HttpServer() override;
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  void registerHandler(const std::string& regex, HttpRequestHandler handler);
  void registerRPCService(const std::shared_ptr<google::protobuf::Service>& service);
  // The descriptors of the services registered now, in name order.
  std::vector<const google::protobuf::ServiceDescriptor*> serviceDescriptors() const;

  // The connection factory: one handler per accepted connection.
  std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                            char_stream::PullStreamTraits>>
  newConnection();

 private:
  std::shared_ptr<HttpServerImpl> impl_;
};

// For tests: how many HttpServer objects and RPC call records exist in this
// process right now, so that a plain build can check that none is leaked and
// when each is deleted. Any thread.
int liveHttpServersForTesting();
int liveRPCRecordsForTesting();

// One accepted connection: parses what arrives, dispatches each request with a
// fresh response, answers unparseable input with 400. Owned by the TCP layer
// for as long as it keeps the connection; everything else refers to it weakly.
// Notifications arrive on the event thread; the handler has no lock.
class HttpConnectionHandler : public RequestResponseConnectionHandler {
 public:
  explicit HttpConnectionHandler(std::weak_ptr<HttpServerImpl> impl);
  ~HttpConnectionHandler() override;
  HttpConnectionHandler(const HttpConnectionHandler&) = delete;
  HttpConnectionHandler& operator=(const HttpConnectionHandler&) = delete;

  // RequestResponseConnectionHandler
  void notifyOutputShutdown() override;
  void notifyInputShutdown(std::string* data) override;
  void notifyIncomingData(std::string* data) override;

 private:
  friend class HttpServer;

  HttpRequestParser parser_;
  std::shared_ptr<HttpServerImpl> impl_;
  // Set by HttpServer::newConnection right after the owning pointer is made.
  std::weak_ptr<HttpConnectionHandler> weak_this_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_SERVER_H_
