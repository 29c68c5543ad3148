#include "relay/answer_queue.h"

#include <utility>

#include "common/event_thread.h"
#include "common/event_thread_check.h"
#include "net/connection_info.h"
#include "net/tcp_socket.h"
#include "relay/http_server_observer.h"
#include "relay/http_stream.h"

namespace vantu {
namespace relay {
namespace {

// The async answer's done has run: its turn may come (event thread).
void asyncReady(const std::shared_ptr<AsyncAnswer>& answer) {
  if (answer->abandoned.load(std::memory_order_acquire)) return;
  std::shared_ptr<HttpConnectionHandler> connection = answer->connection.lock();
  if (connection) connection->answerQueue().complete(*answer);
}

}  // namespace

void AsyncDone::operator()() const {
  if (answer->done_run.exchange(true, std::memory_order_acq_rel)) return;
  if (isEventThread()) {
    asyncReady(answer);
  } else {
    std::shared_ptr<AsyncAnswer> ready = answer;
    defer([ready] { asyncReady(ready); });
  }
}

bool answerStillWanted(const std::function<void()>& done) {
  const AsyncDone* target = done.target<AsyncDone>();
  return target != nullptr && !target->answer->done_run.load(std::memory_order_acquire) &&
         !target->answer->abandoned.load(std::memory_order_acquire);
}

AnswerQueue::AnswerQueue(HttpConnectionHandler* connection) : connection_(connection) {}

AnswerQueue::~AnswerQueue() = default;

uint64_t AnswerQueue::add(Slot slot) {
  slot.id = next_id_++;
  connection_->oweAnswer();
  slots_.push_back(std::move(slot));
  return slots_.back().id;
}

void AnswerQueue::dispatchAsync(const HttpRequestPtr& request, const HttpResponsePtr& response,
                                const HttpAsyncRequestHandler& handler,
                                const std::string* pattern) {
  auto answer = std::make_shared<AsyncAnswer>();
  answer->connection = connection_->weak_this_;
  answer->response = response;
  answer->head_request = request->method == kHttpHead;
  if (connection_->impl_->observer() != nullptr) {
    answer->pattern = pattern;
    answer->started = Time::now();
  }
  Slot slot;
  slot.response = response;
  slot.async = answer;
  slot.head_request = answer->head_request;
  answer->slot = add(std::move(slot));
  handler(request, response, AsyncDone{std::move(answer)});
}

void AnswerQueue::dispatchStream(const HttpRequestPtr& request, const HttpStreamHandler& handler) {
  HttpStreamPtr stream = HttpStream::create(connection_->weak_this_, request->method == kHttpHead,
                                            request->minor_version == 0);
  Slot slot;
  slot.stream = stream;
  add(std::move(slot));
  handler(request, stream);
  // Its turn may have come already.
  pump();
}

void AnswerQueue::pushReady(const HttpResponsePtr& response, bool to_head_request) {
  Slot slot;
  slot.response = response;
  slot.head_request = to_head_request;
  slot.ready = true;
  add(std::move(slot));
  pump();
}

void AnswerQueue::complete(const AsyncAnswer& answer) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/answer_queue");
  for (Slot& slot : slots_) {
    if (slot.id != answer.slot) continue;
    slot.ready = true;
    slot.async.reset();
    break;
  }
  HttpServerObserver* observer = connection_->impl_->observer();
  if (observer != nullptr && answer.pattern != nullptr) {
    observer->requestAnswered(*answer.pattern, answer.response->status_code,
                              Time::now() - answer.started);
  }
  pump();
}

void AnswerQueue::pump() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/answer_queue");
  // A callback that writes to a stream while its bytes go out comes back
  // here: the loop below takes care of it.
  if (pumping_) {
    repump_ = true;
    return;
  }
  pumping_ = true;
  int written = 0;
  do {
    repump_ = false;
    while (!slots_.empty()) {
      Slot& front = slots_.front();
      if (front.stream) {
        HttpStream* stream = front.stream.get();
        if (!stream->live_) {
          makeLive(stream);
          break;
        }
        if (!pumpStream(stream)) break;
        slots_.erase(slots_.begin());
        ++written;
        streamEnded();
        if (stream->http10_) connection_->closeAfterAnswers();
        continue;
      }
      if (!front.ready) break;
      HttpResponsePtr response = std::move(front.response);
      const bool head_request = front.head_request;
      slots_.erase(slots_.begin());
      ++written;
      connection_->sendAnswer(response.get(), head_request);
    }
  } while (repump_);
  pumping_ = false;
  // Last: the connection may end once it owes nothing.
  for (int i = 0; i < written; ++i) connection_->answerSettled();
}

