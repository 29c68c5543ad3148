// The server's Prometheus metrics: what moves with requests, RPCs, refusals,
// connections and bytes, under exactly which labels, and the scrape itself.
#include "relay/metrics.h"

#include <gtest/gtest.h>
#include <prometheus/gauge.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_request_parser.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

using Outcome = HttpServerObserver::RpcOutcome;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

std::string get(const std::string& path) { return "GET " + path + " HTTP/1.1\r\nHost: h\r\n\r\n"; }

std::string call(const std::string& service, const std::string& method, const std::string& body) {
  return vantu::testing::rpcRequest(service, method, "1", body);
}

// The samples of a scrape, "name{labels}" as written to its value. Buckets
// and sums are left out unless `all` (they are timings); counts stay.
std::map<std::string, double> samples(const std::string& scrape, bool all = false) {
  std::map<std::string, double> result;
  std::istringstream lines(scrape);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t space = line.rfind(' ');
    const std::string key = line.substr(0, space);
    const std::string name = key.substr(0, key.find('{'));
    if (!all && name.size() > 7 &&
        (name.compare(name.size() - 7, 7, "_bucket") == 0 ||
         name.compare(name.size() - 4, 4, "_sum") == 0)) {
      continue;
    }
    result[key] = std::strtod(line.c_str() + space + 1, nullptr);
  }
  return result;
}

// Compares every sample, and that there are no others.
void expectSamples(const std::map<std::string, double>& expected,
                   std::map<std::string, double> actual) {
  for (const auto& sample : expected) {
    auto it = actual.find(sample.first);
    if (it == actual.end()) {
      ADD_FAILURE() << "missing " << sample.first;
      continue;
    }
    EXPECT_EQ(sample.second, it->second) << sample.first;
    actual.erase(it);
  }
  for (const auto& sample : actual) ADD_FAILURE() << "unexpected " << sample.first;
}

// `expected` and the server-wide series, with no connection or call open.
std::map<std::string, double> withTotals(std::map<std::string, double> expected, double accepted,
                                         double received, double sent, double parse_errors) {
  expected["relay_connections_open"] = 0;
  expected["relay_rpcs_in_flight"] = 0;
  expected["relay_connections_accepted_total"] = accepted;
  expected["relay_received_bytes_total"] = received;
  expected["relay_sent_bytes_total"] = sent;
  expected["relay_http_parse_errors_total"] = parse_errors;
  return expected;
}

const char kService[] = "relaytest.TestService";

std::string rpcs(const std::string& service, const std::string& method,
                 const std::string& outcome) {
  return "relay_rpcs_total{method=\"" + method + "\",outcome=\"" + outcome + "\",service=\"" +
         service + "\"}";
}

std::string rpcDurations(const std::string& method) {
  return "relay_rpc_duration_seconds_count{method=\"" + method + "\",service=\"" + kService + "\"}";
}

