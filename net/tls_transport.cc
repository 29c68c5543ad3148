#include "net/tls_transport.h"

#include <event2/buffer.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

#include "common/event_thread.h"
#include "common/fast_thread_local.h"
#include "common/socket_address.h"

namespace vantu {
namespace relay {
namespace {

// TLS 1.2 suites that give forward secrecy and an AEAD; TLS 1.3's own are
// all of that already.
constexpr char kTls12Ciphers[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";
// Distinguishes our sessions from anyone else's in a shared cache; required
// for resumption when client certificates are verified.
constexpr unsigned char kSessionContext[] = "vantu.relay";

// The oldest error OpenSSL queued on this thread, as text, and the queue
// emptied.
std::string takeOpenSslError() {
  unsigned long code = ERR_get_error();
  std::string text;
  if (code != 0) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof(buffer));
    const char* reason = ERR_reason_error_string(code);
    text = reason != nullptr ? reason : buffer;
  }
  ERR_clear_error();
  return text;
}

// OpenSSL frees a thread's own state (its error queue, its random generator:
// about 10 kB) as the thread ends, unless its exit handler ran before, which
// it does when OpenSSL was first used after the event thread started: exit
// handlers run in reverse order, and the event thread stops in one of its
// own. So an exit handler that runs just before OpenSSL's stops the event
// thread there. Its last work (connections that close as their peers go)
// still finds OpenSSL whole, and its state is freed as it ends. Freeing only
// that thread's state there is not enough: a connection that closed before
// OpenSSL's handler ran made a new error queue, which then leaked.
void stopEventThreadBeforeOpenSslExits() {
  static std::once_flag once;
  std::call_once(once, [] {
    // OpenSSL's exit handler first, so that this one runs before it.
    OPENSSL_init_ssl(0, nullptr);
    atexit(stopEventThreadAtExit);
  });
}

SSL_CTX* newContext(bool server) {
  stopEventThreadBeforeOpenSslExits();
  SSL_CTX* context = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
  if (context == nullptr) return nullptr;
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                                   SSL_OP_CIPHER_SERVER_PREFERENCE |
                                   // A peer that closes without close_notify ends the
                                   // stream; HTTP's own framing tells a cut answer.
                                   SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_cipher_list(context, kTls12Ciphers);
  // Idle connections give their record buffers back; writes may be partial
  // and retried from a moved buffer.
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return context;
}

std::string fileProblem(const char* what, const std::string& file) {
  std::string why = takeOpenSslError();
  return std::string("cannot use ") + what + " " + file + (why.empty() ? "" : ": " + why);
}

bool loadIdentity(SSL_CTX* context, const std::string& chain, const std::string& key,
                  std::string* error) {
  if (SSL_CTX_use_certificate_chain_file(context, chain.c_str()) != 1) {
    *error = fileProblem("certificate chain", chain);
    return false;
  }
  if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    *error = fileProblem("private key", key);
    return false;
  }
  if (SSL_CTX_check_private_key(context) != 1) {
    *error = fileProblem("private key", key + " with certificate " + chain);
    return false;
  }
  return true;
}

std::string nameText(X509_NAME* name) {
  BIO* bio = BIO_new(BIO_s_mem());
  if (bio == nullptr) return std::string();
  X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253);
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  std::string text(data, size > 0 ? static_cast<size_t>(size) : 0);
  BIO_free(bio);
  return text;
}

