#ifndef RELAY_REQUEST_READER_H_
#define RELAY_REQUEST_READER_H_

#include <memory>
#include <string>
#include <vector>

#include "relay/http_message.h"

namespace vantu {
namespace relay {

struct RequestLimits;

// How a server connection reads requests out of the bytes that arrive: the
// one interface its connection holds, so that the connection never asks which
// reader it has. Two readers implement it: the default one, an adapter over
// HttpRequestParser that leaves its behaviour as it is (see
// newRequestReader), and StrictRequestParser, which reads as RFC 9112 does.
//
// Owned by one connection, chosen when it is made, and used on the event
// thread like the connection's notifications; answerRules() is constant and
// may be asked on any thread.
class RequestReader {
 public:
  // How the answers to a reader's requests are written.
  struct AnswerRules {
    // Every answer carries a Date header.
    bool date = false;
    // The answer to a HEAD request carries its head only.
    bool head_without_content = false;
  };

  RequestReader() = default;
  virtual ~RequestReader() = default;
  RequestReader(const RequestReader&) = delete;
  RequestReader& operator=(const RequestReader&) = delete;

  // Consumes the whole chunk and appends to *requests (never cleared) every
  // request it completes, in stream order, also those completed before a
  // fault. False when the stream broke the reader's rules.
  virtual bool parse(const std::string& data, std::vector<HttpRequestPtr>* requests) = 0;
  // The same for bytes wherever they lie (a socket's read buffer, reused
  // after the call): nothing may point into them afterwards.
  virtual bool parseBytes(const char* data, size_t size, std::vector<HttpRequestPtr>* requests) = 0;

  // After a false parse: the status the fault is answered with.
  virtual HttpResponse::StatusCode errorStatus() const = 0;
  // After a false parse: the answer to the fault ends the connection (and
  // says "Connection: close"); otherwise it carries no Connection header and
  // reading goes on.
  virtual bool closesAfterError() const = 0;
  // After a false parse: a limit refused the request, rather than malformed
  // or unsupported input.
  virtual bool refusedByLimit() const = 0;
  // After a true parse: the last request delivered ends the connection.
  virtual bool closing() const = 0;
  // True once for each request whose sender waits for an interim
  // "100 Continue" before it sends the body.
  virtual bool takeContinueRequest() = 0;
  // Part of a request's head has arrived, and not the whole of it.
  virtual bool headInProgress() const = 0;
  // A request's head is complete and its body is not.
  virtual bool bodyInProgress() const = 0;

  // Constant; any thread.
  virtual AnswerRules answerRules() const = 0;
};

// The reader of a server connection: StrictRequestParser with `limits` when
// `strict_framing`, else the default reader, an HttpRequestParser with
// `limits`. The default reader answers a malformed line with the plain 400,
// which carries no Connection header and leaves the connection open; a
// limit's refusal ends the connection. With `https` (a TLS connection) the
// url a request gets from its Host starts with "https://".
std::unique_ptr<RequestReader> newRequestReader(bool strict_framing, const RequestLimits& limits,
                                                bool https = false);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_REQUEST_READER_H_
