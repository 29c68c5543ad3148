#include "relay/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>

#include "common/event_thread.h"
#include "tests/loopback_client.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;

const std::string kHello =
    "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
    "Content-Type: text/plain\r\n\r\nhello\n";
const std::string kNotFound =
    "HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n";
const std::string kBadRequest = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n";

void setText(const HttpResponsePtr& response, const std::string& text) {
  response->setContentType("text/plain");
  response->content.assign(text.begin(), text.end());
}

std::string get(const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

// Set when its owner is destroyed; lets a test wait for a destruction that
// happens on the event thread.
struct Sentinel {
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool destroyed = false;
    bool on_event_thread = false;
  };
  explicit Sentinel(std::shared_ptr<State> state) : state(std::move(state)) {}
  ~Sentinel() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->destroyed = true;
    state->on_event_thread = isEventThread();
    state->changed.notify_all();
  }
  std::shared_ptr<State> state;
};

bool waitDestroyed(const std::shared_ptr<Sentinel::State>& state) {
  std::unique_lock<std::mutex> lock(state->mutex);
  return state->changed.wait_for(lock, std::chrono::seconds(30),
                                 [&state] { return state->destroyed; });
}

class HttpServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 128);
    ASSERT_TRUE(server_);
    port_ = server_->localAddress().port();
    server_->registerHandler(
        "/hello", [](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, "hello\n"); });
  }
  void TearDown() override {
    server_.reset();
    waitForDeferredWork();
  }

  std::shared_ptr<HttpServer> server_;
  uint16_t port_ = 0;
};

TEST_F(HttpServerTest, PipelinedRequestsAreAnsweredInOrder) {
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(get("/hello") + get("/missing") + get("/hello?x=1") + get("/")));
  const std::string expected = kHello + kNotFound + kHello + kNotFound;
  EXPECT_EQ(expected, client.read(expected.size()));
  // And the connection is kept for more.
  ASSERT_TRUE(client.write(get("/hello")));
  EXPECT_EQ(kHello, client.read(kHello.size()));
}

TEST_F(HttpServerTest, RequestSplitAtEveryByteGetsTheSameAnswers) {
  const std::string stream =
      "POST /hello HTTP/1.1\r\nHost: t\r\nContent-Length: 3\r\n\r\nabc" + get("/hello");
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  for (size_t cut = 1; cut < stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(client.write(stream.substr(0, cut)));
    ASSERT_TRUE(client.write(stream.substr(cut)));
    ASSERT_EQ(kHello + kHello, client.read(2 * kHello.size()));
  }
}

TEST_F(HttpServerTest, GarbageGets400AndTheConnectionKeepsServing) {
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(get("/hello") + "THIS IS NOT HTTP\r\n"));
  const std::string expected = kHello + kBadRequest;
  EXPECT_EQ(expected, client.read(expected.size()));
  // The same parser goes on with the next bytes.
  ASSERT_TRUE(client.write(get("/hello") + get("/nope")));
  EXPECT_EQ(kHello + kNotFound, client.read(kHello.size() + kNotFound.size()));
  // A bad header line in a later request.
  ASSERT_TRUE(client.write("GET /hello HTTP/1.1\r\nbroken\r\n"));
  EXPECT_EQ(kBadRequest, client.read(kBadRequest.size()));
}

TEST_F(HttpServerTest, RegistrationOrderAndWholePathMatch) {
  server_->registerHandler(
      "/a.*", [](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, "first\n"); });
  server_->registerHandler(
      "/ab", [](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, "second\n"); });
  server_->registerHandler("/c", [](const HttpRequestPtr& request, const HttpResponsePtr& r) {
    r->status_code = HttpResponse::kCreated;
    r->setHeader("Connection", "close");  // only text: the connection stays open
    setText(r, request->getStringQueryComponent("x", 0));
  });
  server_->registerHandler(
      "(unclosed", [](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, "never"); });
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(get("/ab") + get("/c?x=42") + get("/c/d") + get("/hello")));
  const std::string first =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
      "Content-Type: text/plain\r\n\r\nfirst\n";
  const std::string created =
      "HTTP/1.1 201 Created\r\nConnection: close\r\nContent-Length: 2\r\n"
      "Content-Type: text/plain\r\n\r\n42";
  const std::string expected = first + created + kNotFound + kHello;
  EXPECT_EQ(expected, client.read(expected.size()));
}

