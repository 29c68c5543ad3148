#include "net/tcp_server.h"

#include <unistd.h>

#include "common/event_thread.h"
#include "common/event_thread_check.h"
#include "net/tcp_socket.h"
#include "net/tls_transport.h"

namespace vantu {
namespace relay {

// The count of accepted connections that are still open, told by each as it
// closes.
struct TcpServer::Accepted final : public TcpSocket::CloseListener {
  void connectionClosed() override {
    if (open-- == max && server != nullptr) server->resumeAccepting();
  }

  size_t open = 0;
  size_t max = 0;
  Duration send_timeout;
  Duration handshake_timeout;
  // Null once the server stops listening.
  TcpServer* server = nullptr;
};

TcpServer::TcpServer(const Factory& factory, int backlog)
    : TcpListener(backlog), factory_(factory), accepted_(std::make_shared<Accepted>()) {
  accepted_->server = this;
}

TcpServer::~TcpServer() {
  stopListening();
  runOnEventThreadAndWait([this] { accepted_->server = nullptr; });
}

void TcpServer::setMaxConnections(size_t max) { accepted_->max = max; }

void TcpServer::setSendTimeout(Duration timeout) { accepted_->send_timeout = timeout; }

void TcpServer::setTlsContext(std::shared_ptr<const TlsContext> context) {
  MutexLock lock(tls_mutex_);
  tls_context_ = std::move(context);
}

void TcpServer::setHandshakeTimeout(Duration timeout) { accepted_->handshake_timeout = timeout; }

size_t TcpServer::openConnections() const { return accepted_->open; }

void TcpServer::connectionCallback(int fd) {
  VANTU_DCHECK_ON_EVENT_THREAD("net/tcp_server");
  std::shared_ptr<char_stream::BidirectionalStreamContainer<char_stream::PushStreamTraits,
                                                            char_stream::PullStreamTraits>>
      handler = factory_ ? factory_() : nullptr;
  if (!handler) {
    ::close(fd);
    return;
  }
  std::shared_ptr<const TlsContext> tls;
  {
    MutexLock lock(tls_mutex_);
    tls = tls_context_;
  }
  std::shared_ptr<Accepted> accepted = accepted_;
  if (++accepted->open == accepted->max) pauseAccepting();
  std::shared_ptr<TcpSocket> socket = TcpSocket::adopt(fd, handler, accepted);
  socket->setSendTimeout(accepted->send_timeout);
  // Without its TLS state the connection could only speak in clear: it ends
  // before it starts.
  if (tls && !socket->useTls(tls, std::string(), accepted->handshake_timeout)) {
    socket->abortStream();
  }
  socket->link(handler->streamSource(), handler->streamSink());
}

}  // namespace relay
}  // namespace vantu
