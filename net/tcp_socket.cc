#include "net/tcp_socket.h"

#include <errno.h>
#include <event2/buffer.h>
#include <event2/event.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "common/deferred_deleter.h"
#include "common/event_thread.h"
#include "common/event_thread_check.h"
#include "common/fast_thread_local.h"
#include "common/logging.h"
#include "net/socket_util.h"
#include "net/tls_transport.h"

namespace vantu {
namespace relay {
namespace {

// One read event takes everything the kernel has, in pieces of this size, up to
// kMaxReadPerEvent so that one busy peer cannot starve the others.
constexpr size_t kScratchSize = size_t{64} * 1024;
constexpr size_t kMaxReadPerEvent = size_t{1024} * 1024;
// Buffers handed to one sendmsg.
constexpr int kMaxIovecs = 64;
// How long a connection whose output is done waits for the peer to close.
constexpr int kLingerSeconds = 2;

// The largest TLS record's plaintext: decrypted input arrives in pieces of at
// most this, and output is encrypted in records of this.
constexpr size_t kRecordSize = size_t{16} * 1024;
// How long a client's TLS handshake may take when the connect timeout sets
// no limit: a server that never answers must not hold the calls for ever.
constexpr Duration kDefaultClientHandshakeTimeout = Duration::seconds(30);

// Event thread only.
char* scratchBuffer() {
  static char* buffer = new char[kScratchSize];
  return buffer;
}

// Event thread only: decrypted input, and output on its way to encryption.
char* recordBuffer() {
  static char* buffer = new char[kRecordSize];
  return buffer;
}

// TLS sockets borrow the evbuffer their records wait in from this thread's
// pool while there are records to send, and give it back once they are sent:
// an idle TLS connection keeps no second buffer. Event thread only.
constexpr size_t kPooledWires = 16;
class WirePool {
 public:
  WirePool() = default;
  WirePool(const WirePool&) = delete;
  WirePool& operator=(const WirePool&) = delete;
  ~WirePool() {
    for (size_t i = 0; i < count_; ++i) evbuffer_free(wires_[i]);
    gone_ = true;
  }
  struct evbuffer* take() {
    return count_ > 0 ? wires_[--count_] : evbuffer_new();
  }
  void giveBack(struct evbuffer* wire) {
    evbuffer_drain(wire, evbuffer_get_length(wire));
    if (gone_ || count_ == kPooledWires) {
      evbuffer_free(wire);
    } else {
      wires_[count_++] = wire;
    }
  }

