// The floor of the HTTP load benchmark: the least a server can do per request
// and still satisfy wrk. It parses nothing. It counts request ends ("\r\n\r\n")
// in the byte stream and answers each one with the same fixed bytes, read from
// a file at start-up (bench/http_load.sh captures them from the demo server, so
// that both send exactly the same answer). One thread, level-triggered epoll,
// one read and one write per batch of pipelined requests.
//
// Whatever this server costs per request is what the kernel and the loopback
// cost; the distance from it to a real server is the real server's own work.
//
//   floor_server --port N --answer FILE [--address IPv4]
//
// Runs until killed.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unordered_map>

namespace {

// Up to this many answers go out of one prebuilt block; more are written as
// several blocks.
constexpr size_t kBlockAnswers = 64;
constexpr size_t kReadSize = 64 * 1024;

struct Connection {
  // How many bytes of "\r\n\r\n" the stream ended with so far (0 to 3).
  int matched = 0;
  // Answers that the socket did not take yet. While there are any, the
  // connection is not read: a client that does not read gets no more answers.
  std::string unsent;
};

// Counts the request ends in [data, data + size), carrying a partial match
// across calls in *matched.
size_t countRequestEnds(const char* data, size_t size, int* matched) {
  static const char kEnd[] = "\r\n\r\n";
  const char* p = data;
  const char* const end = data + size;
  size_t ends = 0;
  int m = *matched;
  while (p < end) {
    if (m == 0) {
      p = static_cast<const char*>(std::memchr(p, '\r', end - p));
      if (p == nullptr) break;
      m = 1;
      ++p;
      continue;
    }
    const char c = *p++;
    if (c == kEnd[m]) {
      if (++m == 4) {
        ++ends;
        m = 0;
      }
    } else {
      m = c == '\r' ? 1 : 0;
    }
  }
  *matched = m;
  return ends;
}

class FloorServer {
 public:
  explicit FloorServer(const std::string& answer) {
    for (size_t i = 0; i < kBlockAnswers; ++i) block_ += answer;
    answer_size_ = answer.size();
  }
  FloorServer(const FloorServer&) = delete;
  FloorServer& operator=(const FloorServer&) = delete;

  bool listen(const std::string& address, int port) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener_ < 0) return fail("socket");
    int one = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &sin.sin_addr) != 1) {
      std::fprintf(stderr, "floor_server: not an IPv4 address: %s\n", address.c_str());
      return false;
    }
    if (bind(listener_, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0) return fail("bind");
    if (::listen(listener_, 1024) != 0) return fail("listen");
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) return fail("epoll_create1");
    return watch(listener_, EPOLLIN, EPOLL_CTL_ADD);
  }

  void run() {
    epoll_event events[256];
    while (true) {
      int n = epoll_wait(epoll_, events, 256, -1);
      if (n < 0) {
        if (errno == EINTR) continue;
        fail("epoll_wait");
        return;
      }
      for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == listener_) {
          acceptAll();
        } else if (events[i].events & EPOLLOUT) {
          flush(fd);
        } else {
          readFrom(fd);
        }
      }
    }
  }

 private:
  static bool fail(const char* what) {
    std::fprintf(stderr, "floor_server: %s: %s\n", what, std::strerror(errno));
    return false;
  }

  bool watch(int fd, uint32_t events, int op) {
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epoll_, op, fd, &event) == 0 || fail("epoll_ctl");
  }

  void acceptAll() {
    while (true) {
      int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) fail("accept4");
        if (errno == EINTR) continue;
        return;
      }
      // As the demo's and nginx's sockets: answers go out without delay.
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      connections_[fd];
      if (!watch(fd, EPOLLIN, EPOLL_CTL_ADD)) close(fd);
    }
  }

  void drop(int fd) {
    connections_.erase(fd);
    close(fd);  // also takes it out of the epoll set
  }

  void readFrom(int fd) {
    auto found = connections_.find(fd);
    if (found == connections_.end()) return;
    Connection& connection = found->second;
    char buffer[kReadSize];
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
    if (n <= 0) {
      drop(fd);
      return;
    }
    size_t answers = countRequestEnds(buffer, static_cast<size_t>(n), &connection.matched);
    while (answers > 0) {
      const size_t batch = answers < kBlockAnswers ? answers : kBlockAnswers;
      answers -= batch;
      const size_t size = batch * answer_size_;
      ssize_t sent = send(fd, block_.data(), size, MSG_NOSIGNAL);
      if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        drop(fd);
        return;
      }
      if (sent < 0) sent = 0;
      if (static_cast<size_t>(sent) < size) {
        // The socket is full: keep the rest and wait until it can take more.
        connection.unsent.append(block_.data() + sent, size - sent);
        for (; answers > 0; --answers) connection.unsent.append(block_.data(), answer_size_);
        watch(fd, EPOLLOUT, EPOLL_CTL_MOD);
        return;
      }
    }
  }

  void flush(int fd) {
    auto found = connections_.find(fd);
    if (found == connections_.end()) return;
    std::string& unsent = found->second.unsent;
    ssize_t sent = send(fd, unsent.data(), unsent.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) drop(fd);
      return;
    }
    unsent.erase(0, static_cast<size_t>(sent));
    if (unsent.empty()) watch(fd, EPOLLIN, EPOLL_CTL_MOD);
  }

  std::string block_;  // kBlockAnswers answers back to back
  size_t answer_size_ = 0;
  int listener_ = -1;
  int epoll_ = -1;
  std::unordered_map<int, Connection> connections_;
};

int usage() {
  std::fprintf(stderr, "usage: floor_server --port N --answer FILE [--address IPv4]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string address = "127.0.0.1";
  std::string answer_file;
  int port = -1;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--port") {
      port = std::atoi(argv[i + 1]);
    } else if (flag == "--answer") {
      answer_file = argv[i + 1];
    } else if (flag == "--address") {
      address = argv[i + 1];
    } else {
      return usage();
    }
  }
  if (argc % 2 == 0 || port < 0 || port > 65535 || answer_file.empty()) return usage();

  std::ifstream file(answer_file, std::ios::binary);
  const std::string answer((std::istreambuf_iterator<char>(file)),
                           std::istreambuf_iterator<char>());
  if (!file.good() && !file.eof()) {
    std::fprintf(stderr, "floor_server: cannot read %s\n", answer_file.c_str());
    return 1;
  }
  if (answer.empty()) {
    std::fprintf(stderr, "floor_server: %s is empty: nothing to answer with\n",
                 answer_file.c_str());
    return 1;
  }

  FloorServer server(answer);
  if (!server.listen(address, port)) return 1;
  server.run();
  return 1;
}
