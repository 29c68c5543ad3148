#ifndef RELAY_HTTP_REQUEST_PARSER_H_
#define RELAY_HTTP_REQUEST_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "relay/head_assembler.h"
#include "relay/http_message.h"

namespace vantu {
namespace relay {

// Limits a server may put on the requests it reads; 0 means no limit, which is
// what a parser has unless told otherwise.
struct RequestLimits {
  // The request line and the header lines of one request, each line end
  // counted as two bytes.
  size_t max_header_bytes = 0;
  // The body of one request.
  uint64_t max_body_bytes = 0;
};

// The two ways a request whose head is complete gets its url (and with it its
// query components, split from the url's query).
//
// When the request-target is itself a valid absolute URL, it becomes the url
// and the result is true; otherwise nothing changes and the result is false.
bool resolveAbsoluteTarget(HttpRequest* request);
// Sets the url to the one built from "http://" ("https://" for a request that
// came over TLS), `host` and the target, valid or not.
void resolveUrlFromHost(HttpRequest* request, const std::string& host, bool https = false);

// Turns a byte stream that arrives in chunks of any size into complete HTTP
// messages: lines ended by CR LF, a lone LF or a lone CR, header lines, the
// blank line, and a body framed by "Content-Length" alone. Subclasses supply the
// first line and the message type.
//
// One parser serves one connection for its whole life and keeps partial lines
// and bodies between chunks. Used by one thread at a time; no locking.
class HttpMessageParser {
 public:
  HttpMessageParser() = default;
  virtual ~HttpMessageParser() = default;
  HttpMessageParser(const HttpMessageParser&) = delete;
  HttpMessageParser& operator=(const HttpMessageParser&) = delete;

  // Consumes the whole chunk and appends every message it completes, in stream
  // order; the caller owns them. Returns false at the first rejected line: the
  // messages completed before it are in *messages, the rest of the chunk is
  // dropped, and a later call continues from the state before that line.
  bool doParse(const std::string& data, std::vector<HttpMessage*>* messages);
  // The same, for bytes wherever they lie: nothing is kept from them but
  // what a message or an unfinished line takes.
  bool doParse(const char* data, size_t size, std::vector<HttpMessage*>* messages);

  // One complete line, without its line end.
  bool processLine(const char* data, size_t length);
  // One line of the header block; the empty line ends the block.
  bool processHeaderLine(const std::string& line);
  bool processHeaderLine(const char* data, size_t size);

  // Refuses what exceeds `limits` (none by default): a first line longer than
  // max_header_bytes (status 414), a longer head (400), a Content-Length above
  // max_body_bytes (413). They are checked as the bytes are buffered, so an
  // endless line is refused once it passes the limit. A refusal spends the
  // parser: every later call returns false and completes nothing.
  void setLimits(const RequestLimits& limits);
  // The status a false result is answered with: 400, or what a limit said.
  HttpResponse::StatusCode errorStatus() const { return error_status_; }
  // A limit refused the stream; nothing more will be read.
  bool spent() const { return spent_; }
  // Part of a message's head has arrived, and not the whole of it.
  bool headInProgress() const;
  // A message's head is complete and its body is not.
  bool bodyInProgress() const { return !spent_ && state_ == kBody; }

 protected:
  enum State { kInitialLine = 0, kHeaders = 1, kBody = 2 };

  // A new, default-constructed message of the subclass's type.
  virtual HttpMessage* createNewMessage() = 0;
  // Fills the message in progress from its first line, sets state_ to kHeaders
  // and returns true; or returns false leaving state_ alone.
  virtual bool processInitialLine(const std::string& line) = 0;
  // Called once per message, at the blank line, before any body byte.
  virtual void finalizeHeader() {}

  // The bytes of a line not finished when the previous chunk ended.
  std::string buffer_;
  int state_ = kInitialLine;
  // The message in progress; null only before the first chunk.
  std::unique_ptr<HttpMessage> message_;

  // Where new messages and header nodes come from: this thread's pool.
  message_pool::Pool* pool() const { return head_.pool(); }

  // The messages a parse call completed, before they are handed out; kept
  // from call to call so that it costs no allocation.
  std::vector<HttpMessage*> completed_;
  // The unfinished line is buffer_; the head's budget is max_header_bytes.
  HeadAssembler head_{&buffer_};
  // The value of the message in progress's field named exactly "Host", where
  // it is stored; null until one is. Map nodes stay put, and a second Host
  // line writes into the same node.
  const std::string* host_value_ = nullptr;

 private:
  // Spends the parser with `status` and returns false.
  bool refuse(HttpResponse::StatusCode status);
  // A line that takes the head past its budget is refused with this.
  HttpResponse::StatusCode tooLongStatus() const {
    return state_ == kInitialLine ? HttpResponse::kRequestUriTooLarge : HttpResponse::kBadRequest;
  }

  // The previous chunk ended with a CR: an LF opening the next one belongs to
  // that line end.
  bool skip_line_feed_ = false;
  uint64_t max_body_bytes_ = 0;
  HttpResponse::StatusCode error_status_ = HttpResponse::kBadRequest;
  bool spent_ = false;
};

// Reads requests: the request line, then the absolute URL and the unescaped
// query components when the header block ends. The server keeps one per
// connection and uses it on the event thread only.
class HttpRequestParser : public HttpMessageParser {
 public:
  HttpRequestParser() = default;
  ~HttpRequestParser() override = default;

  // Feeds one chunk; appends the completed requests (also those completed
  // before a rejected line) to *requests, which is never cleared. False means
  // the peer sent something that is not acceptable HTTP.
  bool parse(const std::string& data, std::vector<HttpRequestPtr>* requests);
  bool parse(const char* data, size_t size, std::vector<HttpRequestPtr>* requests);

  // The connection is TLS: a url built from the Host header starts with
  // "https://" rather than "http://".
  void setHttps(bool https) { https_ = https; }

 protected:
  HttpMessage* createNewMessage() override;
  bool processInitialLine(const std::string& line) override;
  void finalizeHeader() override;

 private:
  HttpRequest* request() { return static_cast<HttpRequest*>(message_.get()); }

  bool https_ = false;
  // The url the request in progress had in its last use (see
  // message_pool::newRequestToFill), set aside until its head ends.
  GURL recycled_url_;
};

// Reads responses: the status line; the rest is the shared framing. The RPC
// client keeps one per channel and uses it on the event thread only.
class HttpResponseParser : public HttpMessageParser {
 public:
  HttpResponseParser() = default;
  ~HttpResponseParser() override = default;

  // As HttpRequestParser::parse, for responses.
  bool parse(const std::string& data, std::vector<HttpResponsePtr>* responses);
  bool parse(const char* data, size_t size, std::vector<HttpResponsePtr>* responses);

 protected:
  HttpMessage* createNewMessage() override;
  bool processInitialLine(const std::string& line) override;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_REQUEST_PARSER_H_
