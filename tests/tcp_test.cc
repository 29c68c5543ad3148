#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/deferred_deleter.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "common/mutex.h"
#include "common/socket_address.h"
#include "net/request_response_connection_handler.h"
#include "net/tcp_server.h"
#include "net/tcp_socket.h"
#include "tests/loopback_client.h"

namespace vantu {
namespace relay {
namespace {

// A bound for reads that never come, so that a broken test fails instead of
// hanging; not a measure of anything.
constexpr int kPatienceMs = 30000;

std::string pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + i % 26);
  return bytes;
}

using Client = vantu::testing::LoopbackClient;

// What the server-side handlers saw, shared with the test thread. The fields
// are guarded by mutex (not annotated: they are read inside lambdas that the
// analysis cannot follow).
struct Recorder {
  Mutex mutex;
  ConditionVariable cv;
  std::vector<std::weak_ptr<RequestResponseConnectionHandler>> handlers;
  std::vector<std::string> input_ends;
  int output_ends = 0;
  int destroyed = 0;
  std::vector<std::thread> threads;

  void update(const std::function<void()>& change) {
    MutexLock lock(mutex);
    change();
    cv.notifyAll();
  }
  // Waits (bounded by kPatienceMs) until `done` holds; false if it never did.
  bool waitFor(const std::function<bool()>& done) {
    Time deadline = Time::now() + Duration::milliseconds(kPatienceMs);
    MutexLock lock(mutex);
    while (!done()) {
      if (!cv.timedWaitAbsolute(mutex, deadline) && !done()) return false;
    }
    return true;
  }
  ~Recorder() {
    for (auto& thread : threads) thread.join();
  }
};

// Echoes every complete line; "big N loop|thread" answers with N pattern bytes
// from the event thread or from another thread and then ends the connection;
// the peer's end of input is answered with "bye:" and what was left.
class LineEchoHandler : public RequestResponseConnectionHandler {
 public:
  explicit LineEchoHandler(std::shared_ptr<Recorder> recorder)
      : RequestResponseConnectionHandler(2048), recorder_(std::move(recorder)) {}
  ~LineEchoHandler() override {
    recorder_->update([&] { ++recorder_->destroyed; });
  }

  std::weak_ptr<LineEchoHandler> weak_this_;

  void notifyIncomingData(std::string* data) override {
    EXPECT_TRUE(isEventThread());
    size_t end;
    while ((end = data->find('\n')) != std::string::npos) {
      std::string line = data->substr(0, end + 1);
      data->erase(0, end + 1);
      size_t size = 0;
      char mode[16] = {0};
      if (sscanf(line.c_str(), "big %zu %15s", &size, mode) == 2) {
        answerBig(size, mode);
      } else {
        send(line);
      }
    }
  }
  void notifyInputShutdown(std::string* data) override {
    recorder_->update([&] { recorder_->input_ends.push_back(*data); });
    send("bye:" + *data);
    data->clear();
    shutdown();
  }
  void notifyOutputShutdown() override {
    recorder_->update([&] { ++recorder_->output_ends; });
    RequestResponseConnectionHandler::notifyOutputShutdown();
  }

 private:
  void answerBig(size_t size, const std::string& mode) {
    if (mode == "loop") {
      send(pattern(size));
      shutdown();
      return;
    }
    std::shared_ptr<LineEchoHandler> self = weak_this_.lock();
    recorder_->update([&] {
      recorder_->threads.emplace_back([self, size] {
        std::string bytes = pattern(size);
        // In pieces, to exercise the hand-over queue.
        for (size_t at = 0; at < size; at += 100000) self->send(bytes.substr(at, 100000));
        self->shutdown();
      });
    });
  }

