#ifndef RELAY_METRICS_H_
#define RELAY_METRICS_H_

// Prometheus metrics for an HttpServer, in the optional library
// http_server_lib::metrics (libhttp_server_lib_metrics) over prometheus-cpp's
// core library. The metrics are served by the application's own server:
//
//   auto server = HttpServer::create(address, 128);
//   exposeMetrics(*server);  // GET /metrics answers in the Prometheus text format
//
// What is measured (every name starts with relay_):
//   relay_http_requests_total{handler,code}       plain requests answered, by the
//                                                 pattern of the handler that took
//                                                 them ("(none)": no handler, 404)
//   relay_http_handler_duration_seconds{handler}  how long matched handlers ran
//   relay_rpcs_total{service,method,outcome}      RPCs ended: ok, failed,
//                                                 service_not_found,
//                                                 method_not_found, bad_request
//   relay_rpc_duration_seconds{service,method}    from request read to answer, for
//                                                 the calls a service ran (ok, failed)
//   relay_connections_open                        connections open now
//   relay_connections_accepted_total              connections accepted
//   relay_received_bytes_total                    bytes read from connections
//   relay_sent_bytes_total                        bytes of answers written
//   relay_rpcs_in_flight                          RPCs handed to their services and
//                                                 not answered yet
//   relay_http_parse_errors_total                 input that is not a request: 400,
//                                                 and with strict framing 501, 505
//   relay_http_limit_rejections_total{code}       requests refused by the server's
//                                                 limits and timeouts (414, 413,
//                                                 400 for a long head, 408)
//
// Service and method names that only a peer chose (calls answered "Service not
// found." or "Method not found.") are kept under their own names only while
// they look like protobuf names and only for the first kMaxUnknownRpcNames
// such pairs; the rest are counted as service="(other)", method="(other)", so
// that no peer can grow the metrics without bound.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "relay/http_server_observer.h"

namespace prometheus {
class Counter;
class Gauge;
class Histogram;
class Registry;
template <typename T>
class Family;
}  // namespace prometheus

namespace vantu {
namespace relay {

class HttpServer;

// Makes `server` serve its metrics at `path` (an exact path, not a regular
// expression) in the Prometheus text format, and measure from now on: sets a
// MetricsObserver as the server's observer and registers a URL handler. Call
// it right after HttpServer::create, before the server has connections (the
// open-connections gauge counts from the moment it is called) and before any
// handler whose pattern would also match `path` (the first match wins).
//
// The metrics go into `registry` when one is given (an application's own,
// which may hold its own metrics too; two servers given the same registry add
// up into the same series), otherwise into a new one. Returns the registry,
// or null when the registry refuses the metric families (one of the names
// registered with another type or other constant labels; logged at level 2
// under "http_server"). Any thread.
std::shared_ptr<prometheus::Registry> exposeMetrics(
    HttpServer& server, const std::string& path = "/metrics",
    std::shared_ptr<prometheus::Registry> registry = nullptr);

// The content type of a scrape's answer.
extern const char kMetricsContentType[];

// `registry` in the Prometheus text format, as a scrape is answered. Any thread.
std::string metricsText(const prometheus::Registry& registry);

// The HttpServerObserver that keeps the metrics above in a prometheus-cpp
// registry, for applications that serve the registry some other way.
//
// Made by create(); the registry is shared with whoever serves it. Thread-safe:
// each label set is looked up once, then cached, and later events touch only
// the cache (under a short lock) and the metric's own atomic counters.
//
// Requests answered are counted by the thread that answers them and handed
// to the registry in one step: on the event thread (where the server answers)
// when the turn of its loop that answered them ends, so that the answers a
// turn gives on all its connections cost one update of the registry instead
// of one each; on any other thread at its next report of bytes read or sent,
// of a connection opened or closed, or of a refusal. A scrape by exposeMetrics
// or metricsText, on any thread, first takes the counts still waiting, so it
// has every answer a peer may already hold; one that reads the registry some
// other way may find the last turn's answers missing for that turn.
class MetricsObserver : public HttpServerObserver {
 public:
  // The peer-chosen service and method pairs kept under their own names.
  static constexpr size_t kMaxUnknownRpcNames = 64;

  // An observer writing into `registry`, or null when the registry refuses
  // the families (see exposeMetrics).
  static std::shared_ptr<MetricsObserver> create(std::shared_ptr<prometheus::Registry> registry);

  ~MetricsObserver() override;
  MetricsObserver(const MetricsObserver&) = delete;
  MetricsObserver& operator=(const MetricsObserver&) = delete;

  const std::shared_ptr<prometheus::Registry>& registry() const { return registry_; }

  // HttpServerObserver
  void connectionOpened() override;
  void connectionClosed() override;
  void bytesReceived(size_t bytes) override;
  void bytesSent(size_t bytes) override;
  void requestAnswered(const std::string& pattern, int status, Duration handler_time) override;
  void rpcStarted(const std::string& service, const std::string& method) override;
  void rpcFinished(const std::string& service, const std::string& method, RpcOutcome outcome,
                   Duration latency) override;
  void requestRefused(int status, bool by_limit) override;

 private:
  // The series of one handler pattern.
  struct HandlerSeries {
    prometheus::Histogram* duration = nullptr;  // made on the first matched request
    std::vector<std::pair<int, prometheus::Counter*>> requests;  // by status code
  };
  // The series of one service and method.
  struct RpcSeries {
    std::string service, method;                // its labels
    prometheus::Histogram* duration = nullptr;  // made on the first call a service ran
    prometheus::Counter* outcomes[5] = {};      // by RpcOutcome
  };

  explicit MetricsObserver(std::shared_ptr<prometheus::Registry> registry);

  HandlerSeries& handlerSeries(const std::string& pattern) VANTU_REQUIRES(mutex_);
  // The series for a call. `peer_service` and `peer_method` tell the names
  // that are not those of a registered service or method.
  RpcSeries& rpcSeries(const std::string& service, const std::string& method, bool peer_service,
                       bool peer_method) VANTU_REQUIRES(mutex_);

  // Constant after construction: an id no other observer of the process has,
  // the registry and the families in it.
  const uint64_t id_;
  const std::shared_ptr<prometheus::Registry> registry_;
  prometheus::Family<prometheus::Counter>* requests_family_ = nullptr;
  prometheus::Family<prometheus::Histogram>* handler_duration_family_ = nullptr;
  prometheus::Family<prometheus::Counter>* rpcs_family_ = nullptr;
  prometheus::Family<prometheus::Histogram>* rpc_duration_family_ = nullptr;
  prometheus::Family<prometheus::Counter>* limit_rejections_family_ = nullptr;
  prometheus::Gauge* connections_open_ = nullptr;
  prometheus::Gauge* rpcs_in_flight_ = nullptr;
  prometheus::Counter* connections_accepted_ = nullptr;
  prometheus::Counter* received_bytes_ = nullptr;
  prometheus::Counter* sent_bytes_ = nullptr;
  prometheus::Counter* parse_errors_ = nullptr;

  // The label sets seen so far. The metrics they point to belong to the
  // registry and are updated without the lock.
  Mutex mutex_;
  std::unordered_map<std::string, HandlerSeries> handlers_ VANTU_GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::unordered_map<std::string, RpcSeries>> rpcs_
      VANTU_GUARDED_BY(mutex_);
  size_t unknown_rpc_names_ VANTU_GUARDED_BY(mutex_) = 0;
  std::vector<std::pair<int, prometheus::Counter*>> limit_rejections_ VANTU_GUARDED_BY(mutex_);
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_METRICS_H_
