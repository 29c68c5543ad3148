// The demo server: a few URL handlers and demo.EchoService on one event thread,
// run the way we recommend running the library: with the hardened options.
//
//   demo_server --help
//
// Serves until SIGINT or SIGTERM, then announces its drain (/healthz answers
// 503 for --drain-announce-ms, 1 s by default, while everything else is
// served as usual), drains (up to --drain-ms, 5 s by default) and exits 0.
// With TLS, SIGHUP loads the certificate files again (scripts/make-test-certs
// DIR makes a set to try it with).
#include <netdb.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/event_thread.h"
#include "common/logging.h"
#include "demo_events.h"
#include "demo_service.h"
#include "relay/console.h"
#include "relay/health.h"
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

// /echo: the request as JSON.
void echo(const HttpRequestPtr& request, const HttpResponsePtr& response) {
  std::string json = "{\"method\":" + jsonString(vantu::relay::httpMethodToName(request->method)) +
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
}

// What the demo serves besides its services. Each entry is registered and
// listed on the console's page, so the page shows what the server has.
struct Page {
  const char* path;
  const char* example;  // a URL to try it with
  const char* description;
  vantu::relay::HttpRequestHandler handler;
};

std::vector<Page> pages() {
  std::vector<Page> pages;
  pages.push_back({"/hello", "/hello", "a plain-text greeting",
                   [](const HttpRequestPtr&, const HttpResponsePtr& response) {
                     response->setContentType("text/plain");
                     append(response, "Hello, world!\n");
                   }});
  pages.push_back({"/echo", "/echo?a=1&b=two", "the request as JSON", echo});
  return pages;
}

// Registers the pages, metrics, the health check, reflection and the demo's
// service, and the console at "/" listing all of them.
void registerEverything(const std::shared_ptr<vantu::relay::HttpServer>& server) {
  vantu::relay::ConsoleOptions console;
  console.title = "relay demo server";
  for (Page& page : pages()) {
    server->registerHandler(page.path, std::move(page.handler));
    console.links.push_back({page.example, page.path, page.description});
  }
  console.metrics_path = "/metrics";
  std::shared_ptr<prometheus::Registry> registry =
      vantu::relay::exposeMetrics(*server, console.metrics_path);
  console.links.push_back(
      {console.metrics_path, console.metrics_path, "the server's metrics (Prometheus text)"});
  if (registry) {
    demo::serveCounterEvents(server, "/events", registry);
    console.links.push_back(
        {"/events", "/events", "the counters every second, as Server-Sent Events"});
  }
  vantu::relay::registerHealthCheck(server, "/healthz");
  console.links.push_back({"/healthz", "/healthz", "200 while serving, 503 once draining"});
  server->registerRPCService(std::make_shared<demo::EchoServiceImpl>());
  vantu::relay::registerReflectionService(server);
  vantu::relay::registerConsole(server, "/", console);
}

const char kUsage[] =
    "usage: demo_server [--address HOST] [--port N] [--log logger=level]...\n"
    "                   [--no-hardening] [--max-body-bytes N] [--idle-timeout-ms N]\n"
    "                   [--header-timeout-ms N] [--drain-ms N] [--drain-announce-ms N]\n"
    "                   [--reuse-port] [--tls-cert FILE --tls-key FILE [--tls-client-ca FILE]]\n"
    "  --address HOST   an IPv4 or IPv6 literal or a host name (default 127.0.0.1;\n"
    "                   a name listens on its first IPv4 address, else its first IPv6)\n"
    "  --port N         0 to 65535 (default 8080; 0 lets the kernel choose)\n"
    "  --log L=N        loggers: http_server, http_request_parser, rpc, check; levels 1..6\n"
    "  --no-hardening   serve with the library's default options (no limits,\n"
    "                   Content-Length framing only); the overrides below change\n"
    "                   single hardened values\n"
    "  --drain-announce-ms N  on SIGINT/SIGTERM, answer /healthz with 503 for N ms\n"
    "                   while serving everything else (default 1000), then drain\n"
    "  --drain-ms N     then finish what was received, for at most N ms (default 5000)\n"
    "  --tls-cert F, --tls-key F  serve HTTPS and RPC over TLS (PEM files; SIGHUP\n"
    "                   reloads them)\n"
    "  --tls-client-ca F  require client certificates signed by this CA\n"
    "  -h, --help       this text\n"
    "exit status: 0 after a drain, 1 cannot listen, 2 bad arguments\n";

// Bad usage: says what was wrong, then exits 2.
[[noreturn]] void badUsage(const std::string& reason) {
  fprintf(stderr, "demo_server: %s (demo_server --help for usage)\n", reason.c_str());
  exit(2);
}