  std::shared_ptr<Recorder> recorder_;
};

struct EchoServer {
  EchoServer() : recorder(std::make_shared<Recorder>()) {
    std::shared_ptr<Recorder> r = recorder;
    server = std::make_unique<TcpServer>(
        [r] {
          auto handler = std::make_shared<LineEchoHandler>(r);
          handler->weak_this_ = handler;
          r->update([&] { r->handlers.push_back(handler); });
          return handler;
        },
        1024);
    initialized = server->initialize(SocketAddress("127.0.0.1", 0));
    address = server->localAddress();
  }
  int destroyed() {
    MutexLock lock(recorder->mutex);
    return recorder->destroyed;
  }
  bool waitForDestroyed(int count) {
    return recorder->waitFor([&] { return recorder->destroyed >= count; });
  }

  std::shared_ptr<Recorder> recorder;
  std::unique_ptr<TcpServer> server;
  bool initialized = false;
  SocketAddress address;
};

TEST(TcpServerTest, EchoesOverManyConnectionsAndDropsHandlersWhenTheyEnd) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  EXPECT_EQ("127.0.0.1", echo.address.ip());
  EXPECT_NE(0, echo.address.port());
  constexpr int kConnections = 500;
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < kConnections; ++i) {
    clients.push_back(std::make_unique<Client>(echo.address));
    ASSERT_TRUE(clients.back()->connected());
    // A line in two pieces: the first stays unconsumed until the rest comes.
    clients.back()->write("connection " + std::to_string(i));
  }
  for (int i = 0; i < kConnections; ++i) clients[i]->write(" done\n");
  for (int i = 0; i < kConnections; ++i) {
    std::string expected = "connection " + std::to_string(i) + " done\n";
    ASSERT_EQ(expected, clients[i]->read(expected.size()));
  }
  EXPECT_EQ(0, echo.destroyed());
  clients.clear();
  EXPECT_TRUE(echo.waitForDestroyed(kConnections));
}

TEST(TcpServerTest, PipelinedAnswersKeepOrderAndShutdownFlushesEverythingFirst) {
  for (const char* mode : {"loop", "thread"}) {
    SCOPED_TRACE(mode);
    EchoServer echo;
    ASSERT_TRUE(echo.initialized);
    auto client = std::make_unique<Client>(echo.address);
    std::string requests;
    std::string answers;
    for (int i = 0; i < 100; ++i) {
      std::string line = "request " + std::to_string(i) + "\n";
      requests += line;
      answers += line;
    }
    constexpr size_t kBig = 4 * 1000 * 1000;
    requests += "big " + std::to_string(kBig) + " " + mode + "\n";
    answers += pattern(kBig);
    client->write(requests);
    std::string received = client->read(answers.size() + 1);
    EXPECT_EQ(answers.size(), received.size());
    EXPECT_TRUE(received == answers) << "payload differs";
    EXPECT_TRUE(client->atEof());
    // The server waits for our close before it lets go of the connection.
    client.reset();
    EXPECT_TRUE(echo.waitForDestroyed(1));
  }
}

