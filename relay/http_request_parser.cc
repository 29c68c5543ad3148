#include "relay/http_request_parser.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstring>

#include "common/fast_thread_local.h"
#include "common/logging.h"
#include "common/memory_policy.h"
#include "common/string_util.h"
#include "relay/http_line_match.h"
#include "relay/message_pool.h"
#include "relay/url_escape.h"
#include "url/url_parse.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_request_parser";
constexpr char kSourceFile[] = "relay/http_request_parser";

// The first CR or LF in [from, end), or end: sixteen bytes at a time where
// SSE2 is there. Each doParse call scans each byte once, so a line of any
// length that arrives in any pieces costs linear time.
inline const char* findLineEnd(const char* from, const char* end) {
#if defined(__SSE2__)
  const __m128i cr = _mm_set1_epi8('\r');
  const __m128i lf = _mm_set1_epi8('\n');
  while (end - from >= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const int found =
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(block, cr), _mm_cmpeq_epi8(block, lf)));
    if (found != 0) return from + __builtin_ctz(found);
    from += 16;
  }
#endif
  while (from < end && *from != '\r' && *from != '\n') ++from;
  return from;
}

// The URL of a request: from its target alone (host null), or from "http://"
// (or "https://"), its Host and its target. Building one is the dearest step
// of a request, and the requests of a connection mostly repeat their URL
// (RPCs always post to "/" on the same host), so the last one built on this
// thread is kept; a copy shares its text.
struct LastUrl {
  bool had_host = false;
  bool https = false;
  std::string host;
  std::string target;
  GURL url;
};

// Long URLs are neither kept nor looked for, so that one of them cannot pin
// its memory.
constexpr size_t kLongestKeptUrl = 2048;

// The URL for `target` (and `host`), built now or kept from the last
// request; null when it is too long to keep, and so was not built.
const GURL* keptUrl(const std::string* host, const std::string& target, bool https) {
  VANTU_FAST_THREAD_LOCAL LastUrl last;  // one thread-local look-up, not four
  LastUrl& kept = last;
  const size_t size = target.size() + (host != nullptr ? host->size() : 0);
  if (size > kLongestKeptUrl) return nullptr;
  if (target.empty() || kept.had_host != (host != nullptr) || kept.https != https ||
      target != kept.target || (host != nullptr && *host != kept.host)) {
    kept.target.clear();  // should what follows throw, nothing stale is kept
    const char* const scheme = https ? "https" : "http";
    kept.url = host != nullptr ? GURL::fromParts(scheme, *host, target) : GURL(target);
    kept.had_host = host != nullptr;
    kept.https = https;
    if (host != nullptr) kept.host = *host;
    kept.target = target;
  }
  return &kept.url;
}

// The URL of a request-target alone.
GURL makeUrl(const std::string& target) {
  if (const GURL* kept = keptUrl(nullptr, target, false)) return *kept;
  return GURL(target);
}

// Appends the pointers to *out as shared pointers of the concrete type, whose
// memory goes back to this thread's pool when the last one is dropped.
template <typename Message>
void adoptAll(std::vector<HttpMessage*>* messages, std::vector<std::shared_ptr<Message>>* out) {
  for (HttpMessage* message : *messages) {
    out->push_back(message_pool::adopt(static_cast<Message*>(message)));
  }
  messages->clear();
  // A burst of thousands of pipelined requests does not pin its list.
  if (messages->capacity() > memory_policy::kLargestKeptMessageList) {
    std::vector<HttpMessage*>().swap(*messages);
  }
}

}  // namespace

bool resolveAbsoluteTarget(HttpRequest* request) {
  // A target that starts with "/" has no scheme and so can never be an
  // absolute URL.
  if (!request->uri.empty() && request->uri[0] == '/') return false;
  GURL url = makeUrl(request->uri);
  if (!url.is_valid()) return false;
  request->url = std::move(url);
  request->query_components.assignFrom(request->url);
  return true;
}

void resolveUrlFromHost(HttpRequest* request, const std::string& host, bool https) {
  const GURL* kept = keptUrl(&host, request->uri, https);
  if (kept == nullptr) {
    const char* const scheme = https ? "https" : "http";
    request->url = GURL::fromParts(scheme, host, request->uri);
  } else if (kept->shared_spec() == nullptr || request->url.shared_spec() != kept->shared_spec()) {
    // A recycled request may still hold this very URL (see
    // message_pool::newRequestToFill): a URL's text is never changed, so
    // sharing it means being a copy of it.
    request->url = *kept;
  }
  request->query_components.assignFrom(request->url);
}

void HttpMessageParser::setLimits(const RequestLimits& limits) {
  head_.setBudget(limits.max_header_bytes);
  max_body_bytes_ = limits.max_body_bytes;
}

bool HttpMessageParser::headInProgress() const {
  return !spent_ && (state_ == kHeaders || (state_ == kInitialLine && !buffer_.empty()));
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
  return doParse(data.data(), data.size(), messages);
}

