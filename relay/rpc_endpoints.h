#ifndef RELAY_RPC_ENDPOINTS_H_
#define RELAY_RPC_ENDPOINTS_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/socket_address.h"
#include "common/time.h"
#include "net/request_response_connection_handler.h"
#include "relay/http_request_parser.h"
#include "relay/rpc_channel_options.h"

namespace vantu {
namespace relay {

class RPCEndpoints;
class TcpSocket;
class TlsContext;

// The waits between connection attempts to one server: none after a
// connection that worked, then reconnect_backoff doubling per failure in a
// row up to reconnect_backoff_max, each drawn within 20 % of its nominal
// value. A value type; its owner's thread.
class ReconnectBackoff {
 public:
  ReconnectBackoff(Duration initial, Duration max) : initial_(initial), max_(max) {}

  // The wait before the next attempt after `failures` failures in a row
  // (0: none), with `unit` in [0, 1) drawn at random for the jitter.
  Duration delay(int failures, double unit) const;

 private:
  Duration initial_;
  Duration max_;
};

// One connection of a channel to one server: writes the calls the channel
// gives it, reads the answers and hands them over, and says when it is up,
// when the server asked it to close ("Connection: close") and when it is
// gone. Made and owned by RPCEndpoints (destroyed on the event thread); the
// channel refers to it by raw pointer only while a call written on it is
// pending, which the channel settles when it hears the connection is lost.
//
// Event thread only, except send/shutdown (any thread, from the base) and
// `outstanding`.
class RPCConnection : public RequestResponseConnectionHandler {
 public:
  enum class State { kConnecting, kReady, kRetiring, kClosed };

  RPCConnection(RPCEndpoints* owner, const SocketAddress& address);
  ~RPCConnection() override;
  RPCConnection(const RPCConnection&) = delete;
  RPCConnection& operator=(const RPCConnection&) = delete;

  // Starts connecting, at most `timeout` (zero: the system's limit); false
  // when no socket could be made. `honour_close`: an answer carrying
  // "Connection: close" retires the connection. With `tls`, the connection
  // is up once its handshake with `server_name` is done (within `timeout`
  // too).
  bool connect(Duration timeout, bool honour_close,
               const std::shared_ptr<const TlsContext>& tls = nullptr,
               const std::string& server_name = std::string());
  // Why its TLS handshake or stream failed, once it is closed; else empty.
  const std::string& tlsError() const { return tls_error_; }
  // Tells nobody anything more, and ends the connection at once.
  void detach();

  State state() const { return state_; }
  // Takes new calls.
  bool ready() const { return state_ == State::kReady; }
  const SocketAddress& address() const { return address_; }
  // The connection has carried at least one answer.
  bool answered() const { return answered_; }

  // Calls written on this connection and not settled yet, kept by the
  // channel; read to choose a connection. Any thread.
  std::atomic<int> outstanding{0};

  // RequestResponseConnectionHandler
  void notifyIncomingData(std::string* data) override;
  size_t notifyIncomingBytes(const char* data, size_t size) override;
  void notifyInputShutdown(std::string* data) override;
  void notifyClosed() override;

 private:
  friend class RPCEndpoints;

  void connected(bool ok);

  // Constant after construction.
  const SocketAddress address_;

  // Event thread only.
  RPCEndpoints* owner_;  // null once detached
  std::weak_ptr<RPCConnection> weak_this_;
  std::shared_ptr<TcpSocket> socket_;
  HttpResponseParser parser_;
  State state_ = State::kConnecting;
  bool answered_ = false;
  bool honour_close_ = false;
  std::string tls_error_;
};

// The servers one channel reaches and a connection to each: resolves the
// target (on a thread of its own, never on the event thread), connects
// without blocking, makes lost connections again with ReconnectBackoff,
// follows the answers of a "dns:///" target, and chooses for each call the
// ready connection with the fewest calls outstanding.
//
// Owned by its channel through a shared pointer whose deleter destroys it on
// the event thread; its timers and the resolving thread hold it weakly.
// create() may be called on any thread; everything else on the event thread.
class RPCEndpoints : public std::enable_shared_from_this<RPCEndpoints> {
 public:
  // What the channel hears, on the event thread. A lost connection is
  // destroyed (later) once connectionLost has returned.
  class Listener {
   public:
    // `connection` takes calls now.
    virtual void connectionReady(RPCConnection* connection) = 0;
    // Answers arrived, in order (the connection is retiring already when one
    // of them asked to close it).
    virtual void answersArrived(RPCConnection* connection,
                                const std::vector<HttpResponsePtr>& answers) = 0;
    // Nothing more will be read from or written to `connection`.
    virtual void connectionLost(RPCConnection* connection) = 0;
    // The target's names had no answer.
    virtual void resolveFailed() = 0;

