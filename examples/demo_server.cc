// The demo server: a few URL handlers and demo.EchoService on one event thread,
// run the way we recommend running the library: with the hardened options.
//
//   demo_server [--address 127.0.0.1] [--port 8080] [--log logger=level]...
//               [--no-hardening] [--max-body-bytes N] [--idle-timeout-ms N]
//               [--header-timeout-ms N] [--drain-ms N] [--reuse-port]
//               [--tls-cert FILE --tls-key FILE [--tls-client-ca FILE]]
//
// Serves until SIGINT or SIGTERM, then drains (up to --drain-ms, 5 s by
// default) and exits 0. With TLS, SIGHUP loads the certificate files again
// (scripts/make-test-certs DIR makes a set to try it with).
#include <cerrno>
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
#include "relay/metrics.h"
#include "relay/peer_info.h"
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
    "<li><a href=\"/metrics\">/metrics</a>: the server's metrics (Prometheus text format)</li>\n"
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
        json += "},\"body_length\":" + std::to_string(request->body.size());
        const vantu::relay::PeerInfo& peer = request->peer();
        if (peer.tls) {
          json += ",\"tls\":{\"version\":" + jsonString(peer.tls_version) +
                  ",\"client_subject\":" + jsonString(peer.client_subject) + "}";
        }
        json += "}\n";
        response->setContentType("application/json");
        append(response, json);
      });
}

void usage() {
  fprintf(stderr,
          "usage: demo_server [--address IP] [--port N] [--log logger=level]...\n"
          "                   [--no-hardening] [--max-body-bytes N] [--idle-timeout-ms N]\n"
          "                   [--header-timeout-ms N] [--drain-ms N] [--reuse-port]\n"
          "                   [--tls-cert FILE --tls-key FILE [--tls-client-ca FILE]]\n"
          "  loggers: http_server, http_request_parser, rpc, check; levels 1..6\n"
          "  --no-hardening serves with the library's default options (no limits,\n"
          "  Content-Length framing only); the overrides change single hardened values.\n"
          "  --tls-cert/--tls-key serve HTTPS and RPC over TLS (PEM files; SIGHUP\n"
          "  reloads them); --tls-client-ca requires client certificates it signed.\n");
  exit(2);
}

// A whole non-negative decimal number, or usage().
long long number(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < 0) usage();
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  std::string address = "127.0.0.1";
  int port = 8080;
  bool hardened = true;
  bool reuse_port = false;
  long long drain_ms = 5000;
  long long max_body_bytes = -1;
  long long idle_timeout_ms = -1;
  long long header_timeout_ms = -1;
  vantu::relay::TlsServerOptions tls;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--no-hardening") {
      hardened = false;
      continue;
    }
    if (flag == "--reuse-port") {
      reuse_port = true;
      continue;
    }
    if (i + 1 >= argc) usage();
    const std::string value = argv[++i];
    if (flag == "--address") {
      address = value;
    } else if (flag == "--port") {
      const long long n = number(value);
      if (n > 65535) usage();
      port = static_cast<int>(n);
    } else if (flag == "--log") {
      size_t equals = value.find('=');
      if (equals == std::string::npos) usage();
      vantu::setLogLevel(value.substr(0, equals), atoi(value.c_str() + equals + 1));
    } else if (flag == "--max-body-bytes") {
      max_body_bytes = number(value);
    } else if (flag == "--idle-timeout-ms") {
      idle_timeout_ms = number(value);
    } else if (flag == "--header-timeout-ms") {
      header_timeout_ms = number(value);
    } else if (flag == "--drain-ms") {
      drain_ms = number(value);
    } else if (flag == "--tls-cert") {
      tls.certificate_chain_file = value;
    } else if (flag == "--tls-key") {
      tls.private_key_file = value;
    } else if (flag == "--tls-client-ca") {
      tls.client_ca_file = value;
    } else {
      usage();
    }
  }
  using vantu::relay::HttpServerOptions;
  HttpServerOptions options = hardened ? HttpServerOptions::hardened() : HttpServerOptions();
  if (max_body_bytes >= 0) options.max_body_bytes = static_cast<uint64_t>(max_body_bytes);
  if (idle_timeout_ms >= 0) options.idle_timeout = vantu::Duration::milliseconds(idle_timeout_ms);
  if (header_timeout_ms >= 0) {
    options.header_timeout = vantu::Duration::milliseconds(header_timeout_ms);
  }
  options.reuse_port = reuse_port;
  if (tls.certificate_chain_file.empty() != tls.private_key_file.empty()) usage();
  if (!tls.client_ca_file.empty() && !tls.enabled()) usage();
  options.tls = tls;

  // Wait for the stop signals here instead of in a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  vantu::SocketAddress listen_address(address, static_cast<uint16_t>(port));
  std::shared_ptr<vantu::relay::HttpServer> server =
      vantu::relay::HttpServer::create(listen_address, 1024, options);
  if (!server) {
    fprintf(stderr, "demo_server: cannot listen on %s%s\n", listen_address.toString().c_str(),
            tls.enabled() ? " (or the TLS files cannot be used: see the log)" : "");
    return 1;
  }
  vantu::relay::exposeMetrics(*server);
  registerHandlers(server.get());
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  vantu::relay::registerReflectionService(server);

  const bool ipv6 = address.find(':') != std::string::npos;
  printf("demo_server: serving http%s://%s%s%s:%d/ (%s)\n", tls.enabled() ? "s" : "",
         ipv6 ? "[" : "", address.c_str(), ipv6 ? "]" : "", server->localAddress().port(),
         hardened ? "hardened" : "default options, no hardening");
  fflush(stdout);

  int received = 0;
  while (sigwait(&signals, &received) == 0 && received == SIGHUP) {
    const bool reloaded = tls.enabled() && server->reloadTlsCertificates();
    printf("demo_server: TLS files %s\n", reloaded ? "reloaded" : "not reloaded");
    fflush(stdout);
  }
  printf("demo_server: draining\n");
  fflush(stdout);
  const bool drained = server->drain(vantu::Duration::milliseconds(drain_ms));
  server.reset();
  vantu::waitForDeferredWork();
  printf("demo_server: stopped%s\n", drained ? "" : " (connections still busy were closed)");
  return 0;
}