TEST_F(HttpServerTest, HandlerMayRegisterHandlers) {
  server_->registerHandler("/add", [this](const HttpRequestPtr&, const HttpResponsePtr& r) {
    server_->registerHandler(
        "/added", [](const HttpRequestPtr&, const HttpResponsePtr& r2) { setText(r2, "added\n"); });
    setText(r, "ok\n");
  });
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(get("/added") + get("/add") + get("/added")));
  const std::string ok =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 3\r\n"
      "Content-Type: text/plain\r\n\r\nok\n";
  const std::string added =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
      "Content-Type: text/plain\r\n\r\nadded\n";
  const std::string expected = kNotFound + ok + added;
  EXPECT_EQ(expected, client.read(expected.size()));
}

TEST_F(HttpServerTest, PeerEndingItsSideGetsItsAnswersThenTheEnd) {
  // The partial request was consumed by the parser, so nothing is left over at
  // the end of input: the answers go out and the connection closes cleanly.
  for (const std::string& tail : {std::string(), std::string("GET /hel")}) {
    SCOPED_TRACE(tail);
    LoopbackClient client(port_);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.write(get("/hello") + get("/hello") + tail));
    client.shutdownWrite();
    EXPECT_EQ(kHello + kHello, client.readToEnd());
  }
}

TEST_F(HttpServerTest, CreateOnAPortInUseGivesNull) {
  EXPECT_FALSE(HttpServer::create(SocketAddress("127.0.0.1", port_), 16));
  EXPECT_FALSE(HttpServer::create(SocketAddress("256.1.1.1", 80), 16));
}

TEST(HttpServerLifetimeTest, ServerDroppedWhileConnectionOpenKeepsHandlersUntilItCloses) {
  auto state = std::make_shared<Sentinel::State>();
  auto server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  auto sentinel = std::make_shared<Sentinel>(state);
  server->registerHandler("/hello", [sentinel](const HttpRequestPtr&, const HttpResponsePtr& r) {
    setText(r, "hello\n");
  });
  sentinel.reset();
  LoopbackClient client(server->localAddress().port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(get("/hello")));
  ASSERT_EQ(kHello, client.read(kHello.size()));

  server.reset();  // from this thread: destroyed later on the event thread
  waitForDeferredWork();
  ASSERT_TRUE(client.write(get("/hello")));
  EXPECT_EQ(kHello, client.read(kHello.size()));
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    EXPECT_FALSE(state->destroyed);
  }
  client.close();
  ASSERT_TRUE(waitDestroyed(state));
  EXPECT_TRUE(state->on_event_thread);
}

TEST_F(HttpServerTest, RegistrationsFromOtherThreadsWhileRequestsFlow) {
  std::vector<std::thread> registrars;
  for (int t = 0; t < 3; ++t) {
    registrars.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) {
        server_->registerHandler(
            "/t" + std::to_string(t) + "/" + std::to_string(i),
            [](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, "hello\n"); });
      }
    });
  }
  LoopbackClient client(port_);
  ASSERT_TRUE(client.connected());
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(client.write(get("/hello")));
    ASSERT_EQ(kHello, client.read(kHello.size()));
  }
  for (auto& thread : registrars) thread.join();
  // Every registration is now visible to dispatch.
  ASSERT_TRUE(client.write(get("/t2/0") + get("/t0/199")));
  EXPECT_EQ(kHello + kHello, client.read(2 * kHello.size()));
}

TEST_F(HttpServerTest, ManyClientsSomeVanishingMidRequest) {
  // 300 connections at once; every seventh sends half a request and resets.
  constexpr int kClients = 300;
  constexpr int kRequests = 5;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::vector<std::unique_ptr<LoopbackClient>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<LoopbackClient>(port_));
    ASSERT_TRUE(clients.back()->connected());
  }
  std::mt19937 random(seed);
  for (int round = 0; round < kRequests; ++round) {
    for (int i = 0; i < kClients; ++i) {
      if (!clients[i]) continue;
      if (i % 7 == 0 && round == static_cast<int>(random() % kRequests)) {
        clients[i]->write("GET /hel");
        clients[i]->abort();
        clients[i].reset();
        continue;
      }
      ASSERT_TRUE(clients[i]->write(get(round % 2 ? "/hello" : "/x")));
    }
    for (int i = 0; i < kClients; ++i) {
      if (!clients[i]) continue;
      const std::string& expected = round % 2 ? kHello : kNotFound;
      ASSERT_EQ(expected, clients[i]->read(expected.size())) << "client " << i;
    }
  }
  LoopbackClient late(port_);
  ASSERT_TRUE(late.write(get("/hello")));
  EXPECT_EQ(kHello, late.read(kHello.size()));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
