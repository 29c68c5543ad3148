#include <gtest/gtest.h>
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
#include "tests/log_capture.h"
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
using vantu::testing::FullAcceptQueue;

// What the server-side handlers saw, shared with the test thread. The fields
// are guarded by mutex (not annotated: they are read inside lambdas that the
// analysis cannot follow).
struct Recorder {
  Mutex mutex;
  ConditionVariable cv;
  std::vector<std::weak_ptr<RequestResponseConnectionHandler>> handlers;
  std::vector<std::string> input_ends;
  int output_ends = 0;
  int closed = 0;
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
};

// Answers line by line: "amp N" with N pattern bytes; "big N loop|thread" with
// N pattern bytes from the event thread or from another thread, then ends the
// connection; "abort" queues output and aborts; any other line is echoed. Bytes left at
// the peer's end are answered with "bye:" and them.
class TestHandler : public RequestResponseConnectionHandler {
 public:
  explicit TestHandler(std::shared_ptr<Recorder> recorder)
      : RequestResponseConnectionHandler(2048), recorder_(std::move(recorder)) {}
  ~TestHandler() override {
    recorder_->update([&] { ++recorder_->destroyed; });
  }

  void notifyIncomingData(std::string* data) override {
    EXPECT_TRUE(isEventThread());
    received_ += data->size();
    size_t end;
    while ((end = data->find('\n')) != std::string::npos) {
      const std::string line = data->substr(0, end + 1);
      data->erase(0, end + 1);
      size_t size = 0;
      char mode[16] = {0};
      if (sscanf(line.c_str(), "amp %zu", &size) == 1) {
        send(pattern(size));
      } else if (sscanf(line.c_str(), "big %zu %15s", &size, mode) == 2) {
        answerBig(size, mode);
      } else if (line == "abort\n") {
        send(pattern(1000));
        abort();
      } else {
        send(line);
      }
    }
  }
  void notifyInputShutdown(std::string* data) override {
    recorder_->update([&] { recorder_->input_ends.push_back(*data); });
    if (!data->empty()) send("bye:" + *data);
    data->clear();
  }
  void notifyOutputShutdown() override {
    recorder_->update([&] { ++recorder_->output_ends; });
    RequestResponseConnectionHandler::notifyOutputShutdown();
  }
  void notifyClosed() override {
    recorder_->update([&] { ++recorder_->closed; });
  }

  std::weak_ptr<TestHandler> weak_this_;
  size_t received_ = 0;  // event thread only

