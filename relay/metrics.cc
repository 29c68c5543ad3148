// MetricsObserver and the /metrics handler over prometheus-cpp's core library.
#include "relay/metrics.h"

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/fast_thread_local.h"
#include "common/logging.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {
namespace {

const char kLogger[] = "http_server";
const char kSourceFile[] = "relay/metrics";

// The handler label of requests no handler matched, and the name that stands
// for peer-chosen RPC names past the limit. Neither can be a protobuf name;
// a URL pattern would have to be written to match "none" without a slash.
const std::string kNoHandler = "(none)";
const std::string kOtherName = "(other)";

const char* const kOutcomeNames[] = {"ok", "failed", "service_not_found", "method_not_found",
                                     "bad_request"};

// From 10 µs (what a small handler takes) to 10 s (a slow RPC), roughly
// 1-2.5-5 per decade.
constexpr double kLatencyBounds[] = {0.00001, 0.000025, 0.00005, 0.0001, 0.00025, 0.0005, 0.001,
                                     0.0025,  0.005,    0.01,    0.025,  0.05,    0.1,    0.25,
                                     0.5,     1,        2.5,     5,      10};
constexpr size_t kLatencyBuckets = sizeof(kLatencyBounds) / sizeof(kLatencyBounds[0]) + 1;

const prometheus::Histogram::BucketBoundaries& latencyBuckets() {
  static const prometheus::Histogram::BucketBoundaries buckets(std::begin(kLatencyBounds),
                                                               std::end(kLatencyBounds));
  return buckets;
}

// The bucket Histogram::Observe counts `value` in: the first whose bound is
// not below it, or the last (+Inf). Searched from the shortest, where most
// handler times fall.
size_t latencyBucket(double value) {
  size_t bucket = 0;
  while (bucket + 1 < kLatencyBuckets && !(kLatencyBounds[bucket] >= value)) ++bucket;
  return bucket;
}

uint64_t nextObserverId() {
  static std::atomic<uint64_t> next{1};
  return next.fetch_add(1, std::memory_order_relaxed);
}

double seconds(Duration duration) { return static_cast<double>(duration.toMicroseconds()) / 1e6; }

// Letters, digits, '_' and '.', as protobuf full names are made of, and not
// too long: what a peer may put into a label.
bool looksLikeProtobufName(const std::string& name) {
  if (name.empty() || name.size() > 128) return false;
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '.';
    if (!ok) return false;
  }
  return true;
}

prometheus::Counter* findOrAddCounter(std::vector<std::pair<int, prometheus::Counter*>>* counters,
                                      prometheus::Family<prometheus::Counter>* family,
                                      prometheus::Labels labels, int status) {
  for (const auto& entry : *counters) {
    if (entry.first == status) return entry.second;
  }
  labels["code"] = std::to_string(status);
  prometheus::Counter* counter = &family->Add(labels);
  counters->emplace_back(status, counter);
  return counter;
}

// The series a thread counted a request in last, and what it counted there
// since it last handed the counts over (see requestAnswered). Thread-local.
struct LastRequestSeries {
  LastRequestSeries() = default;
  LastRequestSeries(const LastRequestSeries&) = delete;
  LastRequestSeries& operator=(const LastRequestSeries&) = delete;
  ~LastRequestSeries();

  // Adds what was counted to the series and starts again from zero.
  void flush() {
    if (pending_requests != 0) requests->Increment(static_cast<double>(pending_requests));
    if (pending_durations != 0) {
      // One duration lands where Observe puts it (see latencyBucket): that
      // touches its bucket and the sum, where ObserveMultiple touches every
      // bucket.
      if (pending_durations == 1) {
        duration->Observe(pending_sum);
      } else {
        duration->ObserveMultiple(pending_buckets, pending_sum);
      }
      std::fill(pending_buckets.begin(), pending_buckets.end(), 0.0);
    }
    pending_requests = 0;
    pending_durations = 0;
    pending_sum = 0;
  }

