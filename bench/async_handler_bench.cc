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
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
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

void BM_ServeRequest(benchmark::State& state) {
  std::shared_ptr<HttpServer> server = HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16);
  if (!server) {
    state.SkipWithError("cannot listen");
    return;
  }
  // Event thread only.
  std::function<void()> pending;
  switch (state.range(0)) {
    case kPlain:
      server->registerHandler(
          "/hello", [](const HttpRequestPtr&, const HttpResponsePtr& response) { fill(response); });
      break;
    case kAsyncInline:
      server->registerAsyncHandler(
          "/hello",
          [](const HttpRequestPtr&, const HttpResponsePtr& response, std::function<void()> done) {
            fill(response);
            done();
          });
      break;
    case kAsyncAfter:
      server->registerAsyncHandler(
          "/hello", [&pending](const HttpRequestPtr&, const HttpResponsePtr& response,
                               std::function<void()> done) {
            fill(response);
            pending = std::move(done);
          });
      break;
  }
  vantu::runOnEventThreadAndWait([&] {
    auto connection = std::static_pointer_cast<HttpConnectionHandler>(server->newConnection());
    std::string data;
    for (auto _ : state) {
      data = kRequest;
      connection->notifyIncomingData(&data);
      if (pending) {
        std::function<void()> done = std::move(pending);
        pending = nullptr;
        done();
      }
    }
  });
  state.SetItemsProcessed(state.iterations());
  server.reset();
  vantu::waitForDeferredWork();
}
BENCHMARK(BM_ServeRequest)
    ->Arg(kPlain)
    ->Arg(kAsyncInline)
    ->Arg(kAsyncAfter)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  return vantu::bench::runThreeVariants(
      argc, argv, "async_handler_bench",
      "== Answering later: one GET /hello through a server connection, ns per request\n"
      "   (median of 5, CPU time of the event thread; target: async at most +10%)\n",
      kVariantNames);
}
