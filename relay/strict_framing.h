#ifndef RELAY_STRICT_FRAMING_H_
#define RELAY_STRICT_FRAMING_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "relay/http_message.h"
#include "relay/http_request_parser.h"
#include "relay/request_reader.h"

namespace vantu {
namespace relay {

class StrictProgressPool;

// Reads requests the way RFC 9112 does, so that this server and any proxy in
// front of it agree on where every request ends. A server uses it instead of
// HttpRequestParser when its options ask for strict framing.
//
// What it accepts, and what it answers otherwise (errorStatus()):
// - Lines end in CR LF only; a bare CR or a bare LF is 400.
// - Empty lines before a request line are skipped.
// - Request line: token SP request-target SP "HTTP/" DIGIT "." DIGIT, single
//   blanks. A method that is a token but not a known one: 501; not a token:
//   400. Versions other than 1.0 and 1.1: 505. A target with controls, blanks
//   or bytes above 127, or of no known form (origin, absolute, "*" for
//   OPTIONS): 400.
// - Header lines: a token name, a colon, optional blanks, a value without NUL
//   or controls other than tab, optional blanks. No blank before the colon, no
//   obs-fold (a line starting with a blank), no blank line before the first
//   header: 400. The value is stored without the surrounding blanks; names as
//   received, the last of a name wins, as in HttpRequestParser.
// - Framing headers are recognised whatever their letter case:
//   Content-Length must be digits only and appear once (400), and frames the
//   body. Transfer-Encoding with "chunked" as its only coding is decoded; any
//   other coding: 501 (also when chunked follows it, or is absent); chunked
//   not last, chunked twice or with parameters, a Transfer-Encoding without
//   any coding, Transfer-Encoding with Content-Length, or Transfer-Encoding in
//   HTTP/1.0: 400.
// - Chunked bodies: hex-digit sizes (no sign, "0x", blanks or overflow; the
//   only blanks allowed on a size line are those before and around an
//   extension's ";" and "="), extensions checked as tokens (or quoted
//   strings) and ignored, chunk data followed by exactly CR LF, trailers read
//   as header lines and dropped. Any fault: 400. The request is delivered
//   with the decoded `body` and its size as `content_length`; its headers
//   stay as received.
// - HTTP/1.1 requests carry exactly one Host (any case), whose value is empty
//   or host[:port] (reg-name, IPv4 or IP literal; port at most 65535; no
//   userinfo, no path). HTTP/1.0 requests carry at most one, likewise valid.
//   Otherwise 400.
// - Limits (RequestLimits), counting lines with their CR LF: a request line
//   longer than max_header_bytes is 414 and a longer head 400, both as soon
//   as the bytes buffered exceed the limit, without waiting for the line to
//   end; a Content-Length, or a chunked body whose sizes add up to more than
//   max_body_bytes (or 2^32 - 1 bytes, whatever the limit) is 413, before the
//   body or that chunk's data is read. Trailers count against
//   max_header_bytes as a block of their own, and so does each chunk-size
//   line (400).
//
// Every delivered request is complete: method, uri, minor_version, headers,
// body, content_length, and url and query components as HttpRequestParser
// gives them (resolveAbsoluteTarget, else resolveUrlFromHost with the one Host
// value, or "" for an HTTP/1.0 request without one).
//
// After a rejected request, or after delivering a request that ends the
// connection ("Connection: close", or HTTP/1.0 without "Connection:
// keep-alive"; the Connection header's tokens are matched whatever their
// case), the parser is spent: later calls deliver nothing.
//
// Its answers carry a Date, and the answer to a HEAD request no content
// (answerRules()); every fault ends the connection.
//
// One per connection, used by one thread at a time (the event thread).
class StrictRequestParser final : public RequestReader {
 public:
  // With `https`, the url a request gets from its Host starts with "https://".
  explicit StrictRequestParser(const RequestLimits& limits = RequestLimits(), bool https = false);
  ~StrictRequestParser() override;

