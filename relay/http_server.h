#ifndef RELAY_HTTP_SERVER_H_
#define RELAY_HTTP_SERVER_H_

#include <google/protobuf/service.h>
#include <google/protobuf/util/json_util.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/socket_address.h"
#include "common/time.h"
#include "net/request_response_connection_handler.h"
#include "net/tcp_server.h"
#include "relay/drain_goodbye.h"
#include "relay/http_message.h"
#include "relay/http_server_observer.h"
#include "relay/http_server_options.h"
#include "relay/request_reader.h"

namespace google {
namespace protobuf {
namespace util {
class TypeResolver;
}  // namespace util
}  // namespace protobuf
}  // namespace google

namespace vantu {
namespace relay {

class AnswerQueue;
class CallCanceller;
class CallTicket;
class ConnectionRegistry;
class HttpConnectionHandler;
class HttpStream;
class RPC;

// The connection a request arrived on. Sending through it after the connection
// has gone does nothing.
using HttpConnectionHandlerWeakPtr = std::weak_ptr<HttpConnectionHandler>;

// An application's answer to plain HTTP requests: fills the response before it
// returns, on the event thread; must not throw.
using HttpRequestHandler = std::function<void(const HttpRequestPtr&, const HttpResponsePtr&)>;

// An answer that streams: see relay/http_stream.h.
using HttpStreamPtr = std::shared_ptr<HttpStream>;

// An application's answer that may come later: called on the event thread
// with the request and the response, it fills the response and runs `done`
// once, from any thread, when the answer is ready (see relay/http_stream.h
// for how it learns that nobody waits any more). Must not throw.
using HttpAsyncRequestHandler =
    std::function<void(const HttpRequestPtr&, const HttpResponsePtr&, std::function<void()> done)>;

// An application's answer that streams: called on the event thread with the
// request and the stream it answers through, from any thread, for as long as
// it likes (see relay/http_stream.h). Must not throw.
using HttpStreamHandler = std::function<void(const HttpRequestPtr&, const HttpStreamPtr&)>;

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
    // The call was started: its connection is owed an answer until the record
    // is freed (answered or not).
    bool owes_answer = false;
    // For the observer, when there was one as the call started: the method,
    // and when its request was read.
    const google::protobuf::MethodDescriptor* method = nullptr;
    Time started;
    bool observed = false;
    // Its messages are of generated classes, which live as long as the
    // program: the record may be kept for a later call of the same types.
    bool reusable = false;
    const google::protobuf::Message* request_prototype = nullptr;
    const google::protobuf::Message* response_prototype = nullptr;
    // Set while the server may cancel the call for its caller (see
    // HttpServerOptions::cancel_abandoned_calls).
    std::shared_ptr<CallTicket> ticket;
    // The request body was large: the request message goes before the answer
    // is encoded and the record is not kept. Very large (as the connection
    // counts requests): the allocator's free memory goes back to the system
    // once the call is done, as after any such request.
    bool large = false;
    bool very_large = false;
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
  // The same list, for handlers that answer later and handlers that stream:
  // the first registration whose pattern matches takes the request, whatever
  // its kind.
  void registerAsyncHandler(const std::string& regex, HttpAsyncRequestHandler handler);
  void registerStreamHandler(const std::string& regex, HttpStreamHandler handler);

  // Dispatches one request: RPCs to the registered services, everything else to
  // the first matching URL handler, or 404. Event thread.
  void callRequestHandler(const HttpRequestPtr& request, const HttpResponsePtr& response,
                          HttpConnectionHandlerWeakPtr connection);
  // The same for a request of the read `connection` is handling: the
  // connection is alive throughout, and `response` is the read's own, which
  // an answer owed later takes over rather than sharing. Event thread.
  void dispatchFromRead(const HttpRequestPtr& request, HttpResponsePtr&& response,
                        HttpConnectionHandler* connection);

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

  // Replaces the observer (null for none); the one replaced is kept alive
  // until this object dies, as calls to it may still be under way. Any thread.
  void setObserver(std::shared_ptr<HttpServerObserver> observer);
  // The observer, or null. Any thread.
  HttpServerObserver* observer() const { return observer_.load(std::memory_order_acquire); }

  // Takes the options of a server being made, before it listens.
  void configure(const HttpServerOptions& options);
  // Constant once the server listens.
  const HttpServerOptions& options() const { return options_; }
  // The open connections. Event thread, except where it says otherwise.
  ConnectionRegistry& connections() { return *connections_; }
  // Null unless the options cancel abandoned calls. Event thread.
  CallCanceller* canceller() const { return canceller_.get(); }

 private:
  // Constant after create().
  std::weak_ptr<HttpServerImpl> weak_this_;

  // Both dispatch paths: `connection` is an HttpConnectionHandler* (alive)
  // or an HttpConnectionHandlerWeakPtr, `response` an rvalue (the read's
  // own) or a const reference (the caller's).
  template <typename Response, typename Connection>
  void dispatch(const HttpRequestPtr& request, Response&& response, const Connection& connection);
  // The first handler whose pattern matches all of `subject`, or null.
  // Event thread.
  const Handler* findHandler(const char* subject, size_t size);

