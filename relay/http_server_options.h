#ifndef RELAY_HTTP_SERVER_OPTIONS_H_
#define RELAY_HTTP_SERVER_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/time.h"
#include "relay/tls_options.h"

namespace vantu {
namespace relay {

// What a server may do beyond its default behaviour, which is to put no
// limit on anything, to frame bodies by "Content-Length" alone and to keep
// every connection open. Each field's zero (or false) keeps that default;
// hardened() gives the values we recommend for a server that untrusted
// clients, or a proxy in front of it, can reach.
//
// The answers a limit gives (414, 400, 413, 408, and with strict framing 400,
// 501 and 505) are followed by closing the connection once they are written.
//
// A plain value, read once when the server is made.
struct HttpServerOptions {
  // The request line plus the header lines of one request. A longer request
  // line is answered 414, a longer head 400, as soon as the bytes arrive.
  size_t max_header_bytes = 0;
  // The body of one request: a larger declared Content-Length is answered
  // 413 before any body is read (a chunked body, when its chunks pass it).
  // RPC calls obey it too.
  uint64_t max_body_bytes = 0;
  // At most this many connections open at once: at the limit accepting
  // pauses (clients wait in the listen backlog) and resumes when one closes.
  size_t max_connections = 0;
  // A request whose head has not fully arrived this long after its first
  // byte (or whose body stops arriving for idle_timeout) is answered 408.
  Duration header_timeout;
  // A connection with nothing in flight (no request begun, no answer owed)
  // is closed, silently, after this long; so is one whose peer takes none of
  // its output for this long.
  Duration idle_timeout;
  // Reads requests as RFC 9112 does, so that this server and any proxy agree
  // on where every request ends: chunked bodies are decoded, framing headers
  // are matched whatever their case, malformed or ambiguous framing is
  // refused (see relay/strict_framing.h), the connection closes after every
  // error answer, after "Connection: close" and after HTTP/1.0 without
  // keep-alive. Answers carry a Date, and a HEAD request's answer no body.
  bool strict_framing = false;
  // SO_REUSEPORT on the listening socket, so that several processes can
  // serve one port and the kernel spreads the connections between them.
  bool reuse_port = false;
  // Cancels the controller of an RPC whose caller gave up on it (IsCanceled()
  // turns true and the service's NotifyOnCancel callback runs, on the event
  // thread): when the deadline the caller sent ("Rpc-Timeout", see
  // RPC::deadline()) passes, or when the caller's connection ends, by a
  // close or by ending its output (a client that half-closes and waits for
  // its answers sees its calls cancelled). What a cancelled call does is
  // the service's business; it must still run its done closure.
  bool cancel_abandoned_calls = false;
  // Serves HTTPS (and RPC over TLS) when tls.certificate_chain_file is set;
  // see relay/tls_options.h. The handshake must end within header_timeout,
  // when there is one. hardened() leaves it as it is.
  TlsServerOptions tls;

  // 64 KiB head, 16 MiB body, 10,000 connections, 30 s for a head, 120 s
  // idle, strict framing, abandoned calls cancelled.
  static HttpServerOptions hardened();
  // "" when the values can be used, else why not (a negative duration).
  std::string problem() const;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_SERVER_OPTIONS_H_
