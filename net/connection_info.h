#ifndef NET_CONNECTION_INFO_H_
#define NET_CONNECTION_INFO_H_

#include <cstddef>
#include <string>
#include <vector>

#include "common/socket_address.h"

namespace vantu {
namespace relay {

// What a TLS connection established: the protocol version and, when the
// peer presented a certificate that verified, its subject and subject
// alternative names. A plain value.
struct TlsSessionInfo {
  std::string version;  // "TLSv1.3", "TLSv1.2"
  // RFC 2253 form ("CN=test-client,O=relay tests"); empty without a
  // verified peer certificate.
  std::string peer_subject;
  // "DNS:name", "IP:127.0.0.1", "URI:spiffe://...", "email:..."; in the
  // certificate's order.
  std::vector<std::string> peer_sans;
  // The connection resumed an earlier session (a ticket) instead of making
  // a full handshake.
  bool resumed = false;
};

// What the transport under a connection knows about it, for the handler
// linked to it (see RequestResponseConnectionHandler::connectionInfo).
// Implemented by TcpSocket, which owns it; event thread only, and only while
// the handler is linked.
class ConnectionInfo {
 public:
  // The remote address; not valid once the connection has ended.
  virtual SocketAddress peerAddress() const = 0;
  // What a TLS handshake established, into *session; false on a plaintext
  // connection (and until a TLS handshake completed). Read afresh on each
  // call: callers that need it often keep their copy.
  virtual bool tlsSession(TlsSessionInfo* session) const = 0;
  // Bytes handed to the connection and not yet taken by the kernel.
  virtual size_t unsentOutput() const { return 0; }
  // Asks for one notifyOutputDrained (see RequestResponseConnectionHandler)
  // once fewer unsent bytes than half the connection's output mark wait.
  virtual void watchOutputDrain() {}

 protected:
  ~ConnectionInfo() = default;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_CONNECTION_INFO_H_
