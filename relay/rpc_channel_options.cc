#include "relay/rpc_channel_options.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kDnsScheme[] = "dns:///";

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-' || c == '_';
}

// One "HOST:PORT" of a target.
bool parseHostPort(const std::string& text, RPCTarget::HostPort* out, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    *error = "expected HOST:PORT, got \"" + text + "\"";
    return false;
  }
  std::string host = text.substr(0, colon);
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']' ||
        !SocketAddress(host.substr(1, host.size() - 2), 1).isValid()) {
      *error = "bad IPv6 address in \"" + text + "\"";
      return false;
    }
    host = host.substr(1, host.size() - 2);
  } else {
    for (char c : host) {
      if (!isNameCharacter(c)) {
        *error = c == ':' ? "write an IPv6 address in brackets: [" + host + "]:PORT"
                          : "bad host name \"" + host + "\"";
        return false;
      }
    }
  }
  const std::string port = text.substr(colon + 1);
  uint32_t value = 0;
  bool digits = !port.empty() && port.size() <= 5;
  for (char c : port) {
    digits = digits && c >= '0' && c <= '9';
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  if (!digits || value < 1 || value > 65535) {
    *error = "bad port \"" + port + "\" in \"" + text + "\"";
    return false;
  }
  out->host = host;
  out->port = static_cast<uint16_t>(value);
  return true;
}

}  // namespace

RPCChannelOptions RPCChannelOptions::resilient() {
  RPCChannelOptions options;
  options.connect_timeout = Duration::seconds(2);
  options.default_timeout = Duration::seconds(30);
  options.resolve_interval = Duration::seconds(30);
  options.max_pending = 10000;
  options.reconnect = true;
  options.reconnect_backoff = Duration::milliseconds(100);
  options.reconnect_backoff_max = Duration::seconds(2);
  return options;
}

std::string RPCChannelOptions::problem() const {
  const struct {
    const char* name;
    Duration value;
  } durations[] = {{"connect_timeout", connect_timeout},
                   {"default_timeout", default_timeout},
                   {"resolve_interval", resolve_interval},
                   {"reconnect_backoff", reconnect_backoff},
                   {"reconnect_backoff_max", reconnect_backoff_max}};
  for (const auto& duration : durations) {
    if (duration.value < Duration()) return std::string(duration.name) + " is negative";
  }
  if (reconnect && reconnect_backoff <= Duration()) {
    return "reconnect_backoff must be positive with reconnect on";
  }
  if (reconnect && reconnect_backoff_max < reconnect_backoff) {
    return "reconnect_backoff_max is below reconnect_backoff";
  }
  return std::string();
}

bool RPCTarget::parse(const std::string& text, RPCTarget* target, std::string* error) {
  RPCTarget parsed;
  std::string rest = text;
  if (rest.compare(0, sizeof(kDnsScheme) - 1, kDnsScheme) == 0) {
    parsed.dns = true;
    rest = rest.substr(sizeof(kDnsScheme) - 1);
  } else if (rest.find("://") != std::string::npos || rest.compare(0, 4, "dns:") == 0) {
    *error = "unsupported target \"" + text + "\" (dns:///NAME:PORT is the one scheme)";
    return false;
  }
  if (rest.empty()) {
    *error = "empty target";
    return false;
  }
  for (size_t at = 0; at <= rest.size();) {
    size_t comma = rest.find(',', at);
    if (comma == std::string::npos) comma = rest.size();
    RPCTarget::HostPort host_port;
    if (!parseHostPort(rest.substr(at, comma - at), &host_port, error)) return false;
    parsed.hosts.push_back(host_port);
    at = comma + 1;
  }
  if (parsed.dns && parsed.hosts.size() != 1) {
    *error = "a dns:/// target names one NAME:PORT";
    return false;
  }
  *target = std::move(parsed);
  return true;
}

}  // namespace relay
}  // namespace vantu
