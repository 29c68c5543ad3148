#include "demo_events.h"

#include <prometheus/registry.h>

#include <string>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/server_sent_events.h"

namespace demo {
namespace {

using vantu::relay::HttpStreamPtr;
using vantu::relay::ServerSentEvents;

// The sum of every series of the family `name`.
double total(const std::vector<prometheus::MetricFamily>& families, const std::string& name) {
  double sum = 0;
  for (const prometheus::MetricFamily& family : families) {
    if (family.name != name) continue;
    for (const prometheus::ClientMetric& metric : family.metric) {
      sum +=
          family.type == prometheus::MetricType::Gauge ? metric.gauge.value : metric.counter.value;
    }
  }
  return sum;
}

// The open streams and the timer that feeds them. Owned by the timer's
// callbacks and the stream handler; streams join on the event thread and the
// ticks run there, so the list needs no lock.
class CounterFeed : public std::enable_shared_from_this<CounterFeed> {
 public:
  explicit CounterFeed(std::shared_ptr<prometheus::Registry> registry)
      : registry_(std::move(registry)) {}

  void add(const HttpStreamPtr& stream) {
    ServerSentEvents events(stream);
    events.start();
    events.retry(2000);
    events.send(counters(), "counters");
    streams_.push_back(stream);
    if (!ticking_) {
      ticking_ = true;
      scheduleTick();
    }
  }

 private:
  std::string counters() const {
    const std::vector<prometheus::MetricFamily> families = registry_->Collect();
    char text[200];
    snprintf(text, sizeof(text),
             "{\"requests\":%.0f,\"rpcs\":%.0f,\"rpcs_in_flight\":%.0f,\"connections\":%.0f}",
             total(families, "relay_http_requests_total"), total(families, "relay_rpcs_total"),
             total(families, "relay_rpcs_in_flight"), total(families, "relay_connections_open"));
    return text;
  }

  void scheduleTick() {
    std::weak_ptr<CounterFeed> weak = weak_from_this();
    vantu::scheduleDeferred(
        [weak] {
          if (std::shared_ptr<CounterFeed> feed = weak.lock()) feed->tick();
        },
        vantu::Duration::seconds(1));
  }

  void tick() {
    const std::string event = vantu::relay::formatServerSentEvent(counters(), "counters");
    std::vector<HttpStreamPtr> open;
    for (HttpStreamPtr& stream : streams_) {
      // A client that lags skips this event rather than piling them up.
      if (stream->closed()) continue;
      if (stream->writable()) stream->write(event);
      open.push_back(std::move(stream));
    }
    streams_.swap(open);
    ticking_ = !streams_.empty();
    if (ticking_) scheduleTick();
  }

  const std::shared_ptr<prometheus::Registry> registry_;
  std::vector<HttpStreamPtr> streams_;
  bool ticking_ = false;
};

}  // namespace

void serveCounterEvents(const std::shared_ptr<vantu::relay::HttpServer>& server,
                        const std::string& path, std::shared_ptr<prometheus::Registry> registry) {
  auto feed = std::make_shared<CounterFeed>(std::move(registry));
  server->registerStreamHandler(vantu::relay::HttpServer::literalPattern(path),
                                [feed](const vantu::relay::HttpRequestPtr&,
                                       const HttpStreamPtr& stream) { feed->add(stream); });
}

}  // namespace demo
