#ifndef RELAY_ANSWER_QUEUE_H_
#define RELAY_ANSWER_QUEUE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "common/time.h"
#include "relay/http_message.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {

// The state behind an async handler's `done`: which answer of which
// connection it completes, and whether it still may.
//
// A `done` is this record's address and its generation (AsyncDone), small
// enough for std::function to hold in place: handing one to a handler
// allocates nothing. It may be copied, kept and run long after its answer
// was written or its connection closed; by then its record has moved on to
// a later generation (and maybe to another answer), and the done does
// nothing. So records are recycled but never given back to the allocator:
// the process keeps as many as were ever pending at once (32 bytes each).
//
// Only the event thread completes an answer and changes the generation. A
// done run there completes it with a load and a store: no read-modify-write.
// A done run on another thread claims the answer (a compare-and-swap, so
// that one run of many wins and the answer is no longer wanted from then on)
// and goes to the event thread, which completes it unless it was abandoned
// or completed there meanwhile.
//
// Taken, completed and given back on the event thread only; `state_` is read
// on any thread and claimed on any thread.
class AsyncAnswer {
 public:
  AsyncAnswer() = default;
  AsyncAnswer(const AsyncAnswer&) = delete;
  AsyncAnswer& operator=(const AsyncAnswer&) = delete;

  // A record for the answer in `slot` of `queue`. Event thread.
  static AsyncAnswer* take(AnswerQueue* queue, uint64_t slot) {
    if (free_ == nullptr) makeMore();
    AsyncAnswer* answer = free_;
    free_ = answer->next_free_;
    answer->next_free_ = nullptr;
    answer->queue_ = queue;
    answer->slot_ = slot;
    return answer;
  }

  uint64_t generation() const { return state_.load(std::memory_order_acquire) >> 1; }
  // Whether a done of `generation` may still complete the answer. Any thread.
  bool stillWanted(uint64_t generation) const {
    return state_.load(std::memory_order_acquire) == generation << 1;
  }
  // A done of `generation` runs on another thread: true for the one run
  // that takes the answer to the event thread. Any thread.
  bool claim(uint64_t generation) {
    uint64_t expected = generation << 1;
    return state_.compare_exchange_strong(expected, expected | 1, std::memory_order_acq_rel);
  }
  // Whether the claim of `generation` still stands (nothing abandoned or
  // completed the answer since). Event thread.
  bool claimed(uint64_t generation) const {
    return state_.load(std::memory_order_relaxed) == (generation << 1 | 1);
  }
  // The done of the current generation ran, here or (claimed) elsewhere: the
  // record goes back to the pool and its queue completes the answer. Event
  // thread.
  inline void ready();
  // Nobody will write the answer: no done of this generation will do
  // anything, claimed or not. Event thread.
  void abandon() { recycle(); }

 private:
  // Back to the pool, as the next generation. Event thread.
  void recycle() {
    // Only the event thread changes the generation (a claim on another thread
    // only sets the low bit), so this load sees the last; a claim that comes
    // in between is overwritten, and its run finds its claim gone.
    const uint64_t generation = state_.load(std::memory_order_relaxed) >> 1;
    state_.store((generation + 1) << 1, std::memory_order_release);
    queue_ = nullptr;
    next_free_ = free_;
    free_ = this;
  }

  // Fills the pool. Event thread.
  static void makeMore();

  // The records not in use. Event thread only.
  static AsyncAnswer* free_;

  // Generation << 1, plus 1 once a done of that generation ran on another
  // thread and is on its way to the event thread.
  std::atomic<uint64_t> state_{0};
  // Event thread only: the queue and the slot it completes, and the next
  // record while pooled.
  AnswerQueue* queue_ = nullptr;
  uint64_t slot_ = 0;
  AsyncAnswer* next_free_ = nullptr;

  friend class AnswerQueue;
};

// The callable an async handler gets as `done`: trivially copyable, and
// within std::function's in-place storage.
struct AsyncDone {
  AsyncAnswer* answer;
  uint64_t generation;
  inline void operator()() const;
};

// The answers of one connection that wait for their turn: plain HTTP answers
// go out in request order, so one that is ready waits behind an earlier one
// that is not (an async answer whose done has not run, a stream that has not
// finished). Each waits as the response object the handler filled, rendered
// only when its turn comes.
//
// RPC answers keep their own order (their ids match them up) and never wait
// here, except while a stream's body is on the wire: nothing may come
// between its chunks, so they are held, rendered, until it ends.
//
// Owned by its connection, made the first time a request is answered later;
// event thread only, except hold(), which other threads call under the
// connection's push lock.
class AnswerQueue {
 public:
  explicit AnswerQueue(HttpConnectionHandler* connection);
  ~AnswerQueue();
  AnswerQueue(const AnswerQueue&) = delete;
  AnswerQueue& operator=(const AnswerQueue&) = delete;

