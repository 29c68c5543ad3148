#ifndef NET_TCP_SOCKET_H_
#define NET_TCP_SOCKET_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/socket_address.h"
#include "common/time.h"
#include "net/char_stream.h"
#include "net/connection_info.h"

struct event;
struct evbuffer;

namespace vantu {
namespace relay {

class TlsContext;
class TlsTransport;

// One TCP connection, driven by the event thread: it reads whatever arrives and
// delivers it through source_ to the linked handler's sink, and writes what the
// handler pushes into sink_. Both the client side (create) and the connections
// a TcpServer accepts are TcpSockets.
//
// Writes are coalesced: everything sent while the event thread handles one
// batch of input (a pipelined burst of requests, say) leaves in one sendmsg at
// the end of it. Reads take what the kernel has, up to a bound per event.
//
// Backpressure, on a server's connections: while more than kOutputHighWater
// bytes wait to be sent (a peer that sends requests and does not read the
// answers), the socket stops reading from the peer; it reads again once the
// backlog drains below half of that. Such a peer costs about that much memory
// plus one read, whatever it sends. A client's socket always reads.
//
// The connection ends when the peer has closed its side and everything sent
// was flushed (unless the handler asks to keep it open for answers still being
// worked on, and ends it itself later), when a read or write fails, when the
// handler ends its output (its shutdown()), after that output was flushed, or
// when the handler aborts it. On a write or read failure the handler is told
// through notifyOutputShutdown; on the peer's end of input through
// notifyInputShutdown (with the bytes it did not consume); once nothing more
// will be carried, through notifyClosed. When the handler ends the output while
// the peer still sends, the write side is shut first and the rest of the input
// drained for a while, so that the peer gets the last bytes instead of a
// reset.
//
// Ownership: create() gives the caller a shared pointer whose deleter runs the
// destructor on the event thread; dropping the last reference closes the
// connection there (flushing what it can at once, without notifications). A
// socket accepted by a TcpServer owns itself until the connection ends and
// keeps its handler alive until then.
//
// TLS (useTls): the same connection with the bytes encrypted. A server's
// socket makes the handshake before the handler hears anything, a client's
// before on_connected is told true; a handshake that fails or does not end
// in time ends the connection as a failed read would (tlsError() says why).
// Reads, writes, the output bound, the send timeout, half-close (with
// close_notify before the write side is shut) and aborts behave as above;
// the bound counts the bytes waiting both before and after encryption.
//
// Threads: create, connect and link may be called from any thread; everything
// else runs on the event thread.
class TcpSocket : public char_stream::BidirectionalStreamContainer<char_stream::PullStreamTraits,
                                                                   char_stream::PushStreamTraits>,
                  public std::enable_shared_from_this<TcpSocket>,
                  public ConnectionInfo,
                  private char_stream::PushStreamSink::Writer {
 public:
  // Told once, on the event thread, when a connection ends (not when the
  // socket is destroyed while still open). Shared: a server's listener
  // hears every connection it accepted.
  class CloseListener {
   public:
    virtual ~CloseListener() = default;
    virtual void connectionClosed() = 0;
  };

  // Unsent output above which the socket stops reading from the peer; it
  // reads again below half of it.
  static constexpr size_t kOutputHighWater = size_t{1024} * 1024;
  static constexpr size_t kOutputLowWater = kOutputHighWater / 2;

  // Connects to `address` (a blocking connect on the caller's thread). Null
  // when the connection is refused or the address cannot be used. `on_close`
  // runs on the event thread when the connection ends (not when the socket is
  // destroyed while still open).
  static std::shared_ptr<TcpSocket> create(const SocketAddress& address,
                                           std::function<void()> on_close = {});

  // Starts connecting to `address` without waiting for the peer: returns at
  // once, on any thread. Null only when the address cannot be used or no
  // socket can be made. Once linked, the socket tells `on_connected` on the
  // event thread how it went, exactly once: true when the connection is up
  // (what the handler sent meanwhile leaves then), false when it was refused,
  // failed, or was not up within `timeout` (zero: the system's own limit).
  // After false the handler hears notifyClosed and nothing else. A handler
  // that aborts before the outcome hears none; one that ends its output
  // meanwhile has it sent, and the connection closed, once it is up.
  // `on_close` as for create.
  static std::shared_ptr<TcpSocket> connect(const SocketAddress& address, Duration timeout,
                                            std::function<void(bool connected)> on_connected,
                                            std::function<void()> on_close = {});

  ~TcpSocket() override;

  // Connects a handler's stream ends to this socket: `other_source` (the
  // handler's outgoing bytes) to sink_, and `other_sink` (where incoming bytes
  // go) to source_, then starts reading. A null end is reported as a failed
  // check and left out. Call once, before the handler is used; the linked
  // handler must be destroyed on the event thread or after the connection
  // ended.
  void link(char_stream::PushStreamSource* other_source, char_stream::PullStreamSink* other_sink);

  // A write that makes no progress for this long (a peer that stopped
  // reading) ends the connection as a failed write would. Zero, the default,
  // waits for ever. Call before link.
  void setSendTimeout(Duration timeout) { send_timeout_ = timeout; }

  // Speaks TLS over the connection with `context` (a server's or a
  // client's, which decides the side). `server_name`, for a client: the name
  // or IP address the server's certificate must carry, sent as SNI when a
  // name. `handshake_timeout`: how long the handshake may take from the
  // moment the connection is up (zero: no limit). Call before link; false
  // when no TLS state could be made.
  bool useTls(const std::shared_ptr<const TlsContext>& context, const std::string& server_name,
              Duration handshake_timeout);
  // Why the TLS handshake or stream failed; empty if it did not. Event
  // thread.
  const std::string& tlsError() const;

  // The local and the remote address; not valid once the connection has ended
  // or if the kernel will not say. Event thread, or before link.
  SocketAddress localAddress() const;

  // ConnectionInfo. Event thread.
  SocketAddress peerAddress() const override;
  bool tlsSession(TlsSessionInfo* session) const override;
  size_t unsentOutput() const override { return pendingOutput(); }
  void watchOutputDrain() override { drain_watched_ = true; }

 private:
  friend class TcpServer;
  enum State : uint8_t { kNew, kConnecting, kOpen, kLingering, kClosed };
  enum FlushResult { kFlushed, kBlocked, kFailed };

  TcpSocket(int fd, std::shared_ptr<CloseListener> on_close, bool owns_itself);

  // The deleter of every TcpSocket: marks it released (on whichever thread
  // let go last), then queues its deletion on the event thread.
  struct Deleter {
    void operator()(TcpSocket* socket) const;
  };

  // For TcpServer: wraps an accepted, non-blocking `fd`. The socket owns
  // itself once linked, and keeps `peer` alive until the connection ends;
  // `on_close` runs on the event thread then.
  static std::shared_ptr<TcpSocket> adopt(int fd, std::shared_ptr<void> peer,
                                          std::shared_ptr<CloseListener> on_close);

  // Event thread: registers the events and starts reading (or waiting for
  // the connection to come up).
  void start();
  // Event thread: the connection came up, or did not (`what` has EV_TIMEOUT
  // when the time ran out).
  void finishConnecting(short what);
  static void onReadable(int fd, short what, void* arg);
  static void onWritable(int fd, short what, void* arg);
  // The thread's flush event: runs handleWrite for each socket that asked
  // (activateWrite) in this turn of the loop.
  static void runFlushes(int fd, short what, void* arg);
  // The write event, made when first needed: a connect to wait for, or
  // output the kernel would not take.
  struct event* writeEvent();
  void handleRead(short what);
  void handleWrite();
  // Reads what the kernel has (up to a bound) and hands it to the handler;
  // sets *eof / *failed. Returns the bytes read.
  size_t readAvailable(bool* eof, bool* failed);
  // Starts the TLS handshake, under its time limit.
  void startHandshake();
  // What becomes of each piece readAvailable reads: handed to the handler as
  // it is, or (over TLS) taken by the handshake, then decrypted and handed
  // over. False stops the reading.
  bool takePiece(const char* data, size_t size);
  bool takeTlsPiece(const char* data, size_t size, bool* eof, bool* failed);
  // Hands decrypted input to the handler until the input given is used up.
  void deliverTls(bool* eof, bool* failed);
  // The handshake finished: start the timers and tell whoever waits.
  void handshakeDone();
  // Moves what the handler wrote, encrypted, onto the wire. False on a
  // failure.
  bool encryptOutput();
  // TLS: borrows a wire from this thread's pool for the records to come,
  // unless one is lent already; gives it back once everything on it was
  // sent.
  void lendWire();
  void giveBackWireIfSent();
  // Bytes not yet sent, before and after encryption.
  size_t pendingOutput() const;
  void pauseReading();
  void resumeReadingIfDrained();
  // Tells the handler, once, that nothing more will be carried.
  void notifyClosed();
  // Flushes if it may, and closes the write side once the output is done.
  void makeProgress(bool flush_even_if_waiting);
  // Writes as much of output_ as the kernel takes. A failure ends the
  // connection, telling the handler only if `notify_failure`.
  FlushResult flush(bool notify_failure);
  void shutdownOutput();
  void fail();
  // Closes the connection and drops the handler. `notify_close` runs on_close_.
  void finish(bool notify_close);
  void activateWrite();
  // After output was added: the bound, and a flush unless a read batch is on.
  void outputAdded();
  // Process exit: closes every socket still open, without notifications.
  static void closeAllOpen();

  // char_stream::PushStreamSink::Writer
  void writeBytes(const char* data, size_t size) override;
  void writeOwned(std::unique_ptr<char_stream::OwnedBytes> bytes) override;
  void endOfStream() override;
  void abortStream() override;

  // While connect() waits for the connection, and then for a client's TLS
  // handshake: whom to tell, the time allowed, and the errno of a connect
  // that failed at once (reported from the event thread like any other
  // outcome). Accepted connections never have one.
  struct ConnectWait {
    std::function<void(bool)> on_connected;
    Duration timeout;
    int error = 0;
    bool connecting = true;
  };

  // Sets tlsError().
  void setTlsError(const std::string& error);

  // Event thread only (the constructor and link run before start; the queue
  // that carries start to the event thread orders them). Kept small, since
  // an idle connection keeps all of it: what is used only while connecting,
  // or after a failure, lives elsewhere until then.
  int fd_;
  State state_ = kNew;
  bool handshaking_ = false;
  bool input_ended_ = false;     // the peer closed its side (or we stopped reading)
  bool output_closing_ = false;  // the handler ended its output
  bool aborting_ = false;        // the handler aborted: close at the next turn
  bool reading_paused_ = false;  // backpressure: too much output waiting
  bool in_read_callback_ = false;
  // Set by Deleter, on any thread: the last owner let go and the deletion
  // is queued. The events tell so without touching the shared pointer's
  // count (an atomic read-modify-write on another cache line per event).
  std::atomic<bool> released_{false};
  bool write_waiting_ = false;    // write_event_ added: the kernel buffer was full
  bool write_activated_ = false;  // queued for the flush event: flush in this loop turn
  // Set once or twice in a connection's life: bits (initialized by the
  // constructor).
  const bool owns_itself_ : 1;  // constant after construction
  bool held_open_ : 1;          // input ended, and the handler keeps the output open
  bool closed_notified_ : 1;
  bool drain_watched_ : 1;  // the handler waits to hear that output drained
  std::shared_ptr<CloseListener> on_close_;
  std::shared_ptr<void> peer_;
  Duration send_timeout_;
  std::unique_ptr<ConnectWait> connect_;
  std::shared_ptr<TcpSocket> self_;  // while the connection lasts, if owns_itself_
  struct event* read_event_ = nullptr;
  struct event* write_event_ = nullptr;  // null until writeEvent()
  struct evbuffer* output_ = nullptr;
  // What goes out to the kernel: output_ itself, or with TLS the records
  // made from it (null while none wait: see lendWire).
  struct evbuffer* wire_ = nullptr;
  std::unique_ptr<TlsTransport> tls_;
  Duration handshake_timeout_;
  // Why TLS failed; null until it does.
  std::unique_ptr<std::string> tls_error_;
  // The list of open sockets that process exit closes.
  TcpSocket* live_prev_ = nullptr;
  TcpSocket* live_next_ = nullptr;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TCP_SOCKET_H_
