#include "net/tcp_server.h"

#include <unistd.h>

#include "net/tcp_socket.h"

namespace vantu {
namespace relay {

TcpServer::TcpServer(const Factory& factory, int backlog)
    : TcpListener(backlog), factory_(factory) {}

TcpServer::~TcpServer() { stopListening(); }

void TcpServer::connectionCallback(int fd) {
  std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                            char_stream::PullStreamTraits>>
      handler = factory_ ? factory_() : nullptr;
  if (!handler) {
    ::close(fd);
    return;
  }
  std::shared_ptr<TcpSocket> socket = TcpSocket::adopt(fd, handler);
  socket->link(handler->streamSource(), handler->streamSink());
}

}  // namespace relay
}  // namespace vantu