bool HttpMessageParser::doParse(const char* data, size_t size,
                                std::vector<HttpMessage*>* messages) {
  if (spent_) return false;
  HeadAssembler::Scope scope(&head_);
  if (!message_) message_.reset(createNewMessage());
  const char* scan = data;
  const char* const end = scan + size;
  if (skip_line_feed_ && scan < end) {
    skip_line_feed_ = false;
    if (*scan == '\n') ++scan;
  }
  const char* line_start = scan;
  for (;;) {
    if (state_ == kBody) {
      const size_t missing = message_->content_length - message_->body.size();
      const size_t take = std::min(missing, static_cast<size_t>(end - scan));
      memory_policy::growBodyFor(&message_->body, take, message_->content_length);
      message_->body.append(scan, take);
      scan += take;
      if (message_->body.size() < message_->content_length) return true;
      messages->push_back(message_.release());
      state_ = kInitialLine;
      message_.reset(createNewMessage());
      buffer_.clear();
      head_.startHead();
      line_start = scan;
      if (scan == end) return true;
    }
    const char* line_end = findLineEnd(scan, end);
    if (line_end == end) {
      head_.keep(line_start, end - line_start);
      return head_.fits(buffer_.size()) || refuse(tooLongStatus());
    }
    scan = line_end + 1;
    const size_t line_length = buffer_.size() + (line_end - line_start);
    if (!head_.fits(line_length)) return refuse(tooLongStatus());
    // Every line end counts as two bytes, whichever it was.
    head_.countLine(line_length + 2);
    if (!processLine(line_start, line_end - line_start)) {
      if (spent_) return false;
      // A refused first line restarts the head.
      if (state_ == kInitialLine) head_.startHead();
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
  // A header line that arrived whole is read where it lies.
  if (state_ == kHeaders && buffer_.empty()) return processHeaderLine(data, length);
  // Other lines are handed over from buffer_, which keeps its capacity from
  // line to line, so that they cost no allocation either.
  buffer_.append(data, length);
  bool accepted;
  if (state_ == kInitialLine) {
    accepted = processInitialLine(buffer_);
  } else if (state_ == kHeaders) {
    accepted = processHeaderLine(buffer_);
  } else {
    accepted = false;
  }
  head_.clearLine();
  return accepted;
}

bool HttpMessageParser::processHeaderLine(const std::string& line) {
  return processHeaderLine(line.data(), line.size());
}

bool HttpMessageParser::processHeaderLine(const char* data, size_t size) {
  if (size == 0) {
    finalizeHeader();
    state_ = kBody;
    if (max_body_bytes_ != 0 && message_->content_length > max_body_bytes_) {
      return refuse(HttpResponse::kRequestEntityTooLarge);
    }
    // The body's room, from its declared length: a body that arrives in many
    // reads is then copied once, not again at every doubling. The length is
    // only the peer's word, so little is reserved before the bytes come.
    memory_policy::reserveBodyAhead(&message_->body, message_->content_length);
    return true;
  }
  size_t name_length;
  size_t value_start;
  // Lines end at the first CR or LF, so none holds a line feed.
  if (!matchHeaderLineWithoutLineFeed(data, size, &name_length, &value_start)) return false;
  VANTU_LOG(5, kLogger, kSourceFile)
      << "Key=" << std::string(data, name_length)
      << " value=" << std::string(data + value_start, size - value_start);
  auto inserted = head_.storeHeader(&message_->headers, data, name_length, data + value_start,
                                    size - value_start);
  if (name_length == 14 && memcmp(data, "Content-Length", 14) == 0) {
    return ParseUInt32(inserted->second, &message_->content_length);
  }
  if (name_length == 4 && memcmp(data, "Host", 4) == 0) host_value_ = &inserted->second;
  return true;
}

bool HttpRequestParser::parse(const std::string& data, std::vector<HttpRequestPtr>* requests) {
  return parse(data.data(), data.size(), requests);
}

bool HttpRequestParser::parse(const char* data, size_t size,
                              std::vector<HttpRequestPtr>* requests) {
  const bool result = doParse(data, size, &completed_);
  adoptAll(&completed_, requests);
  return result;
}

HttpMessage* HttpRequestParser::createNewMessage() {
  HttpRequest* request = message_pool::newRequestToFill(pool());
  // The url a recycled request kept waits here until its head ends: until
  // then the request in progress has the default url, as a new one does.
  recycled_url_ = std::move(request->url);
  request->url = GURL();
  head_.startFields(&request->headers);
  host_value_ = nullptr;
  return request;
}

bool HttpRequestParser::processInitialLine(const std::string& line) {
  size_t method_length;
  size_t target_begin;
  size_t target_length;
  if (!matchRequestLineAt(line, &method_length, &target_begin, &target_length)) return false;
  HttpRequest* request = this->request();
  request->minor_version = line.back() - '0';
  // The method's name is copied only for a log record.
  request->method = httpMethodFromName(line.data(), method_length);
  if (request->method == kHttpUnknown) {
    // Before takeTarget, which may take the line's buffer.
    VANTU_LOG(2, kLogger, kSourceFile) << "Unknown method " << line.substr(0, method_length);
    head_.takeTarget(line.data(), target_begin, target_length, &request->uri);
    return false;
  }
  VANTU_LOG(5, kLogger, kSourceFile)
      << "Method: " << static_cast<int>(request->method) << "=" << line.substr(0, method_length)
      << " URI=" << line.substr(target_begin, target_length);
  head_.takeTarget(line.data(), target_begin, target_length, &request->uri);
  state_ = kHeaders;
  return true;
}

void HttpRequestParser::finalizeHeader() {
  HttpRequest* request = this->request();
  head_.finishFields(&request->headers);
  // Back for resolveUrlFromHost, which keeps it when it is already the url.
  request->url = std::move(recycled_url_);
  // Inserts an empty Host when the request has none.
  if (!resolveAbsoluteTarget(request)) {
    resolveUrlFromHost(request, host_value_ != nullptr ? *host_value_ : request->headers["Host"],
                       https_);
  }
}

bool HttpResponseParser::parse(const std::string& data, std::vector<HttpResponsePtr>* responses) {
  return parse(data.data(), data.size(), responses);
}

bool HttpResponseParser::parse(const char* data, size_t size,
                               std::vector<HttpResponsePtr>* responses) {
  const bool result = doParse(data, size, &completed_);
  adoptAll(&completed_, responses);
  return result;
}

HttpMessage* HttpResponseParser::createNewMessage() { return message_pool::newResponse(pool()); }

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
