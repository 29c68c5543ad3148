#include "common/socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace vantu {

SocketAddress::SocketAddress() { memset(&address_, 0, sizeof(address_)); }

SocketAddress::SocketAddress(const std::string& ip, uint16_t port) : SocketAddress() {
  std::string text = ip;
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  // inet_pton stops at a NUL; an embedded one must not pass for a shorter address.
  if (text.find('\0') != std::string::npos) return;
  if (inet_pton(AF_INET, text.c_str(), &address_.v4.sin_addr) == 1) {
    address_.v4.sin_family = AF_INET;
    address_.v4.sin_port = htons(port);
    return;
  }
  memset(&address_, 0, sizeof(address_));
  if (inet_pton(AF_INET6, text.c_str(), &address_.v6.sin6_addr) == 1) {
    address_.v6.sin6_family = AF_INET6;
    address_.v6.sin6_port = htons(port);
    return;
  }
  memset(&address_, 0, sizeof(address_));
}

SocketAddress SocketAddress::fromSockaddr(const struct sockaddr* address, socklen_t length) {
  SocketAddress result;
  if (address == nullptr) return result;
  if (address->sa_family == AF_INET && length >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
    memcpy(&result.address_.v4, address, sizeof(sockaddr_in));
  } else if (address->sa_family == AF_INET6 &&
             length >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
    memcpy(&result.address_.v6, address, sizeof(sockaddr_in6));
  }
  return result;
}

bool SocketAddress::isIPv6() const { return family() == AF_INET6; }

socklen_t SocketAddress::length() const {
  switch (family()) {
    case AF_INET:
      return sizeof(sockaddr_in);
    case AF_INET6:
      return sizeof(sockaddr_in6);
    default:
      return 0;
  }
}

uint16_t SocketAddress::port() const {
  if (!isValid()) return 0;
  return ntohs(isIPv6() ? address_.v6.sin6_port : address_.v4.sin_port);
}

std::string SocketAddress::ip() const {
  if (!isValid()) return std::string();
  char buffer[INET6_ADDRSTRLEN];
  const void* address = isIPv6() ? static_cast<const void*>(&address_.v6.sin6_addr)
                                 : static_cast<const void*>(&address_.v4.sin_addr);
  if (inet_ntop(family(), address, buffer, sizeof(buffer)) == nullptr) {
    return std::string();
  }
  return buffer;
}

std::string SocketAddress::toString() const {
  if (!isValid()) return "<invalid>";
  std::string port_text = std::to_string(port());
  if (isIPv6()) return "[" + ip() + "]:" + port_text;
  return ip() + ":" + port_text;
}

bool SocketAddress::operator==(const SocketAddress& other) const {
  return family() == other.family() && memcmp(&address_, &other.address_, length()) == 0;
}

}  // namespace vantu
