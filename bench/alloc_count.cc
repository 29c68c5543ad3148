// Allocations per request, counted rather than timed: the measure that work on
// the per-request cost starts from, steady enough to compare across runs on a
// busy machine.
//
// This executable replaces malloc and its kin (below) with versions that count
// every call and the bytes asked for, then hand over to glibc's allocator.
// Every allocation in the process goes through them: the library's, protobuf's,
// libevent's, and every operator new, which the C++ runtime builds on malloc.
//
// What is counted, each in steady state (after warm-up rounds, so that buffers
// that grow once and are reused are not counted):
//   - parsing the parser benchmark's inputs with HttpRequestParser, whole and
//     in 1460-byte chunks;
//   - GET /hello served by an HttpServer over loopback, 16 pipelined in one
//     write (as the HTTP load benchmark sends them) and one at a time: parse,
//     dispatch, the handler, the response and its send;
//   - one RPC echo round trip, on the server side and on the client side.
// The server runs in a child process and the client in this one, so that each
// side's count is its own process's. The clients of the HTTP cases are plain
// sockets.
//
// Usage: alloc_count [--rounds N]   (N measured iterations; default 2000)
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "common/event_thread.h"
#include "common/socket_address.h"
#include "examples/demo_service.h"
#include "relay/http_request_parser.h"
#include "relay/http_server.h"
#include "relay/rpc.h"

// ---------------------------------------------------------------------------
// The counting allocator.

namespace {

std::atomic<uint64_t> g_allocations{0};
std::atomic<uint64_t> g_bytes{0};

inline void count(size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  g_bytes.fetch_add(bytes, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

// glibc's own entry points, which its malloc and friends are aliases of.
void* __libc_malloc(size_t size);
void __libc_free(void* pointer);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) noexcept {
  count(size);
  return __libc_malloc(size);
}

void free(void* pointer) noexcept { __libc_free(pointer); }

void* calloc(size_t n, size_t size) noexcept {
  count(n * size);
  return __libc_calloc(n, size);
}

void* realloc(void* pointer, size_t size) noexcept {
  if (size > 0) count(size);  // a resize may move the block: counted as a new one
  return __libc_realloc(pointer, size);
}

void* memalign(size_t alignment, size_t size) noexcept {
  count(size);
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
  count(size);
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  count(size);
  void* pointer = __libc_memalign(alignment, size);
  if (pointer == nullptr) return ENOMEM;
  *out = pointer;
  return 0;
}

}  // extern "C"

namespace {

// Differences may come out negative when a settle cost taken out was larger
// than usual, hence signed.
struct Counts {
  int64_t allocations = 0;
  int64_t bytes = 0;

  static Counts now() {
    return {static_cast<int64_t>(g_allocations.load(std::memory_order_relaxed)),
            static_cast<int64_t>(g_bytes.load(std::memory_order_relaxed))};
  }
  Counts operator-(const Counts& other) const {
    return {allocations - other.allocations, bytes - other.bytes};
  }
};

// Fails loudly when the replacements above are not the ones in use (a linker
// that did not export them, a sanitizer's allocator in front): every count
// would be zero, which looks like the best possible result.
bool countingWorks() {
  const Counts before = Counts::now();
  // Through operator new in the C++ runtime, and through a libc function.
  auto buffer = std::make_unique<char[]>(100);
  char* copy = strdup("counted");
  const Counts used = Counts::now() - before;
  free(copy);
  buffer[0] = 0;
  return used.allocations >= 2;
}

[[noreturn]] void die(const std::string& text) {
  std::fprintf(stderr, "alloc_count: %s\n", text.c_str());
  std::exit(1);
}

// Counts what waitForDeferredWork itself allocates, so that it can be taken out
// of a measurement that uses it to let the event thread finish.
Counts settleCost() {
  vantu::waitForDeferredWork();
  const Counts before = Counts::now();
  vantu::waitForDeferredWork();
  return Counts::now() - before;
}

// A measurement bracketed by two settled points of the event thread.
class Window {
 public:
  Window() : cost_(settleCost()), start_(Counts::now()) {}
  Counts end() const {
    vantu::waitForDeferredWork();
    return Counts::now() - start_ - cost_;
  }

