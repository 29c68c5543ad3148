#include "relay/health.h"

namespace vantu {
namespace relay {

void registerHealthCheck(const std::shared_ptr<HttpServer>& server, const std::string& path) {
  std::weak_ptr<HttpServer> weak_server = server;
  server->registerHandler(
      HttpServer::literalPattern(path),
      [weak_server](const HttpRequestPtr& /*request*/, const HttpResponsePtr& response) {
        const std::shared_ptr<HttpServer> server = weak_server.lock();
        const bool serving = server && !server->draining();
        const std::string text = serving ? "ok\n" : "draining\n";
        if (!serving) response->status_code = HttpResponse::kServiceUnavailable;
        response->setContentType("text/plain");
        response->setHeader("Cache-Control", "no-store");
        response->content.assign(text.begin(), text.end());
      });
}

}  // namespace relay
}  // namespace vantu