 private:
  struct evbuffer* wires_[kPooledWires];
  size_t count_ = 0;
  // A socket finished after this thread's pool: its wire is freed instead.
  static VANTU_FAST_THREAD_LOCAL bool gone_;
};
VANTU_FAST_THREAD_LOCAL bool WirePool::gone_ = false;

WirePool& wirePool() {
  static VANTU_FAST_THREAD_LOCAL WirePool pool;
  return pool;
}

timeval toTimeval(Duration duration) {
  const int64_t us = duration.toMicroseconds();
  return {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// Event thread only: the sockets that have started and not finished.
TcpSocket* live_head = nullptr;

// Event thread only: the sockets that asked to flush in this turn of the
// loop, and the one event that runs them all. An idle connection keeps no
// write event of its own.
std::vector<std::weak_ptr<TcpSocket>>* flush_queue = nullptr;
struct event* flush_event = nullptr;

// An idle TLS socket keeps no output buffer either: its output_ is this
// shared, empty one, in which a write lies only until outputAdded, right
// after it, moves it into a buffer lent from the pool; the buffer goes back
// once encrypted. Made by the first useTls (any thread), then constant.
std::atomic<struct evbuffer*> idle_output{nullptr};

bool isNull(const void* pointer) { return pointer == nullptr; }

// A client's on_close, as a listener.
class CloseFunction final : public TcpSocket::CloseListener {
 public:
  explicit CloseFunction(std::function<void()> fn) : fn_(std::move(fn)) {}
  void connectionClosed() override { fn_(); }

 private:
  const std::function<void()> fn_;
};

std::shared_ptr<TcpSocket::CloseListener> listenerOf(std::function<void()> on_close) {
  if (!on_close) return nullptr;
  return std::make_shared<CloseFunction>(std::move(on_close));
}

}  // namespace

std::shared_ptr<TcpSocket> TcpSocket::create(const SocketAddress& address,
                                             std::function<void()> on_close) {
  internal::raiseOpenFileLimit();
  if (!address.isValid() || address.port() == 0) return nullptr;
  int fd = ::socket(address.sockaddr()->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  if (::connect(fd, address.sockaddr(), address.length()) != 0 || !internal::makeNonBlocking(fd)) {
    ::close(fd);
    return nullptr;
  }
  internal::disableNagle(fd);
  return std::shared_ptr<TcpSocket>(new TcpSocket(fd, listenerOf(std::move(on_close)), false),
                                    Deleter());
}

std::shared_ptr<TcpSocket> TcpSocket::connect(const SocketAddress& address, Duration timeout,
                                              std::function<void(bool)> on_connected,
                                              std::function<void()> on_close) {
  internal::raiseOpenFileLimit();
  if (!address.isValid() || address.port() == 0) return nullptr;
  int fd = ::socket(address.sockaddr()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return nullptr;
  internal::disableNagle(fd);
  int result;
  do {
    result = ::connect(fd, address.sockaddr(), address.length());
  } while (result != 0 && errno == EINTR);
  const int error = result != 0 && errno != EINPROGRESS ? errno : 0;
  std::shared_ptr<TcpSocket> socket(new TcpSocket(fd, listenerOf(std::move(on_close)), false),
                                    Deleter());
  socket->connect_ = std::make_unique<ConnectWait>();
  socket->connect_->on_connected = std::move(on_connected);
  socket->connect_->timeout = timeout;
  // Done at once (loopback may be that quick) or under way: the write event
  // tells which. Refused at once: reported from the event thread all the same.
  socket->connect_->error = error;
  return socket;
}

std::shared_ptr<TcpSocket> TcpSocket::adopt(int fd, std::shared_ptr<void> peer,
                                            std::shared_ptr<CloseListener> on_close) {
  internal::disableNagle(fd);
  std::shared_ptr<TcpSocket> socket(new TcpSocket(fd, std::move(on_close), true), Deleter());
  socket->peer_ = std::move(peer);
  return socket;
}

TcpSocket::TcpSocket(int fd, std::shared_ptr<CloseListener> on_close, bool owns_itself)
    : fd_(fd),
      owns_itself_(owns_itself),
      held_open_(false),
      closed_notified_(false),
      drain_watched_(false),
      on_close_(std::move(on_close)),
      output_(evbuffer_new()) {
  wire_ = output_;
  sink_.setWriter(this);
  source_.setConnectionInfo(this);
}

TcpSocket::~TcpSocket() {
  // Whatever the kernel takes at once still goes out; no one is told anything.
  if (state_ == kOpen && (!tls_ || (!handshaking_ && encryptOutput())) && wire_ != nullptr) {
    flush(false);
  }
  finish(false);
}

bool TcpSocket::useTls(const std::shared_ptr<const TlsContext>& context,
                       const std::string& server_name, Duration handshake_timeout) {
  if (state_ != kNew || tls_ || !context || output_ == nullptr) return false;
  tls_ = context->isServer() ? TlsTransport::newServer(context, nullptr)
                             : TlsTransport::newClient(context, server_name, nullptr);
  if (!tls_) return false;
  // Lent while records wait to be sent (lendWire), and output while a write
  // waits to be encrypted (outputAdded).
  wire_ = nullptr;
  static struct evbuffer* const idle = evbuffer_new();
  if (idle == nullptr) return false;
  idle_output.store(idle, std::memory_order_relaxed);
  evbuffer_free(output_);
  output_ = idle;
  handshake_timeout_ = handshake_timeout;
  if (handshake_timeout_ == Duration() && !tls_->isServerSide()) {
    handshake_timeout_ = kDefaultClientHandshakeTimeout;
  }
  return true;
}

const std::string& TcpSocket::tlsError() const {
  static const std::string* const kNone = new std::string;
  return tls_error_ ? *tls_error_ : *kNone;
}

void TcpSocket::setTlsError(const std::string& error) {
  tls_error_ = std::make_unique<std::string>(error);
}

bool TcpSocket::tlsSession(TlsSessionInfo* session) const {
  if (!tls_ || !tls_->established()) return false;
  *session = tls_->session();
  return true;
}

void TcpSocket::link(char_stream::PushStreamSource* other_source,
                     char_stream::PullStreamSink* other_sink) {
  // These records carry char_stream's file name and line numbers, and the
  // last two checks can never fail: all four are part of the logging contract.
  if (isNull(other_sink)) {
    VANTU_LOG_AT(1, "check", "relay/char_stream", __PRETTY_FUNCTION__, 485)
        << "Check failed other_sink ";
  }
  if (isNull(other_source)) {
    VANTU_LOG_AT(1, "check", "relay/char_stream", __PRETTY_FUNCTION__, 486)
        << "Check failed other_source ";
  }
  if (isNull(&sink_)) {
    VANTU_LOG_AT(1, "check", "relay/char_stream", __PRETTY_FUNCTION__, 487)
        << "Check failed sink_ ";
  }
  if (isNull(&source_)) {
    VANTU_LOG_AT(1, "check", "relay/char_stream", __PRETTY_FUNCTION__, 488)
        << "Check failed source_ ";
  }
  if (other_sink != nullptr) other_sink->linkInternal(&source_);
  if (other_source != nullptr) other_source->linkInternal(&sink_);
  if (isEventThread()) {
    start();
    return;
  }
  std::shared_ptr<TcpSocket> self = shared_from_this();
  defer([self] { self->start(); });
}

SocketAddress TcpSocket::localAddress() const {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (fd_ < 0 || getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return SocketAddress();
  }
  return SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&address), length);
}

SocketAddress TcpSocket::peerAddress() const {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  if (fd_ < 0 || getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return SocketAddress();
  }
  return SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&address), length);
}

void TcpSocket::start() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  if (state_ != kNew) return;
  struct event_base* base = eventThreadBase();
  if (base == nullptr || fd_ < 0) {
    finish(false);
    return;
  }
  static std::once_flag hook_once;
  std::call_once(hook_once, [] { atEventThreadStop(&TcpSocket::closeAllOpen); });
  read_event_ = event_new(base, fd_, EV_READ | EV_PERSIST, &TcpSocket::onReadable, this);
  live_next_ = live_head;
  if (live_head != nullptr) live_head->live_prev_ = this;
  live_head = this;
  if (owns_itself_) self_ = shared_from_this();
  if (connect_ != nullptr && connect_->connecting) {
    state_ = kConnecting;
    if (aborting_ || connect_->error != 0) {
      event_active(writeEvent(), EV_WRITE, 0);
      return;
    }
    const int64_t us = connect_->timeout.toMicroseconds();
    timeval timeout = {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
    event_add(writeEvent(), us > 0 ? &timeout : nullptr);
    return;
  }
  event_add(read_event_, nullptr);
  state_ = kOpen;
  if (tls_) startHandshake();
  if (state_ == kOpen && (evbuffer_get_length(output_) > 0 || output_closing_ || aborting_)) {
    activateWrite();
  }
}

void TcpSocket::startHandshake() {
  handshaking_ = true;
  const timeval timeout = toTimeval(handshake_timeout_);
  event_add(read_event_, handshake_timeout_ > Duration() ? &timeout : nullptr);
  // A client's first flight goes out now; a server's waits for the client's.
  lendWire();
  tls_->setInput(nullptr, 0);
  if (tls_->handshake() == TlsTransport::Result::kFailed) {
    setTlsError(tls_->error());
    fail();
    return;
  }
  if (evbuffer_get_length(wire_) > 0 && flush(true) != kFlushed) return;
  giveBackWireIfSent();
}

void TcpSocket::lendWire() {
  if (wire_ != nullptr) return;
  wire_ = wirePool().take();
  tls_->setWire(wire_);
}

void TcpSocket::giveBackWireIfSent() {
  if (!tls_ || wire_ == nullptr || evbuffer_get_length(wire_) > 0) return;
  tls_->setWire(nullptr);
  wirePool().giveBack(wire_);
  wire_ = nullptr;
}

void TcpSocket::finishConnecting(short what) {
  std::function<void(bool)> on_connected = std::move(connect_->on_connected);
  connect_->on_connected = nullptr;
  connect_->connecting = false;
  int error = connect_->error;
  if (aborting_) {
    finish(true);
    return;
  }
  if (error == 0 && (what & EV_TIMEOUT)) error = ETIMEDOUT;
  if (error == 0) {
    socklen_t length = sizeof(error);
    if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  }
  if (error != 0) {
    if (on_connected) on_connected(false);
    finish(true);
    return;
  }
  event_del(write_event_);
  event_add(read_event_, nullptr);
  state_ = kOpen;
  if (tls_) {
    // Up once the handshake is done.
    connect_->on_connected = std::move(on_connected);
    startHandshake();
    return;
  }
  connect_.reset();
  if (on_connected) on_connected(true);
  if (state_ == kOpen && (evbuffer_get_length(output_) > 0 || output_closing_ || aborting_)) {
    activateWrite();
  }
}

void TcpSocket::Deleter::operator()(TcpSocket* socket) const {
  socket->released_.store(true, std::memory_order_relaxed);
  libeventThreadDeferredDelete(socket);
}

// The deletion is only ever queued to the event thread, so a socket these
// events name lives at least until they return, owned or not.
void TcpSocket::onReadable(int, short what, void* arg) {
  auto* socket = static_cast<TcpSocket*>(arg);
  if (socket->released_.load(std::memory_order_relaxed)) {
    // The last owner let go and the deletion is queued; until it runs, stop
    // hearing about a socket nobody wants.
    event_del(socket->read_event_);
    return;
  }
  socket->handleRead(what);
}

void TcpSocket::onWritable(int, short what, void* arg) {
  auto* socket = static_cast<TcpSocket*>(arg);
  if (socket->released_.load(std::memory_order_relaxed)) {
    event_del(socket->write_event_);
    return;
  }
  if (socket->state_ == kConnecting) {
    socket->finishConnecting(what);
    return;
  }
  if ((what & EV_TIMEOUT) && socket->state_ == kOpen) {
    // The peer took nothing for send_timeout_.
    socket->fail();
    return;
  }
  socket->handleWrite();
}

void TcpSocket::handleRead(short what) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  if (state_ == kClosed) return;
  if (what & EV_TIMEOUT) {
    if (handshaking_ && state_ == kOpen) {
      setTlsError("TLS handshake timed out");
      fail();
      return;
    }
    // Lingering ran out: the peer did not close in time.
    finish(true);
    return;
  }
  bool eof = false;
  bool failed = false;
  if (state_ == kLingering) {
    readAvailable(&eof, &failed);
    if (eof || failed) finish(true);
    return;
  }
  // Sends made by the handler from here on are flushed together below.
  in_read_callback_ = true;
  readAvailable(&eof, &failed);
  in_read_callback_ = false;
  // The handler's notification may have ended or aborted the connection.
  if (state_ != kOpen || aborting_) return;
  if (failed) {
    fail();
    return;
  }
  if (eof) {
    input_ended_ = true;
    event_del(read_event_);
    reading_paused_ = false;
    if (!output_closing_) held_open_ = source_.notifyInputEnd();
  } else if (!reading_paused_ && pendingOutput() > kOutputHighWater) {
    pauseReading();
  }
  makeProgress(false);
}

size_t TcpSocket::readAvailable(bool* eof, bool* failed) {
  // A lingering TLS connection only drains what the peer still sends.
  const bool tls = tls_ && state_ == kOpen;
  char* buffer = scratchBuffer();
  size_t total = 0;
  for (;;) {
    ssize_t n = ::recv(fd_, buffer, kScratchSize, 0);
    if (n > 0) {
      total += static_cast<size_t>(n);
      // Each piece goes to the handler at once, so that the answers it makes
      // are counted against the output bound before more is read.
      const bool more = tls ? takeTlsPiece(buffer, static_cast<size_t>(n), eof, failed)
                            : takePiece(buffer, static_cast<size_t>(n));
      if (!more) break;
      // A short read emptied the kernel buffer: another recv would only say so.
      if (static_cast<size_t>(n) < kScratchSize || total >= kMaxReadPerEvent) break;
      if (state_ == kOpen && pendingOutput() > kOutputHighWater) break;
      continue;
    }
    if (n == 0) {
      if (tls && handshaking_) {
        setTlsError("TLS handshake failed: the peer closed the connection");
        *failed = true;
      } else {
        *eof = true;
      }
    } else if (errno == EINTR) {
      continue;
    } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
      *failed = true;
    }
    break;
  }
  if (tls && *failed && tls_error_) {
    VANTU_LOG(3, "net", "net/tcp_socket") << peerAddress().toString() << ": " << *tls_error_;
    // The alert that says why, if the kernel takes it at once.
    evbuffer_iovec chain;
    if (wire_ != nullptr && evbuffer_peek(wire_, -1, nullptr, &chain, 1) >= 1) {
      (void)::send(fd_, chain.iov_base, chain.iov_len, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }
  return total;
}

bool TcpSocket::takePiece(const char* data, size_t size) {
  if (state_ != kOpen || output_closing_ || aborting_) return true;
  source_.deliver(data, size);
  return state_ == kOpen;
}

bool TcpSocket::takeTlsPiece(const char* data, size_t size, bool* eof, bool* failed) {
  // Reading may answer too: the handshake's next flight, an alert.
  lendWire();
  tls_->setInput(data, size);
  if (handshaking_) {
    const TlsTransport::Result result = tls_->handshake();
    if (result == TlsTransport::Result::kFailed) {
      setTlsError(tls_->error());
      *failed = true;
      return false;
    }
    if (result == TlsTransport::Result::kOk) {
      handshakeDone();
      if (state_ != kOpen) return false;
    }
  }
  if (!handshaking_) {
    // All of it is decrypted and delivered now: OpenSSL keeps no more than a
    // partial record, so nothing waits unseen for the next event.
    deliverTls(eof, failed);
    if (*eof || *failed || state_ != kOpen) return false;
  }
  return true;
}

void TcpSocket::deliverTls(bool* eof, bool* failed) {
  char* plain = recordBuffer();
  for (;;) {
    size_t got = 0;
    switch (tls_->read(plain, kRecordSize, &got)) {
      case TlsTransport::Result::kOk:
        if (state_ == kOpen && !output_closing_ && !aborting_) {
          source_.deliver(plain, got);
          if (state_ != kOpen) return;
        }
        // The usual case, one request in one record: no read to learn that
        // nothing more is there (with released buffers, that read would
        // allocate and free a record buffer).
        if (tls_->drained()) return;
        continue;
      case TlsTransport::Result::kWantMore:
        return;
      case TlsTransport::Result::kClosed:
        *eof = true;
        return;
      case TlsTransport::Result::kFailed:
        setTlsError(tls_->error());
        *failed = true;
        return;
    }
  }
}

void TcpSocket::handshakeDone() {
  handshaking_ = false;
  // The handshake's time limit no longer applies. Adding the event again
  // without one would not do: libevent keeps a pending event's timeout, and
  // a persistent event re-arms it at every wake-up, so an idle connection
  // would end at the handshake's limit and every read would pay for a timer.
  event_remove_timer(read_event_);
  if (connect_ != nullptr) {
    std::function<void(bool)> on_connected = std::move(connect_->on_connected);
    connect_.reset();
    if (on_connected) on_connected(true);
  }
  if (state_ == kOpen && (evbuffer_get_length(output_) > 0 || output_closing_)) activateWrite();
}

bool TcpSocket::encryptOutput() {
  if (evbuffer_get_length(output_) > 0) lendWire();
  while (evbuffer_get_length(output_) > 0) {
    // A large piece is encrypted where it lies, and so is a small one that
    // is all there is (the usual answer); small ones followed by more are
    // gathered into full records first.
    evbuffer_iovec chain;
    evbuffer_peek(output_, -1, nullptr, &chain, 1);
    const char* data = static_cast<const char*>(chain.iov_base);
    size_t size = chain.iov_len;
    if (size < kRecordSize && size < evbuffer_get_length(output_)) {
      const ev_ssize_t copied = evbuffer_copyout(output_, recordBuffer(), kRecordSize);
      if (copied <= 0) return false;
      data = recordBuffer();
      size = static_cast<size_t>(copied);
    }
    if (!tls_->write(data, size)) {
      setTlsError(tls_->error());
      return false;
    }
    evbuffer_drain(output_, size);
  }
  if (output_ != idle_output.load(std::memory_order_relaxed)) {
    wirePool().giveBack(output_);
    output_ = idle_output.load(std::memory_order_relaxed);
  }
  return true;
}

size_t TcpSocket::pendingOutput() const {
  size_t pending = output_ != nullptr ? evbuffer_get_length(output_) : 0;
  if (wire_ != output_ && wire_ != nullptr) pending += evbuffer_get_length(wire_);
  return pending;
}

void TcpSocket::pauseReading() {
  // Only a server's connection holds back: what it reads makes answers. A
  // client's reading makes no output, and holding it back while its own
  // requests wait would deadlock against a server that does the same (large
  // calls in flight both ways).
  if (!owns_itself_) return;
  if (reading_paused_ || input_ended_ || state_ != kOpen) return;
  event_del(read_event_);
  reading_paused_ = true;
}

void TcpSocket::resumeReadingIfDrained() {
  if (!reading_paused_ || state_ != kOpen) return;
  if (pendingOutput() >= kOutputLowWater) return;
  reading_paused_ = false;
  if (!input_ended_) event_add(read_event_, nullptr);
}

void TcpSocket::handleWrite() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  write_activated_ = false;
  if (aborting_) {
    finish(true);
    return;
  }
  makeProgress(true);
  if (drain_watched_ && state_ == kOpen && pendingOutput() < kOutputLowWater) {
    drain_watched_ = false;
    source_.notifyOutputDrained();
  }
}

void TcpSocket::makeProgress(bool flush_even_if_waiting) {
  if (state_ != kOpen || aborting_) return;
  const bool ending = output_closing_ || (input_ended_ && !held_open_);
  if (tls_ && !handshaking_) {
    if (!encryptOutput()) {
      fail();
      return;
    }
    // close_notify goes out before the write side is shut.
    if (ending) {
      lendWire();
      tls_->close();
    }
  }
  if (wire_ != nullptr && evbuffer_get_length(wire_) > 0) {
    // While waiting for the kernel to drain, only the write event flushes.
    if (write_waiting_ && !flush_even_if_waiting) return;
    if (flush(true) != kFlushed) return;
  }
  giveBackWireIfSent();
  // What the handler wrote during the handshake leaves after it.
  if (handshaking_ && evbuffer_get_length(output_) > 0) return;
  if (ending) shutdownOutput();
}

TcpSocket::FlushResult TcpSocket::flush(bool notify_failure) {
  bool blocked = false;
  while (evbuffer_get_length(wire_) > 0) {
    evbuffer_iovec chains[kMaxIovecs];
    int count = evbuffer_peek(wire_, -1, nullptr, chains, kMaxIovecs);
    if (count > kMaxIovecs) count = kMaxIovecs;
    iovec iov[kMaxIovecs];
    size_t requested = 0;
    for (int i = 0; i < count; ++i) {
      iov[i].iov_base = chains[i].iov_base;
      iov[i].iov_len = chains[i].iov_len;
      requested += chains[i].iov_len;
    }
    msghdr message = {};
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<size_t>(count);
    // MSG_NOSIGNAL: a peer that went away is an error here, not a SIGPIPE.
    ssize_t written = ::sendmsg(fd_, &message, MSG_NOSIGNAL);
    if (written < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        blocked = true;
        break;
      }
      if (notify_failure) {
        fail();
      } else {
        finish(false);
      }
      return kFailed;
    }
    evbuffer_drain(wire_, static_cast<size_t>(written));
    resumeReadingIfDrained();
    if (static_cast<size_t>(written) < requested) {
      blocked = true;
      break;
    }
  }
  if (blocked) {
    // With a send timeout, every call that got here made progress (or is
    // the first to wait), so the clock starts again.
    const bool timed = send_timeout_ > Duration();
    if ((!write_waiting_ || timed) && state_ != kClosed && writeEvent() != nullptr) {
      const int64_t us = send_timeout_.toMicroseconds();
      timeval timeout = {static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
      event_add(write_event_, timed ? &timeout : nullptr);
      write_waiting_ = true;
    }
    return kBlocked;
  }
  if (write_waiting_) {
    event_del(write_event_);
    write_waiting_ = false;
  }
  return kFlushed;
}

void TcpSocket::shutdownOutput() {
  ::shutdown(fd_, SHUT_WR);
  notifyClosed();
  if (input_ended_) {
    finish(true);
    return;
  }
  // Closing now, with input still unread, would make the kernel send a reset
  // that can destroy the last response before the peer reads it. Drain the
  // input until the peer closes too, or the timeout.
  state_ = kLingering;
  reading_paused_ = false;
  timeval timeout = {kLingerSeconds, 0};
  event_add(read_event_, &timeout);
}

void TcpSocket::fail() {
  if (connect_ != nullptr && connect_->on_connected) {
    // A client whose TLS handshake failed: the connection never came up.
    std::function<void(bool)> on_connected = std::move(connect_->on_connected);
    connect_.reset();
    on_connected(false);
    finish(true);
    return;
  }
  if (state_ == kOpen) {
    source_.notifyOutputEnd();
    notifyClosed();
  }
  finish(true);
}

void TcpSocket::notifyClosed() {
  if (closed_notified_) return;
  closed_notified_ = true;
  source_.notifyClosed();
}

void TcpSocket::finish(bool notify_close) {
  if (state_ == kClosed) return;
  const bool started = state_ != kNew;
  state_ = kClosed;
  if (read_event_ != nullptr) event_free(read_event_);
  if (write_event_ != nullptr) event_free(write_event_);
  read_event_ = nullptr;
  write_event_ = nullptr;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  tls_.reset();
  handshaking_ = false;
  if (wire_ != output_ && wire_ != nullptr) wirePool().giveBack(wire_);
  wire_ = nullptr;
  if (output_ != nullptr && output_ != idle_output.load(std::memory_order_relaxed)) {
    evbuffer_free(output_);
  }
  output_ = nullptr;
  // Process exit and the destructor end connections that were never told;
  // a handler hears of the end once, whether or not the socket started.
  notifyClosed();
  if (started) {
    if (live_prev_ != nullptr) live_prev_->live_next_ = live_next_;
    if (live_next_ != nullptr) live_next_->live_prev_ = live_prev_;
    if (live_head == this) live_head = live_next_;
    live_prev_ = live_next_ = nullptr;
  }
  // From here on the handler's sends are no-ops and it hears nothing more.
  source_.unlink();
  sink_.unlink();
  std::shared_ptr<CloseListener> on_close = std::move(on_close_);
  if (notify_close && started && on_close) on_close->connectionClosed();
  peer_.reset();
  // Last: it may be the final reference, whose deleter queues our deletion.
  self_.reset();
}

struct event* TcpSocket::writeEvent() {
  struct event_base* base = eventThreadBase();
  if (write_event_ == nullptr && fd_ >= 0 && base != nullptr) {
    write_event_ = event_new(base, fd_, EV_WRITE | EV_PERSIST, &TcpSocket::onWritable, this);
  }
  return write_event_;
}

void TcpSocket::activateWrite() {
  if (state_ != kOpen || write_activated_) return;
  write_activated_ = true;
  // Runs handleWrite later in this loop turn: the sends made meanwhile leave
  // together, and no epoll change is needed.
  if (flush_event == nullptr) {
    flush_queue = new std::vector<std::weak_ptr<TcpSocket>>;
    flush_event = event_new(eventThreadBase(), -1, 0, &TcpSocket::runFlushes, nullptr);
  }
  if (flush_queue->empty()) event_active(flush_event, EV_WRITE, 0);
  flush_queue->push_back(weak_from_this());
}

void TcpSocket::runFlushes(int, short, void*) {
  // Swapped out first: flushing may queue sockets for the next turn.
  static std::vector<std::weak_ptr<TcpSocket>>* running = new std::vector<std::weak_ptr<TcpSocket>>;
  running->swap(*flush_queue);
  for (const std::weak_ptr<TcpSocket>& weak : *running) {
    // A socket whose last owner let go waits for its deletion: nobody wants
    // it flushed.
    if (std::shared_ptr<TcpSocket> socket = weak.lock()) socket->handleWrite();
  }
  running->clear();
}

void TcpSocket::writeBytes(const char* data, size_t size) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  if (state_ == kLingering || state_ == kClosed || output_closing_ || aborting_ || size == 0) {
    return;
  }
  evbuffer_add(output_, data, size);
  outputAdded();
}

