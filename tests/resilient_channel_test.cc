// Channels made with options, end to end over loopback against servers in
// this process: default options behave as the specified channel, and with
// the resilient ones no call waits for ever, deadlines reach the server,
// lost connections are made again, and calls spread over several servers.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/closure.h"
#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/loopback_client.h"
#include "tests/scripted_server.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using relaytest::Text;
using vantu::testing::ScriptedServer;
using vantu::testing::TestServiceImpl;

const google::protobuf::MethodDescriptor* method(const char* name) {
  return relaytest::TestService::descriptor()->FindMethodByName(name);
}

// The channel's teardown takes two turns of the event thread (the channel,
// then what it owns), and the connections' a third.
void waitForTeardown() {
  for (int i = 0; i < 3; ++i) waitForDeferredWork();
}

// The outcomes of calls, as their done closures saw them ("ok: text" or
// "failed: error"), by tag. Any thread.
class Outcomes {
 public:
  // One call: its controller, messages and done closure, kept here.
  struct Call {
    RPC rpc;
    Text request;
    Text response;
    std::unique_ptr<google::protobuf::Closure> done;
  };

  // Starts a call of `name` on `channel`, tagged `tag`.
  Call* start(RPCChannel* channel, const char* name, const std::string& text,
              const std::string& tag, Time deadline = Time()) {
    auto call = std::make_unique<Call>();
    Call* raw = call.get();
    raw->request.set_text(text);
    raw->done.reset(newClosure([this, raw, tag] { record(tag, raw); }, false));
    if (deadline != Time()) raw->rpc.setDeadline(deadline);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(std::move(call));
    }
    channel->CallMethod(method(name), &raw->rpc, &raw->request, &raw->response, raw->done.get());
    return raw;
  }

  // The outcomes so far, once at least `count` calls have completed (the
  // wait is a guard against a hang, not an assertion).
  std::map<std::string, std::string> waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return outcomes_.size() >= count; });
    return outcomes_;
  }
  size_t completed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_.size();
  }

 private:
  void record(const std::string& tag, Call* call) {
    std::string outcome =
        call->rpc.Failed() ? "failed: " + call->rpc.ErrorText() : "ok: " + call->response.text();
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(0u, outcomes_.count(tag)) << tag << " completed twice";
    outcomes_[tag] = outcome;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Call>> calls_;
  std::map<std::string, std::string> outcomes_;
};

// An HttpServer with relaytest.TestService on loopback; `port` 0 for any.
struct Server {
  explicit Server(uint16_t port = 0, const HttpServerOptions& options = HttpServerOptions())
      : service(std::make_shared<TestServiceImpl>()),
        server(HttpServer::create(SocketAddress("127.0.0.1", port), 128, options)) {
    if (server) server->registerRPCService(service);
  }
  uint16_t port() const { return server->localAddress().port(); }
  std::string target() const { return "127.0.0.1:" + std::to_string(port()); }

  std::shared_ptr<TestServiceImpl> service;
  std::shared_ptr<HttpServer> server;
};

// A port on loopback where nothing listens.
[[maybe_unused]] uint16_t closedPort() {
  Server gone;
  const uint16_t port = gone.port();
  gone.server.reset();
  waitForDeferredWork();
  return port;
}

Time in(Duration duration) { return Time::now() + duration; }

[[maybe_unused]] RPCChannelOptions resilientFor(Duration default_timeout) {
  RPCChannelOptions options = RPCChannelOptions::resilient();
  options.default_timeout = default_timeout;
  return options;
}

TEST(ResilientChannelTest, DefaultOptionsBehaveAsTheSpecifiedChannel) {
  // The same calls through create(address) and create(address, {}): the
  // server receives the same bytes and every call ends the same way, also
  // those the connection's end leaves pending.
  struct Run {
    std::string received;
    std::map<std::string, std::string> outcomes;
  };
  auto run = [](bool with_options) {
    const std::string body = Text().SerializeAsString();
    const std::string length = std::to_string(body.size());
    // Answers: the second call first, then the first; a failure; a body that
    // does not parse; then the server ends its output with a call unanswered.
    ScriptedServer server(
        {"", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: 2\r\n\r\n"
             "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 0\r\nRpc-Id: 1\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 1\r\nRpc-Error: no\r\n"
         "Rpc-Id: {id}\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nRpc-Id: {id}\r\n\r\n\xff\xff", ""},
        true);
    const SocketAddress address("127.0.0.1", server.port());
    RPCChannelPtr channel =
        with_options ? RPCChannel::create(address, RPCChannelOptions()) : RPCChannel::create(address);
    EXPECT_TRUE(channel);
    Outcomes outcomes;
    outcomes.start(channel.get(), "Echo", "a", "1");
    outcomes.start(channel.get(), "Echo", "b", "2");
    outcomes.waitFor(2);
    outcomes.start(channel.get(), "Fail", "c", "3");
    outcomes.waitFor(3);
    outcomes.start(channel.get(), "Echo", "d", "4");
    outcomes.waitFor(4);
    // Unanswered when the server ends its output: pending until the channel
    // goes, after the client has closed its side too.
    outcomes.start(channel.get(), "Echo", "e", "5");
    server.join();
    waitForDeferredWork();
    EXPECT_EQ(4u, outcomes.completed());
    channel.reset();
    waitForTeardown();
    return Run{server.bytes, outcomes.waitFor(5)};
  };
  const Run specified = run(false);
  const Run with_options = run(true);
  EXPECT_EQ(specified.received, with_options.received);
  EXPECT_EQ(specified.outcomes, with_options.outcomes);
  EXPECT_EQ((std::map<std::string, std::string>{{"1", "ok: "},
                                                {"2", "ok: "},
                                                {"3", "failed: no"},
                                                {"4", "failed: Can't parse response."},
                                                {"5", "failed: Canceled"}}),
            with_options.outcomes);
}

TEST(ResilientChannelTest, DeadlineTravelsWithTheCallAndEndsItWithNobodyWaiting) {
  ScriptedServer server({"", ""});
  RPCChannelPtr channel =
      RPCChannel::create("127.0.0.1:" + std::to_string(server.port()), RPCChannelOptions());
  ASSERT_TRUE(channel);
  Outcomes outcomes;
  outcomes.start(channel.get(), "Hold", "late", "1", in(Duration::milliseconds(300)));
  // Nobody waits on the controller: the channel's own timer ends the call.
  EXPECT_EQ((std::map<std::string, std::string>{{"1", "failed: Deadline exceeded."}}),
            outcomes.waitFor(1));
  channel.reset();
  waitForTeardown();
  server.join();
  // The remaining budget, in whole milliseconds rounded up, after the
  // specified head.
  unsigned budget = 0;
  const size_t at = server.bytes.find("Rpc-Method: Hold\r\nRpc-Timeout: ");
  ASSERT_NE(std::string::npos, at) << server.bytes;
  ASSERT_EQ(1, sscanf(server.bytes.c_str() + at, "Rpc-Method: Hold\r\nRpc-Timeout: %u\r\n\r\n",
                      &budget));
  EXPECT_GT(budget, 0u);
  EXPECT_LE(budget, 300u);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
