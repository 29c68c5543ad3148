#include "relay/peer_info.h"

#include <utility>

#include "net/connection_info.h"
#include "relay/http_message.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {

std::shared_ptr<const PeerInfo> PeerInfo::of(ConnectionInfo* connection) {
  auto peer = std::make_shared<PeerInfo>();
  if (connection == nullptr) return peer;
  peer->address = connection->peerAddress();
  TlsSessionInfo session;
  if (connection->tlsSession(&session)) {
    peer->tls = true;
    peer->tls_version = std::move(session.version);
    peer->client_subject = std::move(session.peer_subject);
    peer->client_sans = std::move(session.peer_sans);
  }
  return peer;
}

const PeerInfo& PeerInfo::unknown() {
  static const PeerInfo* const kUnknown = new PeerInfo;
  return *kUnknown;
}

std::shared_ptr<const PeerInfo> sharedPeerOf(
    const HttpRequest& request, const std::weak_ptr<HttpConnectionHandler>& connection) {
  if (request.peer_info) return request.peer_info;
  std::shared_ptr<HttpConnectionHandler> handler = connection.lock();
  return handler ? handler->peerInfo() : nullptr;
}

const PeerInfo& HttpRequest::peer() const {
  if (peer_info) return *peer_info;
  return has_plain_peer_ ? plain_peer_ : PeerInfo::unknown();
}

}  // namespace relay
}  // namespace vantu
