#ifndef RELAY_HTTP_STREAM_H_
#define RELAY_HTTP_STREAM_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "common/time.h"
#include "relay/http_message.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {

// An answer sent in pieces, for as long as its writer likes: progress, a
// large download, Server-Sent Events (relay/server_sent_events.h). A stream
// handler (HttpServer::registerStreamHandler) gets one per request.
//
//   start(response)  the status and headers: "Transfer-Encoding: chunked" to
//                    an HTTP/1.1 client; to an HTTP/1.0 client no length and
//                    "Connection: close", the end of the answer being the
//                    close of the connection. Content the response already
//                    holds goes out as the first piece. The response is
//                    copied, not kept: changing it afterwards changes
//                    nothing. The head is written in the stream's turn, as
//                    the connection writes its other answers' (with a Date
//                    under strict framing, "Connection: close" while the
//                    server drains or after a request that ends the
//                    connection).
//   write(bytes)     one piece (a chunk); false once nothing more will be
//                    sent: the client has gone, the server ended the stream,
//                    or the request was HEAD (which gets the head only).
//   finish()         the end: the terminating chunk, or the close.
//
// A write before start() starts with a plain 200; finish() before start()
// sends a 200 with an empty body. Calls after finish() do nothing.
//
// Requests that the client pipelined behind this one are answered once the
// stream is finished; the stream's own bytes wait, the same way, until the
// answers before it are written.
//
// Backpressure: bytes the client has not taken yet (in the connection and in
// the stream) count against the connection's mark
// (TcpSocket::kOutputHighWater). Past it, writable() turns false and the
// writability callback hears false; once the client has taken enough that
// less than half the mark waits, writable() is true again and the callback
// hears true. Every false is followed by a true (unless the stream closes
// first), so a writer that saw writable() false may wait for the callback's
// true. A writer is expected to wait meanwhile: write() still takes
// its bytes, but a writer that goes on regardless until another mark's worth
// waits in the stream loses it (the connection is closed, write() returns
// false, the close callback runs). So a slow reader costs at most the mark
// (twice it with a writer that does not listen).
//
// With an idle timeout in the server's options, a stream that writes nothing
// for that long is ended cleanly (the terminating chunk; the close callback
// runs); a stream that writes is never idle. A drain that reaches its
// deadline ends streams the same way.
//
// Owned jointly by the writer (through HttpStreamPtr) and the connection
// until it is finished or closed. Every operation may be called from any
// thread; the bytes of one stream go out in the order its writes were made
// (writes from different threads are ordered by whatever orders the calls).
// The callbacks run on the event thread, with no lock of the stream held;
// they may call the stream.
class HttpStream : public std::enable_shared_from_this<HttpStream> {
 public:
  ~HttpStream();
  HttpStream(const HttpStream&) = delete;
  HttpStream& operator=(const HttpStream&) = delete;

  void start(const HttpResponsePtr& response);
  bool write(const std::string& bytes);
  bool write(const char* data, size_t size);
  void finish();

  // False while the client lags by more than the mark, and once nothing more
  // will be sent.
  bool writable() const;
  // True once nothing more will be sent (finished, client gone, ended by the
  // server).
  bool closed() const;
  // `callback(false)` when unsent bytes pass the mark, `callback(true)` when
  // they are down below half of it again. Replaces the one set before.
  void onWritableChanged(std::function<void(bool writable)> callback);
  // Runs once when the stream ends without its writer's finish(): the client
  // went away, or the server ended it (idle timeout, drain, a writer that did
  // not wait). Set after that happened, it runs at once on the caller's
  // thread. Replaces the one set before.
  void onClose(std::function<void()> callback);

 private:
  friend class AnswerQueue;
  enum class State { kNew, kStarted, kFinished, kClosed };

  // For the connection's dispatch: a stream answering a request with
  // `head_request` (HEAD) and `http10` (HTTP/1.0), whose connection ends
  // after it when `close_after`.
  HttpStream(HttpConnectionHandlerWeakPtr connection, bool head_request, bool http10,
             bool close_after);
  static HttpStreamPtr create(HttpConnectionHandlerWeakPtr connection, bool head_request,
                              bool http10, bool close_after);

  // Frames and queues; false when closed. Takes mutex_.
  bool append(const char* data, size_t size, bool last);
  // The status and headers of `response`, framed for this stream, kept for
  // the connection to write. Holds mutex_.
  void makeHead(const HttpResponse& response) VANTU_REQUIRES(mutex_);
  // Has the event thread hand the queued bytes over (see AnswerQueue).
  void schedulePump() VANTU_REQUIRES(mutex_);
  // Ends the stream for a reason other than its writer's finish(), running
  // the close callback; `clean` queues the terminating chunk. Any thread.
  void close(bool clean);
  // Runs the writability callback. Event thread.
  void tellWritable(bool writable);

  // Constant after construction.
  const HttpConnectionHandlerWeakPtr connection_;
  const bool head_request_;
  const bool http10_;
  const bool close_after_;

  mutable Mutex mutex_;
  State state_ VANTU_GUARDED_BY(mutex_) = State::kNew;
  // The status and headers until the connection writes them, in its turn
  // and on its thread, as it writes other answers' (with the Date its
  // options ask for, and "Connection: close" while the server drains).
  std::unique_ptr<HttpResponse> head_ VANTU_GUARDED_BY(mutex_);
  // Framed bytes not yet handed to the connection, which follow the head.
  std::string out_ VANTU_GUARDED_BY(mutex_);
  // The terminating chunk (or the close) is in out_.
  bool ending_ VANTU_GUARDED_BY(mutex_) = false;
  bool pump_scheduled_ VANTU_GUARDED_BY(mutex_) = false;
  // The connection's unsent bytes at the last hand-over.
  size_t unsent_ VANTU_GUARDED_BY(mutex_) = 0;
  bool over_mark_ VANTU_GUARDED_BY(mutex_) = false;
  // over_mark_ was set by a write, and the callback has not heard it yet.
  bool tell_blocked_ VANTU_GUARDED_BY(mutex_) = false;
  bool close_told_ VANTU_GUARDED_BY(mutex_) = false;
  std::function<void(bool)> on_writable_ VANTU_GUARDED_BY(mutex_);
  std::function<void()> on_close_ VANTU_GUARDED_BY(mutex_);

  // Event thread only: the stream's turn has come on its connection (its
  // bytes may go out), and when it last wrote.
  bool activating_ = false;
  bool live_ = false;
  Time last_write_;
};

// For an async handler: whether the answer that `done` would complete can
// still be written. False once the connection it belongs to has closed (or
// done has run): the handler may stop working on it; running done then does
// nothing. `done` is the callable the handler was given, or a copy of it;
// false for any other callable. Any thread.
bool answerStillWanted(const std::function<void()>& done);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_STREAM_H_
