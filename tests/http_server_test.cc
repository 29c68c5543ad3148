#include "relay/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "common/event_thread.h"
#include "common/logging.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/log_capture.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LogCapture;
using vantu::testing::LoopbackClient;
using vantu::testing::rpcRequest;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

const std::string kHello =
    "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
    "Content-Type: text/plain\r\n\r\nhello\n";
const std::string kNotFound =
    "HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n";

void setText(const HttpResponsePtr& response, const std::string& text) {
  response->setContentType("text/plain");
  response->content.assign(text.begin(), text.end());
}

std::string get(const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

// Reads until `count` whole responses have arrived (fewer if the connection
// ends first), one byte at a time so that nothing of a later answer is taken.
std::vector<HttpResponsePtr> readResponses(LoopbackClient* client, size_t count) {
  HttpResponseParser parser;
  std::vector<HttpResponsePtr> responses;
  std::string byte;
  while (responses.size() < count) {
    byte = client->read(1);
    if (byte.empty() || !parser.parse(byte, &responses)) break;
  }
  // An answer without a body is complete at the CR of its blank line; its LF
  // is still to be taken.
  if (byte == "\r") client->read(1);
  return responses;
}

// Status, headers and body of a received response, as one text.
std::string describe(const HttpResponse& r) {
  std::string out = std::to_string(r.status_code);
  for (const auto& h : r.headers) out += " [" + h.first + "|" + h.second + "]";
  return out + " " + r.body;
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

std::string answer(const std::string& text) {
  return "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: " +
         std::to_string(text.size()) + "\r\nContent-Type: text/plain\r\n\r\n" + text;
}

HttpRequestHandler answering(const std::string& text) {
  return [text](const HttpRequestPtr&, const HttpResponsePtr& r) { setText(r, text); };
}

// The first pattern registered that matches the whole path answers; a handler
// may register handlers. Only strict framing leaves the content out of an
// answer to HEAD: by default it is answered as its handler filled the response.
TEST_F(HttpServerTest, DispatchByRegistrationOrderWholePathAndHead) {
  // A pattern that does not compile is passed over, not taken as a match nor
  // as the end of the list.
  server_->registerHandler("(unclosed", answering("broken"));
  server_->registerHandler("/a.*", answering("a-any"));
  server_->registerHandler("/ab", answering("ab"));
  server_->registerHandler("/bc", answering("bc"));
  server_->registerHandler("/b.*", answering("b-any"));
  server_->registerHandler("/c", [](const HttpRequestPtr& request, const HttpResponsePtr& r) {
    r->status_code = HttpResponse::kCreated;
    r->setHeader("Connection", "close");  // only text: the connection stays open
    setText(r, request->getStringQueryComponent("x", 0));
  });
  server_->registerHandler("/make", [this](const HttpRequestPtr&, const HttpResponsePtr& r) {
    server_->registerHandler("/made", answering("added\n"));
    setText(r, "ok\n");
  });
  LoopbackClient client(port_);
  ASSERT_TRUE(client.write(get("/ab") + get("/a") + get("/bc") + get("/bd") + get("/c?x=42") +
                           get("/c/d") + get("/hello") + get("/unclosed") + get("/made") +
                           get("/make") + get("/made") + "HEAD /hello HTTP/1.1\r\nHost: t\r\n\r\n" +
                           "HEAD /missing HTTP/1.1\r\nHost: t\r\n\r\n"));
  const std::string created =
      "HTTP/1.1 201 Created\r\nConnection: close\r\nContent-Length: 2\r\n"
      "Content-Type: text/plain\r\n\r\n42";
  const std::string expected = answer("a-any") + answer("a-any") + answer("bc") + answer("b-any") +
                               created + kNotFound + kHello + kNotFound + kNotFound +
                               answer("ok\n") + answer("added\n") + kHello + kNotFound;
  EXPECT_EQ(expected, client.read(expected.size()));
}

TEST_F(HttpServerTest, UrlWithoutAPathIsMatchedAsTheEmptyString) {
  // "foo:?q=1" is an absolute URL whose path is empty: no handler that needs a
  // slash takes it, and the empty pattern does.
  server_->registerHandler("/.*", answering("slash"));
  server_->registerHandler("", answering("empty"));
  LoopbackClient client(port_);
  ASSERT_TRUE(client.write("GET foo:?q=1 HTTP/1.1\r\n\r\n" + get("/x") + get("")));
  const std::string expected = answer("empty") + answer("slash") + answer("slash");
  EXPECT_EQ(expected, client.read(expected.size()));
}

TEST(HttpServerLifetimeTest, FailedCreateDeletesItsServerLaterOnTheEventThread) {
  auto holder = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(holder);
  const uint16_t port = holder->localAddress().port();
  waitForDeferredWork();
  const int live = liveHttpServersForTesting();
  // On the event thread the deletion can only be queued behind this function:
  // the half-made server is still there when create has returned.
  bool created = true;
  int live_after_create = -1;
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    created = static_cast<bool>(HttpServer::create(SocketAddress("127.0.0.1", port), 16));
    live_after_create = liveHttpServersForTesting();
  }));
  EXPECT_FALSE(created);
  EXPECT_EQ(live + 1, live_after_create);
  waitForDeferredWork();
  EXPECT_EQ(live, liveHttpServersForTesting());
  // From another thread, with an address that cannot even be made.
  EXPECT_FALSE(HttpServer::create(SocketAddress("256.1.1.1", 80), 16));
  waitForDeferredWork();
  EXPECT_EQ(live, liveHttpServersForTesting());
  holder.reset();
  waitForDeferredWork();
  EXPECT_EQ(live - 1, liveHttpServersForTesting());
}

