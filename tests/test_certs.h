#ifndef TESTS_TEST_CERTS_H_
#define TESTS_TEST_CERTS_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "relay/tls_options.h"
#include "tests/shell_output.h"

namespace vantu {
namespace testing {

// The certificates scripts/make-test-certs makes, once per process, in a
// fresh directory (never committed: they hold private keys).
inline const std::string& testCertDir() {
  static const std::string* dir = [] {
    char pattern[] = "/tmp/hsl_test_certs_XXXXXX";
    auto* made = new std::string(mkdtemp(pattern));
    const std::string command =
        std::string(HSL_SOURCE_DIR) + "/scripts/make-test-certs " + *made + " >/dev/null";
    if (system(command.c_str()) != 0) ADD_FAILURE() << "make-test-certs failed";
    return made;
  }();
  return *dir;
}

// The path of one of them, for example "ca.pem".
inline std::string cert(const std::string& name) { return testCertDir() + "/" + name; }

// A server's TLS options with the certificate `name` (and its key); with
// `client_ca`, clients must show a certificate from the test CA.
inline relay::TlsServerOptions serverTls(const std::string& name = "server",
                                         bool client_ca = false) {
  relay::TlsServerOptions tls;
  tls.certificate_chain_file = cert(name + ".pem");
  tls.private_key_file = cert(name + "-key.pem");
  if (client_ca) tls.client_ca_file = cert("ca.pem");
  return tls;
}

// Copies the certificate `name` and its key to `chain` and `key`, for servers
// that load their files again.
inline bool installCert(const std::string& name, const std::string& chain, const std::string& key) {
  return system(("cp " + cert(name + ".pem") + " " + chain + " && cp " + cert(name + "-key.pem") +
                 " " + key)
                    .c_str()) == 0;
}

// curl over TLS, trusting the test CA; its output, and its exit status in *status.
inline std::string curlTls(const std::string& arguments, int* status = nullptr) {
  return shellOutput("curl -sS --max-time 30 --cacert " + cert("ca.pem") + " " + arguments, status);
}

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_TEST_CERTS_H_