TEST(TcpServerTest, SendsFromManyThreadsKeepTheirOrderAndGuardedPairsStayTogether) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  Client client(echo.address);
  std::shared_ptr<RequestResponseConnectionHandler> handler;
  ASSERT_TRUE(echo.recorder->waitFor([&] { return !echo.recorder->handlers.empty(); }));
  {
    MutexLock lock(echo.recorder->mutex);
    handler = echo.recorder->handlers[0].lock();
  }
  ASSERT_TRUE(handler);

  constexpr int kThreads = 4;
  constexpr int kPairs = 1000;
  size_t expected_size = 0;
  std::vector<std::string> heads(kThreads * kPairs), bodies(kThreads * kPairs), loop_lines(kPairs);
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPairs; ++i) {
      std::string tag = "T" + std::to_string(t) + ":" + std::to_string(i);
      heads[t * kPairs + i] = tag + ":head|";
      bodies[t * kPairs + i] = tag + ":body\n";
      expected_size += heads[t * kPairs + i].size() + bodies[t * kPairs + i].size();
    }
  }
  for (int i = 0; i < kPairs; ++i) {
    loop_lines[i] = "E:" + std::to_string(i) + "\n";
    expected_size += loop_lines[i].size();
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPairs; ++i) {
        RequestResponseConnectionHandler::SendGuard guard(*handler);
        handler->send(heads[t * kPairs + i]);
        handler->send(bodies[t * kPairs + i]);
      }
    });
  }
  // Meanwhile the event thread writes lines of its own, unguarded.
  threads.emplace_back([&] {
    for (int i = 0; i < kPairs; ++i) defer([&, i] { handler->send(loop_lines[i]); });
  });
  for (auto& thread : threads) thread.join();

  std::string received = client.read(expected_size);
  ASSERT_EQ(expected_size, received.size());
  std::vector<int> next(kThreads + 1, 0);
  size_t start = 0;
  while (start < received.size()) {
    size_t end = received.find('\n', start);
    ASSERT_NE(std::string::npos, end);
    std::string line = received.substr(start, end - start + 1);
    start = end + 1;
    if (line[0] == 'E') {
      ASSERT_EQ(loop_lines[next[kThreads]++], line);
      continue;
    }
    int t = line[1] - '0';
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    int i = next[t]++;
    ASSERT_EQ(heads[t * kPairs + i] + bodies[t * kPairs + i], line) << "interleaved or reordered";
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kPairs, next[t]);
  EXPECT_EQ(kPairs, next[kThreads]);
}

TEST(TcpServerTest, PeerHalfCloseHandsOverTheUnconsumedBytes) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  Client client(echo.address);
  client.write("complete\npartial");
  client.shutdownWrite();
  std::string expected = "complete\nbye:partial";
  EXPECT_EQ(expected, client.read(expected.size() + 1));
  EXPECT_TRUE(client.atEof());
  EXPECT_TRUE(echo.waitForDestroyed(1));
  MutexLock lock(echo.recorder->mutex);
  EXPECT_EQ(std::vector<std::string>{"partial"}, echo.recorder->input_ends);
  EXPECT_EQ(0, echo.recorder->output_ends);
}

TEST(TcpServerTest, PeerThatVanishesEndsTheConnectionQuietly) {
  struct Case {
    const char* name;
    std::string request;
    size_t read_before_vanishing;
  };
  const Case cases[] = {
      {"mid-request", "half a li", 0},
      {"mid-response", "big 16000000 loop\n", 1000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EchoServer echo;
    ASSERT_TRUE(echo.initialized);
    Client client(echo.address);
    client.write(c.request);
    if (c.read_before_vanishing > 0) {
      ASSERT_EQ(c.read_before_vanishing, client.read(c.read_before_vanishing).size());
    } else {
      // The bytes have arrived once the server made a handler; wait for that.
      ASSERT_TRUE(echo.recorder->waitFor([&] { return !echo.recorder->handlers.empty(); }));
    }
    std::shared_ptr<RequestResponseConnectionHandler> kept;
    {
      MutexLock lock(echo.recorder->mutex);
      kept = echo.recorder->handlers[0].lock();
    }
    client.abort();
    // The failed read or write tells the handler, and then the connection
    // lets go of it: only our reference keeps it.
    EXPECT_TRUE(echo.recorder->waitFor([&] { return echo.recorder->output_ends == 1; }));
    waitForDeferredWork();
    EXPECT_EQ(1, kept.use_count());
    // Sending into a connection that is gone does nothing, from any thread.
    kept->send("into the void");
    runOnEventThreadAndWait([&] { kept->send("into the void"); });
    kept->shutdown();
    waitForDeferredWork();
    kept.reset();
    EXPECT_TRUE(echo.waitForDestroyed(1));
  }
}

// A connection whose output is done waits for the peer's end before it
// closes: closed at once, the bytes the peer still sends would be answered
// with a reset that throws away the part of the answer not yet delivered.
// The client's small window keeps most of the answer queued in the kernel
// while the server finishes, and the client sends a byte after each read.
TEST(TcpServerTest, InputArrivingAfterTheLastAnswerCannotCutItShort) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  Client client(echo.address, 4096);
  constexpr size_t kBig = 1000 * 1000;  // below the output bound: no pause
  ASSERT_TRUE(client.write("big " + std::to_string(kBig) + " loop\n"));
  std::string received;
  for (;;) {
    const std::string piece = client.read(4096);
    if (piece.empty()) break;
    received += piece;
    client.write("x");  // unread by the server: it is done reading
  }
  EXPECT_EQ(kBig, received.size());
  EXPECT_TRUE(received == pattern(kBig)) << "payload differs";
  EXPECT_TRUE(client.atEof());
}

