// The health check turns 503 the moment a drain is announced, on connections
// old and new, while the server still accepts and serves everything else; the
// drain proper follows the announce period.
#include "relay/health.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "common/event_thread.h"
#include "common/time.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;

const char kHealthRequest[] = "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n";
const char kHelloRequest[] = "GET /hello HTTP/1.1\r\nHost: x\r\n\r\n";

std::string answer(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status +
         "\r\nCache-Control: no-store\r\nConnection: keep-alive\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nContent-Type: text/plain\r\n\r\n" + body;
}
const std::string kOk = answer("200 OK", "ok\n");
const std::string kDraining = answer("503 Service Unavailable", "draining\n");
const std::string kHello =
    "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
    "Content-Type: text/plain\r\n\r\nhello\n";

std::string ask(LoopbackClient* client, const std::string& request, size_t answer_size) {
  client->write(request);
  return client->read(answer_size);
}

std::shared_ptr<HttpServer> healthServer() {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 128);
  if (!server) return server;
  registerHealthCheck(server);
  server->registerHandler("/hello", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    response->setContentType("text/plain");
    response->content.assign({'h', 'e', 'l', 'l', 'o', '\n'});
  });
  return server;
}

TEST(HealthCheckTest, UnavailableDuringTheAnnouncePeriodOnOldAndNewConnections) {
  std::shared_ptr<HttpServer> server = healthServer();
  ASSERT_TRUE(server);
  const uint16_t port = server->localAddress().port();
  LoopbackClient before(port);
  EXPECT_EQ(kOk, ask(&before, kHealthRequest, kOk.size()));
  EXPECT_FALSE(server->draining());

  // Long enough for a few loopback round trips on the slowest machine; the
  // checks below do not wait for it to pass, only the join does.
  std::atomic<bool> drained{false};
  std::thread drainer(
      [&] { drained = server->drain(Duration::seconds(10), Duration::seconds(5)); });
  // The flag turns before the announce period's wait begins.
  EXPECT_TRUE(vantu::testing::eventually([&] { return server->draining(); }));

  EXPECT_EQ(kDraining, ask(&before, kHealthRequest, kDraining.size()));
  LoopbackClient after(port);
  ASSERT_TRUE(after.connected());
  EXPECT_EQ(kDraining, ask(&after, kHealthRequest, kDraining.size()));
  // Everything else is served as before, and the connections stay open.
  EXPECT_EQ(kHello, ask(&after, kHelloRequest, kHello.size()));
  EXPECT_EQ(kHello, ask(&before, kHelloRequest, kHello.size()));
  EXPECT_FALSE(drained);

  // Then the drain proper: idle connections close, new ones are refused.
  EXPECT_EQ("", before.readToEnd());
  EXPECT_TRUE(before.peerClosed());
  EXPECT_EQ("", after.readToEnd());
  EXPECT_TRUE(after.peerClosed());
  drainer.join();
  EXPECT_TRUE(drained);
  LoopbackClient refused(port);
  EXPECT_FALSE(refused.connected());
}

TEST(HealthCheckTest, AnswersAtItsOwnPathOnlyAndAnUnannouncedDrainTurnsItToo) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 128);
  ASSERT_TRUE(server);
  registerHealthCheck(server, "/ready.z");
  LoopbackClient client(server->localAddress().port());
  EXPECT_EQ(kOk, ask(&client, "GET /ready.z HTTP/1.1\r\n\r\n", kOk.size()));
  // The dot is a dot, not any character.
  EXPECT_EQ("HTTP/1.1 404", ask(&client, "GET /readyxz HTTP/1.1\r\n\r\n", 12));
  client.readUntil("\r\n\r\n");
  EXPECT_TRUE(server->drain(Duration::seconds(10)));
  EXPECT_TRUE(server->draining());
  EXPECT_EQ("", client.readToEnd());
}

}  // namespace
}  // namespace relay
}  // namespace vantu
