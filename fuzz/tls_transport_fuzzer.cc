// A server's TLS state machine fed untrusted bytes: the input arrives in
// pieces whose sizes its first byte chooses, as reads from the network would,
// and whatever comes of it (a handshake that fails, records that do not
// decrypt, an alert) must end in an answer or a failure with a reason, never
// a crash, a hang or a leak. After the bytes, the session is looked at and the
// stream closed, as a connection would at its end.
#include <event2/buffer.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "net/tls_transport.h"

namespace {

using vantu::relay::TlsContext;
using vantu::relay::TlsTransport;

// A P-256 key and a self-signed certificate for it, written as PEM files in a
// scratch directory: the server's identity for every input.
std::shared_ptr<const TlsContext> makeContext() {
  char pattern[] = "/tmp/tls_fuzz_XXXXXX";
  const std::string dir = mkdtemp(pattern);
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600L * 24 * 365);
  X509_set_pubkey(certificate, key);
  X509_NAME* name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_sign(certificate, key, EVP_sha256());
  const std::string chain = dir + "/server.pem";
  const std::string key_file = dir + "/server-key.pem";
  FILE* out = fopen(chain.c_str(), "w");
  PEM_write_X509(out, certificate);
  fclose(out);
  out = fopen(key_file.c_str(), "w");
  PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(out);
  X509_free(certificate);
  EVP_PKEY_free(key);
  std::string error;
  std::shared_ptr<const TlsContext> context = TlsContext::newServer(chain, key_file, "", &error);
  if (!context) {
    fprintf(stderr, "tls_transport_fuzzer: %s\n", error.c_str());
    abort();
  }
  return context;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::shared_ptr<const TlsContext> context = makeContext();
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 97;
  ++data;
  --size;
  struct evbuffer* wire = evbuffer_new();
  std::unique_ptr<TlsTransport> tls = TlsTransport::newServer(context, wire);
  bool failed = false;
  char plain[16384];
  for (size_t at = 0; at < size && !failed; at += piece) {
    const size_t n = size - at < piece ? size - at : piece;
    tls->setInput(reinterpret_cast<const char*>(data) + at, n);
    if (!tls->established()) {
      const TlsTransport::Result result = tls->handshake();
      failed = result == TlsTransport::Result::kFailed;
      // A failure always says why.
      if (failed && tls->error().empty()) abort();
      if (!tls->established()) continue;
    }
    for (;;) {
      size_t got = 0;
      const TlsTransport::Result result = tls->read(plain, sizeof(plain), &got);
      if (result == TlsTransport::Result::kOk) {
        if (got == 0 || got > sizeof(plain)) abort();
        // Answered in kind, as a server would.
        if (!tls->write(plain, got)) failed = true;
        continue;
      }
      failed = result == TlsTransport::Result::kFailed || result == TlsTransport::Result::kClosed;
      break;
    }
  }
  tls->session();
  tls->close();
  tls.reset();
  evbuffer_free(wire);
  return 0;
}
