// A tiny application built against the installed metrics library: it must find
// <relay/metrics.h> and prometheus-cpp, link, and serve /metrics.
#include <arpa/inet.h>
#include <common/event_thread.h>
#include <netinet/in.h>
#include <prometheus/registry.h>
#include <relay/http_server.h>
#include <relay/metrics.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int main() {
  auto server = vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 16);
  if (!server || !vantu::relay::exposeMetrics(*server)) return 1;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server->localAddress().port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return 1;
  const std::string request = "GET /metrics HTTP/1.1\r\nHost: h\r\n\r\n";
  if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) return 1;
  shutdown(fd, SHUT_WR);
  std::string answer;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) > 0) answer.append(buffer, n);
  close(fd);
  if (answer.find("\nrelay_connections_open 1\n") == std::string::npos) return 1;
  std::printf("install_app_metrics: /metrics served %zu bytes\n", answer.size());
  server.reset();
  vantu::waitForDeferredWork();
  return 0;
}