 private:
  const Counts cost_;
  const Counts start_;
};

struct Row {
  std::string what;
  Counts counts;
  uint64_t requests = 0;
};

void printRows(const std::vector<Row>& rows) {
  std::printf("%-56s %11s %11s %9s\n", "what (steady state)", "allocs/req", "bytes/req",
              "requests");
  for (const Row& row : rows) {
    const double n = static_cast<double>(row.requests);
    std::printf("%-56s %11.2f %11.1f %9llu\n", row.what.c_str(), row.counts.allocations / n,
                row.counts.bytes / n, static_cast<unsigned long long>(row.requests));
  }
}

// ---------------------------------------------------------------------------
// (a) The parser on the corpus.

std::vector<Row> countParsing(int rounds) {
  std::vector<Row> rows;
  for (int which = 0; which < bench::kCorpusInputs; ++which) {
    const bench::CorpusInput input = bench::corpusInput(which);
    if (input.bytes.empty()) die(std::string("no bytes for the input ") + input.name);
    for (size_t chunk : {size_t{0}, size_t{1460}}) {
      const std::vector<std::string> chunks = bench::chunked(input.bytes, chunk);
      vantu::relay::HttpRequestParser parser;
      std::vector<vantu::relay::HttpRequestPtr> requests;
      requests.reserve(input.requests);
      auto once = [&] {
        for (const std::string& piece : chunks) {
          if (!parser.parse(piece, &requests)) die(std::string("parse failed: ") + input.name);
        }
        if (requests.size() != static_cast<size_t>(input.requests)) {
          die(std::string("wrong request count: ") + input.name);
        }
        requests.clear();
      };
      for (int i = 0; i < 20; ++i) once();
      const Counts before = Counts::now();
      for (int i = 0; i < rounds; ++i) once();
      rows.push_back(
          {std::string("parse ") + input.name + (chunk == 0 ? " (whole)" : " (1460-byte chunks)"),
           Counts::now() - before, static_cast<uint64_t>(rounds) * input.requests});
    }
  }
  return rows;
}

// ---------------------------------------------------------------------------
// The server child: an HttpServer with the demo's /hello and demo.EchoService.
// It takes one-byte commands on one pipe and answers on another:
//   'b'  begin counting; answers "ok"
//   'e'  end counting; answers "ALLOCS <count> <bytes>"
// End of input stops it.

void answer(int fd, const char* text) {
  const size_t size = std::strlen(text);
  if (write(fd, text, size) != static_cast<ssize_t>(size)) std::_Exit(1);
}

int serve(int commands, int answers) {
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 128);
  if (!server) {
    std::fprintf(stderr, "alloc_count server: HttpServer::create failed\n");
    return 1;
  }
  // The demo server's /hello, byte for byte.
  server->registerHandler("/hello", [](const vantu::relay::HttpRequestPtr&,
                                       const vantu::relay::HttpResponsePtr& response) {
    static const char kHello[] = "Hello, world!\n";
    response->setContentType("text/plain");
    response->content.insert(response->content.end(), kHello, kHello + sizeof(kHello) - 1);
  });
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  char text[64];
  std::snprintf(text, sizeof(text), "PORT %u\n",
                static_cast<unsigned>(server->localAddress().port()));
  answer(answers, text);

  // Nothing below allocates on this thread but the measured window's own
  // settling, which Window takes out.
  std::unique_ptr<Window> window;
  char command;
  while (read(commands, &command, 1) == 1) {
    if (command == 'b') {
      window = std::make_unique<Window>();
      answer(answers, "ok\n");
    } else if (command == 'e' && window) {
      const Counts used = window->end();
      std::snprintf(text, sizeof(text), "ALLOCS %lld %lld\n",
                    static_cast<long long>(used.allocations), static_cast<long long>(used.bytes));
      answer(answers, text);
    }
  }
  server.reset();
  vantu::waitForDeferredWork();
  return 0;
}

// The parent's side of the two pipes.
class ServerChild {
 public:
  ServerChild(pid_t pid, int commands, int answers)
      : pid_(pid), commands_(commands), answers_(answers) {}
  ~ServerChild() {
    close(commands_);
    close(answers_);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  ServerChild(const ServerChild&) = delete;
  ServerChild& operator=(const ServerChild&) = delete;

  uint16_t port() {
    unsigned port = 0;
    if (std::sscanf(line().c_str(), "PORT %u", &port) != 1) die("the server did not start");
    return static_cast<uint16_t>(port);
  }
  void begin() {
    send('b');
    if (line() != "ok") die("the server did not begin counting");
  }
  Counts end() {
    send('e');
    long long allocations = 0, bytes = 0;
    if (std::sscanf(line().c_str(), "ALLOCS %lld %lld", &allocations, &bytes) != 2) {
      die("the server did not report its counts");
    }
    return {allocations, bytes};
  }

 private:
  void send(char command) {
    if (write(commands_, &command, 1) != 1) die("the server is gone");
  }
  std::string line() {
    std::string text;
    char c;
    while (read(answers_, &c, 1) == 1 && c != '\n') text += c;
    return text;
  }

  const pid_t pid_;
  const int commands_;
  const int answers_;
};

// ---------------------------------------------------------------------------
// (b) GET /hello over loopback, counted in the server.

int connectTo(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sin = {};
  sin.sin_family = AF_INET;
  sin.sin_port = htons(port);
  sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof(sin)) != 0) {
    die(std::string("connect: ") + std::strerror(errno));
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return fd;
}

void sendAll(int fd, const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0) die("send to the server failed");
    at += static_cast<size_t>(n);
  }
}

