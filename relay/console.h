#ifndef RELAY_CONSOLE_H_
#define RELAY_CONSOLE_H_

#include <memory>
#include <string>
#include <vector>

#include "relay/http_server.h"

namespace vantu {
namespace relay {

// A link the console's page shows beside the services: what else the server
// serves (its pages, its metrics, its health check).
struct ConsoleLink {
  std::string href;         // where it goes, as written in the page ("/hello?name=you")
  std::string text;         // what the link reads ("/hello")
  std::string description;  // a few words after it; may be empty
};

// What the console's page shows besides the services. A plain value.
struct ConsoleOptions {
  // The page's title and heading.
  std::string title = "relay console";
  // Where the page polls the server's metrics (relay/metrics.h) once a second
  // for its live figures; empty for no figures.
  std::string metrics_path = "/metrics";
  // Where the page first listens for the figures as Server-Sent Events: a
  // "counters" event with the JSON fields requests, rpcs, rpcs_in_flight and
  // connections (the demo's /events). Where that is not served, the page
  // polls metrics_path instead; empty: poll only.
  std::string events_path = "/events";
  // Shown in the page under "Endpoints", in this order; none: no such list.
  std::vector<ConsoleLink> links;
};

// A console in the browser: GET `path` serves one self-contained page (its
// styles, script and icon inside it; nothing else is fetched but the calls
// below) that lists the server's services and methods through the reflection
// service (registerReflectionService, relay/reflection.h, which the server
// must also register), shows a JSON template of the chosen method's request
// built from its descriptor, calls the method as JSON over the RPC protocol,
// and shows the reply or the "Rpc-Error" text and the time the call took;
// with metrics, also requests and RPCs per second, RPCs in flight and open
// connections. The page talks to the server only through the public
// protocol, so it has no access the browser's user lacks.
//
// Registers one URL handler on `server` (for `path` exactly), holding the
// page, built now; keeps no reference to the server. Any thread, like
// registerHandler.
void registerConsole(const std::shared_ptr<HttpServer>& server,
                     const std::string& path = "/console",
                     const ConsoleOptions& options = ConsoleOptions());

// The page as registerConsole serves it. Any thread.
std::string consolePage(const ConsoleOptions& options);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_CONSOLE_H_