TEST(MetricsTest, CountsRequestsRpcsRefusalsConnectionsAndBytes) {
  HttpServerOptions options;
  options.max_body_bytes = 100;
  std::shared_ptr<HttpServer> server =
      HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options);
  ASSERT_TRUE(server);
  std::shared_ptr<prometheus::Registry> registry = exposeMetrics(*server);
  ASSERT_TRUE(registry);
  server->registerHandler(
      "/a.*", [](const HttpRequestPtr&, const HttpResponsePtr& r) { r->content.assign(3, 'x'); });
  server->registerHandler("/b", [](const HttpRequestPtr& request, const HttpResponsePtr& r) {
    if (request->getStringQueryComponent("let", 0) != "in")
      r->status_code = HttpResponse::kForbidden;
  });
  auto service = std::make_shared<TestServiceImpl>();
  server->registerRPCService(service);

  const std::string sent =
      get("/abc") + get("/a?q=1") + get("/b") + get("/b?let=in") + get("/zzz") + get("/metrics") +
      call(kService, "Echo", textMessage("e")) + call(kService, "Hold", textMessage("h")) +
      call(kService, "Fail", textMessage("f")) + call(kService, "Nope", "") +
      call("nobody.Service", "Echo", "") + call(kService, "Echo", "\xff") + "bad line\r\n";
  std::string received;
  {
    vantu::testing::LoopbackClient client(server->localAddress().port());
    client.write(sent);
    client.shutdownWrite();
    // Hold answers from this thread after 20 ms of the service's own work.
    ASSERT_TRUE(service->waitHeld(1));
    const Time until = Time::now() + Duration::milliseconds(20);
    while (Time::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    service->complete(0);
    received = client.readToEnd();
    EXPECT_TRUE(client.peerClosed());
  }
  const std::string too_large = "POST /a HTTP/1.1\r\nContent-Length: 101\r\n\r\n";
  std::string refused;
  {
    vantu::testing::LoopbackClient client(server->localAddress().port());
    client.write(too_large);
    refused = client.readToEnd();
  }
  EXPECT_EQ(0u, refused.find("HTTP/1.1 413 "));
  server.reset();
  waitForDeferredWork();

  const std::string s = kService;
  const std::map<std::string, double> counted = {
      {"relay_http_requests_total{code=\"200\",handler=\"/a.*\"}", 2},
      {"relay_http_requests_total{code=\"403\",handler=\"/b\"}", 1},
      {"relay_http_requests_total{code=\"200\",handler=\"/b\"}", 1},
      {"relay_http_requests_total{code=\"404\",handler=\"(none)\"}", 1},
      {"relay_http_requests_total{code=\"200\",handler=\"/metrics\"}", 1},
      {"relay_http_handler_duration_seconds_count{handler=\"/a.*\"}", 2},
      {"relay_http_handler_duration_seconds_count{handler=\"/b\"}", 2},
      {"relay_http_handler_duration_seconds_count{handler=\"/metrics\"}", 1},
      {rpcs(s, "Echo", "ok"), 1},
      {rpcs(s, "Hold", "ok"), 1},
      {rpcs(s, "Fail", "failed"), 1},
      {rpcs(s, "Nope", "method_not_found"), 1},
      {rpcs("nobody.Service", "Echo", "service_not_found"), 1},
      {rpcs(s, "Echo", "bad_request"), 1},
      {rpcDurations("Echo"), 1},
      {rpcDurations("Hold"), 1},
      {rpcDurations("Fail"), 1},
      {"relay_http_limit_rejections_total{code=\"413\"}", 1},
  };
  expectSamples(withTotals(counted, 2, static_cast<double>(sent.size() + too_large.size()),
                           static_cast<double>(received.size() + refused.size()), 1),
                samples(metricsText(*registry)));
  // The latency runs from the request read to the answer: Hold's includes
  // the 20 ms its service took.
  std::map<std::string, double> timings = samples(metricsText(*registry), true);
  const std::string hold = "{method=\"Hold\",service=\"" + s + "\"";
  EXPECT_LE(0.020, timings["relay_rpc_duration_seconds_sum" + hold + "}"]);
  EXPECT_EQ(0, timings.at("relay_rpc_duration_seconds_bucket" + hold + ",le=\"0.01\"}"));
  EXPECT_EQ(1, timings.at("relay_rpc_duration_seconds_bucket" + hold + ",le=\"+Inf\"}"));
}

TEST(MetricsTest, ScrapeAnswersTextFormatAtExactlyItsPath) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  // Dots and the like are the path's own characters, not a pattern's.
  ASSERT_TRUE(exposeMetrics(*server, "/stats.txt"));
  vantu::testing::LoopbackClient client(server->localAddress().port());
  client.write(get("/stats.txt") + get("/statsXtxt") + get("/stats.txt"));
  client.shutdownWrite();
  HttpResponseParser parser;
  std::vector<HttpResponsePtr> responses;
  ASSERT_TRUE(parser.parse(client.readToEnd(), &responses));
  ASSERT_EQ(3u, responses.size());
  EXPECT_EQ(200, responses[0]->status_code);
  EXPECT_EQ(kMetricsContentType, responses[0]->headers["Content-Type"]);
  EXPECT_EQ(404, responses[1]->status_code);
  EXPECT_EQ(200, responses[2]->status_code);
  // A scrape counts once it is answered: the second sees the first and the
  // 404, and the bytes of everything before it.
  const std::map<std::string, double> second = samples(responses[2]->body);
  EXPECT_EQ(1, second.at("relay_http_requests_total{code=\"200\",handler=\"/stats\\\\.txt\"}"));
  EXPECT_EQ(1, second.at("relay_http_requests_total{code=\"404\",handler=\"(none)\"}"));
  EXPECT_EQ(1, second.at("relay_connections_open"));
  server.reset();
  waitForDeferredWork();
}

