// The server's TLS: loading its files when it is made and again on request.
// The bytes themselves are the TCP layer's business (net/tls_transport.h).

#include "common/logging.h"
#include "net/tls_transport.h"
#include "relay/http_server.h"
#include "relay/tls_options.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kLogger[] = "http_server";
constexpr char kSourceFile[] = "relay/http_server_tls";

}  // namespace

bool HttpServer::enableTls(const HttpServerOptions& options) {
  std::string error;
  std::shared_ptr<const TlsContext> context = loadTlsContext(options.tls, &error);
  if (!context) {
    VANTU_LOG(2, kLogger, kSourceFile) << "Unusable TLS files: " << error;
    return false;
  }
  tls_ = options.tls;
  // A client that connects and never finishes its handshake is a client
  // whose request head never arrives.
  setHandshakeTimeout(options.header_timeout);
  setTlsContext(std::move(context));
  return true;
}

bool HttpServer::reloadTlsCertificates() {
  if (!tls_.enabled()) {
    VANTU_LOG(2, kLogger, kSourceFile) << "TLS certificates not reloaded: the server has no TLS";
    return false;
  }
  std::string error;
  std::shared_ptr<const TlsContext> context = loadTlsContext(tls_, &error);
  if (!context) {
    VANTU_LOG(2, kLogger, kSourceFile)
        << "TLS certificates not reloaded, the previous ones stay in use: " << error;
    return false;
  }
  setTlsContext(std::move(context));
  VANTU_LOG(3, kLogger, kSourceFile) << "TLS certificates reloaded";
  return true;
}

}  // namespace relay
}  // namespace vantu
