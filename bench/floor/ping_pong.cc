#include "bench/floor/ping_pong.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>

namespace bench_floor {
namespace {

std::string systemError(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in sin = {};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(port);
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return sin;
}

void noDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

// A blocking connection to 127.0.0.1:port, or -1 with *error set.
int connectTo(uint16_t port, std::string* error) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = systemError("socket");
    return -1;
  }
  sockaddr_in sin = loopback(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0) {
    *error = systemError("connect");
    close(fd);
    return -1;
  }
  noDelay(fd);
  return fd;
}

// Reads exactly `size` bytes; false at end of stream or on an error.
bool readFully(int fd, char* data, size_t size) {
  while (size > 0) {
    ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool writeFully(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Fills a message: a recognisable pattern with the sequence number in front,
// so that an echo of an earlier message shows as wrong.
void stamp(char* message, uint64_t sequence) {
  for (size_t i = 0; i < kMessageSize; ++i) message[i] = static_cast<char>('a' + i % 26);
  std::memcpy(message, &sequence, sizeof(sequence));
}

}  // namespace

// ---------------------------------------------------------------------------

PingPongServer::~PingPongServer() {
  if (listener_ >= 0) {
    ::shutdown(listener_, SHUT_RDWR);  // wakes accept()
    if (acceptor_.joinable()) acceptor_.join();
    close(listener_);
  }
  std::vector<std::thread> echoers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);  // wakes recv()
    echoers.swap(echoers_);
  }
  for (std::thread& echoer : echoers) echoer.join();
  for (int fd : connections_) close(fd);
}

bool PingPongServer::start() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) {
    std::fprintf(stderr, "ping-pong server: %s\n", systemError("socket").c_str());
    return false;
  }
  sockaddr_in sin = loopback(0);
  socklen_t length = sizeof(sin);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0 ||
      listen(listener_, 16) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&sin), &length) != 0) {
    std::fprintf(stderr, "ping-pong server: %s\n", systemError("listen").c_str());
    return false;
  }
  port_ = ntohs(sin.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void PingPongServer::acceptLoop() {
  while (true) {
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;  // shut down
    }
    noDelay(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(fd);
    echoers_.emplace_back(stream_ ? streamEchoLoop : echoLoop, fd);
  }
}

void PingPongServer::echoLoop(int fd) {
  char message[kMessageSize];
  while (readFully(fd, message, sizeof(message)) && writeFully(fd, message, sizeof(message))) {
  }
  // The socket is closed by the destructor, so that a number is never reused
  // while the list still holds it.
  ::shutdown(fd, SHUT_RDWR);
}

void PingPongServer::streamEchoLoop(int fd) {
  std::vector<char> buffer(size_t{256} * 1024);
  while (true) {
    ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || !writeFully(fd, buffer.data(), static_cast<size_t>(n))) break;
  }
  ::shutdown(fd, SHUT_RDWR);
}

// ---------------------------------------------------------------------------

BlockingPingPongClient::~BlockingPingPongClient() {
  if (fd_ >= 0) close(fd_);
}

bool BlockingPingPongClient::connect(uint16_t port) {
  fd_ = connectTo(port, &error_);
  return fd_ >= 0;
}

bool BlockingPingPongClient::roundTrip() {
  stamp(out_, ++sequence_);
  if (!writeFully(fd_, out_, sizeof(out_)) || !readFully(fd_, in_, sizeof(in_))) {
    error_ = "connection failed or closed";
    return false;
  }
  if (std::memcmp(in_, out_, sizeof(out_)) != 0) {
    error_ = "the echo differs from the message";
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------

EventThreadPingPongClient::~EventThreadPingPongClient() {
  if (thread_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    uint64_t one = 1;
    if (write(wake_, &one, sizeof(one)) != sizeof(one)) std::perror("eventfd write");
    thread_.join();
  }
  for (int fd : {fd_, wake_, epoll_}) {
    if (fd >= 0) close(fd);
  }
}

bool EventThreadPingPongClient::connect(uint16_t port) {
  std::string error;
  fd_ = connectTo(port, &error);
  wake_ = eventfd(0, EFD_CLOEXEC);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (fd_ < 0 || wake_ < 0 || epoll_ < 0) {
    error_ = fd_ < 0 ? error : systemError("eventfd or epoll");
    return false;
  }
  for (int fd : {fd_, wake_}) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
      error_ = systemError("epoll_ctl");
      return false;
    }
  }
  thread_ = std::thread([this] { eventLoop(); });
  return true;
}