// The requests the event thread answers in one turn of its loop are counted
// in one run, handed over when the turn ends: a peer that has its answers, on
// a connection that stays open and quiet, finds them in a scrape made on
// another thread (which takes what waits for the turn's end), and the
// registry itself has them once the turn is over, turn after turn.
TEST(MetricsTest, AnswersReadByThePeerAreAlreadyCounted) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  std::shared_ptr<prometheus::Registry> registry = exposeMetrics(*server);
  ASSERT_TRUE(registry);
  server->registerHandler("/x", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    response->content = {'o', 'k'};
  });
  const std::string answer =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 2\r\n\r\nok";
  vantu::testing::LoopbackClient client(server->localAddress().port());
  client.write(get("/x") + get("/x") + get("/x"));
  ASSERT_EQ(answer + answer + answer, client.read(3 * answer.size()));
  const std::string counted = "relay_http_requests_total{code=\"200\",handler=\"/x\"}";
  EXPECT_EQ(3, samples(metricsText(*registry)).at(counted));
  // Read without a scrape's handover: each turn's answers arrive by
  // themselves.
  auto collected = [&] {
    return samples(prometheus::TextSerializer().Serialize(registry->Collect()))[counted];
  };
  for (int answers = 4; answers <= 5; ++answers) {
    client.write(get("/x"));
    ASSERT_EQ(answer, client.read(answer.size()));
    ASSERT_TRUE(vantu::testing::eventually([&] { return collected() == answers; }))
        << collected() << " counted of " << answers;
  }
  server.reset();
  waitForDeferredWork();
}

TEST(MetricsTest, PeerChosenRpcNamesAreBounded) {
  auto registry = std::make_shared<prometheus::Registry>();
  std::shared_ptr<MetricsObserver> observer = MetricsObserver::create(registry);
  ASSERT_TRUE(observer);
  const size_t limit = MetricsObserver::kMaxUnknownRpcNames;
  for (size_t i = 0; i < limit + 10; ++i) {
    observer->rpcFinished("peer.S" + std::to_string(i), "M", Outcome::kServiceNotFound, {});
  }
  // Not a protobuf name: never a label of its own, even under the limit.
  auto fresh = std::make_shared<prometheus::Registry>();
  std::shared_ptr<MetricsObserver> other = MetricsObserver::create(fresh);
  other->rpcFinished("bad\"name\n", "M", Outcome::kServiceNotFound, {});
  other->rpcFinished("a.B", "", Outcome::kMethodNotFound, {});
  expectSamples(withTotals({{rpcs("(other)", "(other)", "service_not_found"), 1},
                            {rpcs("a.B", "(other)", "method_not_found"), 1}},
                           0, 0, 0, 0),
                samples(metricsText(*fresh)));

  // Past the limit: a name seen before keeps its series, new ones fold into
  // "(other)" (a known service keeps its name), real calls are never folded.
  observer->rpcFinished("peer.S0", "M", Outcome::kServiceNotFound, {});
  observer->rpcFinished("a.B", "Nope", Outcome::kMethodNotFound, {});
  observer->rpcFinished("a.B", "Real", Outcome::kOk, Duration::milliseconds(3));
  std::map<std::string, double> all = samples(metricsText(*registry));
  EXPECT_EQ(2, all[rpcs("peer.S0", "M", "service_not_found")]);
  for (size_t i = 1; i < limit; ++i) {
    EXPECT_EQ(1, all[rpcs("peer.S" + std::to_string(i), "M", "service_not_found")]) << i;
  }
  EXPECT_EQ(10, all[rpcs("(other)", "(other)", "service_not_found")]);
  EXPECT_EQ(1, all[rpcs("a.B", "(other)", "method_not_found")]);
  EXPECT_EQ(1, all[rpcs("a.B", "Real", "ok")]);
  EXPECT_EQ(1, all["relay_rpc_duration_seconds_count{method=\"Real\",service=\"a.B\"}"]);
  size_t series = 0;
  for (const auto& sample : all) series += sample.first.compare(0, 17, "relay_rpcs_total{") == 0;
  EXPECT_EQ(limit + 3, series);
}

