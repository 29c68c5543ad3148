#include "relay/http_stream.h"

#include <cstdio>
#include <utility>

#include "common/event_thread.h"
#include "net/tcp_socket.h"
#include "relay/answer_queue.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLastChunk[] = "0\r\n\r\n";

}  // namespace

HttpStream::HttpStream(HttpConnectionHandlerWeakPtr connection, bool head_request, bool http10,
                       bool close_after)
    : connection_(std::move(connection)),
      head_request_(head_request),
      http10_(http10),
      close_after_(close_after) {}

HttpStream::~HttpStream() = default;

HttpStreamPtr HttpStream::create(HttpConnectionHandlerWeakPtr connection, bool head_request,
                                 bool http10, bool close_after) {
  return HttpStreamPtr(new HttpStream(std::move(connection), head_request, http10, close_after));
}

void HttpStream::start(const HttpResponsePtr& response) {
  MutexLock lock(mutex_);
  if (state_ != State::kNew) return;
  state_ = State::kStarted;
  makeHead(*response);
  if (!ending_ && !response->content.empty()) {
    // The content already there is the first piece; framed by hand, as the
    // lock is held.
    const size_t size = response->content.size();
    if (!http10_) {
      char line[24];
      out_.append(line, static_cast<size_t>(snprintf(line, sizeof(line), "%zx\r\n", size)));
    }
    out_.append(response->content.data(), size);
    if (!http10_) out_.append("\r\n");
  }
  schedulePump();
}

void HttpStream::makeHead(const HttpResponse& response) {
  // The status and headers only: the content, if any, is the first piece.
  head_ = std::make_unique<HttpResponse>();
  head_->status_code = response.status_code;
  head_->status_string = response.status_string;
  head_->headers = response.headers;
  if (http10_ || close_after_) head_->setHeader("Connection", "close");
  if (!http10_) head_->setHeader("Transfer-Encoding", "chunked");
  if (head_request_) {
    // The head is the whole answer to HEAD.
    state_ = State::kFinished;
    ending_ = true;
  }
}

bool HttpStream::write(const std::string& bytes) { return write(bytes.data(), bytes.size()); }

bool HttpStream::write(const char* data, size_t size) { return append(data, size, false); }

void HttpStream::finish() { append(nullptr, 0, true); }

bool HttpStream::append(const char* data, size_t size, bool last) {
  bool overrun = false;
  {
    MutexLock lock(mutex_);
    if (state_ == State::kNew) {
      state_ = State::kStarted;
      makeHead(HttpResponse());
    }
    if (state_ != State::kStarted) {
      schedulePump();
      return false;
    }
    if (size > 0) {
      if (!http10_) {
        char line[24];
        out_.append(line, static_cast<size_t>(snprintf(line, sizeof(line), "%zx\r\n", size)));
      }
      out_.append(data, size);
      if (!http10_) out_.append("\r\n");
    }
    if (last) {
      if (!http10_) out_.append(kLastChunk, sizeof(kLastChunk) - 1);
      state_ = State::kFinished;
      ending_ = true;
    } else if (out_.size() + unsent_ > 2 * TcpSocket::kOutputHighWater) {
      // A writer that did not wait for a slow reader.
      overrun = true;
    } else if (!over_mark_ && out_.size() + unsent_ > TcpSocket::kOutputHighWater) {
      // Told on the event thread, with the hand-over.
      over_mark_ = true;
      tell_blocked_ = true;
    }
    schedulePump();
  }
  if (overrun) {
    close(false);
    return false;
  }
  return true;
}

void HttpStream::schedulePump() {
  if (pump_scheduled_) return;
  pump_scheduled_ = true;
  std::shared_ptr<HttpStream> self = shared_from_this();
  defer([self] {
    std::shared_ptr<HttpConnectionHandler> connection = self->connection_.lock();
    if (connection) connection->answerQueue().pump();
  });
}

bool HttpStream::writable() const {
  MutexLock lock(mutex_);
  return (state_ == State::kNew || state_ == State::kStarted) && !over_mark_;
}

bool HttpStream::closed() const {
  MutexLock lock(mutex_);
  return state_ == State::kFinished || state_ == State::kClosed;
}

void HttpStream::onWritableChanged(std::function<void(bool)> callback) {
  MutexLock lock(mutex_);
  on_writable_ = std::move(callback);
}

void HttpStream::onClose(std::function<void()> callback) {
  {
    MutexLock lock(mutex_);
    if (!close_told_) {
      on_close_ = std::move(callback);
      return;
    }
  }
  if (callback) callback();
}

void HttpStream::close(bool clean) {
  std::function<void()> callback;
  {
    MutexLock lock(mutex_);
    if (state_ == State::kFinished || state_ == State::kClosed) return;
    if (clean) {
      if (state_ == State::kNew) makeHead(HttpResponse());
      if (!http10_ && !ending_) out_.append(kLastChunk, sizeof(kLastChunk) - 1);
      ending_ = true;
      schedulePump();
    }
    state_ = State::kClosed;
    close_told_ = true;
    callback = std::move(on_close_);
    on_close_ = nullptr;
  }
  if (callback) callback();
}

void HttpStream::tellWritable(bool writable) {
  std::function<void(bool)> callback;
  {
    MutexLock lock(mutex_);
    callback = on_writable_;
  }
  if (callback) callback(writable);
}

}  // namespace relay
}  // namespace vantu
