// A resilient channel against demo servers run as processes of their own on
// loopback (hardened, as they run by default):
//   - echo calls/s and latency with 64 calls in flight over one server and
//     over three;
//   - the time from kill -9 of one of three servers to the failure of the
//     calls written to it (long Delay calls outstanding on it);
//   - the calls lost while three servers restart one after another (SIGTERM,
//     wait for the drain, start again) under 64 calls in flight.
// The servers and this client share the machine's cores: the figures say
// what the channel does, not what a server can do alone.
//
// Usage: failover_bench DEMO_SERVER [--seconds S] [--rounds N]
#include <google/protobuf/stubs/callback.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/closure.h"
#include "common/event_thread.h"
#include "examples/demo_service.h"
#include "relay/rpc.h"
#include "tests/call_load.h"
#include "tests/demo_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using vantu::relay::RPCChannel;
using vantu::relay::RPCChannelOptions;
using vantu::relay::RPCChannelPtr;
using vantu::testing::DemoProcess;
using Load = vantu::testing::CallLoad<demo::EchoRequest, demo::EchoReply>;

std::string g_demo;
int g_problems = 0;

void problem(const std::string& text) {
  std::fprintf(stderr, "failover_bench: PROBLEM: %s\n", text.c_str());
  ++g_problems;
}

const google::protobuf::MethodDescriptor* method(const char* name) {
  return demo::EchoService::descriptor()->FindMethodByName(name);
}

double percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t rank = static_cast<size_t>(std::ceil(fraction * values.size()));
  return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

// `count` demo servers and the target that names them.
struct Servers {
  explicit Servers(int count) {
    for (int i = 0; i < count; ++i) {
      demos.push_back(std::make_unique<DemoProcess>(g_demo, 0));
      if (!demos.back()->ok()) problem("cannot start " + g_demo);
      target += (i ? "," : "") + demos.back()->address();
    }
  }
  bool ok() const {
    for (const auto& demo : demos) {
      if (!demo->ok()) return false;
    }
    return true;
  }
  // Starts server `i` again on its port; true once it answers calls.
  bool restart(int i, Load* load) {
    const uint16_t port = demos[i]->port();
    demos[i] = std::make_unique<DemoProcess>(g_demo, port);
    if (!demos[i]->ok()) return false;
    return vantu::testing::eventually([&] {
      return vantu::testing::metricValue(vantu::testing::fetchMetrics(port), "relay_rpcs_total",
                                         {"method=\"Echo\"", "outcome=\"ok\""}) > 0 ||
             !load->waitForMore(1);
    });
  }
  std::vector<std::unique_ptr<DemoProcess>> demos;
  std::string target;
};

std::string failuresText(const std::map<std::string, uint64_t>& failures) {
  std::string text;
  for (const auto& failure : failures) {
    text +=
        (text.empty() ? "" : "; ") + std::to_string(failure.second) + " \"" + failure.first + "\"";
  }
  return text.empty() ? "none" : text;
}

// Echo calls/s, p50 and p99 over `count` servers, 64 in flight.
void throughput(int count, double seconds, int rounds) {
  std::vector<double> rates, latencies;
  for (int round = 0; round < rounds; ++round) {
    Servers servers(count);
    if (!servers.ok()) return;
    RPCChannelPtr channel = RPCChannel::create(servers.target, RPCChannelOptions::resilient());
    Load load(channel.get(), method("Echo"), 64);
    load.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // warm-up
    const uint64_t before = load.succeeded();
    load.keepLatencies();
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const uint64_t done = load.succeeded() - before;
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> kept = load.takeLatencies();
    if (!load.stop()) problem("calls still unanswered after the load stopped");
    if (!load.failures().empty()) problem("failed calls: " + failuresText(load.failures()));
    rates.push_back(done / elapsed);
    latencies.insert(latencies.end(), kept.begin(), kept.end());
    channel.reset();
    vantu::waitForDeferredWork();
  }
  std::printf("%-26s %12.0f %10.1f %10.1f\n",
              (std::to_string(count) + (count == 1 ? " server" : " servers")).c_str(),
              percentile(rates, 0.5), percentile(latencies, 0.5), percentile(latencies, 0.99));
}

// Long Delay calls and when each ended. Completions come on the event
// thread; the rest on the main thread.
struct Delays {
  struct Call {
    vantu::relay::RPC rpc;
    demo::DelayRequest request;
    demo::EchoReply reply;
    std::unique_ptr<google::protobuf::Closure> done;
    Clock::time_point ended;
  };
  void start(RPCChannel* channel, int count) {
    for (int i = 0; i < count; ++i) {
      calls.push_back(std::make_unique<Call>());
      Call* call = calls.back().get();
      call->request.set_delay_ms(60000);
      call->done.reset(vantu::relay::newClosure(
          [this, call] {
            std::lock_guard<std::mutex> lock(mutex);
            call->ended = Clock::now();
            ++ended;
            if (call->rpc.ErrorText() == RPCChannel::kErrorConnectionLost) ++lost;
            changed.notify_all();
          },
          false));
      channel->CallMethod(method("Delay"), &call->rpc, &call->request, &call->reply,
                          call->done.get());
    }
  }
  // Waits (bounded) until `done` holds, with the lock.
  template <typename F>
  bool waitUntil(F done) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(30), done);
  }

  std::vector<std::unique_ptr<Call>> calls;
  std::mutex mutex;
  std::condition_variable changed;
  int lost = 0;
  int ended = 0;
};