  uint64_t observer = 0;  // id of the MetricsObserver; 0 for none
  // The event thread: a handover is asked for at the end of this turn of its
  // loop, so the reports in between leave the counts alone.
  bool handover_armed = false;
  int status = 0;
  std::string handler;
  // Keeps the series below alive while counts for them wait here.
  std::shared_ptr<prometheus::Registry> registry;
  prometheus::Counter* requests = nullptr;
  prometheus::Histogram* duration = nullptr;  // null for "(none)"
  // Counted and not yet handed over: requests, and the durations by bucket
  // (as Histogram::ObserveMultiple takes them) with their sum.
  uint64_t pending_requests = 0;
  size_t pending_durations = 0;
  std::vector<double> pending_buckets = std::vector<double>(kLatencyBuckets, 0.0);
  double pending_sum = 0;
};

// This thread's LastRequestSeries, once it has one: a plain pointer, read on
// every report at the cost of one load.
VANTU_FAST_THREAD_LOCAL LastRequestSeries* tls_last_series = nullptr;

LastRequestSeries::~LastRequestSeries() {
  flush();
  tls_last_series = nullptr;
}

// This thread's LastRequestSeries, made on its first use.
LastRequestSeries& thisThreadSeries() {
  if (tls_last_series == nullptr) {
    // Reached once per thread: a thread_local with a destructor costs a
    // look-up of its own on every use.
    thread_local LastRequestSeries series;
    tls_last_series = &series;
  }
  return *tls_last_series;
}

// Hands the counts this thread keeps over to their series.
void flushThisThread() {
  if (tls_last_series != nullptr) tls_last_series->flush();
}

// What the reports do: hand the counts over, unless the end of the event
// loop's turn will.
void flushUnlessArmed() {
  if (tls_last_series != nullptr && !tls_last_series->handover_armed) tls_last_series->flush();
}

// Set while the event thread keeps counts that the end of its turn hands
// over, so that a scrape on another thread knows to ask for them.
std::atomic<bool> event_thread_counts_waiting{false};

// Run by the event loop at the end of a turn that counted requests.
void handOverAtEndOfTurn() {
  if (tls_last_series == nullptr) return;
  tls_last_series->handover_armed = false;
  tls_last_series->flush();
  event_thread_counts_waiting.store(false, std::memory_order_release);
}

}  // namespace

const char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

std::string metricsText(const prometheus::Registry& registry) {
  flushThisThread();
  // A peer may hold answers whose counts wait for the end of the event
  // loop's turn: take them now, so that the scrape has every answer given.
  if (!isEventThread() && event_thread_counts_waiting.load(std::memory_order_acquire)) {
    runOnEventThreadAndWait(&handOverAtEndOfTurn);
  }
  return prometheus::TextSerializer().Serialize(registry.Collect());
}

std::shared_ptr<MetricsObserver> MetricsObserver::create(
    std::shared_ptr<prometheus::Registry> registry) {
  if (!registry) return nullptr;
  try {
    return std::shared_ptr<MetricsObserver>(new MetricsObserver(std::move(registry)));
  } catch (const std::exception& e) {
    // prometheus-cpp throws when a name is taken by another kind of metric.
    VANTU_LOG(2, kLogger, kSourceFile) << "Cannot register the server's metrics: " << e.what();
    return nullptr;
  }
}

