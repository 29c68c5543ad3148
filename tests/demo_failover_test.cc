// A resilient channel against real demo servers, each a process of its own
// on loopback: killed with calls in flight, restarted one after another under
// load, and left with calls whose caller gave up.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/closure.h"
#include "common/event_thread.h"
#include "demo.pb.h"
#include "relay/rpc.h"
#include "tests/call_load.h"
#include "tests/demo_process.h"
#include "tests/shell_output.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::DemoProcess;
using vantu::testing::eventually;
using vantu::testing::fetchMetrics;
using vantu::testing::metricValue;
using Load = vantu::testing::CallLoad<demo::EchoRequest, demo::EchoReply>;

const google::protobuf::MethodDescriptor* method(const char* name) {
  return demo::EchoService::descriptor()->FindMethodByName(name);
}

std::unique_ptr<DemoProcess> startDemo(uint16_t port = 0) {
  auto demo = std::make_unique<DemoProcess>(DEMO_SERVER_PATH, port);
  EXPECT_TRUE(demo->ok()) << "cannot start " << DEMO_SERVER_PATH;
  return demo;
}

double inFlight(const DemoProcess& demo) {
  return metricValue(fetchMetrics(demo.port()), "relay_rpcs_in_flight");
}

double echoesAnswered(const DemoProcess& demo) {
  return metricValue(fetchMetrics(demo.port()), "relay_rpcs_total",
                     {"method=\"Echo\"", "outcome=\"ok\""});
}

// Waits (bounded) until `done` holds, letting `load` make progress meanwhile.
bool whileLoaded(Load* load, const std::function<bool()>& done) {
  for (int i = 0; i < 3000; ++i) {
    if (done()) return true;
    if (!load->waitForMore(10)) return false;
  }
  return done();
}

// Three demo servers and a resilient channel over them.
struct ThreeDemos {
  ThreeDemos() {
    std::string target;
    for (int i = 0; i < 3; ++i) {
      demos.push_back(startDemo());
      target += (i ? "," : "") + demos.back()->address();
    }
    channel = RPCChannel::create(target, RPCChannelOptions::resilient());
  }
  bool ok() const { return channel && demos[0]->ok() && demos[1]->ok() && demos[2]->ok(); }
  // Starts the i-th again on its port; true once `load` has seen it answer
  // (bounded).
  bool restart(int i, Load* load) {
    demos[i] = startDemo(demos[i]->port());
    return demos[i]->ok() && whileLoaded(load, [&] { return echoesAnswered(*demos[i]) > 0; });
  }

  std::vector<std::unique_ptr<DemoProcess>> demos;
  RPCChannelPtr channel;
};

// Delay calls that stay outstanding, and how they ended.
struct Delays {
  struct Call {
    RPC rpc;
    demo::DelayRequest request;
    demo::EchoReply reply;
    std::unique_ptr<google::protobuf::Closure> done;
  };
  void start(RPCChannel* channel, int count, Time deadline = Time()) {
    for (int i = 0; i < count; ++i) {
      calls.push_back(std::make_unique<Call>());
      Call* call = calls.back().get();
      call->request.set_delay_ms(60000);
      if (deadline != Time()) call->rpc.setDeadline(deadline);
      call->done.reset(newClosure(
          [this, call] {
            std::lock_guard<std::mutex> lock(mutex);
            ++ended[call->rpc.ErrorText()];
            changed.notify_all();
          },
          false));
      channel->CallMethod(method("Delay"), &call->rpc, &call->request, &call->reply,
                          call->done.get());
    }
  }
  // Waits (bounded) until `count` calls ended with `text`.
  bool waitFor(const std::string& text, int count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(30), [&] { return ended[text] >= count; });
  }

  std::vector<std::unique_ptr<Call>> calls;
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, int> ended;
};

