#include "relay/tls_options.h"

#include "net/tls_transport.h"

namespace vantu {
namespace relay {

std::shared_ptr<const TlsContext> loadTlsContext(const TlsServerOptions& options,
                                                 std::string* error) {
  if (options.private_key_file.empty()) {
    *error = "a TLS certificate needs its private_key_file";
    return nullptr;
  }
  return TlsContext::newServer(options.certificate_chain_file, options.private_key_file,
                               options.client_ca_file, error);
}

std::shared_ptr<const TlsContext> loadTlsContext(const TlsClientOptions& options,
                                                 std::string* error) {
  if (options.certificate_chain_file.empty() != options.private_key_file.empty()) {
    *error = "a client certificate needs both certificate_chain_file and private_key_file";
    return nullptr;
  }
  return TlsContext::newClient(options.ca_file, options.certificate_chain_file,
                               options.private_key_file, error);
}

}  // namespace relay
}  // namespace vantu
