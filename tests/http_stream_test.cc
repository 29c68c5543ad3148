#include "relay/http_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/event_thread_blocker.h"
#include "tests/loopback_client.h"
#include "tests/shell_output.h"
#include "tests/test_service.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::shellOutput;

using vantu::testing::EventThreadBlocker;
using vantu::testing::eventually;
using vantu::testing::LoopbackClient;

void setText(const HttpResponsePtr& response, const std::string& text) {
  response->setContentType("text/plain");
  response->content.assign(text.begin(), text.end());
}

std::string get(const std::string& path, const std::string& version = "1.1") {
  return "GET " + path + " HTTP/" + version + "\r\nHost: test\r\n\r\n";
}

// A plain answer as the server writes it.
std::string plain(const std::string& text) {
  return "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: " +
         std::to_string(text.size()) + "\r\nContent-Type: text/plain\r\n\r\n" + text;
}

// The `done`s async handlers were given, and the streams stream handlers got,
// in request order, for the test to use when it likes.
using DoneList = vantu::testing::Collected<std::function<void()>>;
using StreamHolder = vantu::testing::Collected<HttpStreamPtr>;

// Holds each answer in *dones; its text is `text`, or the path when null.
HttpAsyncRequestHandler holding(DoneList* dones, const char* text = nullptr) {
  return [dones, text](const HttpRequestPtr& request, const HttpResponsePtr& response,
                       std::function<void()> done) {
    if (text == nullptr || *text != '\0') setText(response, text ? text : request->url.path());
    dones->add(std::move(done));
  };
}
HttpStreamHandler keeping(StreamHolder* holder) {
  return [holder](const HttpRequestPtr&, const HttpStreamPtr& stream) { holder->add(stream); };
}

class StreamServerTest : public ::testing::Test {
 protected:
  void SetUp() override { start(HttpServerOptions()); }
  void TearDown() override {
    server_.reset();
    waitForDeferredWork();
  }
  // (Re)starts the server with `options`.
  void start(const HttpServerOptions& options) {
    TearDown();
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options);
    ASSERT_TRUE(server_);
  }
  uint16_t port() const { return server_->localAddress().port(); }

  // Pipelines `count` held answers to /n/... and waits until every handler
  // has run: the answers expected, in request order.
  std::string pipelineHeldAnswers(int count, DoneList* dones, LoopbackClient* client) {
    server_->registerAsyncHandler("/n/.*", holding(dones));
    std::string requests;
    std::string expected;
    for (int i = 0; i < count; ++i) {
      requests += get("/n/" + std::to_string(i));
      expected += plain("/n/" + std::to_string(i));
    }
    EXPECT_TRUE(client->write(requests));
    EXPECT_TRUE(dones->waitFor(count));
    return expected;
  }

  std::shared_ptr<HttpServer> server_;
};