   protected:
    ~Listener() = default;
  };

  // The endpoints of `target`; nothing happens until begin(). `listener`
  // must stay valid until stop().
  static std::shared_ptr<RPCEndpoints> create(const RPCTarget& target,
                                              const RPCChannelOptions& options, Listener* listener);
  // Starts resolving and connecting (on the event thread, later). Called
  // once the listener can take calls: it may hear of a connection before
  // this returns. Any thread.
  void begin();
  ~RPCEndpoints();
  RPCEndpoints(const RPCEndpoints&) = delete;
  RPCEndpoints& operator=(const RPCEndpoints&) = delete;

  // The listener hears nothing more; every connection ends at once.
  void stop();

  // The ready connection with the fewest calls outstanding (ties taken in
  // turn), or null when none is ready.
  RPCConnection* pick();

  // The addresses of the servers known now, in the order they were learnt.
  std::vector<SocketAddress> addresses() const;
  // No server can be reached now: none is connected or connecting, and the
  // latest attempt to reach each one failed (or the names had no answer).
  bool unreachable() const;
  // Why the latest TLS attempt failed (the context could not be made, a
  // handshake failed, a certificate did not verify); empty once a
  // connection came up since, or without TLS.
  const std::string& tlsFailure() const { return tls_failure_; }

 private:
  friend class RPCConnection;
  struct Endpoint;

  RPCEndpoints(const RPCTarget& target, const RPCChannelOptions& options, Listener* listener);

  void start();
  // Looks the target's names up on a thread of its own; the answer comes
  // back through resolved().
  void resolve();
  void resolved(const std::vector<SocketAddress>& addresses, bool complete);
  // Connects the addresses not known yet; with `remove_missing` lets go of
  // the known ones that are not among them.
  void setAddresses(const std::vector<SocketAddress>& addresses, bool remove_missing);
  void connectEndpoint(Endpoint* endpoint);
  void scheduleConnect(Endpoint* endpoint, Duration delay);
  Endpoint* endpointOf(const RPCConnection* connection);
  // Takes `connection` out of service for new calls; it ends once its calls
  // are settled (the server closes it, or the channel does).
  void retire(RPCConnection* connection);

  // From the connections.
  void connectionUp(RPCConnection* connection);
  void connectionRetiring(RPCConnection* connection);
  void answersArrived(RPCConnection* connection, const std::vector<HttpResponsePtr>& answers);
  void connectionClosed(RPCConnection* connection);

  double randomUnit();
  // The name a server at `address` must prove, with TLS.
  std::string serverName(const SocketAddress& address) const;

  // Constant after construction.
  const RPCTarget target_;
  const RPCChannelOptions options_;
  const ReconnectBackoff backoff_;

  // Event thread only.
  Listener* listener_;  // null once stopped
  std::vector<std::unique_ptr<Endpoint>> endpoints_;
  // Out of service, ending once their calls are settled.
  std::vector<std::shared_ptr<RPCConnection>> retiring_;
  size_t next_pick_ = 0;
  int resolve_failures_ = 0;
  std::string tls_failure_;
  // Constant after construction: with TLS, the context every connection
  // uses (null when it could not be made: tls_failure_ says why).
  std::shared_ptr<const TlsContext> tls_context_;
  TimerHandle resolve_timer_;
  std::minstd_rand random_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_RPC_ENDPOINTS_H_
