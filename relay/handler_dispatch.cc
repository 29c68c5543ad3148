// The URL handler list of an HttpServerImpl and the dispatch of plain HTTP
// requests to it: handlers that answer before they return, handlers that
// answer later, and handlers that stream.
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/logging.h"
#include "relay/answer_queue.h"
#include "relay/handler_match.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_server";
constexpr char kSourceFile[] = "relay/http_server";

}  // namespace

// One registration, of one of the three kinds: the callback of its kind is
// set (or empty, as registered).
struct HttpServerImpl::Handler {
  enum class Kind { kPlain, kAsync, kStream };
  Handler(const std::string& regex, HttpRequestHandler handler)
      : kind(Kind::kPlain), pattern(regex), callback(std::move(handler)) {}
  Handler(const std::string& regex, HttpAsyncRequestHandler handler)
      : kind(Kind::kAsync), pattern(regex), async_callback(std::move(handler)) {}
  Handler(const std::string& regex, HttpStreamHandler handler)
      : kind(Kind::kStream), pattern(regex), stream_callback(std::move(handler)) {}

  const Kind kind;
  const HandlerPattern pattern;
  const HttpRequestHandler callback;
  const HttpAsyncRequestHandler async_callback;
  const HttpStreamHandler stream_callback;
};

void HttpServerImpl::registerHandler(const std::string& regex, HttpRequestHandler handler) {
  auto entry = std::make_shared<Handler>(regex, std::move(handler));
  MutexLock lock(mutex_);
  handlers_.push_back(std::move(entry));
  handlers_version_.fetch_add(1, std::memory_order_release);
}

void HttpServerImpl::registerAsyncHandler(const std::string& regex,
                                          HttpAsyncRequestHandler handler) {
  auto entry = std::make_shared<Handler>(regex, std::move(handler));
  MutexLock lock(mutex_);
  handlers_.push_back(std::move(entry));
  handlers_version_.fetch_add(1, std::memory_order_release);
}

void HttpServerImpl::registerStreamHandler(const std::string& regex, HttpStreamHandler handler) {
  auto entry = std::make_shared<Handler>(regex, std::move(handler));
  MutexLock lock(mutex_);
  handlers_.push_back(std::move(entry));
  handlers_version_.fetch_add(1, std::memory_order_release);
}

const HttpServerImpl::Handler* HttpServerImpl::findHandler(const char* subject, size_t size) {
  // The list is copied only after a registration, so that a dispatch takes
  // no lock: a registration made before this dispatch began is seen, as it
  // would be under the lock.
  const uint64_t version = handlers_version_.load(std::memory_order_acquire);
  if (version != dispatch_version_) {
    MutexLock lock(mutex_);
    dispatch_handlers_.clear();
    for (const std::shared_ptr<Handler>& handler : handlers_) {
      dispatch_handlers_.push_back(handler.get());
    }
    dispatch_version_ = handlers_version_.load(std::memory_order_relaxed);
  }
  for (const Handler* handler : dispatch_handlers_) {
    if (handler->pattern.fullMatch(subject, size)) return handler;
  }
  return nullptr;
}

namespace {

// The connection an answer goes to: the one whose read dispatches, alive
// throughout, or whatever a weak pointer still finds.
inline HttpConnectionHandler* liveConnection(HttpConnectionHandler* connection) {
  return connection;
}
inline std::shared_ptr<HttpConnectionHandler> liveConnection(
    const HttpConnectionHandlerWeakPtr& connection) {
  return connection.lock();
}

}  // namespace

template <typename Response, typename Connection>
void HttpServerImpl::dispatch(const HttpRequestPtr& request, Response&& response,
                              const Connection& connection) {
  if (request->headers.count(RPCChannel::kHeaderService) != 0) {
    if constexpr (std::is_same_v<Connection, HttpConnectionHandlerWeakPtr>) {
      handleRPCs(request, response, connection);
    } else {
      handleRPCs(request, response, connection->weak_this_);
    }
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
  // Registrations are never removed, so a handler outlives the server's
  // dispatch: a plain pointer spares two atomic reference counts per request.
  const Handler* matched = findHandler(subject.data(), subject.size());
  const bool to_head_request = request->method == kHttpHead;
  HttpServerObserver* observer = this->observer();
  if (matched != nullptr) {
    VANTU_LOG(5, kLogger, kSourceFile)
        << "Regexp " << matched->pattern.pattern() << " matches URL " << subject;
    if (matched->kind != Handler::Kind::kPlain) {
      // Answered later: the connection keeps the answer's turn.
      auto handler = liveConnection(connection);
      if (!handler) return;
      if (matched->kind == Handler::Kind::kAsync) {
        // The answer owed takes the read's own response, or a share of the
        // caller's.
        handler->answerQueue().dispatchAsync(request, std::forward<Response>(response),
                                             matched->async_callback, &matched->pattern.pattern());
      } else {
        handler->answerQueue().dispatchStream(request, response, matched->stream_callback,
                                              &matched->pattern.pattern());
      }
      return;
    }
    const Time started = observer != nullptr ? Time::now() : Time();
    matched->callback(request, response);
    const Duration handler_time = observer != nullptr ? Time::now() - started : Duration();
    if (auto handler = liveConnection(connection)) {
      handler->sendPlainAnswer(response, to_head_request);
    }
    if (observer != nullptr) {
      observer->requestAnswered(matched->pattern.pattern(), response->status_code, handler_time);
    }
    return;
  }
  VANTU_LOG(2, kLogger, kSourceFile) << "No handler found for " << subject;
  response->status_code = HttpResponse::kNotFound;
  if (auto handler = liveConnection(connection)) {
    handler->sendPlainAnswer(response, to_head_request);
  }
  if (observer != nullptr) observer->requestAnswered(std::string(), HttpResponse::kNotFound, {});
}

// The weak pointer by value is the published signature.
void HttpServerImpl::callRequestHandler(
    const HttpRequestPtr& request, const HttpResponsePtr& response,
    HttpConnectionHandlerWeakPtr connection) {  // NOLINT(performance-unnecessary-value-param)
  dispatch(request, response, connection);
}

void HttpServerImpl::dispatchFromRead(const HttpRequestPtr& request, HttpResponsePtr&& response,
                                      HttpConnectionHandler* connection) {
  dispatch(request, std::move(response), connection);
}

void HttpServer::registerAsyncHandler(const std::string& regex, HttpAsyncRequestHandler handler) {
  impl_->registerAsyncHandler(regex, std::move(handler));
}

void HttpServer::registerStreamHandler(const std::string& regex, HttpStreamHandler handler) {
  impl_->registerStreamHandler(regex, std::move(handler));
}

}  // namespace relay
}  // namespace vantu
