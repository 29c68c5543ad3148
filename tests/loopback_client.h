#ifndef TESTS_LOOPBACK_CLIENT_H_
#define TESTS_LOOPBACK_CLIENT_H_

// A plain blocking TCP client for end-to-end tests over loopback. Every read has
// a generous receive time-out so that a server that never answers fails the
// test instead of hanging it; the time-out is a guard, not an assertion.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "common/socket_address.h"

namespace vantu {
namespace testing {

class LoopbackClient {
 public:
  explicit LoopbackClient(uint16_t port) : LoopbackClient(SocketAddress("127.0.0.1", port)) {}
  // `receive_buffer`, when not 0, caps the kernel's receive buffer (and so the
  // window the server may fill) before connecting.
  explicit LoopbackClient(const SocketAddress& address, int receive_buffer = 0) {
    fd_ = socket(address.sockaddr()->sa_family, SOCK_STREAM, 0);
    timeval guard{30, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
    if (receive_buffer > 0) {
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    }
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    int result;
    do {
      result = connect(fd_, address.sockaddr(), address.length());
    } while (result != 0 && errno == EINTR);
    connected_ = result == 0;
    last_error_ = connected_ ? 0 : errno;
  }
  ~LoopbackClient() { close(); }
  LoopbackClient(const LoopbackClient&) = delete;
  LoopbackClient& operator=(const LoopbackClient&) = delete;

  bool connected() const { return connected_; }
  int fd() const { return fd_; }

  bool write(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      sent += n;
    }
    return true;
  }

  // Reads until exactly `size` bytes have arrived (fewer if the connection
  // ends or the guard expires first).
  std::string read(size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      char buffer[65536];
      ssize_t n = ::recv(fd_, buffer, std::min(sizeof(buffer), size - bytes.size()), 0);
      if (n < 0 && errno == EINTR) continue;  // a signal, e.g. a fuzzer's timer
      if (n <= 0) break;
      bytes.append(buffer, n);
    }
    return bytes;
  }

  // Reads until `marker` has arrived, byte by byte so as to stop right after
  // it (or until the connection ends or the guard expires): all it read.
  std::string readUntil(const std::string& marker) {
    std::string bytes;
    while (bytes.find(marker) == std::string::npos) {
      const std::string piece = read(1);
      if (piece.empty()) break;
      bytes += piece;
    }
    return bytes;
  }

  // Reads until the peer closes (or the guard expires: then peerClosed() is
  // false).
  std::string readToEnd() {
    std::string bytes;
    char buffer[65536];
    ssize_t n;
    while ((n = ::recv(fd_, buffer, sizeof(buffer), 0)) > 0 || (n < 0 && errno == EINTR)) {
      if (n > 0) bytes.append(buffer, n);
    }
    peer_closed_ = n == 0;
    last_error_ = n < 0 ? errno : 0;
    return bytes;
  }
  bool peerClosed() const { return peer_closed_; }
  // The errno of a failed connect, or of the read that ended readToEnd; 0
  // when it connected, or when the peer closed.
  int lastError() const { return last_error_; }

  // Waits up to `timeout_ms` for bytes, or the end, to read; true when they
  // are there.
  bool waitReadable(int timeout_ms) {
    pollfd p = {fd_, POLLIN, 0};
    int n;
    do {
      n = ::poll(&p, 1, timeout_ms);
    } while (n < 0 && errno == EINTR);
    return n > 0;
  }

  void shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  // Closes with a reset instead of an orderly end.
  void abort() {
    linger option{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
    close();
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  bool peer_closed_ = false;
  int last_error_ = 0;
};

// A port on loopback that is bound and, unless `listening`, refuses every
// connection; it stays taken until this goes. Used from one thread.
class BoundPort {
 public:
  explicit BoundPort(bool listening = false) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    if (listening) listen(fd_, 0);
    socklen_t length = sizeof(address);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    address_ = SocketAddress("127.0.0.1", ntohs(address.sin_port));
  }
  ~BoundPort() { ::close(fd_); }
  BoundPort(const BoundPort&) = delete;
  BoundPort& operator=(const BoundPort&) = delete;

  const SocketAddress& address() const { return address_; }
  uint16_t port() const { return address_.port(); }

 private:
  int fd_;
  SocketAddress address_;
};

// A listener on loopback whose accept queue is full: connecting to it neither
// succeeds nor fails until the client gives up (the kernel drops the SYNs).
// Used from one thread.
class FullAcceptQueue {
 public:
  FullAcceptQueue() : filler_(listener_.address()) {}

  const SocketAddress& address() const { return listener_.address(); }

 private:
  BoundPort listener_{true};
  LoopbackClient filler_;  // the one connection the queue holds
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_LOOPBACK_CLIENT_H_
