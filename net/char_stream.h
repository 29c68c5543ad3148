#ifndef NET_CHAR_STREAM_H_
#define NET_CHAR_STREAM_H_

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/mutex.h"

namespace vantu {
namespace relay {

class ConnectionInfo;

namespace char_stream {

// Byte-stream plumbing between a socket and the object that speaks a protocol
// over it (a connection handler). Each side is a BidirectionalStreamContainer
// holding one stream end per direction, and linking pairs the ends up:
//
//   handler (Push source, Pull sink)          socket (Pull source, Push sink)
//   source_: PushStreamSource  --- push --->  sink_: PushStreamSink    -> network
//   sink_:   PullStreamSink    <--- pull ---  source_: PullStreamSource <- network
//
// Push stream (outgoing bytes): the handler pushes bytes into its source and
// they go to the socket's sink, which writes them out.
// Pull stream (incoming bytes): the socket delivers what it read into the
// handler's sink, which keeps every byte not consumed yet; the handler pulls
// what it can use out of that buffer at its own pace and leaves the rest for
// later, and it is told when input ends or output fails.
//
// In both streams the handler's end is the BufferProducer: it holds the link
// and calls into the socket's end (pushing bytes, or pulling them through the
// buffer the socket fills), while the socket's end, the BufferConsumer, calls
// back through the link only to deliver input and notifications.
//
// Threads: links are made and broken, and stream ends are destroyed, on the
// event thread (or while nothing else can use either end yet, as when a client
// socket is linked before it starts). PushStreamSource::push and close may be
// called from any thread; everything else runs on the event thread.

class BufferProducer;

// Bytes handed to the outgoing stream whole, with their memory: the socket
// sends them where they lie instead of copying them into its output, and
// frees them (on the event thread) once they are sent or dropped. Made for
// large buffers: a copy of a megabyte costs more than the bookkeeping.
class OwnedBytes {
 public:
  virtual ~OwnedBytes() = default;
  virtual const char* data() const = 0;
  virtual size_t size() const = 0;

  // Takes `bytes` (a std::string or a std::vector<char>) by moving it.
  template <class Container>
  static std::unique_ptr<OwnedBytes> take(Container&& bytes);
};

template <class Container>
class OwnedContainer final : public OwnedBytes {
 public:
  explicit OwnedContainer(Container&& bytes) : bytes_(std::move(bytes)) {}
  const char* data() const override { return bytes_.data(); }
  size_t size() const override { return bytes_.size(); }

 private:
  const Container bytes_;
};

template <class Container>
std::unique_ptr<OwnedBytes> OwnedBytes::take(Container&& bytes) {
  // Only a container handed over (an rvalue) may be taken: its bytes are sent
  // where they lie.
  static_assert(!std::is_lvalue_reference_v<Container>, "OwnedBytes::take needs an rvalue");
  return std::make_unique<OwnedContainer<Container>>(std::forward<Container>(bytes));
}

// The passive end of a link: its producer calls it. Owned by the container
// that holds it; unlinks itself when destroyed.
class BufferConsumer {
 public:
  BufferConsumer() = default;
  virtual ~BufferConsumer();
  BufferConsumer(const BufferConsumer&) = delete;
  BufferConsumer& operator=(const BufferConsumer&) = delete;

  BufferProducer* producer() const { return producer_; }
  // Breaks the link, if any. Event thread.
  void unlink();

 private:
  friend class BufferProducer;
  BufferProducer* producer_ = nullptr;
};

// The active end of a link. Owned by the container that holds it; unlinks
// itself when destroyed.
class BufferProducer {
 public:
  BufferProducer() = default;
  virtual ~BufferProducer();
  BufferProducer(const BufferProducer&) = delete;
  BufferProducer& operator=(const BufferProducer&) = delete;

  // Links this end and `consumer` both ways, first breaking whatever link
  // either had; null just unlinks. Event thread.
  void linkInternal(BufferConsumer* consumer);
  BufferConsumer* consumer() const { return consumer_; }