TEST(MetricsTest, SharedRegistryAddsUpAndAConflictingOneIsRefused) {
  auto shared = std::make_shared<prometheus::Registry>();
  // A registry where one of the names is already something else.
  auto taken = std::make_shared<prometheus::Registry>();
  prometheus::BuildGauge().Name("relay_rpcs_total").Help("mine").Register(*taken).Add({}).Set(7);
  std::vector<std::shared_ptr<HttpServer>> servers;
  for (int i = 0; i < 4; ++i) {
    servers.push_back(HttpServer::create(SocketAddress("127.0.0.1", 0), 16));
    ASSERT_TRUE(servers.back());
  }
  EXPECT_EQ(shared, exposeMetrics(*servers[0], "/metrics", shared));
  EXPECT_EQ(shared, exposeMetrics(*servers[1], "/metrics", shared));
  EXPECT_EQ(nullptr, exposeMetrics(*servers[2], "/metrics", taken));
  // And one with a registry of its own, answering on the same event thread.
  std::shared_ptr<prometheus::Registry> own = exposeMetrics(*servers[3]);
  ASSERT_TRUE(own);
  for (int i : {0, 1, 2, 3, 0}) {
    vantu::testing::LoopbackClient client(servers[i]->localAddress().port());
    client.write(get("/nothing"));
    client.shutdownWrite();
    EXPECT_EQ(0u, client.readToEnd().find("HTTP/1.1 404 "));
  }
  servers.clear();
  waitForDeferredWork();
  const std::string not_found = "relay_http_requests_total{code=\"404\",handler=\"(none)\"}";
  const std::map<std::string, double> all = samples(metricsText(*shared));
  EXPECT_EQ(3, all.at(not_found));
  EXPECT_EQ(3, all.at("relay_connections_accepted_total"));
  EXPECT_EQ(1, samples(metricsText(*own)).at(not_found));
  expectSamples({{"relay_rpcs_total", 7}}, samples(metricsText(*taken)));
}