// Async answers run their done inside the handler ('n'), on the event thread
// after the handler returned ('d', as a handler that waits on another event
// of the loop does), or are held and done later from the test's thread, last
// first ('h'), among plain answers ('p'), all pipelined in one write: whichever way each async
// answer waits (alone, or in line behind or before others), the bytes go out in request order, each
// once, and nothing behind a held answer overtakes it.
TEST_F(StreamServerTest, AnswersDoneInsideOrAfterTheirHandlersKeepRequestOrder) {
  DoneList dones;
  const auto serve = [this, &dones] {
    server_->registerAsyncHandler("/n/.*",
                                  [](const HttpRequestPtr& request, const HttpResponsePtr& response,
                                     std::function<void()> done) {
                                    setText(response, request->url.path());
                                    done();
                                    done();  // a second run does nothing
                                  });
    server_->registerAsyncHandler("/h/.*", holding(&dones));
    server_->registerAsyncHandler("/d/.*",
                                  [](const HttpRequestPtr& request, const HttpResponsePtr& response,
                                     std::function<void()> done) {
                                    setText(response, request->url.path());
                                    vantu::defer([done] {
                                      done();
                                      done();
                                    });
                                  });
    server_->registerHandler("/p/.*",
                             [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                               setText(response, request->url.path());
                             });
  };
  serve();
  const char* const kCases[] = {"n",    "h",    "nn",  "hh",   "nhp",  "hn",   "hp",    "phn",
                                "nhhp", "hnph", "d",   "dd",   "dpd",  "dn",   "hd",    "dh",
                                "ndhp", "hdnd", "pdh", "dhdp", "dnpn", "hddh", "pnhdp", "hhhhh"};
  size_t held_before = 0;
  for (const std::string kinds : kCases) {
    SCOPED_TRACE(kinds);
    LoopbackClient client(port());
    std::string requests;
    std::string expected;
    std::string before_held;  // what may go out before any held done runs
    size_t held = 0;
    for (size_t i = 0; i < kinds.size(); ++i) {
      const std::string path = "/" + kinds.substr(i, 1) + "/" + std::to_string(i);
      requests += get(path);
      expected += plain(path);
      if (kinds[i] == 'h') ++held;
      if (held == 0) before_held = expected;
    }
    ASSERT_TRUE(client.write(requests));
    if (held == 0) {
      EXPECT_EQ(expected, client.read(expected.size()));
    } else {
      ASSERT_TRUE(dones.waitFor(held_before + held));
      EXPECT_EQ(before_held, client.read(before_held.size()));
      EXPECT_FALSE(client.waitReadable(50)) << "an answer overtook a held one";
      // The last first: nothing may go out before the first held one is done.
      for (size_t i = held; i > 1; --i) dones.at(held_before + i - 1)();
      EXPECT_FALSE(client.waitReadable(50)) << "an answer overtook the first held one";
      dones.at(held_before)();
      EXPECT_EQ(expected.substr(before_held.size()),
                client.read(expected.size() - before_held.size()));
    }
    EXPECT_FALSE(client.waitReadable(50)) << "an answer was written twice";
    held_before += held;
  }
  // On a server that ends a connection when asked, it ends once the last
  // answer is out, whether that was answered inside its handler or later.
  HttpServerOptions strict;
  strict.strict_framing = true;
  start(strict);
  serve();
  for (const std::string kind : {"n", "h"}) {
    SCOPED_TRACE("close after " + kind);
    LoopbackClient client(port());
    ASSERT_TRUE(
        client.write("GET /" + kind + "/end HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n"));
    if (kind == "h") {
      ASSERT_TRUE(dones.waitFor(held_before + 1));
      dones.at(held_before++)();
    }
    const std::string answer = client.readToEnd();
    EXPECT_TRUE(client.peerClosed());
    EXPECT_NE(std::string::npos, answer.find("Connection: close\r\n")) << answer;
    EXPECT_EQ("/" + kind + "/end", answer.substr(answer.size() - 6));
  }
}

TEST_F(StreamServerTest, DoneFromManyThreadsAtOnceWritesEachAnswerOnceInOrder) {
  constexpr int kCount = 32;
  DoneList dones;
  LoopbackClient client(port());
  const std::string expected = pipelineHeldAnswers(kCount, &dones, &client);
  ASSERT_FALSE(HasFailure());
  // Every done runs twice, from two threads, all of them released at once.
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2 * kCount; ++i) {
    std::function<void()> done = dones.at(i % kCount);
    threads.emplace_back([&go, done] {
      while (!go.load()) std::this_thread::yield();
      done();
    });
  }
  go = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(expected, client.read(expected.size()));
  EXPECT_FALSE(client.waitReadable(50)) << "an answer was written twice";
}

