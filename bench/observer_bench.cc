// What the observer hook costs a request: one keep-alive GET through the whole
// path of a server connection (parse, dispatch, the handler, the answer) with
// no observer, with an observer that does nothing, and with the metrics
// observer of relay/metrics.h. Printed side by side in ns per request.
//
// The connection is a real HttpConnectionHandler made by the server's own
// factory, fed on the event thread, with no socket behind it: its answers are
// built and handed to a stream that goes nowhere. So the figure is the
// server's own work per request, without the kernel's, which would hide a
// difference of a few nanoseconds. The measured loop runs on the event thread
// itself, so the CPU time reported is that thread's.
//
// Usage: observer_bench [Google Benchmark flags]
#include <benchmark/benchmark.h>
#include <prometheus/registry.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/three_variant_table.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "relay/http_server.h"
#include "relay/metrics.h"

namespace {

using vantu::relay::HttpConnectionHandler;
using vantu::relay::HttpRequestPtr;
using vantu::relay::HttpResponsePtr;
using vantu::relay::HttpServer;

enum Variant { kNoObserver, kDoNothing, kMetrics };
const char* const kVariantNames[] = {"no observer", "do-nothing observer", "metrics observer"};

// A browser-like GET of a small plain-text answer, as the load benchmark sends.
const char kRequest[] =
    "GET /hello HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nUser-Agent: bench\r\nAccept: */*\r\n\r\n";

void BM_ServeRequest(benchmark::State& state) {
  std::shared_ptr<HttpServer> server = HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16);
  if (!server) {
    state.SkipWithError("cannot listen");
    return;
  }
  server->registerHandler("/hello", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    static const std::string kText = "Hello, world!\n";
    response->setContentType("text/plain");
    response->content.assign(kText.begin(), kText.end());
  });
  std::shared_ptr<prometheus::Registry> registry;
  switch (state.range(0)) {
    case kDoNothing:
      server->setObserver(std::make_shared<vantu::relay::HttpServerObserver>());
      break;
    case kMetrics:
      registry = vantu::relay::exposeMetrics(*server);
      break;
  }
  vantu::runOnEventThreadAndWait([&] {
    auto connection = std::static_pointer_cast<HttpConnectionHandler>(server->newConnection());
    std::string data;
    for (auto _ : state) {
      data = kRequest;
      connection->notifyIncomingData(&data);
    }
  });
  state.SetItemsProcessed(state.iterations());
  if (registry && vantu::relay::metricsText(*registry).find(
                      "handler=\"/hello\"} " + std::to_string(state.iterations()) + "\n") ==
                      std::string::npos) {
    // Guards against measuring a path that no longer reaches the observer.
    state.SkipWithError("the metrics did not count every request");
  }
  server.reset();
  vantu::waitForDeferredWork();
}
BENCHMARK(BM_ServeRequest)
    ->Arg(kNoObserver)
    ->Arg(kDoNothing)
    ->Arg(kMetrics)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  return vantu::bench::runThreeVariants(
      argc, argv, "observer_bench",
      "== The observer hook: one GET /hello through a server connection, ns per request\n"
      "   (median of 5, CPU time of the event thread)\n",
      kVariantNames);
}
