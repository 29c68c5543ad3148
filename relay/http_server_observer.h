#ifndef RELAY_HTTP_SERVER_OBSERVER_H_
#define RELAY_HTTP_SERVER_OBSERVER_H_

#include <cstddef>
#include <string>

#include "common/time.h"

namespace vantu {
namespace relay {

// Told what a server does, for metrics and the like. A server without one
// pays a single branch at each place below.
//
// Calls come from the threads where things happen (each says which), so an
// implementation must be thread-safe and cheap, and must not call back into
// the server. Set with HttpServer::setObserver; the server keeps it alive.
class HttpServerObserver {
 public:
  // How an RPC ended.
  enum class RpcOutcome {
    kOk,               // the service answered
    kFailed,           // the service failed the call (SetFailed)
    kServiceNotFound,  // answered "Service not found."
    kMethodNotFound,   // answered "Method not found."
    kBadRequest,       // answered "Can't parse request."
  };

  virtual ~HttpServerObserver() = default;

  // A connection was accepted; it closed. Event thread.
  virtual void connectionOpened() {}
  virtual void connectionClosed() {}
  // Bytes read from a connection (event thread) and queued to one (the
  // thread that answers).
  virtual void bytesReceived(size_t bytes) { (void)bytes; }
  virtual void bytesSent(size_t bytes) { (void)bytes; }
  // A plain request was answered: the pattern of the handler that took it
  // ("" when none matched and the answer was 404), the answer's status, and
  // how long the handler ran (an async handler: until its done ran; a
  // stream: until its head went out, which is when it is told, with the
  // status the stream began with). An answer abandoned before that, its
  // client gone, is not told. Event thread.
  virtual void requestAnswered(const std::string& pattern, int status, Duration handler_time) {
    (void)pattern;
    (void)status;
    (void)handler_time;
  }
  // An RPC was handed to its service (its request decoded). Event thread.
  virtual void rpcStarted(const std::string& service, const std::string& method) {
    (void)service;
    (void)method;
  }
  // An RPC ended, `latency` after its request was read. A call that started
  // before the observer was set is not reported when it ends. Services unknown to
  // the server are reported under the name the request gave. The thread that
  // completed the call (the event thread for the answers given at once).
  virtual void rpcFinished(const std::string& service, const std::string& method,
                           RpcOutcome outcome, Duration latency) {
    (void)service;
    (void)method;
    (void)outcome;
    (void)latency;
  }
  // Bytes that could not be read as a request were answered with `status`:
  // 400 for malformed input, and for what a limit or strict framing refused
  // 400, 413, 414, 501 or 505; 408 when a request took too long.
  // `by_limit` tells the refusals of the server's options from the plain 400
  // of malformed input. Event thread.
  virtual void requestRefused(int status, bool by_limit) {
    (void)status;
    (void)by_limit;
  }
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_SERVER_OBSERVER_H_
