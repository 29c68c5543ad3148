#include "relay/http_request_parser.h"

#include <algorithm>
#include <cstring>

#include "common/logging.h"
#include "common/string_util.h"
#include "relay/http_line_match.h"
#include "relay/url_escape.h"
#include "url/url_parse.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_request_parser";
// Lines longer than this do not keep their buffer's memory once handled.
constexpr size_t kLongLine = 4096;
constexpr char kSourceFile[] = "relay/http_request_parser";

// Finds line ends in one chunk with memchr, remembering the next CR and the
// next LF it has seen so that neither search ever goes over the same bytes
// twice: linear in the chunk however its lines end.
class LineEndFinder {
 public:
  explicit LineEndFinder(const char* end) : end_(end) {}

  // The first CR or LF in [from, end), or end.
  const char* next(const char* from) {
    if (next_cr_ == nullptr || next_cr_ < from) next_cr_ = find(from, end_, '\r');
    // Only an LF before the next CR matters; when there is none, next_lf_
    // rests on that CR until the scan passes it.
    if (next_lf_ == nullptr || next_lf_ < from) next_lf_ = find(from, next_cr_, '\n');
    return std::min(next_cr_, next_lf_);
  }

 private:
  static const char* find(const char* from, const char* to, char c) {
    const void* found = memchr(from, c, to - from);
    return found != nullptr ? static_cast<const char*>(found) : to;
  }

  const char* const end_;
  const char* next_cr_ = nullptr;
  const char* next_lf_ = nullptr;
};

// The URL of a request: from its target alone (host null), or from "http://",
// its Host and its target. Building one is the dearest step of a request, and
// the requests of a connection mostly repeat their URL (RPCs always post to "/"
// on the same host), so the last one built on this thread is kept; a copy
// shares its text.
GURL makeUrl(const std::string* host, const std::string& target) {
  // Long URLs are neither kept nor looked for, so that one of them cannot pin
  // its memory.
  constexpr size_t kLongestKept = 2048;
  thread_local bool last_had_host = false;
  thread_local std::string last_host;
  thread_local std::string last_target;
  thread_local GURL last_url;
  const size_t size = target.size() + (host != nullptr ? host->size() : 0);
  if (size > kLongestKept) {
    return host != nullptr ? GURL::fromParts("http", *host, target) : GURL(target);
  }
  if (target.empty() || last_had_host != (host != nullptr) || target != last_target ||
      (host != nullptr && *host != last_host)) {
    last_target.clear();  // should what follows throw, nothing stale is kept
    last_url = host != nullptr ? GURL::fromParts("http", *host, target) : GURL(target);
    last_had_host = host != nullptr;
    if (host != nullptr) last_host = *host;
    last_target = target;
  }
  return last_url;
}

// Appends the pointers to *out as shared pointers of the concrete type.
template <typename Message>
void adoptAll(const std::vector<HttpMessage*>& messages,
              std::vector<std::shared_ptr<Message>>* out) {
  for (HttpMessage* message : messages) {
    out->push_back(std::shared_ptr<Message>(static_cast<Message*>(message)));
  }
}

}  // namespace

bool resolveAbsoluteTarget(HttpRequest* request) {
  // A target that starts with "/" has no scheme and so can never be an
  // absolute URL.
  if (!request->uri.empty() && request->uri[0] == '/') return false;
  GURL url = makeUrl(nullptr, request->uri);
  if (!url.is_valid()) return false;
  request->url = std::move(url);
  request->query_components.assignFrom(request->url);
  return true;
}

void resolveUrlFromHost(HttpRequest* request, const std::string& host) {
  request->url = makeUrl(&host, request->uri);
  request->query_components.assignFrom(request->url);
}

void HttpMessageParser::setLimits(const RequestLimits& limits) { limits_ = limits; }

bool HttpMessageParser::headInProgress() const {
  return !spent_ && (state_ == kHeaders || (state_ == kInitialLine && !buffer_.empty()));
}

bool HttpMessageParser::headTooLong(size_t length) const {
  if (limits_.max_header_bytes == 0) return false;
  if (state_ == kInitialLine) return length > limits_.max_header_bytes;
  return state_ == kHeaders && head_bytes_ + length > limits_.max_header_bytes;
}

bool HttpMessageParser::refuse(HttpResponse::StatusCode status) {
  error_status_ = status;
  spent_ = true;
  std::string().swap(buffer_);
  message_.reset(createNewMessage());
  state_ = kInitialLine;
  return false;
}

