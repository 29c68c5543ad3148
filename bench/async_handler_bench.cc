// What answering later costs a request: one keep-alive GET through the whole
// path of a server connection (parse, dispatch, the handler, the answer) with
// a handler registered by registerHandler, and with one registered by
// registerAsyncHandler whose done runs inside the handler, or right after it
// returned (still on the event thread, the answer waiting in the connection's
// queue meanwhile). Printed side by side in ns per request.
//
// As in observer_bench: a real HttpConnectionHandler made by the server's own
// factory, fed on the event thread, with no socket behind it, so the figure
// is the server's own work per request, and the CPU time is that thread's.
//
// Usage: async_handler_bench [Google Benchmark flags]
//        async_handler_bench --interleaved=ROUNDS   (the variants in turns, in
//                                                    five processes)
//        async_handler_bench --interleaved=ROUNDS --one-process
//        async_handler_bench --count=N --variant=0|1|2   (for callgrind)
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/three_variant_table.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "relay/http_server.h"

namespace {

using vantu::relay::HttpConnectionHandler;
using vantu::relay::HttpRequestPtr;
using vantu::relay::HttpResponsePtr;
using vantu::relay::HttpServer;

enum Variant { kPlain, kAsyncInline, kAsyncAfter };
const char* const kVariantNames[] = {"plain handler", "async, done inside", "async, done after"};

const char kRequest[] =
    "GET /hello HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nUser-Agent: bench\r\nAccept: */*\r\n\r\n";

void fill(const HttpResponsePtr& response) {
  static const std::string kText = "Hello, world!\n";
  response->setContentType("text/plain");
  response->content.assign(kText.begin(), kText.end());
}

// A server with the /hello handler of one variant, and a connection of it.
class Setup {
 public:
  explicit Setup(int variant)
      : server_(HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16)) {
    if (!server_) return;
    switch (variant) {
      case kPlain:
        server_->registerHandler("/hello", [](const HttpRequestPtr&,
                                              const HttpResponsePtr& response) { fill(response); });
        break;
      case kAsyncInline:
        server_->registerAsyncHandler(
            "/hello",
            [](const HttpRequestPtr&, const HttpResponsePtr& response, std::function<void()> done) {
              fill(response);
              done();
            });
        break;
      case kAsyncAfter:
        server_->registerAsyncHandler("/hello",
                                      [this](const HttpRequestPtr&, const HttpResponsePtr& response,
                                             std::function<void()> done) {
                                        fill(response);
                                        pending_ = std::move(done);
                                      });
        break;
    }
  }
  ~Setup() {
    vantu::runOnEventThreadAndWait([this] { connection_.reset(); });
    server_.reset();
    vantu::waitForDeferredWork();
  }

  bool ok() const { return server_ != nullptr; }
  // Event thread.
  void connect() {
    connection_ = std::static_pointer_cast<HttpConnectionHandler>(server_->newConnection());
  }
  // One request, answered. Event thread.
  void serveOne() {
    data_ = kRequest;
    connection_->notifyIncomingData(&data_);
    if (pending_) {
      std::function<void()> done = std::move(pending_);
      pending_ = nullptr;
      done();
    }
  }

 private:
  std::shared_ptr<HttpServer> server_;
  // Event thread only.
  std::shared_ptr<HttpConnectionHandler> connection_;
  std::string data_;
  std::function<void()> pending_;
};

void BM_ServeRequest(benchmark::State& state) {
  Setup setup(static_cast<int>(state.range(0)));
  if (!setup.ok()) {
    state.SkipWithError("cannot listen");
    return;
  }
  vantu::runOnEventThreadAndWait([&] {
    setup.connect();
    for (auto _ : state) setup.serveOne();
  });
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ServeRequest)
    ->Arg(kPlain)
    ->Arg(kAsyncInline)
    ->Arg(kAsyncAfter)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// The measured loop of --count: a name of its own, for callgrind's
// --toggle-collect=serveCount.
__attribute__((noinline)) void serveCount(Setup* setup, long count) {
  for (long i = 0; i < count; ++i) setup->serveOne();
}

// --count=N --variant=V: serves N requests of one variant and nothing else,
// so that an instruction or allocation count under callgrind divides by N.
int serveFixed(long count, int variant) {
  vantu::setLogSink([](const vantu::LogRecord&) {});
  Setup setup(variant);
  if (!setup.ok()) return 1;
  vantu::runOnEventThreadAndWait([&] {
    setup.connect();
    // The connection's buffers and queue reach their steady size first.
    for (int i = 0; i < 100; ++i) setup.serveOne();
    serveCount(&setup, count);
  });
  std::printf("served %ld requests (after 100), variant %s\n", count, kVariantNames[variant]);
  return 0;
}

// The CPU time of the calling thread, in ns.
double threadCpuNs() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The three variants' median ns per request and the medians of the async
// variants' per-round ratios to the plain handler.
struct Interleaved {
  double ns[3];
  double ratio[3];
};

