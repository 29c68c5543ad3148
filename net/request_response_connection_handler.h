#ifndef NET_REQUEST_RESPONSE_CONNECTION_HANDLER_H_
#define NET_REQUEST_RESPONSE_CONNECTION_HANDLER_H_

#include <string>

#include "common/mutex.h"
#include "net/char_stream.h"
#include "net/connection_info.h"

namespace vantu {
namespace relay {

// Base of the objects that speak a protocol over one TCP connection: the
// server's per-connection handlers and the client's. Once linked to a
// TcpSocket it is told, on the event thread, about incoming bytes, the end of
// input and output failures, and it sends bytes and ends the connection from
// any thread.
//
// Ownership: on the server, the TcpServer's connection keeps its handler
// alive (through the shared pointer its factory returned) until the
// connection ends; on the client, whoever linked the handler owns it. Once the
// connection has ended the handler is unlinked: send and shutdown do nothing.
//
// Threads: send, shutdown and SendGuard from any thread; the notify*
// operations are called on the event thread.
class RequestResponseConnectionHandler
    : public char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                       char_stream::PullStreamTraits>,
      private char_stream::PullStreamSink::Reader {
 public:
  // Keeps a pair of sends (a response header, then its body) together: while
  // one thread holds a guard, no other thread's bytes get between the sends it
  // makes on this handler. Sends made on the event thread never interleave
  // with anything, guard or not. Scoped; the handler must outlive it.
  class SendGuard {
   public:
    explicit SendGuard(RequestResponseConnectionHandler& handler);
    explicit SendGuard(RequestResponseConnectionHandler* handler) : SendGuard(*handler) {}
    ~SendGuard();
    SendGuard(const SendGuard&) = delete;
    SendGuard& operator=(const SendGuard&) = delete;

   private:
    // Null on the event thread, where sends never interleave: nothing to lock.
    Mutex* mutex_;
  };

  // `initial_read_size`: the capacity reserved for the input buffer when bytes
  // arrive into an empty one. Not a limit: every read takes everything the
  // connection has, and the buffer grows to hold what is not consumed.
  explicit RequestResponseConnectionHandler(unsigned long initial_read_size);
  ~RequestResponseConnectionHandler() override;

  // Queues `bytes` for the peer. Any thread; the bytes of one thread go out in
  // call order. On the event thread they go straight into the connection's
  // output (flushed together at the end of the current batch); from other
  // threads they are handed over through the event thread. A no-op once the
  // connection is gone.
  void send(const std::string& bytes);
  void send(const char* data, size_t size);
  // As send, taking the bytes (a std::string or a std::vector<char>, moved
  // from): on the event thread they go to the socket where they lie instead
  // of being copied. For large buffers; `bytes` is left empty.
  template <class Container>
  void sendOwned(Container&& bytes) {
    source_.pushOwned(char_stream::OwnedBytes::take(std::forward<Container>(bytes)));
  }
  // Ends the connection: what was sent before (from any thread) is flushed,
  // then the connection closes. Any thread; nothing more is delivered.
  void shutdown();
  // Ends the connection at once: output not yet sent is dropped. The socket
  // closes a moment later (never inside this call), and notifyClosed follows.
  // Event thread.
  void abort();
  // What the transport knows about the connection (the peer's address, the
  // TLS session); null once the connection has ended. Event thread.
  ConnectionInfo* connectionInfo() const { return sink_.connectionInfo(); }

  // Output can no longer be delivered (a write failed or the connection
  // broke). The default ends this handler's outgoing stream.
  virtual void notifyOutputShutdown();
  // The peer closed its sending side; `data` holds the bytes received and not
  // consumed. The connection then closes once what was sent is flushed, unless
  // holdOpenAfterInputEnd says otherwise. The default does nothing.
  virtual void notifyInputShutdown(std::string* data);
  // Asked right after notifyInputShutdown: true keeps the connection open for
  // output (answers still being worked on) until this handler calls
  // shutdown() or abort(). The default is false.
  virtual bool holdOpenAfterInputEnd();
  // The connection carries nothing more either way: its output was flushed
  // and shut (the socket may still wait a little for the peer's end), or it
  // broke, or it was aborted. Called once, on the event thread, before the
  // handler is unlinked. The default does nothing.
  virtual void notifyClosed();
  // Output that waited has drained below half the mark, as asked by
  // connectionInfo()->watchOutputDrain(). The default does nothing.
  virtual void notifyOutputDrained();
  // `data` holds every byte received and not consumed yet; erase what was
  // used. What is left stays at the front of `data` for the next call.
  virtual void notifyIncomingData(std::string* data) = 0;
  // The bytes of one read where they lie (valid only during the call),
  // offered instead of notifyIncomingData while nothing was kept from before:
  // a handler that reads them in place saves copying each read into a
  // string. Returns how many bytes were used; the rest is kept and comes back
  // at the front of notifyIncomingData's `data`. The default,
  // kIncomingInString, declines: the bytes come through notifyIncomingData.
  static constexpr size_t kIncomingInString = char_stream::PullStreamSink::Reader::kInString;
  virtual size_t notifyIncomingBytes(const char* data, size_t size);

 private:
  // char_stream::PullStreamSink::Reader
  void onReadable(std::string* data) override;
  size_t onReadableBytes(const char* data, size_t size) override;
  bool onInputEnd(std::string* data) override;
  void onOutputEnd() override;
  void onClosed() override;
  void onOutputDrained() override;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_REQUEST_RESPONSE_CONNECTION_HANDLER_H_
