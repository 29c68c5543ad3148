// HttpConnectionHandler: one accepted connection of an HttpServer.
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/event_thread_check.h"
#include "common/fast_thread_local.h"
#include "common/memory_policy.h"
#include "relay/answer_head.h"
#include "relay/answer_queue.h"
#include "relay/connection_registry.h"
#include "relay/http_date.h"
#include "relay/http_request_parser.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "relay/message_pool.h"
#include "relay/peer_info.h"
#include "relay/request_reader.h"
#include "relay/rpc_deadline.h"

namespace vantu {
namespace relay {
namespace {

// The interim answer to "Expect: 100-continue".
const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

std::unique_ptr<RequestReader> readerFor(const HttpServerOptions& options) {
  RequestLimits limits;
  limits.max_header_bytes = options.max_header_bytes;
  limits.max_body_bytes = options.max_body_bytes;
  return newRequestReader(options.strict_framing, limits, options.tls.enabled());
}

// Once freed, a large request's memory tends to stay with the allocator; it
// is given back once such requests are gone.
// The Date of the answers gathered in the read at hand, or null when they
// carry none: the clock is read once per read, not once per answer. (One
// connection at a time gathers on a thread.)
VANTU_FAST_THREAD_LOCAL const std::string* gathered_date = nullptr;

bool isLarge(const HttpRequest& request) {
  return memory_policy::isLargeRequest(
      request.headers.size() + request.query_components.splitCount(),
      request.uri.size() + request.body.size());
}

}  // namespace

// The weak pointer by value is the constructor's published signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
HttpConnectionHandler::HttpConnectionHandler(std::weak_ptr<HttpServerImpl> impl)
    : RequestResponseConnectionHandler(2048),
      impl_(impl),
      reader_(readerFor(impl_->options())),
      answer_rules_(reader_->answerRules()) {}

HttpConnectionHandler::~HttpConnectionHandler() {
  // Connections leave the registry when they close; one that never got as
  // far leaves here. (A closed one may be deleted on whichever thread
  // dropped the last reference after writing an answer.)
  leaveRegistry();
  weak_this_.reset();
  impl_.reset();
}

void HttpConnectionHandler::sendAnswer(HttpResponse* response, bool to_head_request) {
  if (drain_.active()) DrainGoodbye::markClosing(response);
  const bool with_content = !(answer_rules_.head_without_content && to_head_request);
  const size_t content_size = with_content ? response->content.size() : 0;
  auto gatherContent = [&] {
    if (content_size > memory_policy::kLargestGatheredContent) {
      // Not copied at all: the socket sends the content where it lies and
      // frees it once sent. The answer's content is spent.
      sendGathered();
      reportSent(content_size);
      sendOwned(std::move(response->content));
    } else if (content_size > 0) {
      gathered_->append(response->content.data(), content_size);
    }
  };
  // The common case: an answer made while the event thread reads, gathered
  // with the others of the read. Its head is written where it goes. Only the
  // event thread gathers, so only it may look at gathered_.
  if (isEventThread() && gathered_ != nullptr && !streaming_.load(std::memory_order_relaxed)) {
    appendAnswerHead(response, gathered_date, gathered_);
    gatherContent();
    return;
  }
  const std::string* date = answer_rules_.date ? &httpDate() : nullptr;
  // Each thread renders its other answers' heads into one buffer, kept.
  VANTU_FAST_THREAD_LOCAL std::string header;
  writeAnswerHead(response, date, &header);
  // While a stream's body is on the wire, other answers wait for its end.
  // Other threads look under the push lock, which the event thread takes to
  // begin a stream.
  if (!isEventThread()) {
    SendGuard guard(*this);
    if (streaming_.load(std::memory_order_acquire) &&
        ordered_->hold(header, response->content.data(), content_size)) {
      return;
    }
    reportSent(header.size() + content_size);
    send(header);
    if (with_content) send(response->content.data(), content_size);
  } else if (streaming_.load(std::memory_order_relaxed) &&
             ordered_->hold(header, response->content.data(), content_size)) {
    // Held, to go out after the stream.
  } else if (gathered_ != nullptr) {
    // A stream began but holds nothing more: gathered like the others.
    gathered_->append(header);
    gatherContent();
  } else {
    reportSent(header.size() + content_size);
    send(header);
    if (with_content) send(response->content.data(), content_size);
  }
  if (header.capacity() > memory_policy::kLargestKeptHeadBuffer) std::string().swap(header);
}

void HttpConnectionHandler::sendPlainAnswer(const HttpResponsePtr& response, bool to_head_request) {
  if (ordered_ && !ordered_->empty()) {
    ordered_->pushReady(response, to_head_request);
  } else {
    sendAnswer(response.get(), to_head_request);
  }
}

AnswerQueue& HttpConnectionHandler::answerQueue() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  if (!ordered_) ordered_.reset(new AnswerQueue(this));
  return *ordered_;
}

void HttpConnectionHandler::reportSent(size_t bytes) {
  if (HttpServerObserver* observer = impl_->observer()) observer->bytesSent(bytes);
}

void HttpConnectionHandler::sendGathered() {
  if (gathered_ == nullptr || gathered_->empty()) return;
  // Reported before the bytes go: an observer that counts answers in runs
  // (the metrics) hands them over on this report, so that a peer who has
  // the answers finds them counted.
  reportSent(gathered_->size());
  send(*gathered_);
  gathered_->clear();
}

void HttpConnectionHandler::endOutput() {
  sendGathered();
  shutdown();
}

void HttpConnectionHandler::notifyIncomingData(std::string* data) {
  notifyIncomingBytes(data->data(), data->size());
  data->clear();
}

size_t HttpConnectionHandler::notifyIncomingBytes(const char* data, size_t size) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  std::shared_ptr<HttpServerImpl> impl = impl_;
  // After the request that ends the connection, or an error, or while
  // draining, nothing more is read as a request.
  if (closing_) return size;
  if (HttpServerObserver* observer = impl->observer()) observer->bytesReceived(size);
  // Kept from chunk to chunk (empty in between) so that it costs no allocation.
  std::vector<HttpRequestPtr>& requests = requests_;
  // Read where the bytes lie: a body is copied once, from the socket's read
  // buffer into its place.
  const bool parsed = reader_->parseBytes(data, size, &requests);
  const bool last_ends_connection = parsed && reader_->closing();
  // A head still in progress after a completed request is the next one's:
  // its time runs from now.
  if (!requests.empty() && deadline_kind_ == Deadline::kHead) deadline_kind_ = Deadline::kNone;
  bool large = false;
  // The answers made while this chunk's requests are handled are gathered and
  // handed to the socket in one piece: the same bytes, in the same order, as
  // one send each would give. One connection at a time gathers on a thread.
  VANTU_FAST_THREAD_LOCAL std::string gathered;
  if (!requests.empty()) {
    gathered_ = &gathered;
    gathered_date = answer_rules_.date ? &httpDate() : nullptr;
  }
  for (size_t i = 0; i < requests.size(); ++i) {
    HttpResponsePtr response = message_pool::adopt(message_pool::newResponse());
    if (last_ends_connection && i + 1 == requests.size()) {
      response->setHeader("Connection", "close");
    }
    if (drain_.active()) {
      // Answered, not run: the client may take it elsewhere.
      drain_.heard(Time::now());
      DrainGoodbye::refuse(*requests[i], response.get());
      sendPlainAnswer(response, requests[i]->method == kHttpHead);
    } else {
      peer_.tell(requests[i].get(), connectionInfo());
      impl->dispatchFromRead(requests[i], std::move(response), this);
    }
    large = large || isLarge(*requests[i]);
  }
  sendGathered();
  gathered_ = nullptr;
  if (gathered.capacity() > memory_policy::kLargestKeptHeadBuffer) std::string().swap(gathered);
  requests.clear();
  if (requests.capacity() > memory_policy::kLargestKeptRequestList) {
    std::vector<HttpRequestPtr>().swap(requests);
  }
  if (large) memory_policy::releaseFreeMemory();
  if (!parsed) {
    refuse(reader_->errorStatus(), reader_->closesAfterError(), reader_->refusedByLimit());
  } else if (last_ends_connection) {
    closeAfterAnswers();
  } else if (reader_->takeContinueRequest()) {
    if (ordered_ && !ordered_->empty()) {
      // After the answers still owed before it, not among their bytes.
      ordered_->pushInterim(kContinue, sizeof(kContinue) - 1);
    } else {
      send(kContinue, sizeof(kContinue) - 1);
      reportSent(sizeof(kContinue) - 1);
    }
  }
  updateDeadline();
  if (drain_.active()) closeIfDrained(Time::now());
  return size;
}