// A whole non-negative decimal number no larger than `max`, or badUsage()
// naming `flag`.
long long number(const std::string& flag, const std::string& text, long long max) {
  char* end = nullptr;
  errno = 0;
  const long long value =
      text.empty() || text[0] < '0' || text[0] > '9' ? -1 : strtoll(text.c_str(), &end, 10);
  if (value < 0 || value > max || errno != 0 || *end != '\0') {
    badUsage(flag + " wants a whole number from 0 to " + std::to_string(max) + ", got \"" + text +
             "\"");
  }
  return value;
}

// The numeric address to listen on for `host`: a literal as it is, a name
// through the system resolver (its first IPv4 address, else its first IPv6).
// Empty when the name does not resolve, with the resolver's reason in *error.
std::string resolveHost(const std::string& host, std::string* error) {
  if (vantu::SocketAddress(host, 0).isValid()) return host;
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (result != 0) {
    *error = gai_strerror(result);
    return std::string();
  }
  std::string ipv4, ipv6;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    const vantu::SocketAddress address =
        vantu::SocketAddress::fromSockaddr(a->ai_addr, a->ai_addrlen);
    if (!address.isValid()) continue;
    std::string& slot = address.isIPv6() ? ipv6 : ipv4;
    if (slot.empty()) slot = address.ip();
  }
  freeaddrinfo(found);
  if (ipv4.empty() && ipv6.empty()) *error = "no IPv4 or IPv6 address";
  return ipv4.empty() ? ipv6 : ipv4;
}

}  // namespace

int main(int argc, char** argv) {
  std::string address = "127.0.0.1";
  int port = 8080;
  bool hardened = true;
  bool reuse_port = false;
  long long drain_ms = 5000;
  long long drain_announce_ms = 1000;
  long long max_body_bytes = -1;
  long long idle_timeout_ms = -1;
  long long header_timeout_ms = -1;
  const long long kMaxMs = 86400000;
  vantu::relay::TlsServerOptions tls;
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (flag == "-h" || flag == "--help") {
      fputs(kUsage, stdout);
      return 0;
    }
    if (flag == "--no-hardening") {
      hardened = false;
      continue;
    }
    if (flag == "--reuse-port") {
      reuse_port = true;
      continue;
    }
    // Every other flag takes a value: "--flag VALUE" or "--flag=VALUE".
    std::string value;
    const size_t equals = flag.find('=');
    if (flag.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      value = flag.substr(equals + 1);
      flag.resize(equals);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      badUsage(flag.compare(0, 1, "-") == 0 ? flag + " needs a value" : "unexpected " + flag);
    }
    if (flag == "--address") {
      std::string error;
      address = resolveHost(value, &error);
      if (address.empty()) badUsage("--address " + value + ": " + error);
    } else if (flag == "--port") {
      port = static_cast<int>(number(flag, value, 65535));
    } else if (flag == "--log") {
      const size_t at = value.find('=');
      if (at == std::string::npos || at == 0) {
        badUsage("--log wants logger=level, got \"" + value + "\"");
      }
      vantu::setLogLevel(value.substr(0, at),
                         static_cast<int>(number(flag, value.substr(at + 1), 6)));
    } else if (flag == "--max-body-bytes") {
      max_body_bytes = number(flag, value, INT64_MAX);
    } else if (flag == "--idle-timeout-ms") {
      idle_timeout_ms = number(flag, value, kMaxMs);
    } else if (flag == "--header-timeout-ms") {
      header_timeout_ms = number(flag, value, kMaxMs);
    } else if (flag == "--drain-ms") {
      drain_ms = number(flag, value, kMaxMs);
    } else if (flag == "--drain-announce-ms") {
      drain_announce_ms = number(flag, value, kMaxMs);
    } else if (flag == "--tls-cert") {
      tls.certificate_chain_file = value;
    } else if (flag == "--tls-key") {
      tls.private_key_file = value;
    } else if (flag == "--tls-client-ca") {
      tls.client_ca_file = value;
    } else {
      badUsage("unknown flag " + flag);
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
  if (tls.certificate_chain_file.empty() != tls.private_key_file.empty()) {
    badUsage("--tls-cert and --tls-key go together");
  }
  if (!tls.client_ca_file.empty() && !tls.enabled()) {
    badUsage("--tls-client-ca needs --tls-cert and --tls-key");
  }
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
  registerEverything(server);

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
  const bool drained = server->drain(vantu::Duration::milliseconds(drain_ms),
                                     vantu::Duration::milliseconds(drain_announce_ms));
  server.reset();
  vantu::waitForDeferredWork();
  printf("demo_server: stopped%s\n", drained ? "" : " (connections still busy were closed)");
  return 0;
}