void AnswerQueue::makeLive(HttpStream* stream) {
  if (stream->activating_) return;
  stream->activating_ = true;
  {
    // From here on other threads hold their answers instead of sending them
    // (they look under this lock). What they sent before is queued for the
    // event thread already, ahead of the task below: it goes out first.
    MutexLock push(connection_->source_.pushMutex());
    connection_->streaming_.store(true, std::memory_order_release);
  }
  std::weak_ptr<HttpStream> weak = stream->weak_from_this();
  HttpConnectionHandlerWeakPtr connection = connection_->weak_this_;
  defer([weak, connection] {
    std::shared_ptr<HttpStream> stream = weak.lock();
    std::shared_ptr<HttpConnectionHandler> handler = connection.lock();
    if (!stream || !handler) return;
    stream->live_ = true;
    stream->last_write_ = Time::now();
    handler->answerQueue().pump();
    handler->updateDeadline();
  });
}

bool AnswerQueue::pumpStream(HttpStream* stream) {
  std::string out;
  bool ending;
  bool abandoned;
  {
    MutexLock lock(stream->mutex_);
    out.swap(stream->out_);
    ending = stream->ending_;
    abandoned = stream->state_ == HttpStream::State::kClosed && !ending;
    stream->pump_scheduled_ = false;
  }
  if (!out.empty()) {
    emit(out.data(), out.size());
    stream->last_write_ = Time::now();
    connection_->updateDeadline();
  }
  if (abandoned) {
    // Ended mid-body (a writer that did not wait): the client cannot be
    // told cleanly, so the connection goes.
    connection_->abort();
    return true;
  }
  if (ending) return true;
  ConnectionInfo* info = connection_->connectionInfo();
  const size_t unsent = info != nullptr ? info->unsentOutput() : 0;
  bool over;
  bool overrun = false;
  bool tell_blocked;
  bool tell_writable = false;
  {
    MutexLock lock(stream->mutex_);
    stream->unsent_ = unsent;
    tell_blocked = stream->tell_blocked_;
    stream->tell_blocked_ = false;
    if (unsent > TcpSocket::kOutputHighWater) {
      tell_blocked = tell_blocked || !stream->over_mark_;
      stream->over_mark_ = true;
      overrun = unsent > 2 * TcpSocket::kOutputHighWater;
    } else if (unsent < TcpSocket::kOutputLowWater && stream->over_mark_) {
      stream->over_mark_ = false;
      tell_writable = true;
    }
    over = stream->over_mark_;
  }
  if (overrun) {
    stream->close(false);
    connection_->abort();
    return true;
  }
  if (over && info != nullptr) info->watchOutputDrain();
  // A false is always told before its true.
  if (tell_blocked) stream->tellWritable(false);
  if (tell_writable) stream->tellWritable(true);
  return false;
}

void AnswerQueue::streamEnded() {
  std::string held;
  {
    MutexLock push(connection_->source_.pushMutex());
    MutexLock lock(held_mutex_);
    connection_->streaming_.store(false, std::memory_order_release);
    held.swap(held_);
  }
  if (!held.empty()) emit(held.data(), held.size());
}

bool AnswerQueue::hold(const std::string& head, const char* content, size_t size) {
  MutexLock lock(held_mutex_);
  if (!connection_->streaming_.load(std::memory_order_acquire)) return false;
  held_.append(head);
  held_.append(content, size);
  return true;
}

void AnswerQueue::emit(const char* data, size_t size) {
  if (connection_->gathered_ != nullptr) {
    connection_->gathered_->append(data, size);
  } else {
    connection_->send(data, size);
  }
  connection_->reportSent(size);
}

bool AnswerQueue::streamLive(Time* last_write) const {
  if (slots_.empty() || !slots_.front().stream || !slots_.front().stream->live_) return false;
  *last_write = slots_.front().stream->last_write_;
  return true;
}

bool AnswerQueue::hasStream() const {
  for (const Slot& slot : slots_) {
    if (slot.stream) return true;
  }
  return false;
}

void AnswerQueue::endLiveStream() {
  if (slots_.empty() || !slots_.front().stream) return;
  HttpStreamPtr stream = slots_.front().stream;
  stream->close(true);
  pump();
}

void AnswerQueue::abandonAll() {
  std::vector<Slot> slots;
  slots.swap(slots_);
  for (Slot& slot : slots) {
    if (slot.async) slot.async->abandoned.store(true, std::memory_order_release);
    if (slot.stream) slot.stream->close(false);
  }
}

}  // namespace relay
}  // namespace vantu