void HttpConnectionHandler::refuse(HttpResponse::StatusCode status, bool close, bool by_limit) {
  HttpResponse answer;
  answer.status_code = status;
  if (close) {
    answer.setHeader("Connection", "close");
  } else {
    answer.headers.erase("Connection");
  }
  if (ordered_ && !ordered_->empty()) {
    // In its turn, after the answers still being worked on.
    ordered_->pushReady(std::make_shared<HttpResponse>(std::move(answer)), false);
  } else {
    sendAnswer(&answer, false);
  }
  if (HttpServerObserver* observer = impl_->observer()) observer->requestRefused(status, by_limit);
  if (close) closeAfterAnswers();
}

void HttpConnectionHandler::closeAfterAnswers() {
  closing_ = true;
  deadline_kind_ = Deadline::kNone;
  if (answers_owed_ == 0) endOutput();
}

void HttpConnectionHandler::oweAnswer() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  ++answers_owed_;
}

void HttpConnectionHandler::answerSettled() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  if (answers_owed_ > 0) --answers_owed_;
  if (answers_owed_ > 0) return;
  if (closing_ || input_ended_) {
    endOutput();
  } else if (gathered_ == nullptr) {
    // (While a read's requests are handled, its end does this.)
    updateDeadline();
    if (drain_.active()) closeIfDrained(Time::now());
  }
}