  bool empty() const { return slots_.empty() && lone_.id == 0; }

  // Dispatch: answers `request` with `handler`, later. The answer owed holds
  // `response` until it is written: the caller moves its own in when it has
  // no further use for it, which spares a pair of atomic counts per answer.
  void dispatchAsync(const HttpRequestPtr& request, HttpResponsePtr response,
                     const HttpAsyncRequestHandler& handler, const std::string* pattern);
  void dispatchStream(const HttpRequestPtr& request, const HttpResponsePtr& response,
                      const HttpStreamHandler& handler, const std::string* pattern);

  // A plain answer, ready now, behind those that are not.
  void pushReady(const HttpResponsePtr& response, bool to_head_request);
  // An interim answer ("100 Continue"), a constant's bytes, in its turn:
  // after the answers owed before it.
  void pushInterim(const char* bytes, size_t size);
  // The async answer in `slot` is ready (its done ran).
  void complete(uint64_t slot);
  // Writes what is ready from the front, and what the stream at the front
  // has queued.
  void pump();

  // Held while a stream's body is on the wire: an RPC answer, rendered (its
  // head and content). True
  // when it was held. Any thread, under the connection's push lock.
  bool hold(const std::string& head, const char* content, size_t size);

  // The live stream, if one is at the front: when it last wrote.
  bool streamLive(Time* last_write) const;
  // Ends the stream at the front cleanly, and with it the connection's
  // reading: for its idle timeout and the drain's deadline.
  void endLiveStream();
  // The connection has closed, or its client went away: nothing here will
  // be written. Async handlers learn it; streams are closed.
  void abandonAll();
  // Whether a stream is among the answers.
  bool hasStream() const;

 private:
  struct Slot {
    uint64_t id = 0;
    HttpResponsePtr response;            // plain, ready or async
    AsyncAnswer* async = nullptr;        // until its done runs
    std::shared_ptr<HttpStream> stream;  // a stream's slot
    bool head_request = false;
    bool ready = false;
    // An interim answer's bytes (a constant), instead of a response.
    const char* interim = nullptr;
    size_t interim_size = 0;
    // For the observer, of an async answer or a stream: its handler's
    // pattern and when it started, if an observer was set then.
    const std::string* pattern = nullptr;
    Time started;
  };

  // The async answer owed while nothing else is, as on most connections:
  // it waits here rather than in a slot, until its done runs (then it goes
  // out at once) or another answer is queued behind it (then it takes the
  // first slot). While its handler runs, the response is the caller's; once
  // the handler returned without running done, the answer holds it too.
  struct LoneAnswer {
    uint64_t id = 0;  // 0: none
    AsyncAnswer* async = nullptr;
    HttpResponse* response = nullptr;
    // While its handler runs: dispatchAsync's own, which it keeps after.
    const HttpResponsePtr* caller_response = nullptr;
    HttpResponsePtr held_response;  // after
    bool head_request = false;
    const std::string* pattern = nullptr;
    Time started;
  };

  // A new slot at the back, owed.
  Slot& add();
  // The lone answer, if any, takes the first slot.
  void queueLone();
  // The stream at the front: its turn has come.
  void makeLive(HttpStream* stream);
  // Hands the front stream's bytes to the connection; true when it is done.
  bool pumpStream(const Slot& slot);
  // The stream's head, written as the connection writes other answers'
  // heads; the observer hears of it.
  std::string renderStreamHead(HttpResponse* head, const Slot& slot);
  // The front stream ended: RPC answers held meanwhile go out.
  void streamEnded();
  // Writes bytes on the connection, after the answers gathered with them.
  void emit(const char* data, size_t size);

  // Constant after construction: the owner.
  HttpConnectionHandler* const connection_;

  // Event thread only.
  std::vector<Slot> slots_;
  LoneAnswer lone_;
  uint64_t next_id_ = 1;
  bool pumping_ = false;
  bool repump_ = false;

  // RPC answers rendered while a stream's body was on the wire.
  Mutex held_mutex_;
  std::string held_ VANTU_GUARDED_BY(held_mutex_);
};

void AsyncAnswer::ready() {
  AnswerQueue* queue = queue_;
  const uint64_t slot = slot_;
  recycle();
  if (queue != nullptr) queue->complete(slot);
}

// Defined here, and inline, as the hot path of every async answer.
void AsyncDone::operator()() const {
  if (isEventThread()) {
    if (answer->stillWanted(generation)) answer->ready();
    return;
  }
  if (!answer->claim(generation)) return;
  const AsyncDone self = *this;
  defer([self] {
    if (self.answer->claimed(self.generation)) self.answer->ready();
  });
}

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_ANSWER_QUEUE_H_
