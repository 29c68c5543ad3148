// A tiny application built against the installed tree: it must find the
// headers as <relay/...> and link with the installed library alone.
#include <arpa/inet.h>
#include <common/event_thread.h>
#include <netinet/in.h>
#include <relay/http_request_parser.h>
#include <relay/http_server.h>
#include <relay/http_stream.h>
#include <relay/reflection.h>
#include <relay/rpc.h>
#include <relay/server_sent_events.h>
#include <relay/url_escape.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

namespace {

// Everything a GET of `path` on 127.0.0.1:`port` answers, up to the close.
std::string fetch(int port, const std::string& path) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval guard = {30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
    const std::string request =
        "GET " + path + " HTTP/1.1\r\nHost: app\r\nConnection: close\r\n\r\n";
    if (send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size())) {
      char buffer[4096];
      ssize_t n;
      // Ends at the answer's end: the last chunk, or the content's length.
      while (answer.find("0\r\n\r\n") == std::string::npos &&
             answer.find("later") == std::string::npos &&
             (n = recv(fd, buffer, sizeof(buffer), 0)) > 0) {
        answer.append(buffer, static_cast<size_t>(n));
      }
    }
  }
  close(fd);
  return answer;
}

// An answer from another thread, and a stream of Server-Sent Events.
bool answerLaterAndStream() {
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16);
  if (!server) return false;
  server->registerAsyncHandler(
      "/later", [](const vantu::relay::HttpRequestPtr&,
                   const vantu::relay::HttpResponsePtr& response, std::function<void()> done) {
        std::thread([response, done] {
          const std::string text = "later";
          response->content.assign(text.begin(), text.end());
          done();
        }).detach();
      });
  server->registerStreamHandler("/events", [](const vantu::relay::HttpRequestPtr&,
                                              const vantu::relay::HttpStreamPtr& stream) {
    vantu::relay::ServerSentEvents events(stream);
    events.start();
    events.send("one", "tick");
    events.send("two", "tick");
    stream->finish();
  });
  const int port = server->localAddress().port();
  const std::string later = fetch(port, "/later");
  const std::string events = fetch(port, "/events");
  server.reset();
  vantu::waitForDeferredWork();
  const bool ok = later.find("Content-Length: 5\r\n") != std::string::npos &&
                  events.find("Transfer-Encoding: chunked") != std::string::npos &&
                  events.find("event: tick\ndata: two\n\n") != std::string::npos;
  std::printf("install_app: an async answer and an event stream %s\n", ok ? "arrived" : "failed");
  return ok;
}

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
  if (!answerLaterAndStream()) return 1;
  if (argc > 1 && !serveAndCallOverTls(argv[1])) return 1;
  return 0;
}
