#ifndef RELAY_PEER_INFO_H_
#define RELAY_PEER_INFO_H_

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
// Built once per connection, when its first request arrives. A TLS
// connection's is shared by every request of it; a plaintext request holds a
// copy of the address instead (see HttpRequest::peer_info). Immutable, so any
// thread may read it.
struct PeerInfo {
  // The client's address and port.
  SocketAddress address;
  // The connection is TLS; tls_version says which ("TLSv1.3", "TLSv1.2").
  bool tls = false;
  std::string tls_version;
  // The verified client certificate's subject in RFC 2253 form
  // ("CN=test-client,O=relay tests") and its subject alternative names
  // ("DNS:...", "IP:...", "URI:...", "email:..."). Empty without a client
  // certificate (only a server with a client CA asks for one, and then the
  // handshake fails without it).
  std::string client_subject;
  std::vector<std::string> client_sans;

  // From the transport under a connection; an empty PeerInfo for null.
  // Event thread.
  static std::shared_ptr<const PeerInfo> of(ConnectionInfo* connection);
  // The PeerInfo of a request that came from no connection (made by hand, or
  // in a test): nothing known.
  static const PeerInfo& unknown();
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
