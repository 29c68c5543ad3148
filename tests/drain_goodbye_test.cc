// A draining server says goodbye the HTTP/1.1 way, and a resilient channel
// takes the hint: nothing is lost when the servers behind it restart one
// after another.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/call_load.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;
using vantu::testing::rpcRequest;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

using Server = vantu::testing::TestServer<>;

TEST(DrainGoodbyeTest, LateCallsAreAnsweredUnrunAndEveryAnswerSaysClose) {
  Server up;
  ASSERT_TRUE(up.server);
  LoopbackClient client(up.port()), idle(up.port());
  client.write(rpcRequest("relaytest.TestService", "Hold", "5", textMessage("held")));
  ASSERT_TRUE(up.service->waitHeld(1));
  std::atomic<bool> drained{false};
  std::thread drainer([&] { drained = up.server->drain(Duration::seconds(30)); });
  // A connection with nothing to say closes once the drain has begun.
  EXPECT_EQ("", idle.readToEnd());
  EXPECT_TRUE(idle.peerClosed());
  // Pipelined after drain began: not run, and marked so.
  client.write(rpcRequest("relaytest.TestService", "Echo", "6", textMessage("late")) +
               rpcRequest("relaytest.TestService", "Echo", "-7", textMessage("later")));
  const auto refused = [](const char* id) {
    return std::string(
               "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n"
               "Rpc-Error: Server is draining.\r\nRpc-Failed: 1\r\nRpc-Id: ") +
           id + "\r\nRpc-Not-Run: 1\r\n\r\n";
  };
  const std::string not_run = refused("6") + refused("-7");
  EXPECT_EQ(not_run, client.read(not_run.size()));
  up.service->release();
  const std::string body = textMessage("held");
  const std::string answer =
      "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
      "\r\nRpc-Failed: 0\r\nRpc-Id: 5\r\n\r\n" + body;
  EXPECT_EQ(answer, client.read(answer.size()));
  // Owing nothing, the server closes as soon as the client ends its side.
  client.shutdownWrite();
  EXPECT_EQ("", client.readToEnd());
  EXPECT_TRUE(client.peerClosed());
  drainer.join();
  EXPECT_TRUE(drained);
  EXPECT_EQ(1, up.service->calls.load());
}

TEST(DrainGoodbyeTest, RollingRestartUnderLoadLosesNoCall) {
  std::vector<std::unique_ptr<Server>> servers;
  std::string target;
  for (int i = 0; i < 3; ++i) {
    servers.push_back(std::make_unique<Server>());
    ASSERT_TRUE(servers.back()->server);
    target += (i ? "," : "") + servers.back()->target();
  }
  RPCChannelPtr channel = RPCChannel::create(target, RPCChannelOptions::resilient());
  ASSERT_TRUE(channel);
  vantu::testing::CallLoad<relaytest::Text, relaytest::Text> load(
      channel.get(), vantu::testing::testMethod("Echo"), 32);
  load.start();
  ASSERT_TRUE(load.waitForMore(1000));
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const uint16_t port = servers[i]->port();
    EXPECT_TRUE(servers[i]->server->drain(Duration::seconds(10)));
    servers[i] = std::make_unique<Server>(port);
    ASSERT_TRUE(servers[i]->server);
    // Used again once the channel's backoff (at most two seconds) lets it
    // try. Bounded by time, not calls: a fast machine finishes any fixed
    // number of calls on the other two servers before the first retry.
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (servers[i]->service->calls.load() == 0 && std::chrono::steady_clock::now() < give_up) {
      ASSERT_TRUE(load.waitForMore(10));
    }
    EXPECT_GT(servers[i]->service->calls.load(), 0);
  }
  ASSERT_TRUE(load.waitForMore(1000));
  EXPECT_TRUE(load.stop());
  EXPECT_EQ((std::map<std::string, uint64_t>{}), load.failures());
  channel.reset();
  for (int i = 0; i < 3; ++i) waitForDeferredWork();
}

}  // namespace
}  // namespace relay
}  // namespace vantu