TEST(DemoFailoverTest, RestartsLoseNoCallAndAKillFailsOnlyTheCallsWrittenToIt) {
  ThreeDemos three;
  ASSERT_TRUE(three.ok());
  std::vector<std::unique_ptr<DemoProcess>>& demos = three.demos;
  RPCChannelPtr& channel = three.channel;
  {
    SCOPED_TRACE("rolling restart: no call lost");
    Load rolling(channel.get(), method("Echo"), 64);
    rolling.start();
    ASSERT_TRUE(rolling.waitForMore(1000));
    for (int i = 0; i < 3; ++i) {
      SCOPED_TRACE(i);
      demos[i]->signal(SIGTERM);
      EXPECT_EQ(0, demos[i]->waitForExit(30000));  // drained in time
      EXPECT_TRUE(three.restart(i, &rolling));
    }
    EXPECT_TRUE(rolling.stop());
    EXPECT_EQ((std::map<std::string, uint64_t>{}), rolling.failures());
  }

  Load load(channel.get(), method("Echo"), 16);
  load.start();
  ASSERT_TRUE(load.waitForMore(500));
  // Nine long calls outstanding: the fewest-outstanding choice gives each
  // server some.
  Delays delays;
  delays.start(channel.get(), 9);
  std::vector<double> held(3);
  ASSERT_TRUE(whileLoaded(&load, [&] {
    for (int i = 0; i < 3; ++i) held[i] = inFlight(*demos[i]);
    return held[0] + held[1] + held[2] == 9;
  }));
  ASSERT_GE(held[0], 1);
  demos[0]->signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, demos[0]->waitForExit(30000));
  // The calls written to it fail, and only they; the others keep succeeding.
  EXPECT_TRUE(delays.waitFor(RPCChannel::kErrorConnectionLost, static_cast<int>(held[0])));
  ASSERT_TRUE(load.waitForMore(500));
  // Back on the same port, it is used again.
  EXPECT_TRUE(three.restart(0, &load));
  EXPECT_TRUE(load.stop());
  // Only Echo calls in flight on the killed server may have failed, and only
  // as lost.
  const auto failures = load.failures();
  for (const auto& failure : failures) EXPECT_EQ(RPCChannel::kErrorConnectionLost, failure.first);
  EXPECT_LE(failures.empty() ? 0u : failures.begin()->second, 16u);
  {
    std::lock_guard<std::mutex> lock(delays.mutex);
    EXPECT_EQ(
        (std::map<std::string, int>{{RPCChannel::kErrorConnectionLost, static_cast<int>(held[0])}}),
        delays.ended);
  }
  channel.reset();
  EXPECT_TRUE(delays.waitFor("Canceled", 9 - static_cast<int>(held[0])));
}

TEST(DemoFailoverTest, CallsWhoseCallerGaveUpFreeTheServer) {
  std::unique_ptr<DemoProcess> demo = startDemo();
  ASSERT_TRUE(demo->ok());
  RPCChannelPtr channel = RPCChannel::create(demo->address(), RPCChannelOptions::resilient());
  ASSERT_TRUE(channel);
  Delays delays;
  delays.start(channel.get(), 5, Time::now() + Duration::seconds(2));
  // Held by the server until the caller's deadline, then let go of there too.
  EXPECT_TRUE(eventually([&] { return inFlight(*demo) == 5; }));
  EXPECT_TRUE(delays.waitFor(RPCChannel::kErrorDeadlineExceeded, 5));
  EXPECT_TRUE(eventually([&] { return inFlight(*demo) == 0; }));
  channel.reset();
  // relay_call's --timeout-ms is its call's deadline, which the server hears.
  EXPECT_EQ(1, vantu::testing::runProcess({RELAY_CALL_PATH, "--timeout-ms", "300", demo->address(),
                                           "demo.EchoService.Delay", "{\"delayMs\":60000}"})
                   .exit_code);
  EXPECT_TRUE(eventually([&] { return inFlight(*demo) == 0; }));
  EXPECT_EQ(6, metricValue(fetchMetrics(demo->port()), "relay_rpcs_total",
                           {"method=\"Delay\"", "outcome=\"failed\""}));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