  // RequestReader
  // As HttpRequestParser::parse: consumes the whole chunk, appends the
  // requests it completes in stream order, and returns false when the stream
  // breaks the rules above. The requests completed before the fault are
  // appended too. A spent parser appends nothing: false after a fault, true
  // after a request that ends the connection.
  bool parse(const std::string& data, std::vector<HttpRequestPtr>* requests) override;
  // The same, reading the bytes where they lie.
  bool parseBytes(const char* data, size_t size, std::vector<HttpRequestPtr>* requests) override;
  // The status the fault is answered with (400, 413, 414, 501 or 505); 400
  // before any fault.
  HttpResponse::StatusCode errorStatus() const override;
  bool closesAfterError() const override { return true; }
  // The fault was a limit's (414, 413, or 400 for a head too long), not
  // malformed or unsupported framing.
  bool refusedByLimit() const override { return refused_by_limit_; }
  // The last request delivered ends the connection: answer it, then close.
  bool closing() const override;
  // True once for each request whose head asked for "Expect: 100-continue"
  // (HTTP/1.1, any case) and whose body has not fully arrived with the head:
  // the caller then sends the interim "HTTP/1.1 100 Continue" answer.
  bool takeContinueRequest() override;
  // Part of a request's head has arrived, and not the whole of it. (Empty lines
  // skipped before a request line do not count.)
  bool headInProgress() const override;
  // A request's head is complete and its body is not.
  bool bodyInProgress() const override;
  AnswerRules answerRules() const override;

 private:
  enum class State : uint8_t {
    kRequestLine,  // also skipping the empty lines before one
    kHeaders,
    kBody,         // Content-Length framed
    kChunkSize,    // a chunk-size line
    kChunkData,    // the data of a chunk
    kChunkDataCr,  // the CR after a chunk's data
    kChunkDataLf,  // the LF after a chunk's data
    kTrailers,     // the trailer block after the last chunk
    kClosed,       // spent after a request that ends the connection
    kFailed,       // spent after a fault
  };

  // Takes the bytes of one line from [*data, end): the whole line when its LF is
  // there (then handled by processLine), else the rest of the chunk into line_.
  bool takeLine(const char** data, const char* end, std::vector<HttpRequestPtr>* requests);
  // One complete line without its CR LF.
  bool processLine(const char* line, size_t length, std::vector<HttpRequestPtr>* requests);
  bool processRequestLine(const char* line, size_t length);
  // A field line of the head (stored) or of the trailers (only checked).
  bool processFieldLine(const char* line, size_t length, bool store);
  bool noteFramingField(const char* name, size_t name_length, const char* value,
                        size_t value_length);
  // validHost, skipped for the value last found valid.
  bool validHostRemembered(const char* value, size_t length);
  bool finishHead(std::vector<HttpRequestPtr>* requests);
  bool processChunkSize(const char* line, size_t length);
  void appendBody(const char* data, size_t length);
  void deliver(std::vector<HttpRequestPtr>* requests);
  bool failByLimit(HttpResponse::StatusCode status);
  bool fail(HttpResponse::StatusCode status);
  // The largest body the limits let through.
  uint64_t bodyCap() const;

  // What one request in progress needs, from the first byte of its request
  // line to the end of its body: the unfinished line, the head's budget and
  // header storage, the request, and what its head said about framing.
  // Borrowed from this thread's pool when bytes of a request arrive and given
  // back once the request is delivered (or the parser is spent), so that a
  // connection idle between requests keeps none of it.
  struct Progress;
  friend class StrictProgressPool;
  // Reads the bytes of one chunk; false on a fault.
  bool readChunk(const char* p, const char* end, std::vector<HttpRequestPtr>* requests);
  // Takes a clean Progress from this thread's pool (or makes one).
  void borrowProgress();
  // Gives it back, clean, unless a request is under way.
  void returnProgressIfIdle();

  // Constant after construction.
  const RequestLimits limits_;
  const bool https_;

  // Event thread only, like the whole parser.
  State state_ = State::kRequestLine;
  bool refused_by_limit_ = false;
  // An interim 100 Continue is owed to the caller (takeContinueRequest).
  bool continue_pending_ = false;
  HttpResponse::StatusCode error_status_ = HttpResponse::kBadRequest;
  // Held while a request is read (see Progress); null between requests.
  Progress* progress_ = nullptr;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_STRICT_FRAMING_H_