  // Guards handlers_ and services_ only; never held while application code
  // runs or anything is sent.
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<Handler>> handlers_ VANTU_GUARDED_BY(mutex_);
  // Counts the registrations, bumped under mutex_ after each append: a
  // dispatch that finds it changed copies the list again.
  std::atomic<uint64_t> handlers_version_{0};
  // Event thread only: the list as dispatch last copied it (the handlers
  // live as long as this object: registrations are never removed), and the
  // version it is of. Dispatch reads it without the lock.
  std::vector<const Handler*> dispatch_handlers_;
  uint64_t dispatch_version_ = 0;
  std::map<std::string, std::shared_ptr<google::protobuf::Service>> services_
      VANTU_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<HttpServerObserver>> observers_ VANTU_GUARDED_BY(mutex_);
  std::atomic<HttpServerObserver*> observer_{nullptr};

  // Constant after construction.
  std::unique_ptr<google::protobuf::util::TypeResolver> type_resolver_;
  google::protobuf::util::JsonOptions json_options_;

  // Constant once the server listens.
  HttpServerOptions options_;
  std::unique_ptr<ConnectionRegistry> connections_;
  std::shared_ptr<CallCanceller> canceller_;
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
  // The same, with `options` (see relay/http_server_options.h); an empty
  // pointer also when they cannot be used (logged at level 2).
  static std::shared_ptr<HttpServer> create(const SocketAddress& address, int n,
                                            const HttpServerOptions& options);

  explicit HttpServer(int n);
  HttpServer(int n, const HttpServerOptions& options);
  ~HttpServer() override;
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  void registerHandler(const std::string& regex, HttpRequestHandler handler);
  // A handler that answers when it runs its `done`, from any thread; and a
  // handler that streams its answer (relay/http_stream.h). They share the
  // list, and its order, with registerHandler. Pipelined requests are
  // answered in the order they arrived, whatever order their handlers finish
  // in; those behind a stream wait for it to finish.
  void registerAsyncHandler(const std::string& regex, HttpAsyncRequestHandler handler);
  void registerStreamHandler(const std::string& regex, HttpStreamHandler handler);
  // `path` as a handler pattern that matches exactly it: the characters that
  // mean something to PCRE escaped.
  static std::string literalPattern(const std::string& path);
  void registerRPCService(const std::shared_ptr<google::protobuf::Service>& service);
  // The descriptors of the services registered now, in name order.
  std::vector<const google::protobuf::ServiceDescriptor*> serviceDescriptors() const;
  // Tells `observer` what the server does from now on (null: nobody); see
  // relay/http_server_observer.h. Any thread.
  void setObserver(std::shared_ptr<HttpServerObserver> observer);

  // Ends the server's service gracefully: stops accepting, closes the
  // connections with nothing in flight, lets the requests and RPCs already
  // received finish and be written, and closes each connection once it owes
  // nothing (bytes arriving meanwhile are not read as requests). True when
  // all that finished within `timeout`; false when the connections still
  // open at the deadline were closed then. Answers completed after their
  // connection closed are dropped. Any thread but the event thread (false
  // there, at once).
  bool drain(const Duration& timeout) { return drain(timeout, Duration()); }
  // The same, announced first: from the call on, draining() is true (a
  // health check turns 503, see relay/health.h), and for `announce` the
  // server goes on accepting and serving as before, so that a load balancer
  // polling the health check can stop sending before connections are
  // refused; then the drain above begins, bounded by `timeout`.
  bool drain(const Duration& timeout, const Duration& announce);
  // True from the moment drain() is called. Any thread.
  bool draining() const { return draining_.load(std::memory_order_acquire); }

  // Loads the TLS files named in the options the server was made with again,
  // for the connections accepted from now on; those open keep theirs. False,
  // with the old files still in use and the reason in a level 2 log record,
  // when the new ones cannot be used (or the server has no TLS). Any thread.
  bool reloadTlsCertificates();

  // The connection factory: one handler per accepted connection.
  std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                            char_stream::PullStreamTraits>>
  newConnection();

 private:
  // Loads the TLS files and serves TLS with them; false (logged) when they
  // cannot be used. Before listening.
  bool enableTls(const HttpServerOptions& options);

  std::shared_ptr<HttpServerImpl> impl_;
  // Set once by drain(), on the caller's thread; read on any thread.
  std::atomic<bool> draining_{false};
  // Constant once the server listens: the TLS files, if any.
  TlsServerOptions tls_;
};

// For tests: how many HttpServer objects and RPC call records exist in this
// process right now, so that a plain build can check that none is leaked and
// when each is deleted. Any thread.
int liveHttpServersForTesting();
int liveRPCRecordsForTesting();

// One accepted connection: parses what arrives, dispatches each request with a
// fresh response, answers unparseable input with 400. With the server's
// options it also enforces their limits and timeouts, reads with strict
// framing and closes after the answers that end a connection. Owned by the
// TCP layer for as long as it keeps the connection; everything else refers to
// it weakly. Notifications arrive on the event thread; the handler has no
// lock: what other threads may call says so.
class HttpConnectionHandler : public RequestResponseConnectionHandler {
 public:
  explicit HttpConnectionHandler(std::weak_ptr<HttpServerImpl> impl);
  ~HttpConnectionHandler() override;
  HttpConnectionHandler(const HttpConnectionHandler&) = delete;
  HttpConnectionHandler& operator=(const HttpConnectionHandler&) = delete;

