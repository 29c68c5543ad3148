#ifndef NET_TCP_SERVER_H_
#define NET_TCP_SERVER_H_

#include <functional>
#include <memory>

#include "common/mutex.h"
#include "net/char_stream.h"
#include "net/tcp_listener.h"

namespace vantu {
namespace relay {

class TlsContext;

// A TcpListener that gives every accepted connection a handler made by a
// factory: the factory is called once per connection, its result is linked to
// the connection's TcpSocket and kept alive by it until the connection ends
// (end of input and output flushed, a failure, or the handler's shutdown()).
// Connections do not depend on the server object: if it is destroyed, they
// keep serving until they end.
//
// Owned by whoever made it (HttpServer derives from it). Construction and
// destruction from any thread (see TcpListener); the factory and
// connectionCallback run on the event thread.
class TcpServer : public TcpListener {
 public:
  using Factory = std::function<std::shared_ptr<char_stream::BidirectionalStreamContainer<
      char_stream::PushStreamTraits, char_stream::PullStreamTraits>>()>;

  TcpServer(const Factory& factory, int backlog);
  ~TcpServer() override;

  // At most `max` connections open at once (0: no limit): at the limit,
  // accepting pauses, and it resumes when one of them closes. Call before
  // initialize.
  void setMaxConnections(size_t max);
  // Each accepted connection's send timeout (see TcpSocket::setSendTimeout).
  // Call before initialize.
  void setSendTimeout(Duration timeout);
  // Serves TLS with `context` (a server's) on the connections accepted from
  // now on; null: plaintext. Connections already open keep what they had.
  // Any thread.
  void setTlsContext(std::shared_ptr<const TlsContext> context);
  // How long an accepted connection's TLS handshake may take (zero: no
  // limit). Call before initialize.
  void setHandshakeTimeout(Duration timeout);
  // The connections accepted and not yet ended. Event thread.
  size_t openConnections() const;

  // TcpListener. Event thread.
  void connectionCallback(int fd) override;

 private:
  struct Accepted;

  // Constant after construction.
  const Factory factory_;
  // Shared with the accepted sockets' close callbacks, which may outlive the
  // server. Event thread only, once listening.
  const std::shared_ptr<Accepted> accepted_;

  mutable Mutex tls_mutex_;
  std::shared_ptr<const TlsContext> tls_context_ VANTU_GUARDED_BY(tls_mutex_);
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TCP_SERVER_H_