 private:
  friend class BufferConsumer;
  BufferConsumer* consumer_ = nullptr;
};

// The socket's end of a push stream: receives what the linked PushStreamSource
// pushes and hands it to its Writer (the socket). Event thread only.
class PushStreamSink : public BufferConsumer {
 public:
  // Implemented by the owner of the sink.
  class Writer {
   public:
    // Bytes to send. Must not call back into the stream synchronously.
    virtual void writeBytes(const char* data, size_t size) = 0;
    // Bytes to send where they lie; the writer frees them once sent. The
    // default copies them, as writeBytes would.
    virtual void writeOwned(std::unique_ptr<OwnedBytes> bytes) {
      writeBytes(bytes->data(), bytes->size());
    }
    // No more bytes will come: send what was written, then close.
    virtual void endOfStream() = 0;
    // Close soon, dropping what was not sent yet. Must not call back into the
    // stream synchronously.
    virtual void abortStream() = 0;

   protected:
    ~Writer() = default;
  };

  PushStreamSink() = default;
  void setWriter(Writer* writer) { writer_ = writer; }

  void write(const char* data, size_t size);
  void writeOwned(std::unique_ptr<OwnedBytes> bytes);
  void close();
  void abort();

 private:
  Writer* writer_ = nullptr;
};

// The handler's end of a push stream: the outgoing bytes of a connection.
// Owned by its container (the connection handler). push() and close() may be
// called from any thread: on the event thread they go straight to the linked
// sink; from other threads they are queued and handed over on the event thread,
// keeping each thread's calls in order. Unlinked, both are no-ops.
class PushStreamSource : public BufferProducer {
 public:
  PushStreamSource();
  ~PushStreamSource() override;

  // Ends the outgoing stream: what was pushed before (from any thread) is still
  // sent, then the connection is closed. Any thread.
  virtual void close();
  // Sends `bytes` after everything this thread pushed before. Any thread.
  virtual void push(const std::string& bytes);
  void push(const char* data, size_t size);
  // As push, handing the bytes over whole: on the event thread the socket
  // sends them where they lie; from other threads they are copied into the
  // queue like any others.
  void pushOwned(std::unique_ptr<OwnedBytes> bytes);
  // Ends the outgoing stream at once: what was not sent yet is dropped and the
  // connection closes in a moment (never inside this call). Event thread.
  void abort();

  // The (recursive) lock that queues other threads' pushes; whoever holds it
  // keeps every other thread's bytes out from between its own pushes.
  Mutex& pushMutex();

 private:
  struct Pending;
  // Constant after construction; shared with queued hand-overs, which may
  // outlive this object.
  const std::shared_ptr<Pending> pending_;
};

// The handler's end of a pull stream: keeps the bytes delivered and not yet
// consumed, and tells its Reader (the handler) about them. Owned by its
// container; event thread only.
class PullStreamSink : public BufferProducer {
 public:
  // Implemented by the owner of the sink; called on the event thread.
  class Reader {
   public:
    // `data`: every byte received and not consumed yet. Erase what was used
    // (or everything); what is left stays at the front for the next call.
    virtual void onReadable(std::string* data) = 0;
    // The bytes of one read where they lie, offered instead of onReadable
    // while nothing is kept from before; valid only during the call. The
    // reader uses what it can and returns how many bytes that was: the rest
    // is kept and comes back through onReadable with what arrives next.
    // kInString (the default) declines: they come through onReadable, in a
    // buffer the thread keeps.
    static constexpr size_t kInString = ~size_t{0};
    virtual size_t onReadableBytes(const char* /*data*/, size_t /*size*/) { return kInString; }
    // The peer ended its output; `data` as above. True keeps the connection
    // open for output until the reader ends it (closes its push source);
    // false closes it once what was sent is flushed.
    virtual bool onInputEnd(std::string* data) = 0;
    // Output can no longer be delivered (the write side failed).
    virtual void onOutputEnd() = 0;
    // The connection carries nothing more either way: its output was flushed
    // and shut, or it broke, or it was aborted. Called once, before the link
    // is broken.
    virtual void onClosed() = 0;
    // Output that waited has drained, as asked by
    // ConnectionInfo::watchOutputDrain. The default ignores it.
    virtual void onOutputDrained() {}