  // Writes one answer: its header block, then its content, which no other
  // answer's bytes come between. With strict framing the answer also carries
  // a Date, and the answer to a HEAD request no content. Any thread. On the
  // event thread, while the requests of one read are handled, the answers
  // gather and go to the socket together after the last of them.
  void sendAnswer(HttpResponse* response, bool to_head_request);
  // Writes a plain HTTP answer in its request's turn: at once when no earlier
  // answer of the connection is still being worked on (an async or a
  // streaming one), else once those are written. Event thread.
  void sendPlainAnswer(const HttpResponsePtr& response, bool to_head_request);
  // The connection's answers that wait for their turn, made on first use.
  // Event thread.
  AnswerQueue& answerQueue();

  // An RPC started on this connection will be answered later: the connection
  // stays open for it (after the peer's end of input, or a close it asked
  // for) until answerSettled(). Event thread.
  void oweAnswer();
  void answerSettled();
  // From the server's registry (event thread): the time it ran out, and the
  // server's drain.
  void checkDeadline(Time now);
  void beginDrain();
  // The drain's deadline: a stream at the front ends cleanly (its
  // terminating chunk), and the connection closes once that is written.
  void endStreams();
  // Who is at the other end, made on the first call. Event thread, while the
  // connection is open.
  const std::shared_ptr<const PeerInfo>& peerInfo();

  // RequestResponseConnectionHandler
  void notifyOutputShutdown() override;
  void notifyInputShutdown(std::string* data) override;
  void notifyIncomingData(std::string* data) override;
  size_t notifyIncomingBytes(const char* data, size_t size) override;
  bool holdOpenAfterInputEnd() override;
  void notifyClosed() override;
  void notifyOutputDrained() override;

 private:
  friend class HttpServer;
  friend class HttpServerImpl;
  friend class AnswerQueue;
  // What the connection waits for, if anything, and what running out means.
  // kStream: a stream has written nothing for the idle timeout.
  enum class Deadline : uint8_t { kNone, kHead, kBody, kIdle, kStream };

  // Sends the answer to a request that could not be read, with `status`;
  // `by_limit` says whether the server's options refused it.
  void refuse(HttpResponse::StatusCode status, bool close, bool by_limit);
  // Reads no more requests; closes once every answer owed is written.
  void closeAfterAnswers();
  // Sets the deadline for what the connection now waits for.
  void updateDeadline();
  // While draining: closes once nothing is owed and the client is done.
  void closeIfDrained(Time now);
  // Leaves the server's registry, once, and tells the observer. Event
  // thread, or the destructor.
  void leaveRegistry();
  // Hands the answers gathered so far to the socket. Event thread.
  void sendGathered();
  // Sends what was gathered, then ends the connection once it is written.
  // Event thread.
  void endOutput();
  // Tells the observer, if any, of bytes handed to the socket.
  void reportSent(size_t bytes);

  std::shared_ptr<HttpServerImpl> impl_;
  // Set by HttpServer::newConnection right after the owning pointer is made.
  std::weak_ptr<HttpConnectionHandler> weak_this_;

  // Constant after construction: how requests are read (HttpRequestParser
  // by default, or strict framing, as the server's options say); how their
  // answers are written is answer_rules_, at the end.
  const std::unique_ptr<RequestReader> reader_;

  // Begun on the event thread; read from any thread that answers.
  DrainGoodbye drain_;

  // Event thread only.
  std::vector<HttpRequestPtr> requests_;  // the chunk at hand's, while it is handled
  Time deadline_;
  // While the requests of one read are handled: where their answers gather.
  std::string* gathered_ = nullptr;
  // Who is at the other end: learnt when the first request arrives.
  ConnectionPeer peer_;
  // Answers waiting for their turn; null until a handler answers later or
  // streams. Made and used on the event thread; other threads only reach
  // it while streaming_ is true, which they read holding the push lock.
  std::unique_ptr<AnswerQueue> ordered_;
  // The small fields together, so that an idle connection keeps no padding.
  int answers_owed_ = 0;  // event thread only, as the four below
  bool input_ended_ = false;
  bool closing_ = false;  // no more requests are read; close when nothing is owed
  bool registered_ = false;
  bool observed_ = false;  // the observer was told of its opening
  Deadline deadline_kind_ = Deadline::kNone;
  // A stream's body is on the wire: other answers (RPCs) wait until it ends.
  // Written on the event thread under the push lock.
  std::atomic<bool> streaming_{false};
  // Constant after construction (with reader_, which it comes from).
  const RequestReader::AnswerRules answer_rules_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_SERVER_H_