 private:
  void answerBig(size_t size, const std::string& mode) {
    if (mode == "loop") {
      send(pattern(size));
      shutdown();
      return;
    }
    std::shared_ptr<TestHandler> self = weak_this_.lock();
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

struct TestServer {
  explicit TestServer(size_t max_connections = 0, Duration send_timeout = Duration(),
                      bool reuse_port = false, uint16_t port = 0)
      : recorder(std::make_shared<Recorder>()) {
    std::shared_ptr<Recorder> r = recorder;
    server = std::make_unique<TcpServer>(
        [r] {
          auto handler = std::make_shared<TestHandler>(r);
          handler->weak_this_ = handler;
          r->update([&] { r->handlers.push_back(handler); });
          return handler;
        },
        1024);
    server->setMaxConnections(max_connections);
    server->setSendTimeout(send_timeout);
    server->setReusePort(reuse_port);
    initialized = server->initialize(SocketAddress("127.0.0.1", port));
    address = server->localAddress();
  }
  // The i-th handler made, once it is made; null if its connection is gone.
  std::shared_ptr<TestHandler> handler(size_t i) {
    if (!recorder->waitFor([&] { return recorder->handlers.size() > i; })) return nullptr;
    MutexLock lock(recorder->mutex);
    return std::static_pointer_cast<TestHandler>(recorder->handlers[i].lock());
  }
  // The answering threads are joined here, on the test's thread. A thread's
  // own copy of its handler may be the last one, and the handler holds the
  // recorder: were the threads joined by the recorder's destructor, that
  // could run on one of them, which would then join itself.
  ~TestServer() {
    std::vector<std::thread> threads;
    recorder->update([&] { threads.swap(recorder->threads); });
    for (std::thread& thread : threads) thread.join();
  }
  bool waitFor(int Recorder::*count, int value) {
    return recorder->waitFor([&] { return (*recorder).*count >= value; });
  }

  std::shared_ptr<Recorder> recorder;
  std::unique_ptr<TcpServer> server;
  bool initialized = false;
  SocketAddress address;
};

TEST(TcpServerTest, PipelinedAnswersKeepOrderAndShutdownFlushesEverythingFirst) {
  for (const char* mode : {"loop", "thread"}) {
    SCOPED_TRACE(mode);
    TestServer echo;
    ASSERT_TRUE(echo.initialized);
    auto client = std::make_unique<Client>(echo.address);
    std::string requests;
    for (int i = 0; i < 100; ++i) requests += "request " + std::to_string(i) + "\n";
    std::string answers = requests;
    constexpr size_t kBig = 4 * 1000 * 1000;
    requests += "big " + std::to_string(kBig) + " " + mode + "\n";
    answers += pattern(kBig);
    client->write(requests);
    std::string received = client->readToEnd();
    EXPECT_TRUE(client->peerClosed());
    EXPECT_EQ(answers.size(), received.size());
    EXPECT_TRUE(received == answers) << "payload differs";
    client.reset();
    EXPECT_TRUE(echo.waitFor(&Recorder::destroyed, 1));
  }
}

// What is not consumed stays for the next read, and at the peer's end is
// handed to the handler; an abort drops the output, even what was sent before
// the batch ended, and ends the connection once.
TEST(TcpServerTest, PeerHalfCloseHandsOverTheUnconsumedBytesAndAbortDropsTheOutput) {
  TestServer echo;
  ASSERT_TRUE(echo.initialized);
  Client client(echo.address);
  client.write("complete\npar");
  EXPECT_EQ("complete\n", client.read(9));
  client.write("tial\nleft");
  client.shutdownWrite();
  EXPECT_EQ("partial\nbye:left", client.readToEnd());
  EXPECT_TRUE(client.peerClosed());
  EXPECT_TRUE(echo.waitFor(&Recorder::destroyed, 1));
  int closed = 0;
  {
    MutexLock lock(echo.recorder->mutex);
    EXPECT_EQ(std::vector<std::string>{"left"}, echo.recorder->input_ends);
    EXPECT_EQ(0, echo.recorder->output_ends);
    closed = echo.recorder->closed;
  }
  Client aborted(echo.address);
  aborted.write("amp 5\nabort\n");
  EXPECT_EQ("", aborted.readToEnd());
  EXPECT_TRUE(echo.waitFor(&Recorder::destroyed, 2));
  MutexLock lock(echo.recorder->mutex);
  EXPECT_EQ(closed + 1, echo.recorder->closed);
  EXPECT_EQ(2, echo.recorder->destroyed);
}

TEST(TcpServerTest, PeerThatVanishesEndsTheConnectionQuietly) {
  for (const bool mid_response : {false, true}) {
    SCOPED_TRACE(mid_response ? "mid-response" : "mid-request");
    TestServer echo;
    ASSERT_TRUE(echo.initialized);
    Client client(echo.address);
    client.write(mid_response ? "big 16000000 loop\n" : "half a li");
    if (mid_response) {
      ASSERT_EQ(1000u, client.read(1000).size());
    }
    std::shared_ptr<TestHandler> kept = echo.handler(0);
    ASSERT_TRUE(kept);
    client.abort();
    // The failed read or write tells the handler, and then the connection
    // lets go of it: only our reference keeps it.
    EXPECT_TRUE(echo.waitFor(&Recorder::output_ends, 1));
    waitForDeferredWork();
    EXPECT_EQ(1, kept.use_count());
    // Sending into a connection that is gone does nothing, from any thread.
    kept->send("into the void");
    runOnEventThreadAndWait([&] { kept->send("into the void"); });
    kept->shutdown();
    waitForDeferredWork();
    kept.reset();
    EXPECT_TRUE(echo.waitFor(&Recorder::destroyed, 1));
  }
}

// A connection whose output is done waits for the peer's end before it
// closes: closed at once, the bytes the peer still sends would be answered
// with a reset that throws away the part of the answer not yet delivered.
// The client's small window keeps most of the answer queued in the kernel
// while the server finishes, and the client sends a byte after each read.
TEST(TcpServerTest, InputArrivingAfterTheLastAnswerCannotCutItShort) {
  TestServer echo;
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
  EXPECT_EQ("", client.readToEnd());
  EXPECT_TRUE(client.peerClosed());
}

TEST(TcpListenerTest, InitializeReportsAddressesItCannotUse) {
  TestServer first(0, Duration(), true);
  ASSERT_TRUE(first.initialized);
  EXPECT_TRUE(TestServer(0, Duration(), true, first.address.port()).initialized)
      << "both ask to share the port";
  struct Case {
    const char* name;
    SocketAddress address;
  };
  const Case cases[] = {
      {"port in use", first.address},
      {"not an address", SocketAddress("localhost", 80)},
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
  void notifyClosed() override {
    recorder.update([&] { ++closed; });
  }
  Recorder recorder;
  std::string received;
  bool input_ended = false;
  int closed = 0;
};

std::shared_ptr<CollectingHandler> newCollector() {
  return std::shared_ptr<CollectingHandler>(new CollectingHandler,
                                            LibEventThreadDeferredDeleter<CollectingHandler>());
}

// Connecting reports its outcome once, on the event thread, without blocking;
// what is sent before the connection is up leaves once it is.
TEST(TcpSocketTest, ConnectReportsTheOutcomeOnceWithoutBlocking) {
  TestServer echo;
  ASSERT_TRUE(echo.initialized);
  SocketAddress closed;
  {
    TestServer gone;
    closed = gone.address;
  }
  FullAcceptQueue full;
  struct Case {
    const char* name;
    SocketAddress address;
    Duration timeout;
    bool connects;
  } cases[] = {
      {"listening", echo.address, Duration(), true},
      {"refused", closed, Duration(), false},
      {"never accepted, timed out", full.address(), Duration::milliseconds(50), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto handler = newCollector();
    std::vector<bool> outcomes;
    std::shared_ptr<TcpSocket> socket =
        TcpSocket::connect(c.address, c.timeout, [&](bool connected) {
          EXPECT_TRUE(isEventThread());
          handler->recorder.update([&] { outcomes.push_back(connected); });
        });
    ASSERT_TRUE(socket);
    socket->link(handler->streamSource(), handler->streamSink());
    handler->send("hello\n");
    ASSERT_TRUE(handler->recorder.waitFor([&] { return !outcomes.empty(); }));
    if (c.connects) {
      EXPECT_TRUE(handler->recorder.waitFor([&] { return handler->received == "hello\n"; }));
    } else {
      EXPECT_TRUE(handler->recorder.waitFor([&] { return handler->closed == 1; }));
    }
    waitForDeferredWork();
    {
      MutexLock lock(handler->recorder.mutex);
      EXPECT_EQ(std::vector<bool>{c.connects}, outcomes);
      EXPECT_EQ(c.connects ? 0 : 1, handler->closed);
    }
    socket.reset();
    waitForDeferredWork();
  }
  EXPECT_EQ(nullptr, TcpSocket::connect(SocketAddress("not an ip", 80), Duration(), {}));

  SCOPED_TRACE("aborted while connecting: ends quietly, no outcome");
  auto aborted = newCollector();
  std::atomic<int> outcomes{0};
  std::shared_ptr<TcpSocket> connecting =
      TcpSocket::connect(full.address(), Duration(), [&](bool) { ++outcomes; });
  ASSERT_TRUE(connecting);
  connecting->link(aborted->streamSource(), aborted->streamSink());
  runOnEventThreadAndWait([&] { aborted->abort(); });
  EXPECT_TRUE(aborted->recorder.waitFor([&] { return aborted->closed == 1; }));
  connecting.reset();
  waitForDeferredWork();
  EXPECT_EQ(0, outcomes.load());

  SCOPED_TRACE("connected at once: talks, and hears the server close");
  auto talker = newCollector();
  std::atomic<int> closes{0};
  std::shared_ptr<TcpSocket> socket = TcpSocket::create(echo.address, [&] {
    EXPECT_TRUE(isEventThread());
    talker->recorder.update([&] { ++closes; });
  });
  ASSERT_TRUE(socket);
  socket->link(talker->streamSource(), talker->streamSink());
  talker->send("hello\n");
  talker->send("big 3 loop\n");
  EXPECT_TRUE(talker->recorder.waitFor([&] { return talker->input_ended && closes == 1; }));
  {
    MutexLock lock(talker->recorder.mutex);
    EXPECT_EQ("hello\nabc", talker->received);
  }

  SCOPED_TRACE("linked to missing stream ends: says which");
  vantu::testing::LogCapture log;
  std::shared_ptr<TcpSocket> unlinked = TcpSocket::create(echo.address);
  ASSERT_TRUE(unlinked);
  unlinked->link(nullptr, nullptr);
  const std::vector<LogRecord> records = log.take();
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
  TestServer flow;
  ASSERT_TRUE(flow.initialized);
  // A fixed receive buffer: the kernel's own tuning may let it grow to tens
  // of megabytes, which would hide whether the server stopped reading.
  Client client(flow.address, 64 * 1024);
  // Each 8-byte request asks for 100 bytes: the answers pile up 12 times faster
  // than the requests arrive.
  const std::string request = "amp 100\n";
  constexpr size_t kLimit = 64 * 1024 * 1024;
  const size_t written =
      writeUntilBlocked(client.fd(), std::string(request).append(request), kLimit);
  ASSERT_LT(written, kLimit) << "the server never stopped reading";
  ASSERT_EQ(0u, written % request.size());
  std::shared_ptr<TestHandler> handler = flow.handler(0);
  ASSERT_TRUE(handler);
  size_t received = 0;
  runOnEventThreadAndWait([&] { received = handler->received_; });
  // What the server took in answers to about its output bound plus what the
  // kernel buffers; far below what a reader without a bound takes (all of it).
  EXPECT_LT(received * 100 / request.size(), 16u * TcpSocket::kOutputHighWater);
  // Reading now lets the server go on: every answer arrives, in full.
  const size_t answers = written / request.size();
  const std::string all = client.read(answers * 100);
  ASSERT_EQ(answers * 100, all.size());
  std::string expected;
  for (size_t i = 0; i < answers; ++i) expected += pattern(100);
  EXPECT_TRUE(all == expected) << "answers lost or cut";
}

// A peer that takes none of the output for the send timeout loses its
// connection, and the output still queued for it.
TEST(TcpServerTest, PeerThatTakesNothingForTheSendTimeoutIsCutOff) {
  TestServer flow(0, Duration::milliseconds(100));
  ASSERT_TRUE(flow.initialized);
  Client client(flow.address, 4096);
  constexpr size_t kBig = 8 * 1000 * 1000;
  ASSERT_TRUE(client.write("amp " + std::to_string(kBig) + "\n"));
  ASSERT_TRUE(flow.waitFor(&Recorder::closed, 1)) << "the connection outlived its send timeout";
  // What the kernels had taken still arrives; the rest never does.
  const std::string received = client.readToEnd();
  EXPECT_LT(received.size(), kBig);
  EXPECT_TRUE(client.peerClosed() || client.lastError() == ECONNRESET);
}

TEST(TcpServerTest, AcceptingPausesAtTheConnectionLimitAndResumesWhenOneCloses) {
  TestServer flow(2);
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
  size_t open = 0;
  runOnEventThreadAndWait([&] { open = flow.server->openConnections(); });
  EXPECT_EQ(2u, open);
  first.reset();
  EXPECT_EQ("abcd", third.read(4));
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
        static TestServer* echo = new TestServer;
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