void HttpConnectionHandler::checkDeadline(Time now) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  closeIfDrained(now);
  if (deadline_kind_ == Deadline::kNone || now < deadline_) return;
  const Deadline kind = deadline_kind_;
  deadline_kind_ = Deadline::kNone;
  if (kind == Deadline::kStream) {
    // A stream that wrote nothing for the idle timeout ends cleanly; the
    // connection goes on as any other.
    if (ordered_) ordered_->endLiveStream();
    updateDeadline();
    return;
  }
  if (kind == Deadline::kIdle) {
    closing_ = true;
    endOutput();
    return;
  }
  refuse(HttpResponse::kRequestTimeout, true, true);
}

void HttpConnectionHandler::beginDrain() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  const Time now = Time::now();
  drain_.begin(now);
  closeIfDrained(now);
}

void HttpConnectionHandler::closeIfDrained(Time now) {
  if (!drain_.active() || closing_ || answers_owed_ > 0) return;
  const bool reading = reader_->headInProgress() || reader_->bodyInProgress();
  if (reading || !(input_ended_ || drain_.quiet(now))) return;
  closing_ = true;
  deadline_kind_ = Deadline::kNone;
  endOutput();
}

void HttpConnectionHandler::updateDeadline() {
  const HttpServerOptions& options = impl_->options();
  if (options.header_timeout <= Duration() && options.idle_timeout <= Duration()) {
    // A server without timeouts (the default) has nothing to wait for.
    deadline_kind_ = Deadline::kNone;
    return;
  }
  Deadline kind = Deadline::kNone;
  Duration timeout;
  if (closing_) {
    // Nothing more is read; the connection ends once its answers are out.
  } else if (reader_->headInProgress()) {
    kind = Deadline::kHead;
    timeout = options.header_timeout;
  } else if (reader_->bodyInProgress()) {
    kind = Deadline::kBody;
    timeout = options.idle_timeout;
  } else if (answers_owed_ == 0 && !input_ended_) {
    kind = Deadline::kIdle;
    timeout = options.idle_timeout;
  } else if (Time last_write; ordered_ && ordered_->streamLive(&last_write)) {
    // A stream is busy only while it writes: its time runs from its last
    // write.
    if (options.idle_timeout <= Duration()) {
      deadline_kind_ = Deadline::kNone;
      return;
    }
    deadline_kind_ = Deadline::kStream;
    deadline_ = last_write + options.idle_timeout;
    return;
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
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  // The caller will not read what its calls would answer.
  if (CallCanceller* canceller = impl_->canceller()) canceller->connectionEnded(this);
  if (data->empty()) return;
  // Raw bytes, not framed as an HTTP answer: the defined reply to a cut-off
  // request.
  static const char kUnexpectedEof[] = "Unexpected EOF!";
  send(kUnexpectedEof, sizeof(kUnexpectedEof) - 1);
  reportSent(sizeof(kUnexpectedEof) - 1);
  endOutput();
}

bool HttpConnectionHandler::holdOpenAfterInputEnd() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  input_ended_ = true;
  deadline_kind_ = Deadline::kNone;
  if (ordered_ && ordered_->hasStream()) {
    // A client that ends its side while a stream is among its answers has
    // gone: nobody reads the rest.
    ordered_->abandonAll();
    return false;
  }
  // Answers still being worked on go out before the connection closes.
  return answers_owed_ > 0;
}

void HttpConnectionHandler::notifyOutputShutdown() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  source_.close();
}

void HttpConnectionHandler::notifyClosed() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  // Answers still being worked on will not be written: their handlers may
  // stop.
  if (ordered_) ordered_->abandonAll();
  leaveRegistry();
}

void HttpConnectionHandler::notifyOutputDrained() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  if (ordered_) ordered_->pump();
}

void HttpConnectionHandler::endStreams() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  if (!ordered_ || !ordered_->hasStream()) return;
  ordered_->endLiveStream();
  // Streams that had not begun, and what waits behind them, are not written.
  ordered_->abandonAll();
  closing_ = true;
  deadline_kind_ = Deadline::kNone;
  endOutput();
}

const std::shared_ptr<const PeerInfo>& HttpConnectionHandler::peerInfo() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/http_connection_handler");
  return peer_.shared(connectionInfo());
}

void HttpConnectionHandler::leaveRegistry() {
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
