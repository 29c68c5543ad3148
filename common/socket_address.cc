#include "common/socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace vantu {

SocketAddress::SocketAddress() { memset(&storage_, 0, sizeof(storage_)); }

SocketAddress::SocketAddress(const std::string& ip, uint16_t port) : SocketAddress() {
  std::string text = ip;
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  // inet_pton stops at a NUL; an embedded one must not pass for a shorter address.
  if (text.find('\0') != std::string::npos) return;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage_);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    length_ = sizeof(sockaddr_in);
    return;
  }
  memset(&storage_, 0, sizeof(storage_));
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage_);
  if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    length_ = sizeof(sockaddr_in6);
    return;
  }
  memset(&storage_, 0, sizeof(storage_));
}

SocketAddress SocketAddress::fromSockaddr(const struct sockaddr* address, socklen_t length) {
  SocketAddress result;
  if (address == nullptr) return result;
  if (address->sa_family == AF_INET && length >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
    memcpy(&result.storage_, address, sizeof(sockaddr_in));
    result.length_ = sizeof(sockaddr_in);
  } else if (address->sa_family == AF_INET6 &&
             length >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
    memcpy(&result.storage_, address, sizeof(sockaddr_in6));
    result.length_ = sizeof(sockaddr_in6);
  }
  return result;
}

bool SocketAddress::isIPv6() const { return isValid() && storage_.ss_family == AF_INET6; }

uint16_t SocketAddress::port() const {
  if (!isValid()) return 0;
  if (isIPv6()) return ntohs(reinterpret_cast<const sockaddr_in6*>(&storage_)->sin6_port);
  return ntohs(reinterpret_cast<const sockaddr_in*>(&storage_)->sin_port);
}

std::string SocketAddress::ip() const {
  if (!isValid()) return std::string();
  char buffer[INET6_ADDRSTRLEN];
  const void* address =
      isIPv6()
          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(&storage_)->sin6_addr)
          : static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(&storage_)->sin_addr);
  if (inet_ntop(storage_.ss_family, address, buffer, sizeof(buffer)) == nullptr) {
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
  return length_ == other.length_ && memcmp(&storage_, &other.storage_, length_) == 0;
}

}  // namespace vantu