TEST_F(StreamServerTest, DoneAfterTheClientLeftDoesNothingAndTheHandlerCanTell) {
  DoneList dones;
  server_->registerAsyncHandler("/later", holding(&dones, ""));
  {
    LoopbackClient client(port());
    ASSERT_TRUE(client.write(get("/later")));
    ASSERT_TRUE(dones.waitFor(1));
    EXPECT_TRUE(answerStillWanted(dones.at(0)));
    EXPECT_FALSE(answerStillWanted([] {})) << "not a done of ours";
    // A reset: a client that merely ends its side still gets its answer.
    client.abort();
  }
  EXPECT_TRUE(eventually([&] { return !answerStillWanted(dones.at(0)); }));
  dones.at(0)();
  waitForDeferredWork();
  // The server still serves, and a client that only ends its side, after its
  // request is being answered, gets that answer before the connection closes.
  LoopbackClient other(port());
  ASSERT_TRUE(other.write(get("/none") + get("/later")));
  ASSERT_TRUE(dones.waitFor(2));
  waitForDeferredWork();
  other.shutdownWrite();
  // Answered once the end above has been read: it was there first.
  LoopbackClient barrier(port());
  ASSERT_TRUE(barrier.write(get("/none")));
  EXPECT_EQ("HTTP/1.1 404", barrier.read(12));
  EXPECT_TRUE(answerStillWanted(dones.at(1)));
  dones.at(1)();
  EXPECT_EQ(
      "HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n"
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n",
      other.readToEnd());
  EXPECT_TRUE(other.peerClosed());
}

TEST_F(StreamServerTest, StaleDoneOfAnEarlierAnswerDoesNotCompleteALaterOne) {
  DoneList dones;
  server_->registerAsyncHandler("/n/.*", holding(&dones));
  LoopbackClient client(port());
  ASSERT_TRUE(client.write(get("/n/1")));
  ASSERT_TRUE(dones.waitFor(1));
  std::function<void()> first = dones.at(0);
  first();
  EXPECT_EQ(plain("/n/1"), client.read(plain("/n/1").size()));
  // The next answer's done may well sit where the first one's did: the
  // first, run again (from another thread, too), must not complete it.
  ASSERT_TRUE(client.write(get("/n/2")));
  ASSERT_TRUE(dones.waitFor(2));
  EXPECT_FALSE(answerStillWanted(first));
  EXPECT_TRUE(answerStillWanted(dones.at(1)));
  first();
  std::thread(first).join();
  waitForDeferredWork();
  EXPECT_FALSE(client.waitReadable(50)) << "a stale done completed the later answer";
  EXPECT_TRUE(answerStillWanted(dones.at(1)));
  dones.at(1)();
  EXPECT_EQ(plain("/n/2"), client.read(plain("/n/2").size()));
}

// A done run elsewhere, whose client leaves before the event thread gets to
// it: the record its answer had goes back to the pool once, and the answers
// that take it next are each completed by their own done only.
TEST_F(StreamServerTest, DoneRunElsewhereForALeftClientLeavesTheRecordToTheNextAnswers) {
  DoneList dones;
  server_->registerAsyncHandler("/n/.*", holding(&dones));
  // Runs the first done on another thread while the event thread waits for
  // it: the reset handled next in the same turn of the loop abandons the
  // answer before the done's hand-over reaches the event thread.
  std::atomic<bool> claimed_while_wanted{false};
  server_->registerHandler("/run-first",
                           [&](const HttpRequestPtr&, const HttpResponsePtr& response) {
                             std::function<void()> first = dones.at(0);
                             claimed_while_wanted = answerStillWanted(first);
                             std::thread(first).join();
                             setText(response, "ran");
                           });
  LoopbackClient runner(port());
  {
    LoopbackClient leaving(port());
    ASSERT_TRUE(leaving.write(get("/n/1")));
    ASSERT_TRUE(dones.waitFor(1));
    // A turn of the loop that reads the runner, so that the kernel lists it
    // before the leaving client when both are ready next.
    ASSERT_TRUE(runner.write(get("/none")));
    EXPECT_EQ(0u, runner.readUntil("\r\n\r\n").find("HTTP/1.1 404"));
    // With the event thread held, the runner's request and then the reset
    // reach the server, so that one turn of the loop sees both in that order.
    EventThreadBlocker blocker;
    ASSERT_TRUE(runner.write(get("/run-first")));
    leaving.abort();
  }
  EXPECT_EQ(plain("ran"), runner.read(plain("ran").size()));
  waitForDeferredWork();
  ASSERT_TRUE(claimed_while_wanted.load()) << "the client's leaving was seen first";
  // Two answers held at once take two records.
  LoopbackClient next(port());
  ASSERT_TRUE(next.write(get("/n/2") + get("/n/3")));
  ASSERT_TRUE(dones.waitFor(3));
  std::function<void()> second = dones.at(1);
  std::function<void()> third = dones.at(2);
  ASSERT_TRUE(runOnEventThreadAndWait(second));
  EXPECT_TRUE(answerStillWanted(third)) << "one done completed another answer";
  EXPECT_EQ(plain("/n/2"), next.read(plain("/n/2").size()));
  third();
  EXPECT_EQ(plain("/n/3"), next.read(plain("/n/3").size()));
}

