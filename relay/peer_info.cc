#include "relay/peer_info.h"

#include <cstring>
#include <utility>

#include "net/connection_info.h"
#include "relay/http_message.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {
namespace {

// The TLS versions a request copies by name; index 0 is plaintext. A version
// not listed (none today: the floor is TLS 1.2) keeps a shared PeerInfo.
constexpr const char* kTlsVersions[] = {"", "TLSv1.2", "TLSv1.3"};

}  // namespace

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

void ConnectionPeer::learn(ConnectionInfo* connection) {
  known_ = true;
  if (connection == nullptr) return;
  address_ = connection->peerAddress();
  TlsSessionInfo session;
  if (!connection->tlsSession(&session)) return;
  if (session.peer_subject.empty() && session.peer_sans.empty()) {
    for (size_t i = 1; i < sizeof(kTlsVersions) / sizeof(kTlsVersions[0]); ++i) {
      if (session.version == kTlsVersions[i]) {
        tls_version_ = static_cast<uint8_t>(i);
        return;
      }
    }
  }
  auto peer = std::make_shared<PeerInfo>();
  peer->address = address_;
  peer->tls = true;
  peer->tls_version = std::move(session.version);
  peer->client_subject = std::move(session.peer_subject);
  peer->client_sans = std::move(session.peer_sans);
  shared_ = std::move(peer);
}

void ConnectionPeer::tell(HttpRequest* request, ConnectionInfo* connection) {
  if (!known_) learn(connection);
  if (shared_) {
    request->peer_info = shared_;
  } else {
    request->setPeer(address_, kTlsVersions[tls_version_]);
  }
}

const std::shared_ptr<const PeerInfo>& ConnectionPeer::shared(ConnectionInfo* connection) {
  if (!shared_) {
    if (!known_) learn(connection);
    if (!shared_) {
      auto peer = std::make_shared<PeerInfo>();
      peer->address = address_;
      peer->tls = tls_version_ != 0;
      peer->tls_version = kTlsVersions[tls_version_];
      shared_ = std::move(peer);
    }
  }
  return shared_;
}

const PeerInfo& HttpRequest::peer() const {
  if (peer_info) return *peer_info;
  return has_plain_peer_ ? plain_peer_ : PeerInfo::unknown();
}

}  // namespace relay
}  // namespace vantu