bool HttpMessageParser::doParse(const std::string& data, std::vector<HttpMessage*>* messages) {
  if (spent_) return false;
  if (!message_) message_.reset(createNewMessage());
  const char* scan = data.data();
  const char* const end = scan + data.size();
  if (skip_line_feed_ && scan < end) {
    skip_line_feed_ = false;
    if (*scan == '\n') ++scan;
  }
  const char* line_start = scan;
  LineEndFinder line_ends(end);
  for (;;) {
    if (state_ == kBody) {
      const size_t missing = message_->content_length - message_->body.size();
      const size_t take = std::min(missing, static_cast<size_t>(end - scan));
      message_->body.append(scan, take);
      scan += take;
      if (message_->body.size() < message_->content_length) return true;
      messages->push_back(message_.release());
      state_ = kInitialLine;
      message_.reset(createNewMessage());
      buffer_.clear();
      head_bytes_ = 0;
      line_start = scan;
      if (scan == end) return true;
    }
    const char* line_end = line_ends.next(scan);
    if (line_end == end) {
      buffer_.append(line_start, end - line_start);
      if (headTooLong(buffer_.size())) {
        return refuse(state_ == kInitialLine ? HttpResponse::kRequestUriTooLarge
                                             : HttpResponse::kBadRequest);
      }
      return true;
    }
    scan = line_end + 1;
    const size_t line_length = buffer_.size() + (line_end - line_start);
    if (headTooLong(line_length)) {
      return refuse(state_ == kInitialLine ? HttpResponse::kRequestUriTooLarge
                                           : HttpResponse::kBadRequest);
    }
    head_bytes_ += line_length + 2;
    if (!processLine(line_start, line_end - line_start)) {
      if (spent_) return false;
      // A refused first line restarts the head.
      if (state_ == kInitialLine) head_bytes_ = 0;
      // Even a rejected line's CR may have its LF in the next chunk.
      skip_line_feed_ = *line_end == '\r' && scan == end;
      return false;
    }
    if (*line_end == '\r') {
      if (scan == end) {
        skip_line_feed_ = true;
      } else if (*scan == '\n') {
        ++scan;
      }
    }
    line_start = scan;
  }
}

bool HttpMessageParser::processLine(const char* data, size_t length) {
  // The line is always handed over from buffer_, which keeps its capacity from
  // line to line, so that whole lines cost no allocation either.
  buffer_.append(data, length);
  bool accepted;
  if (state_ == kInitialLine) {
    accepted = processInitialLine(buffer_);
  } else if (state_ == kHeaders) {
    accepted = processHeaderLine(buffer_);
  } else {
    accepted = false;
  }
  // An exceptionally long line must not pin its memory for the life of the
  // connection.
  if (buffer_.capacity() > kLongLine) {
    std::string().swap(buffer_);
  } else {
    buffer_.clear();
  }
  return accepted;
}

bool HttpMessageParser::processHeaderLine(const std::string& line) {
  if (line.empty()) {
    finalizeHeader();
    state_ = kBody;
    if (limits_.max_body_bytes != 0 && message_->content_length > limits_.max_body_bytes) {
      return refuse(HttpResponse::kRequestEntityTooLarge);
    }
    return true;
  }
  size_t name_length;
  size_t value_start;
  if (!matchHeaderLine(line, &name_length, &value_start)) return false;
  const char* data = line.data();
  VANTU_LOG(5, kLogger, kSourceFile)
      << "Key=" << std::string(data, name_length)
      << " value=" << std::string(data + value_start, line.size() - value_start);
  // Header names often arrive in ascending order: hinting at the end makes
  // those insertions a single comparison.
  auto inserted = message_->headers.insert_or_assign(
      message_->headers.end(), std::string(data, name_length),
      std::string(data + value_start, line.size() - value_start));
  if (name_length == 14 && memcmp(data, "Content-Length", 14) == 0) {
    return ParseUInt32(inserted->second, &message_->content_length);
  }
  return true;
}

bool HttpRequestParser::parse(const std::string& data, std::vector<HttpRequestPtr>* requests) {
  std::vector<HttpMessage*> messages;
  bool result = doParse(data, &messages);
  adoptAll(messages, requests);
  return result;
}

HttpMessage* HttpRequestParser::createNewMessage() { return new HttpRequest; }

bool HttpRequestParser::processInitialLine(const std::string& line) {
  size_t method_length;
  size_t target_begin;
  size_t target_length;
  if (!matchRequestLineAt(line, &method_length, &target_begin, &target_length)) return false;
  HttpRequest* request = this->request();
  const std::string method_name = line.substr(0, method_length);
  request->minor_version = line.back() - '0';
  if (&line == &buffer_ && line.size() > kLongLine) {
    // A long line's buffer becomes the uri instead of being copied: a 64 MB
    // target costs 64 MB, not twice that.
    std::string uri;
    uri.swap(buffer_);
    uri.erase(target_begin + target_length);
    uri.erase(0, target_begin);
    request->uri = std::move(uri);
  } else {
    request->uri.assign(line, target_begin, target_length);
  }
  request->method = httpMethodFromName(method_name);
  if (request->method == kHttpUnknown) {
    VANTU_LOG(2, kLogger, kSourceFile) << "Unknown method " << method_name;
    return false;
  }
  VANTU_LOG(5, kLogger, kSourceFile) << "Method: " << static_cast<int>(request->method) << "="
                                     << method_name << " URI=" << request->uri;
  state_ = kHeaders;
  return true;
}

void HttpRequestParser::finalizeHeader() {
  HttpRequest* request = this->request();
  // Inserts an empty Host when the request has none.
  if (!resolveAbsoluteTarget(request)) resolveUrlFromHost(request, request->headers["Host"]);
}

bool HttpResponseParser::parse(const std::string& data, std::vector<HttpResponsePtr>* responses) {
  std::vector<HttpMessage*> messages;
  bool result = doParse(data, &messages);
  adoptAll(messages, responses);
  return result;
}

HttpMessage* HttpResponseParser::createNewMessage() { return new HttpResponse; }

bool HttpResponseParser::processInitialLine(const std::string& line) {
  int code;
  HttpResponse* response = static_cast<HttpResponse*>(message_.get());
  if (!matchStatusLine(line, &code, &response->status_string)) return false;
  response->status_code = static_cast<HttpResponse::StatusCode>(code);
  state_ = kHeaders;
  return true;
}

}  // namespace relay
}  // namespace vantu
