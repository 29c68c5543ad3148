#ifndef NET_TLS_TRANSPORT_H_
#define NET_TLS_TRANSPORT_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "net/connection_info.h"

struct ssl_st;
struct bio_st;
struct bio_method_st;
struct ssl_ctx_st;
struct evbuffer;

namespace vantu {
namespace relay {

// An OpenSSL context (SSL_CTX): the certificate and key a side presents and
// the authorities it trusts, with the protocol settings we always use
// (TLS 1.2 or newer, no renegotiation, no compression, AEAD ciphers only,
// session tickets, buffers released while idle). Immutable once made and
// shared by every connection made from it, which keeps it alive: replacing
// a server's context leaves the open connections on the old one.
//
// Made on any thread; used by any number of connections on the event thread.
// Each connection's OpenSSL state holds a reference of its own to the
// context underneath, so it may outlive this object.
class TlsContext {
 public:
  // A server's: `certificate_chain_file` and `private_key_file` in PEM; with
  // a `client_ca_file`, clients must present a certificate that it signed.
  // Null with the reason in *error.
  static std::shared_ptr<TlsContext> newServer(const std::string& certificate_chain_file,
                                               const std::string& private_key_file,
                                               const std::string& client_ca_file,
                                               std::string* error);
  // A client's: trusts `ca_file` (empty: the system's trust store); presents
  // `certificate_chain_file` with `private_key_file` when they are given.
  static std::shared_ptr<TlsContext> newClient(const std::string& ca_file,
                                               const std::string& certificate_chain_file,
                                               const std::string& private_key_file,
                                               std::string* error);
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  bool isServer() const { return server_; }
  struct ssl_ctx_st* get() const {
    return context_;
  }

 private:
  TlsContext(struct ssl_ctx_st* context, bool server) : context_(context), server_(server) {}

  struct ssl_ctx_st* const context_;
  const bool server_;
};

// One TLS connection's state machine, with no socket of its own: the bytes
// read from the network are handed to it (setInput), and every byte it
// produces for the network (handshake messages, records, alerts) is appended
// to its wire, an evbuffer the owner lends it and sends. So the owner keeps
// doing its own reads and writes and the bounds, timeouts and half-closes
// that go with them; only the bytes change.
//
// Kept small, since an idle connection keeps one: no BIO of its own (the
// transports of a thread share one, pointed at the caller on every call),
// and what the session established is read from OpenSSL when asked, not
// copied.
//
// Owned by one TcpSocket (or a test); event thread only (one thread at a
// time), like its owner.
class TlsTransport {
 public:
  enum class Result {
    kOk,        // done (handshake complete, or bytes read)
    kWantMore,  // needs more input from the network
    kClosed,    // the peer ended the TLS stream (close_notify)
    kFailed,    // a protocol or verification failure: error() says why
  };

  // `wire` receives the bytes to send until setWire() lends another; it
  // may be null when a wire is lent before the first call that writes.
  // `server_name` (client only): sent as SNI when it is a name, and the
  // name (or IP address) the server's certificate must carry.
  static std::unique_ptr<TlsTransport> newServer(const std::shared_ptr<const TlsContext>& context,
                                                 struct evbuffer* wire);
  static std::unique_ptr<TlsTransport> newClient(const std::shared_ptr<const TlsContext>& context,
                                                 const std::string& server_name,
                                                 struct evbuffer* wire);
  ~TlsTransport();
  TlsTransport(const TlsTransport&) = delete;
  TlsTransport& operator=(const TlsTransport&) = delete;

  // Where the bytes to send go from now on: an evbuffer that stays valid
  // until the next setWire() or the destructor. Every call below except
  // drained() and session() may write to it (an alert, a key update's
  // answer), so a wire must be lent during them; without one they fail.
  void setWire(struct evbuffer* wire) { wire_ = wire; }
  struct evbuffer* wire() const {
    return wire_;
  }
  // Bytes read from the network, consumed by the calls that follow; they
  // must stay valid until handshake() or read() asks for more (kWantMore).
  // OpenSSL keeps a partial record itself, so all of them are always used.
  void setInput(const char* data, size_t size);
  // Advances the handshake with the input given.
  Result handshake();
  bool established() const { return established_; }
  bool isServerSide() const;
  // Decrypts into `out` (at most `size` bytes, one record at most);
  // *got is set on kOk.
  Result read(char* out, size_t size, size_t* got);
  // Everything given to setInput was used and nothing decrypted waits: a
  // read now could only say kWantMore. (Without read-ahead OpenSSL takes
  // one record at a time, so no whole record can hide in its buffer.)
  bool drained() const;
  // Encrypts `size` bytes into the wire. False on a failure (error()).
  bool write(const char* data, size_t size);
  // Appends close_notify to the wire, once; nothing before the handshake.
  void close();
  // Why the last kFailed (or write's false) happened.
  const std::string& error() const;
  // What the handshake established; empty before it ended.
  TlsSessionInfo session() const;

 private:
  TlsTransport(struct ssl_st* ssl, struct evbuffer* wire);
  // Before a handshake step or a shutdown: an empty error queue, and
  // bindBio().
  void prepareCall();
  // Points this thread's shared BIO at this transport, first making it the
  // BIO of ssl_ if it is not (a transport made on another thread).
  void bindBio();
  // Reads OpenSSL's failure into error_ after `call` returned `ret`.
  Result failure(int ret, const char* what);
  // What SSL_read's `ret` (not above 0) means.
  Result readFailure(int ret);
  static int bioRead(struct bio_st* bio, char* data, int size);
  static int bioWrite(struct bio_st* bio, const char* data, int size);
  static long bioControl(struct bio_st* bio, int command, long number, void* pointer);
  static struct bio_method_st* bioMethod();

  struct ssl_st* const ssl_;
  struct evbuffer* wire_;
  const char* input_ = nullptr;
  size_t input_size_ = 0;
  bool established_ = false;
  bool closed_ = false;
  // Null until a failure.
  std::unique_ptr<std::string> error_;
};

}  // namespace relay
}  // namespace vantu

#endif  // NET_TLS_TRANSPORT_H_