bool EventThreadPingPongClient::roundTrip() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!error_.empty()) return false;  // the connection is gone already
    stamp(out_, ++sequence_);
    waiting_ = true;
  }
  uint64_t one = 1;
  if (write(wake_, &one, sizeof(one)) != sizeof(one)) {
    std::lock_guard<std::mutex> lock(mutex_);
    error_ = systemError("eventfd write");
    waiting_ = false;
    return false;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  answered_.wait(lock, [this] { return !waiting_; });
  return ok_;
}

std::string EventThreadPingPongClient::error() {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

void EventThreadPingPongClient::eventLoop() {
  epoll_event events[2];
  while (true) {
    int n = epoll_wait(epoll_, events, 2, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      answer(false, systemError("epoll_wait"));
      return;
    }
    for (int i = 0; i < n; ++i) {
      if (events[i].data.fd == wake_) {
        uint64_t count;
        if (read(wake_, &count, sizeof(count)) != sizeof(count)) continue;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (stopping_) return;
        }
        writeRequest();
      } else {
        readReply();
      }
    }
  }
}

void EventThreadPingPongClient::writeRequest() {
  // out_ stays as the caller left it until the round trip is answered; the
  // lock taken above orders its writes before this read.
  ssize_t n = send(fd_, out_, sizeof(out_), MSG_NOSIGNAL | MSG_DONTWAIT);
  // An empty socket buffer always takes one message whole.
  if (n != static_cast<ssize_t>(sizeof(out_))) answer(false, "the message did not go out whole");
}

void EventThreadPingPongClient::readReply() {
  ssize_t n = recv(fd_, in_ + received_, sizeof(in_) - received_, MSG_DONTWAIT);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd_, nullptr);  // would report the end forever
    answer(false, "connection failed or closed");
    return;
  }
  received_ += static_cast<size_t>(n);
  if (received_ < sizeof(in_)) return;
  received_ = 0;
  answer(true, "");
}

void EventThreadPingPongClient::answer(bool ok, const std::string& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  ok_ = ok && std::memcmp(in_, out_, sizeof(out_)) == 0;
  if (ok && !ok_) error_ = "the echo differs from the message";
  if (!ok) error_ = error;
  waiting_ = false;
  answered_.notify_one();
}

// ---------------------------------------------------------------------------

StreamEchoClient::~StreamEchoClient() {
  if (fd_ >= 0) close(fd_);
}

bool StreamEchoClient::connect(uint16_t port) {
  fd_ = connectTo(port, &error_);
  if (fd_ < 0) return false;
  int flags = fcntl(fd_, F_GETFL);
  if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != 0) {
    error_ = systemError("fcntl");
    return false;
  }
  return true;
}

bool StreamEchoClient::run(size_t message_size, int in_flight, std::chrono::milliseconds stall,
                           const Answered& answered) {
  std::vector<char> out(message_size);
  for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>(i * 131 + 7);
  std::vector<char> in(size_t{1024} * 1024);
  std::deque<Clock::time_point> issued;  // of the messages not answered yet
  size_t sent_of_current = 0;            // bytes of the message being written
  uint64_t received_of_oldest = 0;       // bytes of the oldest unanswered one
  bool issuing = true;
  while (true) {
    const bool writing =
        sent_of_current > 0 || (issuing && issued.size() < static_cast<size_t>(in_flight));
    if (!writing && issued.empty()) return true;
    pollfd ready = {fd_, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
    const int events = poll(&ready, 1, static_cast<int>(stall.count()));
    if (events < 0 && errno == EINTR) continue;
    if (events <= 0) {
      error_ = events == 0 ? "nothing moved (stall)" : systemError("poll");
      return false;
    }
    if (ready.revents & POLLOUT) {
      if (sent_of_current == 0) issued.push_back(Clock::now());
      ssize_t n =
          send(fd_, out.data() + sent_of_current, out.size() - sent_of_current, MSG_NOSIGNAL);
      if (n < 0 && errno != EAGAIN && errno != EINTR) {
        error_ = systemError("send");
        return false;
      }
      if (n > 0) sent_of_current += static_cast<size_t>(n);
      if (sent_of_current == out.size()) sent_of_current = 0;
    }
    if (ready.revents & (POLLIN | POLLHUP | POLLERR)) {
      ssize_t n = recv(fd_, in.data(), in.size(), 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        error_ = n == 0 ? "the server closed the connection" : systemError("recv");
        return false;
      }
      if (n > 0) received_of_oldest += static_cast<uint64_t>(n);
      while (received_of_oldest >= message_size && !issued.empty()) {
        received_of_oldest -= message_size;
        const Clock::time_point when = issued.front();
        issued.pop_front();
        if (!answered(when)) issuing = false;
      }
    }
  }
}

}  // namespace bench_floor