void appendSans(X509* certificate, std::vector<std::string>* sans) {
  auto* names = static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
  if (names == nullptr) return;
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
    auto text = [](const char* prefix, const ASN1_STRING* value) {
      return std::string(prefix) +
             std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                         static_cast<size_t>(ASN1_STRING_length(value)));
    };
    switch (name->type) {
      case GEN_DNS:
        sans->push_back(text("DNS:", name->d.dNSName));
        break;
      case GEN_URI:
        sans->push_back(text("URI:", name->d.uniformResourceIdentifier));
        break;
      case GEN_EMAIL:
        sans->push_back(text("email:", name->d.rfc822Name));
        break;
      case GEN_IPADD: {
        const ASN1_OCTET_STRING* ip = name->d.iPAddress;
        const int length = ASN1_STRING_length(ip);
        if (length != 4 && length != 16) break;
        sockaddr_storage storage = {};
        socklen_t size;
        if (length == 4) {
          auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
          v4->sin_family = AF_INET;
          memcpy(&v4->sin_addr, ASN1_STRING_get0_data(ip), 4);
          size = sizeof(sockaddr_in);
        } else {
          auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
          v6->sin6_family = AF_INET6;
          memcpy(&v6->sin6_addr, ASN1_STRING_get0_data(ip), 16);
          size = sizeof(sockaddr_in6);
        }
        std::string address =
            SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&storage), size).toString();
        // toString() carries ":port" (and brackets for IPv6): the host alone.
        const size_t colon = address.rfind(':');
        if (colon != std::string::npos) address.resize(colon);
        if (address.size() >= 2 && address.front() == '[') {
          address = address.substr(1, address.size() - 2);
        }
        sans->push_back("IP:" + address);
        break;
      }
      default:
        break;
    }
  }
  GENERAL_NAMES_free(names);
}

}  // namespace

// ---------------------------------------------------------------------------
// TlsContext