TEST_F(StreamServerTest, RpcAnswerOvertakesAPendingAsyncAnswerButNeverSplitsAStream) {
  auto service = std::make_shared<vantu::testing::TestServiceImpl>();
  server_->registerRPCService(service);
  DoneList dones;
  server_->registerAsyncHandler("/later", holding(&dones, "late"));
  StreamHolder holder;
  server_->registerStreamHandler("/stream", keeping(&holder));
  LoopbackClient client(port());
  const std::string call = vantu::testing::rpcRequest("relaytest.TestService", "Echo", "7",
                                                      vantu::testing::textMessage("hi"));
  ASSERT_TRUE(client.write(get("/later") + call));
  // The call's answer does not wait for the plain answer before it.
  std::string got = client.readUntil("hi");
  EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n")) << got;
  EXPECT_NE(std::string::npos, got.find("Rpc-Id: 7")) << got;
  EXPECT_EQ(std::string::npos, got.find("late"));
  ASSERT_TRUE(dones.waitFor(1));
  dones.at(0)();
  client.readUntil("late");

  // A call answered while a stream is under way comes after the stream's end.
  ASSERT_TRUE(client.write(get("/stream")));
  HttpStreamPtr stream = holder.at(0);
  ASSERT_TRUE(stream && stream->write("one"));
  client.readUntil("3\r\none\r\n");
  ASSERT_TRUE(client.write(call));
  ASSERT_TRUE(eventually([&] { return service->calls.load() == 2; }));
  std::thread([stream] {
    stream->write("two");
    stream->finish();
  }).join();
  got = client.readUntil("hi");
  const size_t end = got.find("3\r\ntwo\r\n0\r\n\r\n");
  ASSERT_NE(std::string::npos, end) << got;
  EXPECT_EQ(0u, end) << "bytes came between the stream's chunks: " << got;
}

// A stream handler that writes `pieces` from another thread and finishes.
void serveCounting(HttpServer* server, int pieces) {
  server->registerStreamHandler("/count",
                                [pieces](const HttpRequestPtr&, const HttpStreamPtr& stream) {
                                  std::thread([stream, pieces] {
                                    auto response = std::make_shared<HttpResponse>();
                                    response->setContentType("text/plain");
                                    stream->start(response);
                                    for (int i = 0; i < pieces; ++i)
                                      stream->write("piece " + std::to_string(i) + "\n");
                                    stream->finish();
                                  }).detach();
                                });
}

TEST_F(StreamServerTest, StreamReadsAsChunkedByCurlAndPython) {
  serveCounting(server_.get(), 100);
  std::string expected;
  for (int i = 0; i < 100; ++i) expected += "piece " + std::to_string(i) + "\n";
  const std::string url = "http://127.0.0.1:" + std::to_string(port()) + "/count";
  EXPECT_EQ(expected, shellOutput("curl -sS -N --max-time 30 " + url));
  const std::string python =
      "import http.client,sys\n"
      "c=http.client.HTTPConnection('127.0.0.1'," +
      std::to_string(port()) +
      ",timeout=30)\n"
      "c.request('GET','/count')\n"
      "r=c.getresponse()\n"
      "assert r.getheader('Transfer-Encoding')=='chunked', r.getheaders()\n"
      "assert r.getheader('Content-Length') is None\n"
      "sys.stdout.write(r.read().decode())\n"
      // The connection stays usable: a second answer on it.
      "c.request('GET','/count')\n"
      "sys.stdout.write(c.getresponse().read().decode())\n";
  EXPECT_EQ(expected + expected, shellOutput("python3 -c \"" + python + "\""));
}

