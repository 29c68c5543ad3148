// A tiny application built against the installed tree: it must find the
// headers as <relay/...> and link with the installed library alone.
#include <common/event_thread.h>
#include <relay/http_request_parser.h>
#include <relay/http_server.h>
#include <relay/reflection.h>
#include <relay/rpc.h>
#include <relay/url_escape.h>

#include <cstdio>

int main() {
  vantu::relay::HttpRequestParser parser;
  std::vector<vantu::relay::HttpRequestPtr> requests;
  if (!parser.parse("GET /a?x=%41 HTTP/1.1\r\nHost: h\r\n\r\n", &requests) ||
      requests.size() != 1 || requests[0]->getStringQueryComponent("x", 0) != "A") {
    return 1;
  }
  if (vantu::relay::urlEscape("a b") != "a%20b") return 1;
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16);
  if (!server) return 1;
  // The reflection service's generated code ships inside the library.
  vantu::relay::registerReflectionService(server);
  if (server->serviceDescriptors().size() != 1 ||
      server->serviceDescriptors()[0]->full_name() != "vantu.relay.Reflection") {
    return 1;
  }
  std::printf("install_app: parsed %s, listening on port %d\n", requests[0]->url.spec().c_str(),
              server->localAddress().port());
  server.reset();
  vantu::waitForDeferredWork();
  return 0;
}