std::shared_ptr<TlsContext> TlsContext::newServer(const std::string& certificate_chain_file,
                                                  const std::string& private_key_file,
                                                  const std::string& client_ca_file,
                                                  std::string* error) {
  ERR_clear_error();
  SSL_CTX* context = newContext(true);
  if (context == nullptr) {
    *error = "cannot make a TLS context: " + takeOpenSslError();
    return nullptr;
  }
  std::shared_ptr<TlsContext> result(new TlsContext(context, true));
  if (!loadIdentity(context, certificate_chain_file, private_key_file, error)) return nullptr;
  SSL_CTX_set_session_id_context(context, kSessionContext, sizeof(kSessionContext) - 1);
  // One ticket per full handshake is enough for the next connection; tickets
  // are stateless, so the server keeps no session cache.
  SSL_CTX_set_num_tickets(context, 1);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  if (!client_ca_file.empty()) {
    if (SSL_CTX_load_verify_locations(context, client_ca_file.c_str(), nullptr) != 1) {
      *error = fileProblem("client CA file", client_ca_file);
      return nullptr;
    }
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(client_ca_file.c_str());
    if (names != nullptr) SSL_CTX_set_client_CA_list(context, names);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  ERR_clear_error();
  return result;
}

std::shared_ptr<TlsContext> TlsContext::newClient(const std::string& ca_file,
                                                  const std::string& certificate_chain_file,
                                                  const std::string& private_key_file,
                                                  std::string* error) {
  ERR_clear_error();
  SSL_CTX* context = newContext(false);
  if (context == nullptr) {
    *error = "cannot make a TLS context: " + takeOpenSslError();
    return nullptr;
  }
  std::shared_ptr<TlsContext> result(new TlsContext(context, false));
  const bool loaded = ca_file.empty()
                          ? SSL_CTX_set_default_verify_paths(context) == 1
                          : SSL_CTX_load_verify_locations(context, ca_file.c_str(), nullptr) == 1;
  if (!loaded) {
    *error = fileProblem("CA file", ca_file.empty() ? "(the system's)" : ca_file);
    return nullptr;
  }
  if (!certificate_chain_file.empty() || !private_key_file.empty()) {
    if (!loadIdentity(context, certificate_chain_file, private_key_file, error)) return nullptr;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  ERR_clear_error();
  return result;
}

TlsContext::~TlsContext() { SSL_CTX_free(context_); }

// ---------------------------------------------------------------------------
// TlsTransport

BIO_METHOD* TlsTransport::bioMethod() {
  static BIO_METHOD* method = [] {
    BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "relay wire");
    BIO_meth_set_read(made, &TlsTransport::bioRead);
    BIO_meth_set_write(made, &TlsTransport::bioWrite);
    BIO_meth_set_ctrl(made, &TlsTransport::bioControl);
    return made;
  }();
  return method;
}

namespace {

// The BIO every transport of a thread reads and writes through. A BIO with
// its lock costs about 200 bytes, which an idle connection would otherwise
// keep for nothing; the transport making an OpenSSL call points it at itself
// first, and calls on one thread never overlap. The SSL objects that use it
// hold references of their own, so it outlives this thread's last call.
class ThreadBio {
 public:
  explicit ThreadBio(BIO_METHOD* method) : bio_(BIO_new(method)) {
    if (bio_ != nullptr) BIO_set_init(bio_, 1);
  }
  ~ThreadBio() { BIO_free(bio_); }
  ThreadBio(const ThreadBio&) = delete;
  ThreadBio& operator=(const ThreadBio&) = delete;
  BIO* get() const { return bio_; }

 private:
  BIO* const bio_;
};

}  // namespace

void TlsTransport::prepareCall() {
  // SSL_get_error can only tell a healthy connection from a broken one when
  // the thread's error queue was empty before the call: it says "failed"
  // whenever ERR_peek_error finds anything. Emptying the queue costs about
  // 800 instructions even when it is empty, so it is emptied only when that
  // same test would find something.
  if (ERR_peek_error() != 0) ERR_clear_error();
  bindBio();
}

void TlsTransport::bindBio() {
  static VANTU_FAST_THREAD_LOCAL ThreadBio shared(bioMethod());
  BIO* bio = shared.get();
  if (bio == nullptr) return;
  BIO_set_data(bio, this);
  if (SSL_get_rbio(ssl_) != bio) {
    // SSL_set_bio takes one reference for both directions.
    BIO_up_ref(bio);
    SSL_set_bio(ssl_, bio, bio);
  }
}

int TlsTransport::bioRead(BIO* bio, char* data, int size) {
  auto* self = static_cast<TlsTransport*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (self->input_size_ == 0) {
    BIO_set_retry_read(bio);
    return -1;
  }
  const size_t n = std::min(self->input_size_, static_cast<size_t>(size));
  memcpy(data, self->input_, n);
  self->input_ += n;
  self->input_size_ -= n;
  return static_cast<int>(n);
}

int TlsTransport::bioWrite(BIO* bio, const char* data, int size) {
  auto* self = static_cast<TlsTransport*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  if (self->wire_ == nullptr || evbuffer_add(self->wire_, data, static_cast<size_t>(size)) != 0) {
    return -1;
  }
  return size;
}

long TlsTransport::bioControl(BIO*, int command, long, void*) {
  // Writes land in memory at once: there is never anything to flush.
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

std::unique_ptr<TlsTransport> TlsTransport::newServer(
    const std::shared_ptr<const TlsContext>& context, struct evbuffer* wire) {
  if (!context) return nullptr;
  SSL* ssl = SSL_new(context->get());
  if (ssl == nullptr) return nullptr;
  SSL_set_accept_state(ssl);
  return std::unique_ptr<TlsTransport>(new TlsTransport(ssl, wire));
}

std::unique_ptr<TlsTransport> TlsTransport::newClient(
    const std::shared_ptr<const TlsContext>& context, const std::string& server_name,
    struct evbuffer* wire) {
  if (!context) return nullptr;
  SSL* ssl = SSL_new(context->get());
  if (ssl == nullptr) return nullptr;
  SSL_set_connect_state(ssl);
  // An IP address is matched against the certificate's IP SANs and never
  // sent as SNI; a name is both.
  const bool is_ip = SocketAddress(server_name, 1).isValid();
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  if (is_ip) {
    X509_VERIFY_PARAM_set1_ip_asc(param, server_name.c_str());
  } else if (!server_name.empty()) {
    SSL_set_tlsext_host_name(ssl, server_name.c_str());
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    SSL_set1_host(ssl, server_name.c_str());
  }
  return std::unique_ptr<TlsTransport>(new TlsTransport(ssl, wire));
}

TlsTransport::TlsTransport(SSL* ssl, struct evbuffer* wire) : ssl_(ssl), wire_(wire) {}

bool TlsTransport::isServerSide() const { return SSL_is_server(ssl_) == 1; }

const std::string& TlsTransport::error() const {
  static const std::string* const kNone = new std::string;
  return error_ ? *error_ : *kNone;
}

TlsTransport::~TlsTransport() { SSL_free(ssl_); }

void TlsTransport::setInput(const char* data, size_t size) {
  input_ = data;
  input_size_ = size;
}

TlsTransport::Result TlsTransport::handshake() {
  if (established_) return Result::kOk;
  prepareCall();
  const int ret = SSL_do_handshake(ssl_);
  if (ret == 1) {
    established_ = true;
    return Result::kOk;
  }
  return failure(ret, "TLS handshake failed");
}

TlsTransport::Result TlsTransport::read(char* out, size_t size, size_t* got) {
  // Unlike the handshake, a read is told apart from a failure without
  // emptying the error queue first (two peeks at it cost about 400
  // instructions a request): see readFailure().
  bindBio();
  const int ret = SSL_read(ssl_, out, static_cast<int>(std::min(size, size_t{INT_MAX})));
  if (ret > 0) {
    *got = static_cast<size_t>(ret);
    return Result::kOk;
  }
  return readFailure(ret);
}

TlsTransport::Result TlsTransport::readFailure(int ret) {
  // OpenSSL marks itself as waiting for input when its BIO had no more (a
  // record cut short, or none at all): that is no failure, whatever the
  // queue holds from others on this thread.
  if (SSL_want_read(ssl_)) {
    if (ERR_peek_error() != 0) ERR_clear_error();
    return Result::kWantMore;
  }
  // The peer's close_notify: OpenSSL returns 0 and queues nothing, where a
  // fatal alert or a broken record queues an error of libssl's own.
  if (ret == 0 && (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) != 0 &&
      ERR_GET_LIB(ERR_peek_last_error()) != ERR_LIB_SSL) {
    ERR_clear_error();
    return Result::kClosed;
  }
  return failure(ret, "TLS read failed");
}

bool TlsTransport::drained() const { return input_size_ == 0 && SSL_pending(ssl_) == 0; }

bool TlsTransport::write(const char* data, size_t size) {
  while (size > 0) {
    // Every result but a count is a failure here (the wire takes all), so
    // the error queue need not be emptied first.
    bindBio();
    const int ret = SSL_write(ssl_, data, static_cast<int>(std::min(size, size_t{INT_MAX})));
    if (ret <= 0) {
      failure(ret, "TLS write failed");
      return false;
    }
    data += ret;
    size -= static_cast<size_t>(ret);
  }
  return true;
}

void TlsTransport::close() {
  if (!established_ || closed_) return;
  closed_ = true;
  prepareCall();
  SSL_shutdown(ssl_);
  ERR_clear_error();
}

TlsTransport::Result TlsTransport::failure(int ret, const char* what) {
  const int code = SSL_get_error(ssl_, ret);
  if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) return Result::kWantMore;
  if (code == SSL_ERROR_ZERO_RETURN) {
    ERR_clear_error();
    return Result::kClosed;
  }
  const long verify = SSL_get_verify_result(ssl_);
  std::string why = takeOpenSslError();
  if (verify != X509_V_OK) {
    why = "certificate verify failed: " + std::string(X509_verify_cert_error_string(verify));
  } else if (why.empty()) {
    why = code == SSL_ERROR_SYSCALL ? "connection closed" : "protocol error";
  }
  error_ = std::make_unique<std::string>(std::string(what) + ": " + why);
  return Result::kFailed;
}

TlsSessionInfo TlsTransport::session() const {
  TlsSessionInfo session;
  if (!established_) return session;
  session.version = SSL_get_version(ssl_);
  session.resumed = SSL_session_reused(ssl_) == 1;
  X509* peer = SSL_get0_peer_certificate(ssl_);
  if (peer != nullptr && SSL_get_verify_result(ssl_) == X509_V_OK) {
    session.peer_subject = nameText(X509_get_subject_name(peer));
    appendSans(peer, &session.peer_sans);
  }
  return session;
}

}  // namespace relay
}  // namespace vantu
