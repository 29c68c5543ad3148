#ifndef RELAY_TLS_OPTIONS_H_
#define RELAY_TLS_OPTIONS_H_

#include <memory>
#include <string>

namespace vantu {
namespace relay {

class TlsContext;

// A server's TLS, as HttpServerOptions::tls. An empty
// certificate_chain_file means plaintext, as by default. Protocols and
// ciphers are not options: TLS 1.2 or newer, forward-secret AEAD suites, no
// renegotiation, no compression, session tickets on.
//
// A plain value, read when the server is made (and the files again by
// HttpServer::reloadTlsCertificates).
struct TlsServerOptions {
  // PEM: the server's certificate first, then the intermediates, if any.
  std::string certificate_chain_file;
  // PEM: the certificate's private key.
  std::string private_key_file;
  // PEM: the authorities whose client certificates are accepted. Set, every
  // client must present a certificate that verifies against them; the
  // handshake fails without one. Empty: no client certificate is asked for.
  std::string client_ca_file;

  bool enabled() const { return !certificate_chain_file.empty(); }
};

// A channel's TLS, as RPCChannelOptions::tls.
//
// A plain value, read once when the channel is made.
struct TlsClientOptions {
  // Speak TLS to the servers.
  bool enabled = false;
  // PEM: the authorities the server's certificate must verify against.
  // Empty: the system's trust store.
  std::string ca_file;
  // PEM: a client certificate and its key, for servers that ask for one.
  // Both or neither.
  std::string certificate_chain_file;
  std::string private_key_file;
  // The name (or IP address) the server's certificate must carry, also sent
  // as SNI when it is a name. Empty: the host of the target the channel was
  // made with.
  std::string server_name;
};

// Loads the files into a context, or says why not in *error. Any thread.
std::shared_ptr<const TlsContext> loadTlsContext(const TlsServerOptions& options,
                                                 std::string* error);
std::shared_ptr<const TlsContext> loadTlsContext(const TlsClientOptions& options,
                                                 std::string* error);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_TLS_OPTIONS_H_
