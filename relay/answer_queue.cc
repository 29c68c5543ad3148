#include "relay/answer_queue.h"

#include <type_traits>
#include <utility>

#include "common/event_thread.h"
#include "common/event_thread_check.h"
#include "net/connection_info.h"
#include "net/tcp_socket.h"
#include "relay/answer_head.h"
#include "relay/drain_goodbye.h"
#include "relay/http_date.h"
#include "relay/http_server_observer.h"
#include "relay/http_stream.h"

namespace vantu {
namespace relay {
namespace {

// The records of AsyncAnswer, made in chunks that are never freed (and so
// stay reachable for leak checkers, whoever holds a done). Event thread only.
struct AnswerChunk {
  static constexpr int kRecords = 32;
  AnswerChunk* next = nullptr;
  AsyncAnswer records[kRecords];
};
AnswerChunk* g_answer_chunks = nullptr;

static_assert(std::is_trivially_copyable<AsyncDone>::value && sizeof(AsyncDone) <= 16,
              "a done must fit std::function's in-place storage");

}  // namespace

AsyncAnswer* AsyncAnswer::free_ = nullptr;

void AsyncAnswer::makeMore() {
  auto* chunk = new AnswerChunk;
  chunk->next = g_answer_chunks;
  g_answer_chunks = chunk;
  for (AsyncAnswer& record : chunk->records) {
    record.next_free_ = free_;
    free_ = &record;
  }
}

bool answerStillWanted(const std::function<void()>& done) {
  const AsyncDone* target = done.target<AsyncDone>();
  return target != nullptr && target->answer->stillWanted(target->generation);
}

AnswerQueue::AnswerQueue(HttpConnectionHandler* connection) : connection_(connection) {}

AnswerQueue::~AnswerQueue() {
  // The connection abandoned its answers when it closed; one that never had
  // a socket lets their dones go here (on the event thread, as connections
  // with answers pending die there).
  if (lone_.id != 0) lone_.async->abandon();
  for (Slot& slot : slots_) {
    if (slot.async != nullptr) slot.async->abandon();
  }
}

AnswerQueue::Slot& AnswerQueue::add() {
  // Behind the lone answer.
  if (lone_.id != 0) queueLone();
  ++connection_->answers_owed_;
  Slot& slot = slots_.emplace_back();
  slot.id = next_id_++;
  return slot;
}

void AnswerQueue::queueLone() {
  // Owed since its dispatch, and first in line: nothing was queued while it
  // waited alone.
  Slot& slot = slots_.emplace_back();
  slot.id = lone_.id;
  if (lone_.held_response) {
    slot.response = std::move(lone_.held_response);
  } else {
    slot.response = *lone_.caller_response;
  }
  slot.async = lone_.async;
  slot.head_request = lone_.head_request;
  slot.pattern = lone_.pattern;
  slot.started = lone_.started;
  lone_ = LoneAnswer();
}

void AnswerQueue::dispatchAsync(const HttpRequestPtr& request, HttpResponsePtr response,
                                const HttpAsyncRequestHandler& handler,
                                const std::string* pattern) {
  const bool head_request = request->method == kHttpHead;
  const bool observed = connection_->impl_->observer() != nullptr;
  AsyncAnswer* answer;
  if (!empty() || pumping_) {
    // Behind other answers: it waits in line from the start. (The handler
    // still gets `response`, the same message.)
    Slot& slot = add();
    slot.response = response;
    slot.head_request = head_request;
    if (observed) {
      slot.pattern = pattern;
      slot.started = Time::now();
    }
    answer = AsyncAnswer::take(this, slot.id);
    slot.async = answer;
  } else {
    ++connection_->answers_owed_;
    lone_.id = next_id_++;
    answer = AsyncAnswer::take(this, lone_.id);
    lone_.async = answer;
    lone_.response = response.get();
    lone_.caller_response = &response;
    lone_.head_request = head_request;
    lone_.pattern = nullptr;
    if (observed) {
      lone_.pattern = pattern;
      lone_.started = Time::now();
    }
  }
  // A slot may move once the handler runs: the done may answer at once.
  handler(request, response, AsyncDone{answer, answer->generation()});
  // Still owed alone (not answered inside, nor queued behind, nor
  // abandoned): it keeps the response.
  if (lone_.caller_response == &response) {
    lone_.caller_response = nullptr;
    lone_.held_response = std::move(response);
  }
}

void AnswerQueue::dispatchStream(const HttpRequestPtr& request, const HttpResponsePtr& response,
                                 const HttpStreamHandler& handler, const std::string* pattern) {
  // The connection marked the answer to a request that ends it.
  const auto connection = response->headers.find("Connection");
  const bool close_after = connection != response->headers.end() && connection->second == "close";
  HttpStreamPtr stream = HttpStream::create(connection_->weak_this_, request->method == kHttpHead,
                                            request->minor_version == 0, close_after);
  Slot& slot = add();
  slot.stream = stream;
  if (connection_->impl_->observer() != nullptr) {
    slot.pattern = pattern;
    slot.started = Time::now();
  }
  handler(request, stream);
  // Its turn may have come already.
  pump();
}

void AnswerQueue::pushReady(const HttpResponsePtr& response, bool to_head_request) {
  Slot& slot = add();
  slot.response = response;
  slot.head_request = to_head_request;
  slot.ready = true;
  pump();
}

void AnswerQueue::pushInterim(const char* bytes, size_t size) {
  Slot& slot = add();
  slot.interim = bytes;
  slot.interim_size = size;
  slot.ready = true;
  pump();
}

void AnswerQueue::complete(uint64_t id) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/answer_queue");
  HttpServerObserver* observer = connection_->impl_->observer();
  if (id == lone_.id) {
    // Nothing owed before it: out at once. (The lone answer's other fields
    // mean nothing once its id is 0.)
    lone_.id = 0;
    lone_.caller_response = nullptr;
    const HttpResponsePtr held = std::move(lone_.held_response);
    if (observer != nullptr && lone_.pattern != nullptr) {
      observer->requestAnswered(*lone_.pattern, lone_.response->status_code,
                                Time::now() - lone_.started);
    }
    connection_->sendAnswer(lone_.response, lone_.head_request);
    connection_->answerSettled();
    return;
  }
  // Slots leave from the front only, so the ids of those here run on from
  // the first's without a gap.
  if (slots_.empty() || id < slots_.front().id || id - slots_.front().id >= slots_.size()) return;
  Slot& slot = slots_[id - slots_.front().id];
  slot.ready = true;
  slot.async = nullptr;
  if (observer != nullptr && slot.pattern != nullptr) {
    observer->requestAnswered(*slot.pattern, slot.response->status_code,
                              Time::now() - slot.started);
  }
  if (slots_.size() == 1 && !pumping_) {
    // The only answer owed, as on most connections: out at once.
    HttpResponsePtr response = std::move(slot.response);
    const bool head_request = slot.head_request;
    slots_.pop_back();
    connection_->sendAnswer(response.get(), head_request);
    connection_->answerSettled();
    return;
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
        if (!pumpStream(front)) break;
        slots_.erase(slots_.begin());
        ++written;
        streamEnded();
        if (stream->http10_) connection_->closeAfterAnswers();
        continue;
      }
      if (!front.ready) break;
      if (front.interim != nullptr) {
        const char* bytes = front.interim;
        const size_t size = front.interim_size;
        slots_.erase(slots_.begin());
        ++written;
        emit(bytes, size);
        continue;
      }
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

bool AnswerQueue::pumpStream(const Slot& slot) {
  HttpStream* stream = slot.stream.get();
  std::unique_ptr<HttpResponse> head;
  std::string out;
  bool ending;
  bool abandoned;
  {
    MutexLock lock(stream->mutex_);
    head.swap(stream->head_);
    out.swap(stream->out_);
    ending = stream->ending_;
    abandoned = stream->state_ == HttpStream::State::kClosed && !ending;
    stream->pump_scheduled_ = false;
  }
  if (head) {
    std::string text = renderStreamHead(head.get(), slot);
    text.append(out);
    out.swap(text);
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

std::string AnswerQueue::renderStreamHead(HttpResponse* head, const Slot& slot) {
  if (connection_->drain_.active()) DrainGoodbye::markClosing(head);
  // The length of a stream is not known.
  head->headers.erase("Content-Length");
  std::string text;
  writeAnswerHead(head, connection_->answer_rules_.date ? &httpDate() : nullptr, &text,
                  /*with_length=*/false);
  // A stream counts as answered once its head goes out, with the status it
  // began with and the time it took to begin.
  HttpServerObserver* observer = connection_->impl_->observer();
  if (observer != nullptr && slot.pattern != nullptr) {
    observer->requestAnswered(*slot.pattern, head->status_code, Time::now() - slot.started);
  }
  return text;
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
  if (lone_.id != 0) {
    lone_.async->abandon();
    lone_ = LoneAnswer();
  }
  std::vector<Slot> slots;
  slots.swap(slots_);
  for (Slot& slot : slots) {
    if (slot.async != nullptr) slot.async->abandon();
    if (slot.stream) slot.stream->close(false);
  }
}

}  // namespace relay
}  // namespace vantu
