// The demo server: a few URL handlers and demo.EchoService on one event thread.
//
//   demo_server [--address 127.0.0.1] [--port 8080] [--log logger=level]...
//
// Serves until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/event_thread.h"
#include "common/logging.h"
#include "demo_service.h"
#include "relay/http_server.h"
#include "relay/reflection.h"
#include "relay/url_escape.h"
#include "url/url_parse.h"

namespace {

using vantu::relay::HttpRequestPtr;
using vantu::relay::HttpResponsePtr;

void append(const HttpResponsePtr& response, const std::string& text) {
  response->content.insert(response->content.end(), text.begin(), text.end());
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

const char kIndexPage[] =
    "<!doctype html>\n<html><head><title>relay demo</title></head><body>\n"
    "<h1>relay demo server</h1>\n<ul>\n"
    "<li><a href=\"/hello\">/hello</a>: a plain-text greeting</li>\n"
    "<li><a href=\"/echo?a=1&amp;b=two\">/echo</a>: the request as JSON</li>\n"
    "</ul>\n<h2>Services</h2>\n<ul>\n"
    "<li>demo.EchoService: Echo, Delay, Fail (POST with Rpc-Service and Rpc-Method headers; "
    "JSON with Content-Type: application/json)</li>\n"
    "</ul>\n</body></html>\n";

void registerHandlers(vantu::relay::HttpServer* server) {
  server->registerHandler("/", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    response->setTextHtml();
    append(response, kIndexPage);
  });
  server->registerHandler("/hello", [](const HttpRequestPtr&, const HttpResponsePtr& response) {
    response->setContentType("text/plain");
    append(response, "Hello, world!\n");
  });
  server->registerHandler(
      "/echo", [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
        std::string json =
            "{\"method\":" + jsonString(vantu::relay::httpMethodToName(request->method)) +
            ",\"uri\":" + jsonString(request->uri) +
            ",\"path\":" + jsonString(request->url.path()) + ",\"query\":[";
        // In the order of the query itself (query_components is sorted by key).
        bool first = true;
        const std::string& spec = request->url.possibly_invalid_spec();
        url_parse::Component query = request->url.parsed_for_possibly_invalid_spec().query;
        url_parse::Component key, value;
        while (url_parse::ExtractQueryKeyValue(spec.data(), &query, &key, &value)) {
          const std::string key_text = key.len > 0 ? spec.substr(key.begin, key.len) : "";
          const std::string value_text = value.len > 0 ? spec.substr(value.begin, value.len) : "";
          json += (first ? "[" : ",[") + jsonString(vantu::relay::urlUnescape(key_text)) + "," +
                  jsonString(vantu::relay::urlUnescape(value_text)) + "]";
          first = false;
        }
        json += "],\"headers\":{";
        first = true;
        for (const auto& header : request->headers) {
          json += (first ? "" : ",") + jsonString(header.first) + ":" + jsonString(header.second);
          first = false;
        }
        json += "},\"body_length\":" + std::to_string(request->body.size()) + "}\n";
        response->setContentType("application/json");
        append(response, json);
      });
}

void usage() {
  fprintf(stderr,
          "usage: demo_server [--address IP] [--port N] [--log logger=level]...\n"
          "  loggers: http_server, http_request_parser, rpc, check; levels 1..6\n");
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  std::string address = "127.0.0.1";
  int port = 8080;
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (i + 1 >= argc) usage();
    std::string value = argv[++i];
    if (flag == "--address") {
      address = value;
    } else if (flag == "--port") {
      port = atoi(value.c_str());
    } else if (flag == "--log") {
      size_t equals = value.find('=');
      if (equals == std::string::npos) usage();
      vantu::setLogLevel(value.substr(0, equals), atoi(value.c_str() + equals + 1));
    } else {
      usage();
    }
  }

  // Wait for the stop signals here instead of in a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  vantu::SocketAddress listen_address(address, static_cast<uint16_t>(port));
  std::shared_ptr<vantu::relay::HttpServer> server =
      vantu::relay::HttpServer::create(listen_address, 1024);
  if (!server) {
    fprintf(stderr, "demo_server: cannot listen on %s\n", listen_address.toString().c_str());
    return 1;
  }
  registerHandlers(server.get());
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  vantu::relay::registerReflectionService(server);

  const bool ipv6 = address.find(':') != std::string::npos;
  printf("demo_server: serving http://%s%s%s:%d/\n", ipv6 ? "[" : "", address.c_str(),
         ipv6 ? "]" : "", server->localAddress().port());
  fflush(stdout);

  int received = 0;
  sigwait(&signals, &received);
  server.reset();
  vantu::waitForDeferredWork();
  printf("demo_server: stopped\n");
  return 0;
}