// A stream's answer to HEAD is its head alone; requests pipelined behind a
// stream wait for its end.
TEST_F(StreamServerTest, HeadOfAStreamIsItsHeadAndRequestsBehindAStreamWaitForItsEnd) {
  std::atomic<bool> write_result{true};
  server_->registerStreamHandler("/s", [&](const HttpRequestPtr&, const HttpStreamPtr& stream) {
    stream->start(std::make_shared<HttpResponse>());
    write_result = stream->write("body");
    stream->finish();
  });
  StreamHolder holder;
  server_->registerStreamHandler("/stream", keeping(&holder));
  server_->registerHandler("/plain", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    setText(response, "after");
  });
  LoopbackClient client(port());
  ASSERT_TRUE(client.write("HEAD /s HTTP/1.1\r\nHost: test\r\n\r\n" + get("/none")));
  const std::string head =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string not_found =
      "HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n";
  EXPECT_EQ(head + not_found, client.read(head.size() + not_found.size()));
  EXPECT_FALSE(write_result.load());
  ASSERT_TRUE(client.write(get("/stream") + get("/plain")));
  HttpStreamPtr stream = holder.at(0);
  ASSERT_TRUE(stream && stream->write("abc"));
  client.readUntil("3\r\nabc\r\n");
  EXPECT_FALSE(client.waitReadable(50)) << "the plain answer overtook the stream";
  stream->finish();
  const std::string rest = "0\r\n\r\n" + plain("after");
  EXPECT_EQ(rest, client.read(rest.size()));
}