TEST(HttpServerLifetimeTest, ServerDroppedWhileConnectionOpenKeepsHandlersUntilItCloses) {
  auto server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  // Held by the handler alone; tells whether it died on the event thread.
  auto destroyed = std::make_shared<std::promise<bool>>();
  std::future<bool> destroyed_on_event_thread = destroyed->get_future();
  std::shared_ptr<void> sentinel(nullptr,
                                 [destroyed](void*) { destroyed->set_value(isEventThread()); });
  server->registerHandler("/hello", [sentinel](const HttpRequestPtr&, const HttpResponsePtr& r) {
    setText(r, "hello\n");
  });
  sentinel.reset();
  LoopbackClient client(server->localAddress().port());
  ASSERT_TRUE(client.write(get("/hello")));
  ASSERT_EQ(kHello, client.read(kHello.size()));

  server.reset();  // from this thread: destroyed later on the event thread
  waitForDeferredWork();
  ASSERT_TRUE(client.write(get("/hello")));
  EXPECT_EQ(kHello, client.read(kHello.size()));
  EXPECT_EQ(std::future_status::timeout,
            destroyed_on_event_thread.wait_for(std::chrono::seconds(0)));
  client.close();
  ASSERT_EQ(std::future_status::ready,
            destroyed_on_event_thread.wait_for(std::chrono::seconds(30)));
  EXPECT_TRUE(destroyed_on_event_thread.get());
}

TEST_F(HttpServerTest, RegistrationsFromOtherThreadsAreSeenByDispatch) {
  // Three threads register the handlers that the requests ask for while the
  // requests flow, each keeping just ahead of the client: each request is
  // answered by its own handler, or by 404 while that handler is not
  // registered yet, and never by 404 once every registration has returned.
  constexpr int kThreads = 3;
  constexpr int kPerThread = 150;
  auto path = [](int t, int i) { return "/t" + std::to_string(t) + "/" + std::to_string(i); };
  std::atomic<int> finished{0};
  std::atomic<int> asked{0};  // the client has had answers for every index below
  struct Joined : std::vector<std::thread> {
    ~Joined() {
      for (std::thread& thread : *this) thread.join();
    }
  } registrars;
  for (int t = 0; t < kThreads; ++t) {
    registrars.emplace_back([this, t, &path, &finished, &asked] {
      for (int i = 0; i < kPerThread; ++i) {
        while (asked < i) std::this_thread::yield();
        server_->registerHandler(path(t, i), answering(path(t, i)));
      }
      ++finished;
    });
  }
  // Should the client stop early, the registrars must not wait for it.
  struct Release {
    std::atomic<int>* asked;
    ~Release() { *asked = kPerThread; }
  } release{&asked};
  LoopbackClient client(port_);
  int not_yet = 0;
  for (int i = 0; i < kPerThread; ++i) {
    for (int t = 0; t < kThreads; ++t) {
      for (;;) {
        const bool all_registered = finished == kThreads;
        ASSERT_TRUE(client.write(get(path(t, i))));
        std::vector<HttpResponsePtr> responses = readResponses(&client, 1);
        ASSERT_EQ(1u, responses.size());
        if (responses[0]->status_code == 200) {
          ASSERT_EQ(path(t, i), responses[0]->body);
          break;
        }
        ASSERT_EQ(404, responses[0]->status_code);
        ASSERT_FALSE(all_registered) << path(t, i) << " lost";
        ++not_yet;
      }
    }
    asked = i + 1;
  }
  printf("requests that came before their handler: %d\n", not_yet);
}