// Reads exactly `size` bytes into `into` (resized once, reused).
void receiveExactly(int fd, size_t size, std::string* into) {
  into->resize(size);
  for (size_t at = 0; at < size;) {
    ssize_t n = recv(fd, &(*into)[at], size - at, 0);
    if (n <= 0) die("the server closed the connection or failed");
    at += static_cast<size_t>(n);
  }
}

// The server's whole answer to one GET /hello, read the slow way once.
std::string firstAnswer(int fd, const std::string& request) {
  sendAll(fd, request);
  std::string got;
  char buffer[4096];
  while (true) {
    const size_t head = got.find("\r\n\r\n");
    if (head != std::string::npos) {
      const size_t length_at = got.find("Content-Length: ");
      if (length_at == std::string::npos || length_at > head) die("no Content-Length in /hello");
      const size_t total = head + 4 + std::strtoul(got.c_str() + length_at + 16, nullptr, 10);
      if (got.size() >= total) {
        if (got.size() > total) die("more bytes than one answer to one /hello");
        return got;
      }
    }
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) die("the server closed the connection or failed");
    got.append(buffer, static_cast<size_t>(n));
  }
}

Row countHello(ServerChild& server, uint16_t port, int depth, int rounds) {
  const int fd = connectTo(port);
  const std::string one =
      "GET /hello HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n";
  const std::string answer = firstAnswer(fd, one);
  if (answer.find(" 200 ") == std::string::npos ||
      answer.find("Hello, world!\n") == std::string::npos) {
    die("unexpected answer to /hello: " + answer);
  }
  std::string batch, expected;
  for (int i = 0; i < depth; ++i) {
    batch += one;
    expected += answer;
  }
  std::string got;
  auto once = [&] {
    sendAll(fd, batch);
    receiveExactly(fd, expected.size(), &got);
    if (got != expected) die("the answers to a batch of /hello are not the first answer again");
  };
  for (int i = 0; i < 50; ++i) once();
  server.begin();
  for (int i = 0; i < rounds; ++i) once();
  const Counts used = server.end();
  close(fd);
  return {depth == 1 ? "GET /hello one at a time, keep-alive (server)"
                     : "GET /hello pipelined " + std::to_string(depth) + " deep (server)",
          used, static_cast<uint64_t>(rounds) * depth};
}

// ---------------------------------------------------------------------------
// (c) One RPC echo round trip: the server's count from the child, the
// client's from this process.

std::vector<Row> countRpc(ServerChild& server, uint16_t port, int rounds) {
  vantu::relay::RPCChannelPtr channel =
      vantu::relay::RPCChannel::create(vantu::SocketAddress("127.0.0.1", port));
  if (!channel) die("RPCChannel::create failed");
  demo::EchoService_Stub stub(channel.get());
  demo::EchoRequest request;
  request.set_text("hello");
  demo::EchoReply reply;
  vantu::relay::RPC controller;
  auto once = [&] {
    controller.Reset();
    reply.Clear();
    stub.Echo(&controller, &request, &reply, nullptr);
    controller.wait();
    if (controller.Failed() || reply.text() != "hello") die("an echo call failed");
  };
  for (int i = 0; i < 200; ++i) once();
  server.begin();
  Window client;
  for (int i = 0; i < rounds; ++i) once();
  const Counts client_used = client.end();
  const Counts server_used = server.end();
  channel.reset();
  vantu::waitForDeferredWork();
  return {{"RPC echo round trip, 1 in flight (server side)", server_used,
           static_cast<uint64_t>(rounds)},
          {"RPC echo round trip, 1 in flight (client side)", client_used,
           static_cast<uint64_t>(rounds)}};
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = 2000;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
      rounds = std::atoi(argv[++i]);
    } else {
      std::fprintf(stderr, "usage: alloc_count [--rounds N]\n");
      return 2;
    }
  }
  if (rounds < 1) {
    std::fprintf(stderr, "alloc_count: --rounds must be at least 1\n");
    return 2;
  }
  if (!countingWorks()) die("malloc is not the counting one: nothing would be counted");

  // The server child is forked before this process starts any thread.
  int commands[2], answers[2];
  if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) die("pipe2 failed");
  const pid_t pid = fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    close(commands[1]);
    close(answers[0]);
    std::_Exit(serve(commands[0], answers[1]));
  }
  close(commands[0]);
  close(answers[1]);
  ServerChild server(pid, commands[1], answers[0]);
  const uint16_t port = server.port();

  std::vector<Row> rows = countParsing(rounds);
  rows.push_back(countHello(server, port, 16, rounds / 16 + 1));
  rows.push_back(countHello(server, port, 1, rounds));
  for (Row& row : countRpc(server, port, rounds)) rows.push_back(std::move(row));

  std::printf(
      "== Allocations per request, counted (malloc calls and bytes asked for), after warm-up;\n"
      "   the floor servers and http-parser allocate nothing per request\n");
  printRows(rows);
  return 0;
}