   protected:
    ~Reader() = default;
  };

  PullStreamSink() = default;
  void setReader(Reader* reader) { reader_ = reader; }
  // Capacity reserved for the buffer when bytes arrive into an empty one, so
  // that a message arriving in pieces seldom needs reallocation. Not a limit:
  // the buffer takes whatever arrives.
  void setInitialReservation(size_t size) { initial_reservation_ = size; }

  // Called by the linked PullStreamSource.
  void append(const char* data, size_t size);
  void notifyReadable();
  // append + notifyReadable, without making this sink a buffer when it had
  // nothing kept: the bytes are offered where they lie (onReadableBytes), or
  // for a reader that declines, handed over in a buffer the thread keeps; only
  // what the reader leaves is copied here. A read then costs no allocation,
  // and no copy for a reader that takes bytes where they lie.
  void deliver(const char* data, size_t size);
  bool notifyInputEnd();
  void notifyOutputEnd();
  void notifyClosed();
  void notifyOutputDrained();
  // What the linked socket knows about the connection; null when unlinked.
  ConnectionInfo* connectionInfo() const;

 private:
  // An idle connection keeps no buffer: once everything was consumed the
  // memory goes back.
  void releaseIfEmpty();

  Reader* reader_ = nullptr;
  size_t initial_reservation_ = 0;
  std::string buffer_;
};

// The socket's end of a pull stream: delivers what the socket read to the
// linked PullStreamSink, and the end-of-input and output-failure
// notifications. Without a link everything is dropped. Event thread only.
class PullStreamSource : public BufferConsumer {
 public:
  PullStreamSource() = default;

  bool linked() const { return producer() != nullptr; }
  // Appends to the sink's buffer without telling the reader yet.
  void append(const char* data, size_t size);
  void notifyReadable();
  // Appends and tells the reader (see PullStreamSink::deliver).
  void deliver(const char* data, size_t size);
  // The reader's answer (see Reader::onInputEnd); false without a link.
  bool notifyInputEnd();
  void notifyOutputEnd();
  void notifyClosed();
  void notifyOutputDrained();
  // Set by the socket that holds this end, before it is linked.
  void setConnectionInfo(ConnectionInfo* info) { info_ = info; }
  ConnectionInfo* connectionInfo() const { return info_; }

 private:
  PullStreamSink* sink() const;
  ConnectionInfo* info_ = nullptr;
};

struct PushStreamTraits {
  using Source = PushStreamSource;
  using Sink = PushStreamSink;
};

struct PullStreamTraits {
  using Source = PullStreamSource;
  using Sink = PullStreamSink;
};

// One end of a connection: a stream end for each direction, the source first.
// A connection handler is BidirectionalStreamContainer<PushStreamTraits,
// PullStreamTraits> (it pushes outgoing bytes, it pulls incoming ones); a
// socket is the mirror, BidirectionalStreamContainer<PullStreamTraits,
// PushStreamTraits>. Owned by whoever made it, through a shared pointer where
// the TCP layer keeps it; see the threading rules at the top of this file.
template <class SourceTraits, class SinkTraits>
class BidirectionalStreamContainer {
 public:
  using Source = typename SourceTraits::Source;
  using Sink = typename SinkTraits::Sink;

  BidirectionalStreamContainer() = default;
  virtual ~BidirectionalStreamContainer() = default;
  BidirectionalStreamContainer(const BidirectionalStreamContainer&) = delete;
  BidirectionalStreamContainer& operator=(const BidirectionalStreamContainer&) = delete;

  // For linking.
  Source* streamSource() { return &source_; }
  Sink* streamSink() { return &sink_; }

 protected:
  Source source_;
  Sink sink_;
};

}  // namespace char_stream
}  // namespace relay
}  // namespace vantu

#endif  // NET_CHAR_STREAM_H_