MetricsObserver::MetricsObserver(std::shared_ptr<prometheus::Registry> registry)
    : id_(nextObserverId()), registry_(std::move(registry)) {
  prometheus::Registry& r = *registry_;
  requests_family_ = &prometheus::BuildCounter()
                          .Name("relay_http_requests_total")
                          .Help(
                              "Plain HTTP requests answered, by the pattern of the handler that "
                              "took them ((none) when none matched) and status code.")
                          .Register(r);
  handler_duration_family_ = &prometheus::BuildHistogram()
                                  .Name("relay_http_handler_duration_seconds")
                                  .Help("How long URL handlers ran, by pattern.")
                                  .Register(r);
  rpcs_family_ = &prometheus::BuildCounter()
                      .Name("relay_rpcs_total")
                      .Help("RPCs ended, by service, method and outcome.")
                      .Register(r);
  rpc_duration_family_ = &prometheus::BuildHistogram()
                              .Name("relay_rpc_duration_seconds")
                              .Help(
                                  "RPC latency from the request read to the answer, for the "
                                  "calls a service ran.")
                              .Register(r);
  limit_rejections_family_ = &prometheus::BuildCounter()
                                  .Name("relay_http_limit_rejections_total")
                                  .Help(
                                      "Requests refused by the server's limits (head, body) "
                                      "or timeouts, by status code.")
                                  .Register(r);
  connections_open_ = &prometheus::BuildGauge()
                           .Name("relay_connections_open")
                           .Help("Connections open now.")
                           .Register(r)
                           .Add({});
  connections_accepted_ = &prometheus::BuildCounter()
                               .Name("relay_connections_accepted_total")
                               .Help("Connections accepted.")
                               .Register(r)
                               .Add({});
  received_bytes_ = &prometheus::BuildCounter()
                         .Name("relay_received_bytes_total")
                         .Help("Bytes read from connections.")
                         .Register(r)
                         .Add({});
  sent_bytes_ = &prometheus::BuildCounter()
                     .Name("relay_sent_bytes_total")
                     .Help("Bytes of answers written to connections.")
                     .Register(r)
                     .Add({});
  parse_errors_ = &prometheus::BuildCounter()
                       .Name("relay_http_parse_errors_total")
                       .Help(
                           "Input that could not be read as requests: malformed (400), and with "
                           "strict framing unsupported (501, 505).")
                       .Register(r)
                       .Add({});
  rpcs_in_flight_ = &prometheus::BuildGauge()
                         .Name("relay_rpcs_in_flight")
                         .Help("RPCs handed to their services and not answered yet.")
                         .Register(r)
                         .Add({});
}

MetricsObserver::~MetricsObserver() = default;

void MetricsObserver::connectionOpened() {
  flushUnlessArmed();
  connections_accepted_->Increment();
  connections_open_->Increment();
}

void MetricsObserver::connectionClosed() {
  flushUnlessArmed();
  connections_open_->Decrement();
}

void MetricsObserver::bytesReceived(size_t bytes) {
  flushUnlessArmed();
  received_bytes_->Increment(static_cast<double>(bytes));
}

void MetricsObserver::bytesSent(size_t bytes) {
  flushUnlessArmed();
  sent_bytes_->Increment(static_cast<double>(bytes));
}

MetricsObserver::HandlerSeries& MetricsObserver::handlerSeries(const std::string& pattern) {
  auto it = handlers_.find(pattern);
  if (it == handlers_.end()) it = handlers_.emplace(pattern, HandlerSeries()).first;
  return it->second;
}

void MetricsObserver::requestAnswered(const std::string& pattern, int status,
                                      Duration handler_time) {
  // The server reports "" for a request no handler took; its 404 took no
  // handler time, so it has no duration either.
  const bool matched = !pattern.empty();
  const std::string& handler = matched ? pattern : kNoHandler;
  // Most requests on a thread go where the one before went: each thread
  // keeps the series it used last, which spares the lock and the hash, and
  // counts there until it hands the counts over. An observer's id is never
  // reused, so a cached entry of one that is gone never matches.
  LastRequestSeries& last = thisThreadSeries();
  if (last.observer != id_ || last.status != status || last.handler != handler) {
    last.flush();
    MutexLock lock(mutex_);
    HandlerSeries& series = handlerSeries(handler);
    last.requests =
        findOrAddCounter(&series.requests, requests_family_, {{"handler", handler}}, status);
    if (matched && series.duration == nullptr) {
      series.duration = &handler_duration_family_->Add({{"handler", handler}}, latencyBuckets());
    }
    last.duration = series.duration;
    last.registry = registry_;
    last.observer = id_;
    last.status = status;
    last.handler = handler;
  }
  ++last.pending_requests;
  if (matched) {
    const double value = seconds(handler_time);
    last.pending_buckets[latencyBucket(value)] += 1;
    last.pending_sum += value;
    ++last.pending_durations;
  }
  // On the event thread the counts of a turn's answers, across its
  // connections, go over in one step when the turn ends. Elsewhere they go
  // at the thread's next report.
  if (!last.handover_armed && runAtEndOfTurn(&handOverAtEndOfTurn)) {
    last.handover_armed = true;
    event_thread_counts_waiting.store(true, std::memory_order_release);
  }
}