TEST_F(HttpServerTest, LogRecordsOfDispatchAndRpcs) {
  server_->registerRPCService(std::make_shared<TestServiceImpl>());
  LoopbackClient client(port_);
  {
    // Defaults: only the level 2 record of a request nothing answers.
    LogCapture log("http_server", 2);
    ASSERT_TRUE(client.write(get("/hello") + get("/missing")));
    ASSERT_EQ(2u, readResponses(&client, 2).size());
    EXPECT_EQ(std::vector<std::string>{"2|relay/http_server|No handler found for /missing"},
              log.takeTexts());
  }
  LogCapture log("http_server", 6);
  ASSERT_TRUE(client.write(get("/hello") + "GET urn: HTTP/1.1\r\n\r\n"));
  ASSERT_EQ(2u, readResponses(&client, 2).size());
  EXPECT_EQ((std::vector<std::string>{
                "5|relay/http_server|This is a standard HTTP request",
                "5|relay/http_server|Regexp /hello matches URL /hello",
                "5|relay/http_server|This is a standard HTTP request",
                "2|relay/http_server|No handler found for ",
            }),
            log.takeTexts());

  // An id of -1 is logged as the unsigned number it becomes.
  ASSERT_TRUE(
      client.write(rpcRequest("relaytest.TestService", "Echo", "-1", "{\"text\":\"hi\"}", true)));
  std::vector<HttpResponsePtr> answers = readResponses(&client, 1);
  ASSERT_EQ(1u, answers.size());
  EXPECT_EQ(
      "200 [Connection|keep-alive] [Content-Length|13] [Content-Type|application/json] "
      "[Rpc-Failed|0] [Rpc-Id|-1] {\"text\":\"hi\"}",
      describe(*answers[0]));
  EXPECT_EQ((std::vector<std::string>{
                "5|relay/http_server|This is a RPC!!! relaytest.TestService Echo 4294967295",
                "6|relay/http_server|JSON request {\"text\":\"hi\"}",
                "6|relay/http_server|Calling method. Request=text: \"hi\"\n",
                "6|relay/http_server|text: \"hi\"\n json:{\"text\":\"hi\"}",
            }),
            log.takeTexts());

  // A binary call: no JSON records.
  ASSERT_TRUE(client.write(rpcRequest("relaytest.TestService", "Echo", "3", textMessage("b"))));
  ASSERT_EQ(1u, readResponses(&client, 1).size());
  EXPECT_EQ((std::vector<std::string>{
                "5|relay/http_server|This is a RPC!!! relaytest.TestService Echo 3",
                "6|relay/http_server|Calling method. Request=text: \"b\"\n",
            }),
            log.takeTexts());
}

TEST_F(HttpServerTest, ReRegisteringAServiceReplacesIt) {
  auto first = std::make_shared<TestServiceImpl>("first:");
  server_->registerRPCService(first);
  LoopbackClient client(port_);
  auto echo = [&client](const std::string& id) {
    EXPECT_TRUE(client.write(rpcRequest("relaytest.TestService", "Echo", id, textMessage(id))));
    std::vector<HttpResponsePtr> answers = readResponses(&client, 1);
    relaytest::Text reply;
    EXPECT_TRUE(answers.size() == 1 && reply.ParseFromString(answers[0]->body));
    return reply.text();
  };
  EXPECT_EQ("first:1", echo("1"));
  auto second = std::make_shared<TestServiceImpl>("second:");
  server_->registerRPCService(second);
  EXPECT_EQ(1, first.use_count());  // the server let go of the first one
  EXPECT_EQ("second:2", echo("2"));
  EXPECT_EQ("second:3", echo("3"));
  EXPECT_EQ(1, first->calls);
  EXPECT_EQ(2, second->calls);
}

TEST_F(HttpServerTest, ServiceCompletingAfterItsClientLeftFreesTheRecordAndSendsNothing) {
  auto service = std::make_shared<TestServiceImpl>();
  server_->registerRPCService(service);
  const int records = liveRPCRecordsForTesting();
  {
    LoopbackClient client(port_);
    ASSERT_TRUE(client.write(rpcRequest("relaytest.TestService", "Hold", "1", textMessage("x"))));
    ASSERT_TRUE(service->waitHeld(1));
    EXPECT_EQ(records + 1, liveRPCRecordsForTesting());
    client.abort();
  }
  // The server goes on serving other connections while the call is held.
  LoopbackClient other(port_);
  ASSERT_TRUE(other.write(get("/hello")));
  ASSERT_EQ(kHello, other.read(kHello.size()));

  std::thread completer([&service] { service->complete(0); });
  completer.join();
  EXPECT_EQ(records, liveRPCRecordsForTesting());

  ASSERT_TRUE(other.write(rpcRequest("relaytest.TestService", "Echo", "2", textMessage("y")) +
                          get("/hello")));
  std::vector<HttpResponsePtr> answers = readResponses(&other, 2);
  ASSERT_EQ(2u, answers.size());
  EXPECT_EQ("2", answers[0]->headers["Rpc-Id"]);
  EXPECT_EQ("0", answers[0]->headers["Rpc-Failed"]);
  EXPECT_EQ("hello\n", answers[1]->body);
  EXPECT_EQ(records, liveRPCRecordsForTesting());
}

}  // namespace
}  // namespace relay
}  // namespace vantu
