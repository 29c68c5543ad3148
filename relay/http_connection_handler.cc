// HttpConnectionHandler: one accepted connection of an HttpServer.
#include <malloc.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/fast_thread_local.h"
#include "relay/http_server.h"
#include "relay/message_pool.h"

namespace vantu {
namespace relay {
namespace {

// The interim answer to "Expect: 100-continue".
const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

// The current second in IMF-fixdate form ("Sun, 06 Nov 1994 08:49:37 GMT").
// Written by hand: strftime's names follow the process's locale. Each thread
// keeps the last one it made.
const std::string& httpDate() {
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  thread_local time_t last = -1;
  thread_local std::string text;
  const time_t now = time(nullptr);
  if (now != last) {
    tm fields;
    gmtime_r(&now, &fields);
    char buffer[40];
    snprintf(buffer, sizeof(buffer), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[fields.tm_wday],
             fields.tm_mday, kMonths[fields.tm_mon], fields.tm_year + 1900, fields.tm_hour,
             fields.tm_min, fields.tm_sec);
    text = buffer;
    last = now;
  }
  return text;
}

// Once freed, a large request's memory tends to stay with the allocator:
// a million headers (or split query pairs) leave as many small blocks, and
// after freeing one big block glibc raises its thresholds so that the next
// big ones come from, and stay in, the heap. Such requests give their memory
// back to the system once they are gone.
bool isLarge(const HttpRequest& request) {
  constexpr size_t kManyBlocks = 16384;
  constexpr size_t kManyBytes = 1 << 20;
  return request.headers.size() + request.query_components.splitCount() > kManyBlocks ||
         request.uri.size() + request.body.size() > kManyBytes;
}

// At most once a second: a trim walks the whole heap, and a stream of large
// requests (big RPC payloads, say) would otherwise pay for it every time.
// Event thread only.
void releaseFreeMemory() {
#ifdef __GLIBC__
  static std::chrono::steady_clock::time_point last_trim;
  const auto now = std::chrono::steady_clock::now();
  if (last_trim != std::chrono::steady_clock::time_point() &&
      now - last_trim < std::chrono::seconds(1)) {
    return;
  }
  last_trim = now;
  malloc_trim(0);
#endif
}

RequestLimits limitsOf(const HttpServerOptions& options) {
  RequestLimits limits;
  limits.max_header_bytes = options.max_header_bytes;
  limits.max_body_bytes = options.max_body_bytes;
  return limits;
}

}  // namespace

HttpConnectionHandler::HttpConnectionHandler(std::weak_ptr<HttpServerImpl> impl)
    : RequestResponseConnectionHandler(2048),
      impl_(impl),
      strict_parser_(impl_->options().strict_framing
                         ? new StrictRequestParser(limitsOf(impl_->options()))
                         : nullptr) {
  if (!strict_parser_) parser_.setLimits(limitsOf(impl_->options()));
}

HttpConnectionHandler::~HttpConnectionHandler() {
  // Connections leave the registry when they close; one that never got as
  // far leaves here.
  HttpConnectionHandler::notifyClosed();
  weak_this_.reset();
  impl_.reset();
}

void HttpConnectionHandler::sendAnswer(HttpResponse* response, bool to_head_request) {
  const bool strict = strict_parser_ != nullptr;
  if (strict) response->setHeader("Date", httpDate());
  if (drain_.active()) DrainGoodbye::markClosing(response);
  // Each thread renders its answers' heads into one buffer, kept.
  VANTU_FAST_THREAD_LOCAL std::string header;
  response->outputHeader(&header);
  SendGuard guard(*this);
  send(header);
  const bool with_content = !(strict && to_head_request);
  if (with_content) send(response->content.data(), response->content.size());
  if (HttpServerObserver* observer = impl_->observer()) {
    observer->bytesSent(header.size() + (with_content ? response->content.size() : 0));
  }
  if (header.capacity() > 65536) std::string().swap(header);  // a huge head is not kept
}

void HttpConnectionHandler::notifyIncomingData(std::string* data) {
  std::shared_ptr<HttpServerImpl> impl = impl_;
  if (closing_) {
    // After the request that ends the connection, or an error, or while
    // draining, nothing more is read as a request.
    data->clear();
    return;
  }
  if (HttpServerObserver* observer = impl->observer()) observer->bytesReceived(data->size());
  // Kept from chunk to chunk (empty in between) so that it costs no allocation.
  std::vector<HttpRequestPtr>& requests = requests_;
  const bool parsed =
      strict_parser_ ? strict_parser_->parse(*data, &requests) : parser_.parse(*data, &requests);
  data->clear();
  const bool last_ends_connection = strict_parser_ && parsed && strict_parser_->closing();
  // A head still in progress after a completed request is the next one's:
  // its time runs from now.
  if (!requests.empty() && deadline_kind_ == Deadline::kHead) deadline_kind_ = Deadline::kNone;
  bool large = false;
  for (size_t i = 0; i < requests.size(); ++i) {
    HttpResponsePtr response = message_pool::adopt(message_pool::newResponse());
    if (last_ends_connection && i + 1 == requests.size()) {
      response->setHeader("Connection", "close");
    }
    if (drain_.active()) {
      // Answered, not run: the client may take it elsewhere.
      drain_.heard(Time::now());
      DrainGoodbye::refuse(*requests[i], response.get());
      sendAnswer(response.get(), requests[i]->method == kHttpHead);
    } else {
      impl->callRequestHandler(requests[i], response, weak_this_);
    }
    large = large || isLarge(*requests[i]);
  }
  requests.clear();
  if (requests.capacity() > 64) std::vector<HttpRequestPtr>().swap(requests);
  if (large) releaseFreeMemory();
  if (!parsed) {
    if (strict_parser_) {
      refuse(strict_parser_->errorStatus(), true, strict_parser_->refusedByLimit());
    } else {
      // A limit's refusal ends the connection; a malformed line alone does
      // not, and its 400 is the plain one.
      refuse(parser_.errorStatus(), parser_.spent(), parser_.spent());
    }
  } else if (last_ends_connection) {
    closeAfterAnswers();
  } else if (strict_parser_ && strict_parser_->takeContinueRequest()) {
    send(kContinue, sizeof(kContinue) - 1);
    if (HttpServerObserver* observer = impl->observer()) observer->bytesSent(sizeof(kContinue) - 1);
  }
  updateDeadline();
  closeIfDrained(Time::now());
}

void HttpConnectionHandler::refuse(HttpResponse::StatusCode status, bool close, bool by_limit) {
  HttpResponse answer;
  answer.status_code = status;
  if (close) {
    answer.setHeader("Connection", "close");
  } else {
    answer.headers.erase("Connection");
  }
  sendAnswer(&answer, false);
  if (HttpServerObserver* observer = impl_->observer()) observer->requestRefused(status, by_limit);
  if (close) closeAfterAnswers();
}

void HttpConnectionHandler::closeAfterAnswers() {
  closing_ = true;
  deadline_kind_ = Deadline::kNone;
  if (answers_owed_ == 0) shutdown();
}

void HttpConnectionHandler::oweAnswer() { ++answers_owed_; }

void HttpConnectionHandler::answerSettled() {
  if (answers_owed_ > 0) --answers_owed_;
  if (answers_owed_ > 0) return;
  if (closing_ || input_ended_) {
    shutdown();
  } else {
    updateDeadline();
    closeIfDrained(Time::now());
  }
}

void HttpConnectionHandler::checkDeadline(Time now) {
  closeIfDrained(now);
  if (deadline_kind_ == Deadline::kNone || now < deadline_) return;
  const Deadline kind = deadline_kind_;
  deadline_kind_ = Deadline::kNone;
  if (kind == Deadline::kIdle) {
    closing_ = true;
    shutdown();
    return;
  }
  refuse(HttpResponse::kRequestTimeout, true, true);
}

void HttpConnectionHandler::beginDrain() {
  const Time now = Time::now();
  drain_.begin(now);
  closeIfDrained(now);
}

void HttpConnectionHandler::closeIfDrained(Time now) {
  if (!drain_.active() || closing_ || answers_owed_ > 0) return;
  const bool reading = strict_parser_
                           ? strict_parser_->headInProgress() || strict_parser_->bodyInProgress()
                           : parser_.headInProgress() || parser_.bodyInProgress();
  if (reading || !(input_ended_ || drain_.quiet(now))) return;
  closing_ = true;
  deadline_kind_ = Deadline::kNone;
  shutdown();
}

void HttpConnectionHandler::updateDeadline() {
  const HttpServerOptions& options = impl_->options();
  Deadline kind = Deadline::kNone;
  Duration timeout;
  if (closing_) {
    // Nothing more is read; the connection ends once its answers are out.
  } else if (strict_parser_ ? strict_parser_->headInProgress() : parser_.headInProgress()) {
    kind = Deadline::kHead;
    timeout = options.header_timeout;
  } else if (strict_parser_ ? strict_parser_->bodyInProgress() : parser_.bodyInProgress()) {
    kind = Deadline::kBody;
    timeout = options.idle_timeout;
  } else if (answers_owed_ == 0 && !input_ended_) {
    kind = Deadline::kIdle;
    timeout = options.idle_timeout;
  }
  if (kind == Deadline::kNone || timeout <= Duration()) {
    deadline_kind_ = Deadline::kNone;
    return;
  }
  // A head's time runs from its first byte; a body's and an idle
  // connection's from the latest.
  if (kind == Deadline::kHead && deadline_kind_ == Deadline::kHead) return;
  deadline_kind_ = kind;
  deadline_ = Time::now() + timeout;
}

void HttpConnectionHandler::notifyInputShutdown(std::string* data) {
  // The caller will not read what its calls would answer.
  if (CallCanceller* canceller = impl_->canceller()) canceller->connectionEnded(this);
  if (data->empty()) return;
  static const char kUnexpectedEof[] = "Unexpected EOF!";
  send(kUnexpectedEof, sizeof(kUnexpectedEof) - 1);
  if (HttpServerObserver* observer = impl_->observer()) {
    observer->bytesSent(sizeof(kUnexpectedEof) - 1);
  }
  shutdown();
}

bool HttpConnectionHandler::holdOpenAfterInputEnd() {
  input_ended_ = true;
  deadline_kind_ = Deadline::kNone;
  // Answers still being worked on go out before the connection closes.
  return answers_owed_ > 0;
}

void HttpConnectionHandler::notifyOutputShutdown() { source_.close(); }

void HttpConnectionHandler::notifyClosed() {
  deadline_kind_ = Deadline::kNone;
  // Once, from the socket; a destructor running elsewhere has nothing to add.
  if (CallCanceller* canceller = impl_->canceller(); canceller && isEventThread()) {
    canceller->connectionEnded(this);
  }
  if (!registered_) return;
  registered_ = false;
  impl_->connections().remove(this);
  // Only connections whose opening was reported are reported closed, so that
  // an observer set while connections were open counts right.
  if (HttpServerObserver* observer = impl_->observer(); observer && observed_) {
    observer->connectionClosed();
  }
}

}  // namespace relay
}  // namespace vantu