// --interleaved=ROUNDS --one-process: the three variants served in turns of a
// thousand requests, ROUNDS times, so that whatever else the machine runs
// meanwhile weighs on all three alike.
Interleaved measureInterleaved(int rounds) {
  constexpr int kTurn = 1000;
  vantu::setLogSink([](const vantu::LogRecord&) {});
  Setup plain(kPlain);
  Setup inside(kAsyncInline);
  Setup after(kAsyncAfter);
  Setup* setups[] = {&plain, &inside, &after};
  for (Setup* setup : setups) {
    if (!setup->ok()) return Interleaved{{0, 0, 0}, {0, 0, 0}};
  }
  std::vector<double> ns[3];
  std::vector<double> ratio[3];
  vantu::runOnEventThreadAndWait([&] {
    for (Setup* setup : setups) {
      setup->connect();
      for (int i = 0; i < 100; ++i) setup->serveOne();
    }
    for (int round = 0; round < rounds; ++round) {
      double turn[3];
      for (int k = 0; k < 3; ++k) {
        // Each variant goes first in a third of the rounds.
        const int variant = (round + k) % 3;
        const double start = threadCpuNs();
        serveCount(setups[variant], kTurn);
        turn[variant] = (threadCpuNs() - start) / kTurn;
      }
      for (int variant = 0; variant < 3; ++variant) {
        ns[variant].push_back(turn[variant]);
        ratio[variant].push_back(turn[variant] / turn[0]);
      }
    }
  });
  Interleaved result;
  for (int variant = 0; variant < 3; ++variant) {
    result.ns[variant] = median(ns[variant]);
    result.ratio[variant] = median(ratio[variant]);
  }
  return result;
}

void printInterleaved(const char* label, const Interleaved& result) {
  char cells[3][64];
  for (int variant = 0; variant < 3; ++variant) {
    if (variant == 0) {
      std::snprintf(cells[variant], sizeof(cells[variant]), "%.0f", result.ns[variant]);
    } else {
      std::snprintf(cells[variant], sizeof(cells[variant]), "%.0f (%+.1f%%)", result.ns[variant],
                    100 * (result.ratio[variant] - 1));
    }
  }
  std::printf("%-12s %-22s %-24s %-24s\n", label, cells[0], cells[1], cells[2]);
}

// --interleaved=ROUNDS: the measurement above in five processes, ROUNDS / 5
// rounds each, and the median of their figures. One process places the code
// and data of the three variants once, at addresses the loader and the
// allocator pick at random, and the async variants' cost over the plain one
// moves with that placement (for one binary, from +5 to +14 % between runs,
// but within half a point across runs when the addresses are fixed): a figure
// from one process is one draw of it.
int serveInterleaved(int rounds, bool one_process) {
  constexpr int kProcesses = 5;
  std::vector<Interleaved> results;
  if (one_process) {
    results.push_back(measureInterleaved(rounds));
    if (results[0].ns[0] <= 0) return 1;
  } else {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return 1;
    self[length] = '\0';
    const int each = std::max(1, rounds / kProcesses);
    for (int process = 0; process < kProcesses; ++process) {
      const std::string command =
          std::string("'") + self + "' --interleaved=" + std::to_string(each) + " --machine";
      FILE* child = popen(command.c_str(), "r");
      if (child == nullptr) return 1;
      Interleaved result;
      const int fields =
          std::fscanf(child, "%lf %lf %lf %lf %lf %lf", &result.ns[0], &result.ns[1], &result.ns[2],
                      &result.ratio[0], &result.ratio[1], &result.ratio[2]);
      if (pclose(child) != 0 || fields != 6) return 1;
      results.push_back(result);
    }
  }
  std::printf(
      "== Answering later, interleaved: %d rounds of 1000 requests per variant%s, CPU time\n"
      "   of the event thread; median ns per request, and median of the per-round ratios\n",
      rounds, one_process ? "" : ", in five processes");
  std::printf("%-12s %-22s %-24s %-24s\n", "", kVariantNames[0], kVariantNames[1],
              kVariantNames[2]);
  Interleaved overall;
  for (int variant = 0; variant < 3; ++variant) {
    std::vector<double> ns;
    std::vector<double> ratio;
    for (const Interleaved& result : results) {
      ns.push_back(result.ns[variant]);
      ratio.push_back(result.ratio[variant]);
    }
    overall.ns[variant] = median(ns);
    overall.ratio[variant] = median(ratio);
  }
  if (results.size() > 1) {
    for (size_t i = 0; i < results.size(); ++i) {
      printInterleaved(("process " + std::to_string(i + 1)).c_str(), results[i]);
    }
  }
  printInterleaved(results.size() > 1 ? "median" : "", overall);
  return 0;
}

// --interleaved=ROUNDS --machine: one process's figures as six numbers, for
// the parent above.
int serveInterleavedForParent(int rounds) {
  const Interleaved result = measureInterleaved(rounds);
  if (result.ns[0] <= 0) return 1;
  std::printf("%.3f %.3f %.3f %.6f %.6f %.6f\n", result.ns[0], result.ns[1], result.ns[2],
              result.ratio[0], result.ratio[1], result.ratio[2]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  long count = 0;
  int variant = kPlain;
  int interleaved = 0;
  bool one_process = false;
  bool machine = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--count=", 8) == 0) count = std::atol(argv[i] + 8);
    if (std::strncmp(argv[i], "--variant=", 10) == 0) variant = std::atoi(argv[i] + 10);
    if (std::strncmp(argv[i], "--interleaved=", 14) == 0) {
      interleaved = std::max(1, std::atoi(argv[i] + 14));
    }
    if (std::strcmp(argv[i], "--one-process") == 0) one_process = true;
    if (std::strcmp(argv[i], "--machine") == 0) machine = true;
  }
  if (interleaved > 0) {
    return machine ? serveInterleavedForParent(interleaved)
                   : serveInterleaved(interleaved, one_process);
  }
  if (count > 0) {
    if (variant < kPlain || variant > kAsyncAfter) return 2;
    return serveFixed(count, variant);
  }
  return vantu::bench::runThreeVariants(
      argc, argv, "async_handler_bench",
      "== Answering later: one GET /hello through a server connection, ns per request\n"
      "   (median of 5, CPU time of the event thread; target: async at most +10%)\n",
      kVariantNames);
}
