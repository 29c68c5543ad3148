// What a server tells its observer.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using Outcome = HttpServerObserver::RpcOutcome;
using vantu::testing::rpcRequest;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

class RecordingObserver : public HttpServerObserver {
 public:
  void connectionOpened() override { bump("opened"); }
  void connectionClosed() override { bump("closed"); }
  void bytesReceived(size_t bytes) override { add("received", bytes); }
  void bytesSent(size_t bytes) override { add("sent", bytes); }
  void requestAnswered(const std::string& pattern, int status, Duration) override {
    EXPECT_TRUE(isEventThread());
    bump("answered " + pattern + " " + std::to_string(status));
  }
  void rpcStarted(const std::string& service, const std::string& method) override {
    EXPECT_TRUE(isEventThread());
    bump("started " + service + "." + method);
  }
  void rpcFinished(const std::string& service, const std::string& method, Outcome outcome,
                   Duration) override {
    bump("rpc " + service + "." + method + " " + std::to_string(static_cast<int>(outcome)));
  }
  void requestRefused(int status, bool by_limit) override {
    bump("refused " + std::to_string(status) + (by_limit ? " limit" : ""));
  }
  std::map<std::string, size_t> counts() {
    MutexLock lock(mutex_);
    return counts_;
  }

 private:
  void bump(const std::string& what) { add(what, 1); }
  void add(const std::string& what, size_t n) {
    MutexLock lock(mutex_);
    counts_[what] += n;
  }
  Mutex mutex_;
  std::map<std::string, size_t> counts_;
};

TEST(HttpServerObserverTest, SeesRequestsCallsRefusalsConnectionsAndBytes) {
  HttpServerOptions options;
  options.max_body_bytes = 100;
  std::shared_ptr<HttpServer> server =
      HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options);
  ASSERT_TRUE(server);
  server->registerHandler(
      "/a.*", [](const HttpRequestPtr&, const HttpResponsePtr& r) { r->content.assign(3, 'x'); });
  server->registerRPCService(std::make_shared<TestServiceImpl>());
  auto observer = std::make_shared<RecordingObserver>();
  server->setObserver(observer);

  const std::string sent =
      "GET /abc HTTP/1.1\r\nHost: h\r\n\r\nGET /zzz HTTP/1.1\r\nHost: h\r\n\r\n" +
      rpcRequest("relaytest.TestService", "Echo", "1", textMessage("t")) +
      rpcRequest("relaytest.TestService", "Fail", "2", textMessage("t")) +
      rpcRequest("relaytest.TestService", "Nope", "3", "") +
      rpcRequest("nobody.Service", "Echo", "4", "") +
      rpcRequest("relaytest.TestService", "Echo", "5", "\xff") + "bad line\r\n";
  std::string received;
  {
    vantu::testing::LoopbackClient client(server->localAddress().port());
    client.write(sent);
    client.shutdownWrite();
    received = client.readToEnd();
  }
  // A limit's refusal, on a connection of its own.
  const std::string too_large = "POST /a HTTP/1.1\r\nContent-Length: 101\r\n\r\n";
  std::string refused;
  {
    vantu::testing::LoopbackClient client(server->localAddress().port());
    client.write(too_large);
    refused = client.readToEnd();
  }
  server.reset();
  waitForDeferredWork();
  std::map<std::string, size_t> counts = observer->counts();
  auto rpc = [](const std::string& name, Outcome outcome) {
    return "rpc " + name + " " + std::to_string(static_cast<int>(outcome));
  };
  const std::map<std::string, size_t> events = {
      {"opened", 2},
      {"closed", 2},
      {"answered /a.* 200", 1},
      {"answered  404", 1},
      {rpc("relaytest.TestService.Echo", Outcome::kOk), 1},
      {rpc("relaytest.TestService.Fail", Outcome::kFailed), 1},
      {rpc("relaytest.TestService.Nope", Outcome::kMethodNotFound), 1},
      {rpc("nobody.Service.Echo", Outcome::kServiceNotFound), 1},
      {rpc("relaytest.TestService.Echo", Outcome::kBadRequest), 1},
      {"started relaytest.TestService.Echo", 1},
      {"started relaytest.TestService.Fail", 1},
      {"refused 400", 1},
      {"refused 413 limit", 1},
  };
  for (const auto& event : events) {
    EXPECT_EQ(event.second, counts[event.first]) << event.first;
    counts.erase(event.first);
  }
  EXPECT_EQ(sent.size() + too_large.size(), counts["received"]);
  counts.erase("received");
  EXPECT_EQ(received.size() + refused.size(), counts["sent"]);
  EXPECT_EQ(0u, refused.find("HTTP/1.1 413 "));
  counts.erase("sent");
  EXPECT_TRUE(counts.empty()) << counts.begin()->first;
}

// What began before the observer was set does not end in its counts: its
// gauges would otherwise go below zero.
TEST(HttpServerObserverTest, ObserverSetLateSeesOnlyWhatBeganAfter) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  auto service = std::make_shared<TestServiceImpl>();
  server->registerRPCService(service);
  auto client = std::make_unique<vantu::testing::LoopbackClient>(server->localAddress().port());
  client->write(rpcRequest("relaytest.TestService", "Hold", "1", ""));
  ASSERT_TRUE(service->waitHeld(1));
  auto observer = std::make_shared<RecordingObserver>();
  server->setObserver(observer);
  service->complete(0);
  client->read(1);
  client.reset();
  server.reset();
  waitForDeferredWork();
  std::map<std::string, size_t> counts = observer->counts();
  counts.erase("sent");
  EXPECT_TRUE(counts.empty()) << counts.begin()->first;
}

}  // namespace
}  // namespace relay
}  // namespace vantu
