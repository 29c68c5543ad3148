#ifndef RELAY_HEALTH_H_
#define RELAY_HEALTH_H_

#include <memory>
#include <string>

#include "relay/http_server.h"

namespace vantu {
namespace relay {

// A health check for load balancers and orchestrators (an nginx or HAProxy
// check, a Kubernetes readiness probe): GET `path` answers 200 "ok" while the
// server serves, and 503 "draining" from the moment HttpServer::drain() is
// called, so that whoever polls it stops sending new requests during the
// drain's announce period, while the server still accepts and answers them.
// Both answers are text/plain, carry "Cache-Control: no-store", and keep the
// connection open as any other answer does.
//
// Registers one URL handler on `server` that holds the server weakly (a
// server that is gone answers 503 too). Any thread, like registerHandler.
void registerHealthCheck(const std::shared_ptr<HttpServer>& server,
                         const std::string& path = "/healthz");

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HEALTH_H_
