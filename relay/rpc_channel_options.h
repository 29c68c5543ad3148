#ifndef RELAY_RPC_CHANNEL_OPTIONS_H_
#define RELAY_RPC_CHANNEL_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/socket_address.h"
#include "common/time.h"
#include "relay/tls_options.h"

namespace vantu {
namespace relay {

// What a channel made with options may do beyond the channel of
// RPCChannel::create(address). A default-constructed value keeps that
// channel's behaviour for everything its calls see: one connection per
// server, calls left pending when it is lost, no deadline but the caller's
// own wait. resilient() gives the values we recommend between services.
//
// Either way, create with options never blocks on connecting: it returns a
// channel at once, and calls made before a connection is up wait for it.
//
// A plain value, read once when the channel is made.
struct RPCChannelOptions {
  // Looks `host` up; the addresses carry `port`. Empty with a reason in
  // *error when there are none. Called on a thread of its own, never on the
  // event thread, and perhaps once more just after the channel is gone: it
  // must own what it refers to.
  using Resolver = std::function<std::vector<SocketAddress>(const std::string& host, uint16_t port,
                                                            std::string* error)>;

  // How long one connection attempt may take before it counts as failed.
  // Zero: the system's own limit (minutes, for a peer that never answers).
  Duration connect_timeout;
  // The deadline of a call that sets none with RPC::setDeadline: this long
  // after CallMethod. Zero: none; such a call waits until it is answered or
  // cancelled.
  Duration default_timeout;
  // How often a "dns:///NAME:PORT" target is looked up again; servers that
  // join the answer are connected, those that leave it are let go once the
  // calls written to them are answered. Zero: looked up once.
  Duration resolve_interval;
  // At most this many calls pending on the channel (waiting for a server or
  // for their answers); past it a call fails at once with
  // RPCChannel::kErrorTooManyPending. Zero: no bound.
  size_t max_pending = 0;
  // Recover from lost connections. A call written on a connection that is
  // lost before its answer fails at once with
  // RPCChannel::kErrorConnectionLost (the server may have run it); a call
  // not written yet waits for the next connection; a call the server
  // refused unrun (answered with RPCChannel::kHeaderNotRun, as a draining
  // server does) is sent again; no call is written on a connection after an
  // answer that carried "Connection: close"; lost connections are made again
  // after reconnect_backoff. False: as the channel of create(address), a lost
  // connection is not replaced and the calls on it stay pending until their
  // deadline, a cancel, or the channel's end.
  bool reconnect = false;
  // The wait before connecting again after an attempt failed; it doubles
  // with every failure in a row, up to reconnect_backoff_max, and each wait
  // is drawn at random within 20 % of that (jitter, so that many clients of
  // one restarted server do not all come back at once). A connection that
  // had carried answers is made again at once. Used only with reconnect.
  Duration reconnect_backoff = Duration::milliseconds(100);
  Duration reconnect_backoff_max = Duration::seconds(2);
  // A call fails at once with RPCChannel::kErrorUnreachable, instead of
  // waiting for a server until its deadline, when no server is reachable:
  // every one's latest attempt to connect failed (or the names had no
  // answer). For one-shot tools that would rather say so than wait.
  bool fail_fast = false;
  // How names are looked up. Empty: the system resolver (getaddrinfo).
  Resolver resolver;
  // TLS to the servers (see relay/tls_options.h). A handshake that fails,
  // or a server certificate that does not verify, fails the calls waiting
  // for that server with the reason once no server can take them.
  TlsClientOptions tls;

  // reconnect on, 2 s to connect, 30 s for a call without a deadline,
  // names looked up again every 30 s, at most 10,000 pending calls, retries
  // after 100 ms doubling up to 2 s.
  static RPCChannelOptions resilient();
  // "" when the values can be used, else why not (a negative duration, a
  // backoff of zero with reconnect on, a ceiling below the first wait).
  std::string problem() const;
};

// A target as RPCChannel::create(target, options) reads it:
//   "HOST:PORT"                        HOST an IP literal ("[::1]" for IPv6) or
//                                      a name looked up once; every address
//                                      it has is a server
//   "HOST:PORT,HOST:PORT,..."          several, each as above
//   "dns:///NAME:PORT"                 looked up again every resolve_interval
// A plain value.
struct RPCTarget {
  struct HostPort {
    std::string host;  // IPv6 literals without their brackets
    uint16_t port = 0;
  };
  std::vector<HostPort> hosts;  // in the order given
  bool dns = false;             // "dns:///": looked up again

  // Reads `text`; false with the reason in *error.
  static bool parse(const std::string& text, RPCTarget* target, std::string* error);
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_RPC_CHANNEL_OPTIONS_H_
