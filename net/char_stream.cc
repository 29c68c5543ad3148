#include "net/char_stream.h"

#include <algorithm>

#include "common/event_thread.h"
#include "common/fast_thread_local.h"

namespace vantu {
namespace relay {
namespace char_stream {

BufferConsumer::~BufferConsumer() { unlink(); }

void BufferConsumer::unlink() {
  if (producer_ != nullptr) producer_->linkInternal(nullptr);
}

BufferProducer::~BufferProducer() { linkInternal(nullptr); }

void BufferProducer::linkInternal(BufferConsumer* consumer) {
  if (consumer_ == consumer) return;
  if (consumer_ != nullptr) consumer_->producer_ = nullptr;
  consumer_ = nullptr;
  if (consumer == nullptr) return;
  if (consumer->producer_ != nullptr) consumer->producer_->consumer_ = nullptr;
  consumer->producer_ = this;
  consumer_ = consumer;
}

void PushStreamSink::write(const char* data, size_t size) {
  if (writer_ != nullptr) writer_->writeBytes(data, size);
}

void PushStreamSink::writeOwned(std::unique_ptr<OwnedBytes> bytes) {
  if (writer_ != nullptr) writer_->writeOwned(std::move(bytes));
}

void PushStreamSink::close() {
  if (writer_ != nullptr) writer_->endOfStream();
}

void PushStreamSink::abort() {
  if (writer_ != nullptr) writer_->abortStream();
}

// What other threads pushed and the event thread has not handed over yet.
// Shared by the source and the hand-overs queued on the event thread, so that a
// hand-over still finds it after the source is gone (it then drops the bytes).
struct PushStreamSource::Pending {
  // Recursive: a SendGuard holds it around pushes that take it again.
  Mutex mutex{Mutex::kRecursive};
  PushStreamSource* source VANTU_GUARDED_BY(mutex);
  std::string bytes VANTU_GUARDED_BY(mutex);
  bool close VANTU_GUARDED_BY(mutex) = false;
  bool hand_over_scheduled VANTU_GUARDED_BY(mutex) = false;

  explicit Pending(PushStreamSource* owner) : source(owner) {}

  void scheduleHandOver(const std::shared_ptr<Pending>& self) VANTU_REQUIRES(mutex) {
    if (hand_over_scheduled) return;
    hand_over_scheduled = true;
    defer([self] { self->handOver(); });
  }

  void handOver() {
    MutexLock lock(mutex);
    handOverLocked();
  }