void TcpSocket::writeOwned(std::unique_ptr<char_stream::OwnedBytes> bytes) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  if (state_ == kLingering || state_ == kClosed || output_closing_ || aborting_ ||
      bytes->size() == 0) {
    return;
  }
  // The buffer is sent where it lies and freed by libevent once drained (or
  // when the output is dropped), on this thread.
  const char* data = bytes->data();
  const size_t size = bytes->size();
  auto release = [](const void*, size_t, void* owned) {
    delete static_cast<char_stream::OwnedBytes*>(owned);
  };
  char_stream::OwnedBytes* owned = bytes.release();
  if (evbuffer_add_reference(output_, data, size, release, owned) != 0) {
    evbuffer_add(output_, data, size);
    delete owned;
  }
  outputAdded();
}

void TcpSocket::outputAdded() {
  if (output_ == idle_output.load(std::memory_order_relaxed)) {
    // A TLS socket's write, in the shared buffer: into one of its own.
    struct evbuffer* own = wirePool().take();
    evbuffer_add_buffer(own, output_);
    output_ = own;
  }
  // Answers completed on other threads count against the bound too.
  if (pendingOutput() > kOutputHighWater) pauseReading();
  if (!in_read_callback_) activateWrite();
}

void TcpSocket::endOfStream() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  if (state_ == kLingering || state_ == kClosed || output_closing_ || aborting_) return;
  output_closing_ = true;
  if (!in_read_callback_) activateWrite();
}

void TcpSocket::abortStream() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  // A lingering connection has already delivered everything; it ends by itself.
  if (state_ == kClosed || state_ == kLingering || aborting_) return;
  aborting_ = true;
  if (output_ != nullptr) evbuffer_drain(output_, evbuffer_get_length(output_));
  if (wire_ != nullptr) evbuffer_drain(wire_, evbuffer_get_length(wire_));
  if (state_ == kNew) return;  // start() finds it aborting
  if (state_ == kConnecting) {
    // Ends where the outcome would have been reported, in a later turn.
    event_active(writeEvent(), EV_WRITE, 0);
    return;
  }
  // Closed from handleWrite, never inside the caller's frame: the handler
  // that asked may be the socket's last reference to itself.
  activateWrite();
}

void TcpSocket::closeAllOpen() {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_socket");
  while (live_head != nullptr) live_head->finish(false);
}

}  // namespace relay
}  // namespace vantu
