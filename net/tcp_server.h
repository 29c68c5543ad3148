#ifndef NET_TCP_SERVER_H_
#define NET_TCP_SERVER_H_

#include <functional>
#include <memory>

#include "net/char_stream.h"
#include "net/tcp_listener.h"

namespace vantu {
namespace relay {

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
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TCP_SERVER_H_