// Series made and counted from the event thread and from the threads that
// complete calls at the same time: every event counts once.
TEST(MetricsTest, CallsCompletedOnManyThreadsAllCount) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  std::shared_ptr<prometheus::Registry> registry = exposeMetrics(*server);
  ASSERT_TRUE(registry);
  server->registerHandler("/a.*", [](const HttpRequestPtr&, const HttpResponsePtr&) {});
  auto service = std::make_shared<TestServiceImpl>();
  server->registerRPCService(service);

  const int kClients = 4;
  const int kRounds = 50;
  std::vector<std::string> requests(kClients), answers(kClients);
  for (int c = 0; c < kClients; ++c) {
    for (int i = 0; i < kRounds; ++i) {
      requests[c] += call(kService, "Hold", textMessage("h")) + get("/a" + std::to_string(c)) +
                     call(kService, i % 2 ? "Echo" : "Fail", textMessage("x"));
    }
  }
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      vantu::testing::LoopbackClient client(server->localAddress().port());
      client.write(requests[c]);
      client.shutdownWrite();
      answers[c] = client.readToEnd();
    });
  }
  // Two threads complete the held calls, as a service's own workers would.
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&service, w] {
      for (int k = w; k < kClients * kRounds; k += 2) {
        if (!service->waitHeld(k + 1)) return;
        service->complete(k);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  server.reset();
  waitForDeferredWork();

  size_t sent = 0, received = 0;
  for (int c = 0; c < kClients; ++c) {
    sent += requests[c].size();
    received += answers[c].size();
  }
  const double calls = kClients * kRounds;
  const std::map<std::string, double> counted = {
      {"relay_http_requests_total{code=\"200\",handler=\"/a.*\"}", calls},
      {"relay_http_handler_duration_seconds_count{handler=\"/a.*\"}", calls},
      {rpcs(kService, "Hold", "ok"), calls},
      {rpcs(kService, "Echo", "ok"), calls / 2},
      {rpcs(kService, "Fail", "failed"), calls / 2},
      {rpcDurations("Hold"), calls},
      {rpcDurations("Echo"), calls / 2},
      {rpcDurations("Fail"), calls / 2},
  };
  expectSamples(
      withTotals(counted, kClients, static_cast<double>(sent), static_cast<double>(received), 0),
      samples(metricsText(*registry)));
}

// A thread counts the requests it answers and hands the counts to the
// registry at its next report of bytes or connections, or before a scrape on
// it. The text must be what counting each request at once gives: one
// observer is given each request alone (a report after each), another the
// same requests in runs; both are checked against counts made here, and
// their texts against each other byte for byte. The durations are exact
// binary fractions (so that any order of adding them gives the same sum),
// some of them exactly on a bucket's bound, one past the last bound.
TEST(MetricsTest, RequestsCountedInRunsScrapeAsCountedOneByOne) {
  const int64_t kMicroseconds[] = {15625,   31250,   62500,    125000, 250000, 500000,
                                   1000000, 2000000, 16000000, 250000, 15625,  0};
  struct Answer {
    const char* pattern;  // "" when no handler took it
    int status;
  };
  const Answer kAnswers[] = {{"/a", 200}, {"/a", 200}, {"/a", 404}, {"", 404},
                             {"/b", 200}, {"/a", 200}, {"/a", 200}};
  auto one_by_one = std::make_shared<prometheus::Registry>();
  auto in_runs = std::make_shared<prometheus::Registry>();
  std::shared_ptr<MetricsObserver> single = MetricsObserver::create(one_by_one);
  std::shared_ptr<MetricsObserver> batched = MetricsObserver::create(in_runs);
  ASSERT_TRUE(single && batched);
  std::map<std::string, double> expected;
  auto key = [](const std::string& name, const std::string& labels) {
    return name + "{" + labels + "}";
  };
  int n = 0;
  for (const Answer& answer : kAnswers) {
    for (int64_t us : kMicroseconds) {
      const Duration time = Duration::microseconds(us);
      single->requestAnswered(answer.pattern, answer.status, time);
      single->bytesSent(0);
      if (n == 0) {
        // Off the event thread the report itself hands the count over, with
        // no scrape to ask for it.
        EXPECT_EQ(
            1,
            samples(prometheus::TextSerializer().Serialize(
                one_by_one->Collect()))["relay_http_requests_total{code=\"200\",handler=\"/a\"}"]);
      }
      batched->requestAnswered(answer.pattern, answer.status, time);
      // Runs of every length from 1 to 5, ended by one report or another
      // (which the other observer is given as well, after its own).
      for (const std::shared_ptr<MetricsObserver>& observer : {batched, single}) {
        if (n % 6 == 5) observer->bytesReceived(0);
        if (n % 7 == 6) observer->connectionOpened();
        if (n % 11 == 10) observer->connectionClosed();
        if (n % 13 == 12) observer->requestRefused(400, false);
      }
      ++n;
      const std::string handler = *answer.pattern != '\0' ? answer.pattern : "(none)";
      expected[key("relay_http_requests_total", "code=\"" + std::to_string(answer.status) +
                                                    "\",handler=\"" + handler + "\"")] += 1;
      if (*answer.pattern == '\0') continue;
      const double seconds = static_cast<double>(us) / 1e6;
      const std::string labels = "handler=\"" + handler + "\"";
      expected[key("relay_http_handler_duration_seconds_count", labels)] += 1;
      expected[key("relay_http_handler_duration_seconds_sum", labels)] += seconds;
      for (const char* bound :
           {"1e-05",  "2.5e-05", "5e-05", "0.0001", "0.00025", "0.0005", "0.001",
            "0.0025", "0.005",   "0.01",  "0.025",  "0.05",    "0.1",    "0.25",
            "0.5",    "1",       "2.5",   "5",      "10",      "+Inf"}) {
        const bool counted = std::string(bound) == "+Inf" || seconds <= std::strtod(bound, nullptr);
        expected[key("relay_http_handler_duration_seconds_bucket",
                     labels + ",le=\"" + bound + "\"")] += counted ? 1 : 0;
      }
    }
  }
  // The last run is handed over by the scrape itself.
  const std::string batched_text = metricsText(*in_runs);
  const std::string single_text = metricsText(*one_by_one);
  EXPECT_EQ(single_text, batched_text);
  std::map<std::string, double> scraped;
  for (const auto& sample : samples(batched_text, true)) {
    if (sample.first.rfind("relay_http_", 0) == 0 &&
        sample.first.rfind("relay_http_parse_errors", 0) != 0) {
      scraped.insert(sample);
    }
  }
  expectSamples(expected, scraped);
}

// On the event thread a turn's durations go over together at the turn's end,
// sorted into buckets by the observer itself: one exactly on a bound counts
// in that bound's bucket, as Histogram::Observe would count it.
TEST(MetricsTest, DurationsOfOneTurnLandInTheBucketsObserveWouldPick) {
  auto registry = std::make_shared<prometheus::Registry>();
  std::shared_ptr<MetricsObserver> observer = MetricsObserver::create(registry);
  ASSERT_TRUE(observer);
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    observer->requestAnswered("/a", 200, Duration::microseconds(250000));
    observer->requestAnswered("/a", 200, Duration::microseconds(15625));
  }));
  std::map<std::string, double> scraped = samples(metricsText(*registry), true);
  const std::string bucket = "relay_http_handler_duration_seconds_bucket{handler=\"/a\",le=";
  EXPECT_EQ(0, scraped[bucket + "\"0.01\"}"]);
  EXPECT_EQ(1, scraped[bucket + "\"0.025\"}"]);
  EXPECT_EQ(1, scraped[bucket + "\"0.1\"}"]);
  EXPECT_EQ(2, scraped[bucket + "\"0.25\"}"]);
  EXPECT_EQ(2, scraped["relay_http_handler_duration_seconds_count{handler=\"/a\"}"]);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
