#ifndef RELAY_ANSWER_QUEUE_H_
#define RELAY_ANSWER_QUEUE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "common/time.h"
#include "relay/http_message.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {

// The state behind an async handler's `done`: which answer of which
// connection it completes. Shared by the callable and the connection's queue;
// `done_run` and `abandoned` may be touched on any thread.
struct AsyncAnswer {
  HttpConnectionHandlerWeakPtr connection;
  HttpResponsePtr response;
  uint64_t slot = 0;
  bool head_request = false;
  // For the observer: the handler's pattern and when it started, if one was
  // set then.
  const std::string* pattern = nullptr;
  Time started;
  std::atomic<bool> done_run{false};
  std::atomic<bool> abandoned{false};
};

// The callable an async handler gets as `done`.
struct AsyncDone {
  std::shared_ptr<AsyncAnswer> answer;
  void operator()() const;
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

  bool empty() const { return slots_.empty(); }

  // Dispatch: answers `request` with `handler`, later.
  void dispatchAsync(const HttpRequestPtr& request, const HttpResponsePtr& response,
                     const HttpAsyncRequestHandler& handler, const std::string* pattern);
  void dispatchStream(const HttpRequestPtr& request, const HttpStreamHandler& handler);

  // A plain answer, ready now, behind those that are not.
  void pushReady(const HttpResponsePtr& response, bool to_head_request);
  // The async answer in `slot` is ready.
  void complete(const AsyncAnswer& answer);
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
    std::shared_ptr<AsyncAnswer> async;  // until its done runs
    std::shared_ptr<HttpStream> stream;  // a stream's slot
    bool head_request = false;
    bool ready = false;
  };

  uint64_t add(Slot slot);
  // The stream at the front: its turn has come.
  void makeLive(HttpStream* stream);
  // Hands the front stream's bytes to the connection; true when it is done.
  bool pumpStream(HttpStream* stream);
  // The front stream ended: RPC answers held meanwhile go out.
  void streamEnded();
  // Writes bytes on the connection, after the answers gathered with them.
  void emit(const char* data, size_t size);

  // Constant after construction: the owner.
  HttpConnectionHandler* const connection_;

  // Event thread only.
  std::vector<Slot> slots_;
  uint64_t next_id_ = 1;
  bool pumping_ = false;
  bool repump_ = false;

  // RPC answers rendered while a stream's body was on the wire.
  Mutex held_mutex_;
  std::string held_ VANTU_GUARDED_BY(held_mutex_);
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_ANSWER_QUEUE_H_
