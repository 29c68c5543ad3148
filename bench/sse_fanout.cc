// Many Server-Sent Events streams on one event thread: what a stream costs in
// memory beyond an idle keep-alive connection, and how long one event takes
// to reach every client.
//
// The server runs in this process, the clients in a child process (each
// process may hold only so many sockets). The clients first make one plain
// GET each and keep the connections open (idle), then ask each connection for
// /events and read its first event (streaming); the server's resident memory
// is taken at both points, after giving freed memory back to the system. Then
// the server writes one event to every stream, and the clients report when
// the last of them has it.
//
// Usage: sse_fanout [CLIENTS]   (default 10000)
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/logging.h"
#include "relay/http_server.h"
#include "relay/server_sent_events.h"

namespace {

using vantu::relay::HttpStreamPtr;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

size_t residentBytes() {
  long pages = 0, resident = 0;
  FILE* file = fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0;
  if (fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
  fclose(file);
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

void writeAll(int fd, const void* data, size_t size) {
  if (write(fd, data, size) != static_cast<ssize_t>(size)) std::exit(3);
}

template <class T>
T readOne(int fd) {
  T value{};
  if (read(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) std::exit(3);
  return value;
}

// Reads from every connection until each has received `marker` (counted
// once per connection); the bytes before are dropped.
void readEach(int epoll, std::vector<int>& fds, const char* marker) {
  std::vector<std::string> got(fds.size());
  std::vector<bool> done(fds.size(), false);
  size_t left = fds.size();
  epoll_event events[256];
  char buffer[4096];
  while (left > 0) {
    const int n = epoll_wait(epoll, events, 256, 30000);
    if (n <= 0) {
      std::fprintf(stderr, "sse_fanout: %zu clients still wait for %s\n", left, marker);
      std::exit(4);
    }
    for (int i = 0; i < n; ++i) {
      const size_t index = events[i].data.u32;
      ssize_t r;
      while ((r = recv(fds[index], buffer, sizeof(buffer), MSG_DONTWAIT)) > 0) {
        got[index].append(buffer, static_cast<size_t>(r));
      }
      if (!done[index] && got[index].find(marker) != std::string::npos) {
        done[index] = true;
        got[index].clear();
        --left;
      }
    }
  }
}

// The child: `clients` connections to `port`, driven by the parent through
// the pipes.
int runClients(int clients, int to_parent, int from_parent) {
  const uint16_t port = readOne<uint16_t>(from_parent);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int epoll = epoll_create1(0);
  std::vector<int> fds;
  const std::string hello = "GET /hello HTTP/1.1\r\nHost: bench\r\n\r\n";
  for (int i = 0; i < clients; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      std::fprintf(stderr, "sse_fanout: client %d cannot connect: %s\n", i, strerror(errno));
      return 5;
    }
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u32 = static_cast<uint32_t>(fds.size());
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    fds.push_back(fd);
    if (send(fd, hello.data(), hello.size(), 0) != static_cast<ssize_t>(hello.size())) return 5;
  }
  readEach(epoll, fds, "Hello");
  writeAll(to_parent, "i", 1);  // idle
  readOne<char>(from_parent);
  const std::string events = "GET /events HTTP/1.1\r\nHost: bench\r\n\r\n";
  for (int fd : fds) {
    if (send(fd, events.data(), events.size(), 0) != static_cast<ssize_t>(events.size())) return 5;
  }
  readEach(epoll, fds, "data: hello\n\n");
  writeAll(to_parent, "s", 1);  // streaming
  readEach(epoll, fds, "data: tick\n\n");
  const int64_t last = nowNs();
  writeAll(to_parent, &last, sizeof(last));
  for (int fd : fds) close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int clients = argc > 1 ? std::atoi(argv[1]) : 10000;
  int up[2], down[2];
  if (pipe(up) != 0 || pipe(down) != 0) return 1;
  // Before the event thread exists: the child is a plain single thread.
  const pid_t child = fork();
  if (child == 0) {
    close(up[0]);
    close(down[1]);
    _exit(runClients(clients, up[1], down[0]));
  }
  close(up[1]);
  close(down[0]);
  vantu::setLogSink([](const vantu::LogRecord&) {});

  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 4096);
  if (!server) return 1;
  server->registerHandler("/hello", [](const vantu::relay::HttpRequestPtr&,
                                       const vantu::relay::HttpResponsePtr& response) {
    static const std::string kText = "Hello, world!\n";
    response->content.assign(kText.begin(), kText.end());
  });
  // Event thread only.
  auto streams = std::make_shared<std::vector<HttpStreamPtr>>();
  streams->reserve(static_cast<size_t>(clients));
  server->registerStreamHandler(
      "/events", [streams](const vantu::relay::HttpRequestPtr&, const HttpStreamPtr& stream) {
        vantu::relay::ServerSentEvents events(stream);
        events.start();
        events.send("hello");
        streams->push_back(stream);
      });
  const uint16_t port = server->localAddress().port();
  writeAll(down[1], &port, sizeof(port));

  auto settle = [] {
    vantu::runOnEventThreadAndWait([] { malloc_trim(0); });
    malloc_trim(0);
    return residentBytes();
  };
  readOne<char>(up[0]);
  const size_t idle = settle();
  writeAll(down[1], "g", 1);
  readOne<char>(up[0]);
  const size_t streaming = settle();

  int64_t started = 0, written = 0;
  vantu::runOnEventThreadAndWait([&] {
    const std::string event = vantu::relay::formatServerSentEvent("tick");
    started = nowNs();
    for (const HttpStreamPtr& stream : *streams) stream->write(event);
    written = nowNs();
  });
  const int64_t last = readOne<int64_t>(up[0]);
  int status = 0;
  waitpid(child, &status, 0);

  const double per_stream = (static_cast<double>(streaming) - static_cast<double>(idle)) / clients;
  std::printf("\n== Server-Sent Events: %d streams on one event thread\n", clients);
  std::printf("%-44s %10.1f MiB\n", "server memory, idle keep-alive connections", idle / 1048576.0);
  std::printf("%-44s %10.1f MiB\n", "server memory, the same connections streaming",
              streaming / 1048576.0);
  std::printf("%-44s %10.0f bytes (target < 4096)\n", "per stream beyond an idle connection",
              per_stream);
  std::printf("%-44s %10.1f ms\n", "one event written to every stream", (written - started) / 1e6);
  std::printf("%-44s %10.1f ms\n", "one event received by every client", (last - started) / 1e6);
  server.reset();
  vantu::waitForDeferredWork();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
