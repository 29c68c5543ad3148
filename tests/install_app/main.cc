// A tiny application built against the installed tree: it must find the
// headers as <relay/...> and link with the installed library alone.
#include <common/event_thread.h>
#include <relay/http_request_parser.h>
#include <relay/http_server.h>
#include <relay/reflection.h>
#include <relay/rpc.h>
#include <relay/url_escape.h>

#include <cstdio>
#include <string>

namespace {

// Serves RPC over mutual TLS with the certificates in `dir` and calls it
// over TLS with a client certificate.
bool serveAndCallOverTls(const std::string& dir) {
  vantu::relay::HttpServerOptions options;
  options.tls.certificate_chain_file = dir + "/server.pem";
  options.tls.private_key_file = dir + "/server-key.pem";
  options.tls.client_ca_file = dir + "/ca.pem";
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16, options);
  if (!server) return false;
  vantu::relay::registerReflectionService(server);
  vantu::relay::RPCChannelOptions channel_options;
  channel_options.tls.enabled = true;
  channel_options.tls.ca_file = dir + "/ca.pem";
  channel_options.tls.certificate_chain_file = dir + "/client.pem";
  channel_options.tls.private_key_file = dir + "/client-key.pem";
  auto channel = vantu::relay::RPCChannel::create(
      "127.0.0.1:" + std::to_string(server->localAddress().port()), channel_options);
  if (!channel) return false;
  vantu::relay::Reflection::Stub stub(channel.get());
  vantu::relay::ListServicesRequest request;
  vantu::relay::ListServicesReply reply;
  vantu::relay::RPC rpc;
  stub.ListServices(&rpc, &request, &reply, nullptr);
  if (!rpc.timedWaitRelative(vantu::Duration::seconds(30)) || rpc.Failed()) {
    std::printf("install_app: the call over TLS failed: %s\n", rpc.ErrorText().c_str());
    return false;
  }
  std::printf("install_app: called %d service(s) over mutual TLS on port %d\n",
              reply.service_size(), server->localAddress().port());
  channel.reset();
  server.reset();
  vantu::waitForDeferredWork();
  return reply.service_size() == 1;
}

}  // namespace

// argv[1], when given: a directory of scripts/make-test-certs' certificates.
int main(int argc, char** argv) {
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
  if (argc > 1 && !serveAndCallOverTls(argv[1])) return 1;
  return 0;
}