TEST(TcpServerTest, ConnectionsOutliveTheServer) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  Client client(echo.address);
  client.write("before\n");
  EXPECT_EQ("before\n", client.read(7));
  echo.server.reset();
  client.write("after\n");
  EXPECT_EQ("after\n", client.read(6));
  EXPECT_FALSE(Client(echo.address).connected());
}

TEST(TcpListenerTest, InitializeReportsAddressesItCannotUse) {
  EchoServer first;
  ASSERT_TRUE(first.initialized);
  struct Case {
    const char* name;
    SocketAddress address;
  };
  const Case cases[] = {
      {"port in use", first.address},
      {"not an address", SocketAddress("localhost", 80)},
      {"not local", SocketAddress("192.0.2.1", 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TcpServer server([] { return nullptr; }, 16);
    EXPECT_FALSE(server.initialize(c.address));
    EXPECT_FALSE(server.localAddress().isValid());
  }
  TcpServer twice([] { return nullptr; }, 16);
  ASSERT_TRUE(twice.initialize(SocketAddress("127.0.0.1", 0)));
  EXPECT_FALSE(twice.initialize(SocketAddress("127.0.0.1", 0)));

  // IPv6 loopback, where the machine has it.
  TcpServer v6([] { return nullptr; }, 16);
  if (v6.initialize(SocketAddress("::1", 0))) {
    EXPECT_EQ("::1", v6.localAddress().ip());
    EXPECT_EQ("[::1]:" + std::to_string(v6.localAddress().port()), v6.localAddress().toString());
  }
}

// The client side: bytes received, end of input and close, as seen by the test.
class CollectingHandler : public RequestResponseConnectionHandler {
 public:
  CollectingHandler() : RequestResponseConnectionHandler(2048) {}
  void notifyIncomingData(std::string* data) override {
    recorder.update([&] { received += *data; });
    data->clear();
  }
  void notifyInputShutdown(std::string* data) override {
    recorder.update([&] { input_ended = data->empty(); });
  }
  Recorder recorder;
  std::string received;
  bool input_ended = false;
};

TEST(TcpSocketTest, ClientTalksToTheServerAndHearsItClose) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  auto handler = std::shared_ptr<CollectingHandler>(
      new CollectingHandler, LibEventThreadDeferredDeleter<CollectingHandler>());
  std::atomic<int> closes{0};
  std::shared_ptr<TcpSocket> socket = TcpSocket::create(echo.address, [&] {
    EXPECT_TRUE(isEventThread());
    handler->recorder.update([&] { ++closes; });
  });
  ASSERT_TRUE(socket);
  socket->link(handler->streamSource(), handler->streamSink());
  handler->send("hello\n");
  handler->send("big 3 loop\n");
  EXPECT_TRUE(handler->recorder.waitFor([&] { return handler->input_ended && closes == 1; }));
  MutexLock lock(handler->recorder.mutex);
  EXPECT_EQ("hello\nabc", handler->received);
}

TEST(TcpSocketTest, CreateGivesNullWhenThereIsNoPeer) {
  SocketAddress closed;
  {
    EchoServer gone;
    ASSERT_TRUE(gone.initialized);
    closed = gone.address;
  }
  EXPECT_EQ(nullptr, TcpSocket::create(closed));
  EXPECT_EQ(nullptr, TcpSocket::create(SocketAddress("not an ip", 80)));
  EXPECT_EQ(nullptr, TcpSocket::create(SocketAddress()));
}

TEST(TcpSocketTest, LinkReportsMissingStreamEnds) {
  EchoServer echo;
  ASSERT_TRUE(echo.initialized);
  std::vector<LogRecord> records;
  Mutex mutex;
  setLogSink([&](const LogRecord& record) {
    MutexLock lock(mutex);
    records.push_back(record);
  });
  std::shared_ptr<TcpSocket> socket = TcpSocket::create(echo.address);
  ASSERT_TRUE(socket);
  socket->link(nullptr, nullptr);
  setLogSink(nullptr);
  MutexLock lock(mutex);
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ(485, records[0].line);
  EXPECT_EQ("Check failed other_sink ", records[0].text);
  EXPECT_EQ(486, records[1].line);
  EXPECT_EQ("Check failed other_source ", records[1].text);
  for (const LogRecord& record : records) {
    EXPECT_EQ(1, record.level);
    EXPECT_EQ("check", record.logger);
    EXPECT_EQ("relay/char_stream", record.file);
    EXPECT_NE(std::string::npos, record.function.find("TcpSocket::link")) << record.function;
  }
}

// Flow control and the ends of a connection: "amp N\n" answers with N pattern
// bytes; "owe\n" promises an answer that the test delivers later through
// deliver(); "abort\n" queues output and aborts. Counts its notifications.
class FlowHandler : public RequestResponseConnectionHandler {
 public:
  explicit FlowHandler(std::shared_ptr<Recorder> recorder)
      : RequestResponseConnectionHandler(2048), recorder_(std::move(recorder)) {}
  ~FlowHandler() override {
    recorder_->update([&] { ++recorder_->destroyed; });
  }

  void notifyIncomingData(std::string* data) override {
    received_ += data->size();
    size_t end;
    while ((end = data->find('\n')) != std::string::npos) {
      const std::string line = data->substr(0, end);
      data->erase(0, end + 1);
      size_t size = 0;
      if (sscanf(line.c_str(), "amp %zu", &size) == 1) {
        send(pattern(size));
      } else if (line == "owe") {
        ++owed_;
      } else if (line == "abort") {
        send(pattern(1000));
        abort();
      }
    }
  }
  bool holdOpenAfterInputEnd() override {
    input_ended_ = true;
    return owed_ > 0;
  }
  void notifyClosed() override {
    recorder_->update([&] { ++closed; });
  }
  // Event thread: pays one debt; the last one after the peer's end closes.
  void deliver(const std::string& answer) {
    send(answer);
    if (--owed_ == 0 && input_ended_) shutdown();
  }

  size_t received_ = 0;  // event thread only
  int closed = 0;        // guarded by recorder_->mutex

 private:
  std::shared_ptr<Recorder> recorder_;
  int owed_ = 0;
  bool input_ended_ = false;
};

struct FlowServer {
  explicit FlowServer(size_t max_connections = 0, bool reuse_port = false, uint16_t port = 0,
                      Duration send_timeout = Duration())
      : recorder(std::make_shared<Recorder>()) {
    std::shared_ptr<Recorder> r = recorder;
    auto made = std::make_shared<std::vector<std::shared_ptr<FlowHandler>>>();
    handlers = made;
    server = std::make_unique<TcpServer>(
        [r, made] {
          auto handler = std::make_shared<FlowHandler>(r);
          r->update([&] { made->push_back(handler); });
          return handler;
        },
        1024);
    server->setMaxConnections(max_connections);
    server->setReusePort(reuse_port);
    server->setSendTimeout(send_timeout);
    initialized = server->initialize(SocketAddress("127.0.0.1", port));
    address = server->localAddress();
  }
  ~FlowServer() {
    server.reset();
    runOnEventThreadAndWait([this] { handlers->clear(); });
  }
  // The i-th handler made; the test's reference keeps it alive.
  std::shared_ptr<FlowHandler> handler(size_t i) {
    MutexLock lock(recorder->mutex);
    return i < handlers->size() ? (*handlers)[i] : nullptr;
  }
  size_t made() {
    MutexLock lock(recorder->mutex);
    return handlers->size();
  }

  std::shared_ptr<Recorder> recorder;
  std::shared_ptr<std::vector<std::shared_ptr<FlowHandler>>> handlers;
  std::unique_ptr<TcpServer> server;
  bool initialized = false;
  SocketAddress address;
};

// Writes `bytes` repeatedly without reading, until the connection stops taking
// them (nothing more fits for a while) or `limit` bytes went out. Returns what
// was written.
size_t writeUntilBlocked(int fd, const std::string& bytes, size_t limit) {
  size_t written = 0;
  size_t offset = 0;
  while (written < limit) {
    pollfd ready{fd, POLLOUT, 0};
    if (poll(&ready, 1, 500) != 1) break;  // the peer stopped reading
    ssize_t n = ::send(fd, bytes.data() + offset, bytes.size() - offset, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) break;
    written += n;
    offset = (offset + n) % bytes.size();
  }
  return written;
}

TEST(TcpServerTest, ClientThatDoesNotReadStopsTheServerReadingAndLosesNothing) {
  FlowServer flow;
  ASSERT_TRUE(flow.initialized);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(0, connect(fd, flow.address.sockaddr(), flow.address.length()));
  // Each 8-byte request asks for 100 bytes: the answers pile up 12 times faster
  // than the requests arrive.
  const std::string request = "amp 100\n";
  constexpr size_t kLimit = 64 * 1024 * 1024;
  const size_t written = writeUntilBlocked(fd, std::string(request).append(request), kLimit);
  ASSERT_LT(written, kLimit) << "the server never stopped reading";
  ASSERT_EQ(0u, written % request.size());
  std::shared_ptr<FlowHandler> handler = flow.handler(0);
  ASSERT_TRUE(handler);
  size_t received = 0;
  runOnEventThreadAndWait([&] { received = handler->received_; });
  // What the server took in answers to about its output bound plus what the
  // kernel buffers; far below what a reader without a bound takes (all of it).
  EXPECT_LT(received * 100 / request.size(), 16u * TcpSocket::kOutputHighWater);
  // Reading now lets the server go on: every answer arrives, in full.
  const size_t expected = written / request.size() * 100;
  size_t got = 0;
  bool intact = true;
  std::vector<char> buffer(1 << 16);
  const std::string answer = pattern(100);
  std::string carry;
  while (got < expected) {
    ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
    if (n <= 0) break;
    carry.append(buffer.data(), n);
    size_t whole = carry.size() / 100 * 100;
    for (size_t at = 0; at < whole; at += 100)
      intact = intact && carry.compare(at, 100, answer) == 0;
    carry.erase(0, whole);
    got += n;
  }
  close(fd);
  EXPECT_EQ(expected, got);
  EXPECT_TRUE(intact);
}

// A peer that takes none of the output for the send timeout loses its
// connection, and the output still queued for it.
TEST(TcpServerTest, PeerThatTakesNothingForTheSendTimeoutIsCutOff) {
  FlowServer flow(0, false, 0, Duration::milliseconds(100));
  ASSERT_TRUE(flow.initialized);
  Client client(flow.address, 4096);
  constexpr size_t kBig = 8 * 1000 * 1000;
  ASSERT_TRUE(client.write("amp " + std::to_string(kBig) + "\n"));
  ASSERT_TRUE(flow.recorder->waitFor([&] { return flow.handlers->size() == 1; }));
  std::shared_ptr<FlowHandler> handler = flow.handler(0);
  ASSERT_TRUE(flow.recorder->waitFor([&] { return handler->closed == 1; }))
      << "the connection outlived its send timeout";
  // What the kernels had taken still arrives; the rest never does.
  const std::string received = client.readToEnd();
  EXPECT_LT(received.size(), kBig);
  EXPECT_TRUE(client.peerClosed() || client.lastError() == ECONNRESET);
}

TEST(TcpServerTest, HandlerKeepsAHalfClosedConnectionOpenForAnswersItOwes) {
  FlowServer flow;
  ASSERT_TRUE(flow.initialized);
  Client client(flow.address);
  client.write("owe\nowe\n");
  client.shutdownWrite();
  ASSERT_TRUE(flow.recorder->waitFor([&] { return flow.handlers->size() == 1; }));
  std::shared_ptr<FlowHandler> handler = flow.handler(0);
  // The peer's end has arrived once the handler heard of it; the connection
  // is still open for the two answers.
  ASSERT_TRUE(runOnEventThreadAndWait([&] { handler->deliver("first;"); }));
  EXPECT_EQ("first;", client.read(6));
  ASSERT_TRUE(runOnEventThreadAndWait([&] { handler->deliver("second;"); }));
  EXPECT_EQ("second;", client.readToEnd());
  EXPECT_TRUE(client.peerClosed());
  EXPECT_TRUE(flow.recorder->waitFor([&] { return handler->closed == 1; }));
}

TEST(TcpServerTest, AbortDropsTheOutputAndEndsTheConnectionOnce) {
  FlowServer flow;
  ASSERT_TRUE(flow.initialized);
  Client client(flow.address);
  client.write("amp 5\nabort\n");
  // What was sent before the batch ended is dropped with the rest.
  EXPECT_EQ("", client.readToEnd());
  std::shared_ptr<FlowHandler> handler = flow.handler(0);
  ASSERT_TRUE(handler);
  EXPECT_TRUE(flow.recorder->waitFor([&] { return handler->closed == 1; }));
  handler.reset();
  runOnEventThreadAndWait([&] { flow.handlers->clear(); });
  EXPECT_TRUE(flow.recorder->waitFor([&] { return flow.recorder->destroyed == 1; }));
  MutexLock lock(flow.recorder->mutex);
  EXPECT_EQ(1, flow.recorder->destroyed);
}

TEST(TcpServerTest, AcceptingPausesAtTheConnectionLimitAndResumesWhenOneCloses) {
  FlowServer flow(2);
  ASSERT_TRUE(flow.initialized);
  auto first = std::make_unique<Client>(flow.address);
  Client second(flow.address);
  for (Client* c : {first.get(), &second}) {
    c->write("amp 3\n");
    EXPECT_EQ("abc", c->read(3));
  }
  // The kernel completes the third handshake, but the server does not take
  // the connection while two are open.
  Client third(flow.address);
  ASSERT_TRUE(third.connected());
  third.write("amp 4\n");
  for (int i = 0; i < 3; ++i) {
    second.write("amp 2\n");
    EXPECT_EQ("ab", second.read(2));
  }
  EXPECT_EQ(2u, flow.made());
  size_t open = 0;
  runOnEventThreadAndWait([&] { open = flow.server->openConnections(); });
  EXPECT_EQ(2u, open);
  first.reset();
  EXPECT_EQ("abcd", third.read(4));
  EXPECT_EQ(3u, flow.made());
}

TEST(TcpListenerTest, ReusePortLetsTwoListenersShareAPort) {
  FlowServer first(0, true);
  ASSERT_TRUE(first.initialized);
  FlowServer shared(0, true, first.address.port());
  EXPECT_TRUE(shared.initialized);
  FlowServer exclusive(0, false, first.address.port());
  EXPECT_FALSE(exclusive.initialized);
}

std::shared_ptr<Recorder> exit_recorder;

void checkConnectionClosedAtExit() {
  // Registered before the event thread started, so it runs after the thread
  // stopped: by then the open connection must have let go of its handler.
  MutexLock lock(exit_recorder->mutex);
  _exit(exit_recorder->destroyed == 1 ? 7 : 1);
}

TEST(TcpDeathTest, ExitClosesConnectionsThatAreStillOpen) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        atexit(checkConnectionClosedAtExit);
        static EchoServer* echo = new EchoServer;
        exit_recorder = echo->recorder;
        static Client* client = new Client(echo->address);
        client->write("open\n");
        if (client->read(5) != "open\n") _exit(1);
        exit(0);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
}  // namespace relay
}  // namespace vantu
