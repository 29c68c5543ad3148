#ifndef EXAMPLES_DEMO_EVENTS_H_
#define EXAMPLES_DEMO_EVENTS_H_

#include <memory>
#include <string>

#include "relay/http_server.h"

namespace prometheus {
class Registry;
}  // namespace prometheus

namespace demo {

// Serves `path` as a Server-Sent Events stream of the server's counters, read
// from the metrics in `registry` every second: one "counters" event holding
// {"requests":N,"rpcs":N,"rpcs_in_flight":N,"connections":N}, the totals
// of requests and RPCs answered and the two figures of now. Every client gets the
// same event at the same moment, from one timer on the event thread; a
// client that lags by more than the stream's mark skips events until it has
// caught up. Any thread; the feed lives as long as the server.
void serveCounterEvents(const std::shared_ptr<vantu::relay::HttpServer>& server,
                        const std::string& path, std::shared_ptr<prometheus::Registry> registry);

}  // namespace demo

#endif  // EXAMPLES_DEMO_EVENTS_H_
