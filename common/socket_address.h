#ifndef COMMON_SOCKET_ADDRESS_H_
#define COMMON_SOCKET_ADDRESS_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

namespace vantu {

// An IPv4 or IPv6 address and a port: what a listener binds to and a client
// socket connects to. A value type; any thread. Holds only the two address
// families it accepts (28 bytes, not a sockaddr_storage's 128): every
// request and every connection's peer carries one.
class SocketAddress {
 public:
  // Not valid.
  SocketAddress();
  // `ip` is a numeric IPv4 ("127.0.0.1") or IPv6 ("::1", also "[::1]")
  // literal; host names are not looked up. Anything else gives an address that
  // is not valid (isValid() false), never a crash.
  SocketAddress(const std::string& ip, uint16_t port);
  // From what the kernel reports (getsockname, accept); not valid unless the
  // family is AF_INET or AF_INET6.
  static SocketAddress fromSockaddr(const struct sockaddr* address, socklen_t length);

  bool isValid() const { return family() != AF_UNSPEC; }
  bool isIPv6() const;
  uint16_t port() const;
  // The numeric address without the port: "127.0.0.1", "::1"; empty when not valid.
  std::string ip() const;
  // "127.0.0.1:8080", "[::1]:8080"; "<invalid>" when not valid.
  std::string toString() const;

  // For bind() and connect().
  const struct sockaddr* sockaddr() const {
    return reinterpret_cast<const struct sockaddr*>(&address_);
  }
  socklen_t length() const;

  bool operator==(const SocketAddress& other) const;
  bool operator!=(const SocketAddress& other) const { return !(*this == other); }

 private:
  sa_family_t family() const { return address_.v4.sin_family; }

  // Zeroed beyond what the family uses, so that equal addresses compare
  // equal byte for byte; the family says which member is meant (and, being
  // AF_UNSPEC, that none is).
  union {
    struct sockaddr_in v4;
    struct sockaddr_in6 v6;
  } address_;
};

}  // namespace vantu

#endif  // COMMON_SOCKET_ADDRESS_H_
