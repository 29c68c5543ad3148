#ifndef COMMON_SOCKET_ADDRESS_H_
#define COMMON_SOCKET_ADDRESS_H_

#include <sys/socket.h>

#include <cstdint>
#include <string>

namespace vantu {

// An IPv4 or IPv6 address and a port: what a listener binds to and a client
// socket connects to. A value type; any thread.
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

  bool isValid() const { return length_ != 0; }
  bool isIPv6() const;
  uint16_t port() const;
  // The numeric address without the port: "127.0.0.1", "::1"; empty when not valid.
  std::string ip() const;
  // "127.0.0.1:8080", "[::1]:8080"; "<invalid>" when not valid.
  std::string toString() const;

  // For bind() and connect().
  const struct sockaddr* sockaddr() const {
    return reinterpret_cast<const struct sockaddr*>(&storage_);
  }
  socklen_t length() const { return length_; }

  bool operator==(const SocketAddress& other) const;
  bool operator!=(const SocketAddress& other) const { return !(*this == other); }

 private:
  struct sockaddr_storage storage_;
  socklen_t length_ = 0;
};

}  // namespace vantu

#endif  // COMMON_SOCKET_ADDRESS_H_