MetricsObserver::RpcSeries& MetricsObserver::rpcSeries(const std::string& service,
                                                       const std::string& method, bool peer_service,
                                                       bool peer_method) {
  auto by_service = rpcs_.find(service);
  if (by_service != rpcs_.end()) {
    auto it = by_service->second.find(method);
    if (it != by_service->second.end()) return it->second;
  }
  if (peer_service || peer_method) {
    const bool keep = unknown_rpc_names_ < kMaxUnknownRpcNames &&
                      (!peer_service || looksLikeProtobufName(service)) &&
                      (!peer_method || looksLikeProtobufName(method));
    if (!keep) {
      return rpcSeries(peer_service ? kOtherName : service, peer_method ? kOtherName : method,
                       false, false);
    }
    ++unknown_rpc_names_;
  }
  RpcSeries& series = rpcs_[service][method];
  series.service = service;
  series.method = method;
  return series;
}

void MetricsObserver::rpcStarted(const std::string&, const std::string&) {
  rpcs_in_flight_->Increment();
}

void MetricsObserver::rpcFinished(const std::string& service, const std::string& method,
                                  RpcOutcome outcome, Duration latency) {
  const size_t index = static_cast<size_t>(outcome);
  if (outcome == RpcOutcome::kOk || outcome == RpcOutcome::kFailed) rpcs_in_flight_->Decrement();
  if (index >= sizeof(kOutcomeNames) / sizeof(kOutcomeNames[0])) return;
  const bool peer_service = outcome == RpcOutcome::kServiceNotFound;
  const bool peer_method = peer_service || outcome == RpcOutcome::kMethodNotFound;
  const bool ran = outcome == RpcOutcome::kOk || outcome == RpcOutcome::kFailed;
  prometheus::Counter* calls;
  prometheus::Histogram* duration = nullptr;
  {
    MutexLock lock(mutex_);
    RpcSeries& series = rpcSeries(service, method, peer_service, peer_method);
    if (series.outcomes[index] == nullptr) {
      series.outcomes[index] = &rpcs_family_->Add({{"service", series.service},
                                                   {"method", series.method},
                                                   {"outcome", kOutcomeNames[index]}});
    }
    if (ran && series.duration == nullptr) {
      series.duration = &rpc_duration_family_->Add(
          {{"service", series.service}, {"method", series.method}}, latencyBuckets());
    }
    calls = series.outcomes[index];
    if (ran) duration = series.duration;
  }
  calls->Increment();
  if (duration != nullptr) duration->Observe(seconds(latency));
}

void MetricsObserver::requestRefused(int status, bool by_limit) {
  flushUnlessArmed();
  if (!by_limit) {
    parse_errors_->Increment();
    return;
  }
  prometheus::Counter* rejections;
  {
    MutexLock lock(mutex_);
    rejections = findOrAddCounter(&limit_rejections_, limit_rejections_family_, {}, status);
  }
  rejections->Increment();
}

std::shared_ptr<prometheus::Registry> exposeMetrics(
    HttpServer& server, const std::string& path, std::shared_ptr<prometheus::Registry> registry) {
  if (!registry) registry = std::make_shared<prometheus::Registry>();
  std::shared_ptr<MetricsObserver> observer = MetricsObserver::create(registry);
  if (!observer) return nullptr;
  server.setObserver(observer);
  server.registerHandler(HttpServer::literalPattern(path),
                         [registry](const HttpRequestPtr&, const HttpResponsePtr& response) {
                           response->setContentType(kMetricsContentType);
                           // (metricsText first hands over this thread's
                           // counts: the requests answered before the scrape.)
                           const std::string text = metricsText(*registry);
                           response->content.assign(text.begin(), text.end());
                         });
  return registry;
}

}  // namespace relay
}  // namespace vantu