  // Event thread. The lock stays held while the sink takes the bytes: it is
  // what keeps the source alive meanwhile, and a sink never calls back.
  void handOverLocked() VANTU_REQUIRES(mutex) {
    hand_over_scheduled = false;
    std::string out;
    out.swap(bytes);
    bool closing = close;
    close = false;
    if (source == nullptr) return;
    auto* sink = static_cast<PushStreamSink*>(source->consumer());
    if (sink == nullptr) return;
    if (!out.empty()) sink->write(out.data(), out.size());
    if (closing) sink->close();
  }
};

PushStreamSource::PushStreamSource() : pending_(std::make_shared<Pending>(this)) {}

PushStreamSource::~PushStreamSource() {
  MutexLock lock(pending_->mutex);
  pending_->source = nullptr;
}

void PushStreamSource::close() {
  MutexLock lock(pending_->mutex);
  pending_->close = true;
  if (isEventThread()) {
    // Whatever other threads queued goes out before the end.
    pending_->handOverLocked();
  } else {
    pending_->scheduleHandOver(pending_);
  }
}

void PushStreamSource::push(const std::string& bytes) { push(bytes.data(), bytes.size()); }

void PushStreamSource::push(const char* data, size_t size) {
  if (isEventThread()) {
    // The common case, a response written from a network callback: straight
    // into the socket's output, no lock, no queue.
    auto* sink = static_cast<PushStreamSink*>(consumer());
    if (sink != nullptr) sink->write(data, size);
    return;
  }
  MutexLock lock(pending_->mutex);
  pending_->bytes.append(data, size);
  pending_->scheduleHandOver(pending_);
}

void PushStreamSource::pushOwned(std::unique_ptr<OwnedBytes> bytes) {
  if (!isEventThread()) {
    push(bytes->data(), bytes->size());
    return;
  }
  auto* sink = static_cast<PushStreamSink*>(consumer());
  if (sink != nullptr) sink->writeOwned(std::move(bytes));
}

void PushStreamSource::abort() {
  {
    // Bytes other threads queued and not handed over yet are dropped too.
    MutexLock lock(pending_->mutex);
    pending_->bytes.clear();
    pending_->close = false;
  }
  auto* sink = static_cast<PushStreamSink*>(consumer());
  if (sink != nullptr) sink->abort();
}

Mutex& PushStreamSource::pushMutex() { return pending_->mutex; }

void PullStreamSink::append(const char* data, size_t size) {
  if (buffer_.capacity() < initial_reservation_) {
    buffer_.reserve(std::max(initial_reservation_, buffer_.size() + size));
  }
  buffer_.append(data, size);
}

void PullStreamSink::deliver(const char* data, size_t size) {
  // The thread's staging buffer, and whether a delivery is using it now (a
  // reader that somehow caused another delivery meanwhile gets the plain way).
  VANTU_FAST_THREAD_LOCAL std::string staging;
  VANTU_FAST_THREAD_LOCAL bool staging_in_use = false;
  if (!buffer_.empty() || reader_ == nullptr || staging_in_use) {
    append(data, size);
    notifyReadable();
    return;
  }
  const size_t used = reader_->onReadableBytes(data, size);
  if (used != Reader::kInString) {
    // A reader never uses more than it was given; should one say so, the
    // bytes are still not read twice.
    if (used < size) append(data + used, size - used);
    return;
  }
  staging_in_use = true;
  staging.assign(data, size);
  reader_->onReadable(&staging);
  if (!staging.empty()) append(staging.data(), staging.size());
  staging.clear();
  staging_in_use = false;
}

void PullStreamSink::notifyReadable() {
  if (reader_ != nullptr) reader_->onReadable(&buffer_);
  releaseIfEmpty();
}

bool PullStreamSink::notifyInputEnd() {
  const bool hold_open = reader_ != nullptr && reader_->onInputEnd(&buffer_);
  releaseIfEmpty();
  return hold_open;
}

void PullStreamSink::notifyOutputEnd() {
  if (reader_ != nullptr) reader_->onOutputEnd();
}

void PullStreamSink::notifyClosed() {
  if (reader_ != nullptr) reader_->onClosed();
}

void PullStreamSink::notifyOutputDrained() {
  if (reader_ != nullptr) reader_->onOutputDrained();
}

ConnectionInfo* PullStreamSink::connectionInfo() const {
  auto* source = static_cast<PullStreamSource*>(consumer());
  return source != nullptr ? source->connectionInfo() : nullptr;
}

void PullStreamSink::releaseIfEmpty() {
  if (buffer_.empty() && buffer_.capacity() > std::string().capacity()) {
    std::string().swap(buffer_);
  }
}

PullStreamSink* PullStreamSource::sink() const { return static_cast<PullStreamSink*>(producer()); }

void PullStreamSource::append(const char* data, size_t size) {
  if (PullStreamSink* s = sink()) s->append(data, size);
}

void PullStreamSource::deliver(const char* data, size_t size) {
  if (PullStreamSink* s = sink()) s->deliver(data, size);
}

void PullStreamSource::notifyReadable() {
  if (PullStreamSink* s = sink()) s->notifyReadable();
}

bool PullStreamSource::notifyInputEnd() {
  PullStreamSink* s = sink();
  return s != nullptr && s->notifyInputEnd();
}

void PullStreamSource::notifyOutputEnd() {
  if (PullStreamSink* s = sink()) s->notifyOutputEnd();
}

void PullStreamSource::notifyClosed() {
  if (PullStreamSink* s = sink()) s->notifyClosed();
}

void PullStreamSource::notifyOutputDrained() {
  if (PullStreamSink* s = sink()) s->notifyOutputDrained();
}

}  // namespace char_stream
}  // namespace relay
}  // namespace vantu