// kill -9 of one of three servers with long calls outstanding on each: how
// long after the kill the calls written to it have failed.
void killToFailure(int rounds) {
  constexpr int kDelays = 30;
  std::vector<double> last_ms, all_ms;
  for (int round = 0; round < rounds; ++round) {
    Servers servers(3);
    if (!servers.ok()) return;
    // Outlives the channel, whose end completes the calls still held.
    auto delays = std::make_unique<Delays>();
    RPCChannelPtr channel = RPCChannel::create(servers.target, RPCChannelOptions::resilient());
    Load load(channel.get(), method("Echo"), 16);
    load.start();
    // Every connection up, so that the long calls spread over the three.
    load.waitForMore(2000);
    delays->start(channel.get(), kDelays);
    double held = 0;
    const bool spread = vantu::testing::eventually([&] {
      double sum = 0;
      for (int i = 0; i < 3; ++i) {
        const double in_flight = vantu::testing::metricValue(
            vantu::testing::fetchMetrics(servers.demos[i]->port()), "relay_rpcs_in_flight");
        if (i == 0) held = in_flight;
        sum += in_flight;
      }
      return sum == kDelays;
    });
    if (spread && held >= 1) {
      const Clock::time_point killed = Clock::now();
      servers.demos[0]->signal(SIGKILL);
      if (!delays->waitUntil([&] { return delays->lost >= held; })) {
        problem("the calls on the killed server did not fail");
      }
      std::vector<double> round_ms;
      {
        std::lock_guard<std::mutex> lock(delays->mutex);
        for (const auto& call : delays->calls) {
          if (call->rpc.ErrorText() != RPCChannel::kErrorConnectionLost) continue;
          round_ms.push_back(
              std::chrono::duration<double, std::milli>(call->ended - killed).count());
        }
      }
      all_ms.insert(all_ms.end(), round_ms.begin(), round_ms.end());
      if (!round_ms.empty()) last_ms.push_back(*std::max_element(round_ms.begin(), round_ms.end()));
    } else {
      problem("the Delay calls did not reach the servers");
    }
    load.stop();
    channel.reset();
    if (!delays->waitUntil([&] { return delays->ended == kDelays; })) {
      problem("the channel's end did not complete its calls");
      delays.release();  // their closures may still run: kept
    }
  }
  if (all_ms.empty()) return;
  std::printf(
      "kill -9 to failure of the calls written to that server (%d rounds, %zu calls): "
      "median %.2f ms, slowest round's last %.2f ms\n",
      rounds, all_ms.size(), percentile(all_ms, 0.5), percentile(last_ms, 1.0));
}

// Three servers restarted one after another under 64 calls in flight.
void rollingRestart(int rounds) {
  for (int round = 0; round < rounds; ++round) {
    Servers servers(3);
    if (!servers.ok()) return;
    RPCChannelPtr channel = RPCChannel::create(servers.target, RPCChannelOptions::resilient());
    Load load(channel.get(), method("Echo"), 64);
    load.start();
    load.waitForMore(1000);
    const Clock::time_point start = Clock::now();
    const uint64_t before = load.succeeded();
    for (int i = 0; i < 3; ++i) {
      servers.demos[i]->signal(SIGTERM);
      if (servers.demos[i]->waitForExit(30000) != 0) problem("a server did not drain cleanly");
      if (!servers.restart(i, &load)) problem("a restarted server was not used again");
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const uint64_t answered = load.succeeded() - before;
    if (!load.stop()) problem("calls still unanswered after the load stopped");
    const auto failures = load.failures();
    if (!failures.empty()) problem("calls lost in the rolling restart");
    std::printf(
        "rolling restart of 3 servers, 64 in flight: %.2f s, %llu calls answered, lost: %s\n",
        seconds, static_cast<unsigned long long>(answered), failuresText(failures).c_str());
    channel.reset();
    vantu::waitForDeferredWork();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: failover_bench DEMO_SERVER [--seconds S] [--rounds N]\n");
    return 2;
  }
  g_demo = argv[1];
  double seconds = 2;
  int rounds = 3;
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--seconds") {
      seconds = std::atof(argv[i + 1]);
    } else if (flag == "--rounds") {
      rounds = std::atoi(argv[i + 1]);
    }
  }
  signal(SIGPIPE, SIG_IGN);
  // Each line as soon as it is known, also into a pipe.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::printf(
      "== Resilient channel over demo servers (processes on this machine, sharing its cores; "
      "RPCChannelOptions::resilient())\n");
  std::printf("%-26s %12s %10s %10s\n", "64 echo calls in flight", "calls/s", "p50 µs", "p99 µs");
  throughput(1, seconds, rounds);
  throughput(3, seconds, rounds);
  killToFailure(rounds);
  rollingRestart(rounds);
  if (g_problems > 0) {
    std::fprintf(stderr, "failover_bench: %d problem(s), see above\n", g_problems);
    return 1;
  }
  return 0;
}
