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

  // TcpListener. Event thread.
  void connectionCallback(int fd) override;

 private:
  // Constant after construction.
  const Factory factory_;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TCP_SERVER_H_
