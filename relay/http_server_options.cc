#include "relay/http_server_options.h"

namespace vantu {
namespace relay {

HttpServerOptions HttpServerOptions::hardened() {
  HttpServerOptions options;
  options.max_header_bytes = size_t{64} * 1024;
  options.max_body_bytes = uint64_t{16} * 1024 * 1024;
  options.max_connections = 10000;
  options.header_timeout = Duration::seconds(30);
  options.idle_timeout = Duration::seconds(120);
  options.strict_framing = true;
  options.cancel_abandoned_calls = true;
  return options;
}

std::string HttpServerOptions::problem() const {
  if (header_timeout < Duration()) return "header_timeout is negative";
  if (idle_timeout < Duration()) return "idle_timeout is negative";
  return std::string();
}

}  // namespace relay
}  // namespace vantu