TEST_F(StreamServerTest, ClientVanishingMidStreamClosesIt) {
  std::atomic<bool> closed{false};
  std::atomic<bool> write_failed{false};
  server_->registerStreamHandler("/s", [&](const HttpRequestPtr&, const HttpStreamPtr& stream) {
    stream->onClose([&closed] { closed = true; });
    std::thread([stream, &write_failed] {
      // Writes until told the client is gone (bounded by the test's guard).
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (std::chrono::steady_clock::now() < deadline) {
        if (!stream->write("tick\n")) {
          write_failed = true;
          return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }).detach();
  });
  {
    LoopbackClient client(port());
    ASSERT_TRUE(client.write(get("/s")));
    client.readUntil("tick");
  }
  EXPECT_TRUE(eventually([&] { return closed.load() && write_failed.load(); }));
}

TEST_F(StreamServerTest, SlowReaderOfAFastStreamHoldsNoMoreThanTheMark) {
  constexpr size_t kPiece = 64 * 1024;
  constexpr size_t kTotal = 16 * 1024 * 1024;
  // Shared with the writer thread and the stream's callback, which may both
  // outlive this test's frame by a moment: the writer sets `done` only after
  // the last chunk went out.
  struct Writer {
    Mutex mutex;
    ConditionVariable changed;
    std::atomic<size_t> written_when_blocked{0};
    std::atomic<bool> done{false};
  };
  const auto writer = std::make_shared<Writer>();
  server_->registerStreamHandler(
      "/s", [writer](const HttpRequestPtr&, const HttpStreamPtr& stream) {
        stream->onWritableChanged([writer](bool) {
          MutexLock lock(writer->mutex);
          writer->changed.notifyAll();
        });
        std::thread([writer, stream] {
          const std::string piece(kPiece, 'x');
          size_t written = 0;
          while (written < kTotal) {
            if (!stream->write(piece)) return;
            written += kPiece;
            MutexLock lock(writer->mutex);
            if (!stream->writable() && writer->written_when_blocked.load() == 0) {
              writer->written_when_blocked = written;
            }
            // Told to wait: until the callback says it may go on.
            const Time deadline = Time::now() + Duration::seconds(30);
            while (!stream->writable() && !stream->closed() && Time::now() < deadline) {
              writer->changed.timedWaitAbsolute(writer->mutex, deadline);
            }
          }
          stream->finish();
          writer->done = true;
        }).detach();
      });
  // A small receive buffer, not read until the writer was told to wait.
  LoopbackClient client(SocketAddress("127.0.0.1", port()), 64 * 1024);
  ASSERT_TRUE(client.write(get("/s")));
  ASSERT_TRUE(eventually([&] { return writer->written_when_blocked.load() > 0; }));
  // What the writer got rid of before it had to wait: the mark, what the
  // kernel buffers took, and a piece.
  EXPECT_LT(writer->written_when_blocked.load(), size_t{6} * 1024 * 1024);
  size_t body = 0;
  std::string tail;
  char buffer[64 * 1024];
  while (tail.find("0\r\n\r\n") == std::string::npos) {
    const ssize_t n = ::recv(client.fd(), buffer, sizeof(buffer), 0);
    if (n <= 0) break;
    for (ssize_t i = 0; i < n; ++i) body += buffer[i] == 'x';
    tail.append(buffer, static_cast<size_t>(n));
    if (tail.size() > 16) tail.erase(0, tail.size() - 16);
  }
  EXPECT_EQ(kTotal, body);
  EXPECT_TRUE(eventually([&] { return writer->done.load(); }));
}

TEST_F(StreamServerTest, WriterThatDoesNotWaitLosesTheStream) {
  std::atomic<size_t> accepted{0};
  std::atomic<bool> refused{false};
  server_->registerStreamHandler("/s", [&](const HttpRequestPtr&, const HttpStreamPtr& stream) {
    std::thread([&, stream] {
      const std::string piece(64 * 1024, 'x');
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (std::chrono::steady_clock::now() < deadline) {
        if (!stream->write(piece)) {
          refused = true;
          return;
        }
        accepted += piece.size();
      }
    }).detach();
  });
  LoopbackClient client(SocketAddress("127.0.0.1", port()), 64 * 1024);
  ASSERT_TRUE(client.write(get("/s")));
  ASSERT_TRUE(eventually([&] { return refused.load(); }));
  // Twice the mark, the kernel's buffers and a piece at most.
  EXPECT_LT(accepted.load(), size_t{8} * 1024 * 1024);
}

// The header block of an answer (up to the blank line).
std::string headOf(const std::string& answer) {
  return answer.substr(0, answer.find("\r\n\r\n") + 2);
}

TEST_F(StreamServerTest, StreamHeadIsFramedAsTheConnectionsOtherAnswers) {
  HttpServerOptions strict;
  strict.strict_framing = true;
  struct Case {
    const char* name;
    HttpServerOptions options;
    std::string request;
    bool date;
    const char* connection;
    bool chunked;
    bool closes;
  };
  const Case cases[] = {
      {"default options", HttpServerOptions(), get("/s"), false, "keep-alive", true, false},
      {"strict framing", strict, get("/s"), true, "keep-alive", true, false},
      {"strict, the request ends the connection", strict,
       "GET /s HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n", true, "close", true, true},
      {"strict, HTTP/1.0", strict, get("/s", "1.0"), true, "close", false, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    start(test.options);
    server_->registerStreamHandler("/s", [](const HttpRequestPtr&, const HttpStreamPtr& stream) {
      auto response = std::make_shared<HttpResponse>();
      response->status_code = HttpResponse::kAccepted;
      response->setContentType("text/plain");
      stream->start(response);
      stream->write("hello");
      stream->finish();
    });
    LoopbackClient client(port());
    ASSERT_TRUE(client.write(test.request));
    std::string got = client.readUntil(test.chunked ? "0\r\n\r\n" : "hello");
    const std::string head = headOf(got);
    EXPECT_EQ(0u, head.find("HTTP/1.1 202 Accepted\r\n")) << head;
    EXPECT_NE(std::string::npos,
              head.find(std::string("\r\nConnection: ") + test.connection + "\r\n"))
        << head;
    EXPECT_EQ(test.chunked, head.find("\r\nTransfer-Encoding: chunked\r\n") != std::string::npos)
        << head;
    EXPECT_EQ(std::string::npos, head.find("Content-Length")) << head;
    // "Date: Sun, 06 Nov 1994 08:49:37 GMT", between its neighbours in byte
    // order, as in every other answer of such a server.
    const size_t date = head.find("\r\nDate: ");
    EXPECT_EQ(test.date, date != std::string::npos) << head;
    if (test.date && date != std::string::npos) {
      EXPECT_EQ(" GMT\r\n", head.substr(date + 8 + 29 - 4, 6)) << head;
      EXPECT_LT(head.find("Content-Type"), date) << head;
      EXPECT_GT(head.find("\r\nTransfer-Encoding"), date) << head;
    }
    const std::string body = got.substr(head.size() + 2);
    EXPECT_EQ(test.chunked ? "5\r\nhello\r\n0\r\n\r\n" : "hello", body);
    if (test.closes) {
      EXPECT_EQ("", client.readToEnd()) << "the connection stays open";
    } else {
      ASSERT_TRUE(client.write(get("/none")));
      EXPECT_EQ("HTTP/1.1 404", client.read(12));
    }
  }
}

TEST_F(StreamServerTest, StreamBegunWhileTheServerDrainsSaysConnectionClose) {
  StreamHolder holder;
  server_->registerStreamHandler("/s", keeping(&holder));
  LoopbackClient client(port());
  ASSERT_TRUE(client.write(get("/s")));
  HttpStreamPtr stream = holder.at(0);
  ASSERT_TRUE(stream);
  // A connection with nothing owed closes as the drain begins, so once this
  // one has ended, the other connection knows it drains.
  LoopbackClient idle(port());
  std::atomic<bool> drained{false};
  std::thread drain([&] { drained = server_->drain(Duration::seconds(20)); });
  EXPECT_EQ("", idle.readToEnd());
  auto response = std::make_shared<HttpResponse>();
  setText(response, "");
  stream->start(response);
  stream->write("bye");
  stream->finish();
  const std::string got = client.readToEnd();
  drain.join();
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/plain\r\n"
      "Transfer-Encoding: chunked\r\n\r\n3\r\nbye\r\n0\r\n\r\n",
      got);
  EXPECT_TRUE(drained.load());
}

TEST_F(StreamServerTest, DrainDeadlineEndsALiveStreamCleanly) {
  // HTTP/1.1 gets the terminating chunk, HTTP/1.0 the close that ends its body.
  const struct {
    const char* version;
    std::string answer;
  } cases[] = {
      {"1.1",
       "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n"
       "5\r\nhello\r\n0\r\n\r\n"},
      {"1.0", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.version);
    start(HttpServerOptions());
    std::atomic<bool> closed{false};
    server_->registerStreamHandler("/s", [&](const HttpRequestPtr&, const HttpStreamPtr& stream) {
      stream->onClose([&closed] { closed = true; });
      stream->write("hello");
    });
    LoopbackClient client(port());
    ASSERT_TRUE(client.write(get("/s", test.version)));
    std::string got = client.readUntil("hello");
    EXPECT_FALSE(server_->drain(Duration::milliseconds(100)));
    got += client.readToEnd();
    EXPECT_EQ(test.answer, got);
    EXPECT_TRUE(closed.load());
  }
}

// A stream counts as busy for the idle timeout only while it writes: one that
// stopped is ended cleanly, one that keeps writing outlives the timeout.
TEST_F(StreamServerTest, IdleTimeoutEndsOnlyAStreamThatStoppedWriting) {
  HttpServerOptions options;
  options.idle_timeout = Duration::milliseconds(500);
  start(options);
  std::atomic<bool> closed{false};
  server_->registerStreamHandler("/idle", [&](const HttpRequestPtr&, const HttpStreamPtr& stream) {
    stream->onClose([&closed] { closed = true; });
    stream->write("hello");
  });
  constexpr int kPieces = 60;
  server_->registerStreamHandler("/s", [](const HttpRequestPtr&, const HttpStreamPtr& stream) {
    std::thread([stream] {
      // Three times the idle timeout in all, a piece every 25 ms.
      for (int i = 0; i < kPieces; ++i) {
        if (!stream->write("p")) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
      }
      stream->finish();
    }).detach();
  });
  LoopbackClient idle(port()), writing(port());
  ASSERT_TRUE(idle.write(get("/idle")));
  ASSERT_TRUE(writing.write(get("/s")));
  std::string got = idle.readUntil("0\r\n\r\n");
  EXPECT_NE(std::string::npos, got.find("5\r\nhello\r\n0\r\n\r\n")) << got;
  EXPECT_TRUE(eventually([&] { return closed.load(); }));
  got = writing.readUntil("0\r\n\r\n");
  std::string pieces;
  for (int i = 0; i < kPieces; ++i) pieces += "1\r\np\r\n";
  EXPECT_EQ(pieces + "0\r\n\r\n", got.substr(got.find("\r\n\r\n") + 4));
}

// Records what the observer hears of plain requests. Any thread.
class AnswerLog : public HttpServerObserver {
 public:
  void requestAnswered(const std::string& pattern, int status, Duration) override {
    answers.add(pattern + " " + std::to_string(status));
  }
  vantu::testing::Collected<std::string> answers;
};

TEST_F(StreamServerTest, ObserverHearsOfAStreamWithTheStatusItBeganWith) {
  auto log = std::make_shared<AnswerLog>();
  server_->setObserver(log);
  StreamHolder holder;
  server_->registerStreamHandler("/s", keeping(&holder));
  server_->registerStreamHandler("/gone", [](const HttpRequestPtr&, const HttpStreamPtr&) {});
  {
    // Abandoned before it began: never answered.
    LoopbackClient client(port());
    ASSERT_TRUE(client.write(get("/gone")));
  }
  LoopbackClient client(port());
  ASSERT_TRUE(client.write(get("/s")));
  HttpStreamPtr stream = holder.at(0);
  ASSERT_TRUE(stream);
  waitForDeferredWork();
  EXPECT_TRUE(log->answers.all().empty()) << "told before the stream began";
  auto response = std::make_shared<HttpResponse>();
  response->status_code = HttpResponse::kPartialContent;
  stream->start(response);
  stream->write("x");
  client.readUntil("1\r\nx\r\n");
  stream->finish();
  waitForDeferredWork();
  EXPECT_EQ(std::vector<std::string>{"/s 206"}, log->answers.all());
}

TEST_F(StreamServerTest, ContinueWaitsForTheAnswersOwedBeforeIt) {
  HttpServerOptions options;
  options.strict_framing = true;
  const std::string post =
      "POST /plain HTTP/1.1\r\nHost: test\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n";
  const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
  for (const bool stream_first : {false, true}) {
    SCOPED_TRACE(stream_first ? "behind a stream" : "behind an async answer");
    start(options);
    DoneList dones;
    server_->registerAsyncHandler("/later", holding(&dones, "late"));
    StreamHolder holder;
    server_->registerStreamHandler("/stream", keeping(&holder));
    server_->registerHandler("/plain",
                             [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                               setText(response, request->body);
                             });
    LoopbackClient client(port());
    std::string earlier;
    if (stream_first) {
      ASSERT_TRUE(client.write(get("/stream")));
      HttpStreamPtr stream = holder.at(0);
      ASSERT_TRUE(stream);
      stream->write("one");
      client.readUntil("3\r\none\r\n");
      ASSERT_TRUE(client.write(post));
      EXPECT_FALSE(client.waitReadable(50)) << "the interim answer split the stream";
      stream->write("two");
      stream->finish();
      earlier = "3\r\ntwo\r\n0\r\n\r\n";
    } else {
      ASSERT_TRUE(client.write(get("/later") + post));
      ASSERT_TRUE(dones.waitFor(1));
      EXPECT_FALSE(client.waitReadable(50)) << "the interim answer overtook the answer owed";
      dones.at(0)();
      earlier =
          "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 4\r\n"
          "Content-Type: text/plain\r\nDate: ";
    }
    std::string got = client.readUntil(kContinue);
    ASSERT_EQ(0u, got.find(earlier)) << got;
    EXPECT_EQ(got.size() - kContinue.size(), got.find(kContinue)) << got;
    ASSERT_TRUE(client.write("ok"));
    got = client.readUntil("\r\n\r\nok");
    EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n")) << got;
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
