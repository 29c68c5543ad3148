#include "relay/peer_info.h"

#include "net/connection_info.h"
#include "relay/http_message.h"

namespace vantu {
namespace relay {

std::shared_ptr<const PeerInfo> PeerInfo::of(ConnectionInfo* connection) {
  auto peer = std::make_shared<PeerInfo>();
  if (connection == nullptr) return peer;
  peer->address = connection->peerAddress();
  if (const TlsSessionInfo* session = connection->tlsSession()) {
    peer->tls = true;
    peer->tls_version = session->version;
    peer->client_subject = session->peer_subject;
    peer->client_sans = session->peer_sans;
  }
  return peer;
}

const PeerInfo& PeerInfo::unknown() {
  static const PeerInfo* const kUnknown = new PeerInfo;
  return *kUnknown;
}

const PeerInfo& HttpRequest::peer() const { return peer_info ? *peer_info : PeerInfo::unknown(); }

}  // namespace relay
}  // namespace vantu
