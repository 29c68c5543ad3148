#ifndef RELAY_PEER_INFO_H_
#define RELAY_PEER_INFO_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/socket_address.h"

namespace vantu {
namespace relay {

class ConnectionInfo;
class HttpConnectionHandler;
class HttpRequest;

// Who is calling: what the connection a request or an RPC arrived on knows
// about the other end. Reached as HttpRequest::peer() in URL handlers and
// RPC::peer() in services.
//
// A request without a client certificate holds its own copy (see
// HttpRequest::peer_info); one with a client certificate, and every RPC,
// share the connection's (see ConnectionPeer). Immutable, so any thread may
// read it.
struct PeerInfo {
  // The client's address and port.
  SocketAddress address;
  // The connection is TLS; tls_version says which ("TLSv1.3", "TLSv1.2").
  // (Beside the address, in what would be its padding.)
  bool tls = false;
  std::string tls_version;
  // The verified client certificate's subject in RFC 2253 form
  // ("CN=test-client,O=relay tests") and its subject alternative names
  // ("DNS:...", "IP:...", "URI:...", "email:..."). Empty without a client
  // certificate (only a server with a client CA asks for one, and then the
  // handshake fails without it).
  std::string client_subject;
  std::vector<std::string> client_sans;

  // The PeerInfo of a request that came from no connection (made by hand, or
  // in a test): nothing known.
  static const PeerInfo& unknown();
};

// What a connection keeps of its peer between requests, learnt when the
// first request arrives: the address and the TLS version, which each request
// copies (no allocation, no reference counting), and a shared PeerInfo only
// when there is more to say (a client certificate) or an RPC asked for one.
// An idle connection without a client certificate keeps 32 bytes here, not a
// PeerInfo. A member of the connection; event thread only.
class ConnectionPeer {
 public:
  ConnectionPeer() = default;
  ConnectionPeer(const ConnectionPeer&) = delete;
  ConnectionPeer& operator=(const ConnectionPeer&) = delete;

  // Tells `request`, read from `connection`, who sent it.
  void tell(HttpRequest* request, ConnectionInfo* connection);
  // The peer as a shared PeerInfo, made on the first call and kept.
  const std::shared_ptr<const PeerInfo>& shared(ConnectionInfo* connection);

 private:
  void learn(ConnectionInfo* connection);

  SocketAddress address_;
  // Fit in the address's padding: learn() ran; which entry of the TLS
  // version names (0: plaintext).
  bool known_ = false;
  uint8_t tls_version_ = 0;
  std::shared_ptr<const PeerInfo> shared_;
};

// The caller of `request` as a shared PeerInfo, for what outlives the request
// (an RPC's controller): the request's own on a TLS connection, else the one
// of the connection it came on, made there once; null when that connection
// is gone. Event thread, while the request is dispatched.
std::shared_ptr<const PeerInfo> sharedPeerOf(
    const HttpRequest& request, const std::weak_ptr<HttpConnectionHandler>& connection);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_PEER_INFO_H_
