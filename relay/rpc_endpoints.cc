#include "relay/rpc_endpoints.h"

#include <netdb.h>
#include <strings.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include "common/deferred_deleter.h"
#include "common/logging.h"
#include "common/weak_function.h"
#include "net/tcp_socket.h"
#include "relay/tls_options.h"

namespace vantu {
namespace relay {
namespace {

constexpr char kSourceFile[] = "relay/rpc_endpoints";

// The share of a wait that jitter may add or take away.
constexpr double kJitter = 0.2;

// An answer that carries "Connection: close": the server ends the connection
// after it.
bool asksToClose(const HttpResponse& answer) {
  auto it = answer.headers.find("Connection");
  if (it == answer.headers.end()) return false;
  const std::string& value = it->second;
  for (size_t at = 0; at <= value.size();) {
    size_t end = value.find(',', at);
    if (end == std::string::npos) end = value.size();
    size_t first = at, last = end;
    while (first < last && (value[first] == ' ' || value[first] == '\t')) ++first;
    while (last > first && (value[last - 1] == ' ' || value[last - 1] == '\t')) --last;
    if (last - first == 5 && strncasecmp(value.data() + first, "close", 5) == 0) return true;
    at = end + 1;
  }
  return false;
}

std::vector<SocketAddress> systemResolve(const std::string& host, uint16_t port,
                                         std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  std::vector<SocketAddress> addresses;
  if (result != 0) {
    *error = "cannot resolve " + host + ": " + gai_strerror(result);
    return addresses;
  }
  for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    SocketAddress address = SocketAddress::fromSockaddr(entry->ai_addr, entry->ai_addrlen);
    if (address.isValid()) addresses.push_back(SocketAddress(address.ip(), port));
  }
  freeaddrinfo(found);
  if (addresses.empty()) *error = "no address for " + host;
  return addresses;
}

}  // namespace

// ---------------------------------------------------------------------------
// ReconnectBackoff

Duration ReconnectBackoff::delay(int failures, double unit) const {
  if (failures <= 0) return Duration();
  int64_t us = initial_.toMicroseconds();
  const int64_t max = max_.toMicroseconds();
  for (int i = 1; i < failures && us < max; ++i) us *= 2;
  us = std::min(us, max);
  const double scale = 1.0 - kJitter + 2.0 * kJitter * unit;
  return Duration::microseconds(static_cast<int64_t>(static_cast<double>(us) * scale));
}

// ---------------------------------------------------------------------------
// RPCConnection

RPCConnection::RPCConnection(RPCEndpoints* owner, const SocketAddress& address)
    : RequestResponseConnectionHandler(2048), address_(address), owner_(owner) {}

RPCConnection::~RPCConnection() = default;

bool RPCConnection::connect(Duration timeout, bool honour_close,
                            const std::shared_ptr<const TlsContext>& tls,
                            const std::string& server_name) {
  honour_close_ = honour_close;
  std::weak_ptr<RPCConnection> weak = weak_this_;
  socket_ = TcpSocket::connect(address_, timeout, [weak](bool ok) {
    if (std::shared_ptr<RPCConnection> self = weak.lock()) self->connected(ok);
  });
  if (socket_ && tls && !socket_->useTls(tls, server_name, timeout)) socket_.reset();
  if (!socket_) {
    state_ = State::kClosed;
    return false;
  }
  socket_->link(streamSource(), streamSink());
  return true;
}

void RPCConnection::detach() {
  owner_ = nullptr;
  if (state_ != State::kClosed && socket_) abort();
  state_ = State::kClosed;
}

void RPCConnection::connected(bool ok) {
  if (!ok || state_ != State::kConnecting) return;  // a failure is told by notifyClosed
  state_ = State::kReady;
  if (owner_ != nullptr) owner_->connectionUp(this);
}

void RPCConnection::notifyIncomingData(std::string* data) {
  notifyIncomingBytes(data->data(), data->size());
  data->clear();
}

size_t RPCConnection::notifyIncomingBytes(const char* data, size_t size) {
  // Read where the bytes lie, as RPCChannel's handler does.
  std::vector<HttpResponsePtr> answers;
  const bool parsed = parser_.parse(data, size, &answers);
  if (!answers.empty()) {
    answered_ = true;
    for (const HttpResponsePtr& answer : answers) {
      if (honour_close_ && state_ == State::kReady && asksToClose(*answer)) {
        state_ = State::kRetiring;
        if (owner_ != nullptr) owner_->connectionRetiring(this);
      }
    }
    if (owner_ != nullptr) owner_->answersArrived(this, answers);
  }
  // What follows an answer that cannot be read cannot be matched to a call.
  if (!parsed && state_ != State::kClosed) abort();
  return size;
}

void RPCConnection::notifyInputShutdown(std::string*) {
  // The server sends nothing more: the socket closes once our output is out.
}

void RPCConnection::notifyClosed() {
  if (state_ == State::kClosed && owner_ == nullptr) return;
  if (socket_) tls_error_ = socket_->tlsError();
  state_ = State::kClosed;
  if (RPCEndpoints* owner = owner_) {
    owner_ = nullptr;
    owner->connectionClosed(this);
  }
}

// ---------------------------------------------------------------------------
// RPCEndpoints

struct RPCEndpoints::Endpoint {
  SocketAddress address;
  // The connection that takes new calls, or is being made; null while
  // waiting to try again.
  std::shared_ptr<RPCConnection> connection;
  int failures = 0;  // attempts that failed in a row
  TimerHandle retry;
};

std::shared_ptr<RPCEndpoints> RPCEndpoints::create(const RPCTarget& target,
                                                   const RPCChannelOptions& options,
                                                   Listener* listener) {
  return std::shared_ptr<RPCEndpoints>(new RPCEndpoints(target, options, listener),
                                       LibEventThreadDeferredDeleter<RPCEndpoints>());
}

void RPCEndpoints::begin() {
  std::weak_ptr<RPCEndpoints> weak = weak_from_this();
  defer(makeWeakFunction(weak, std::bind(&RPCEndpoints::start, this)));
}

RPCEndpoints::RPCEndpoints(const RPCTarget& target, const RPCChannelOptions& options,
                           Listener* listener)
    : target_(target),
      options_(options),
      backoff_(options.reconnect_backoff, options.reconnect_backoff_max),
      listener_(listener),
      random_(std::random_device()()) {
  if (options.tls.enabled) {
    tls_context_ = loadTlsContext(options.tls, &tls_failure_);
    if (!tls_context_) tls_failure_ = "TLS: " + tls_failure_;
  }
}

RPCEndpoints::~RPCEndpoints() { stop(); }

void RPCEndpoints::stop() {
  listener_ = nullptr;
  resolve_timer_.cancel();
  for (std::unique_ptr<Endpoint>& endpoint : endpoints_) {
    endpoint->retry.cancel();
    if (endpoint->connection) endpoint->connection->detach();
  }
  for (std::shared_ptr<RPCConnection>& connection : retiring_) connection->detach();
  endpoints_.clear();
  retiring_.clear();
}

void RPCEndpoints::start() {
  std::vector<SocketAddress> literals;
  for (const RPCTarget::HostPort& host : target_.hosts) {
    SocketAddress address(host.host, host.port);
    if (!address.isValid()) {
      resolve();
      return;
    }
    literals.push_back(address);
  }
  setAddresses(literals, false);
}

void RPCEndpoints::resolve() {
  std::weak_ptr<RPCEndpoints> weak = weak_from_this();
  const std::vector<RPCTarget::HostPort> hosts = target_.hosts;
  const RPCChannelOptions::Resolver resolver = options_.resolver;
  auto work = [weak, hosts, resolver] {
    std::vector<SocketAddress> addresses;
    bool complete = true;
    for (const RPCTarget::HostPort& host : hosts) {
      SocketAddress literal(host.host, host.port);
      if (literal.isValid()) {
        addresses.push_back(literal);
        continue;
      }
      std::string error;
      std::vector<SocketAddress> found = resolver ? resolver(host.host, host.port, &error)
                                                  : systemResolve(host.host, host.port, &error);
      if (found.empty()) {
        complete = false;
        VANTU_LOG(2, "rpc", kSourceFile) << "Cannot resolve " << host.host << ": " << error;
      }
      addresses.insert(addresses.end(), found.begin(), found.end());
    }
    defer([weak, addresses, complete] {
      if (std::shared_ptr<RPCEndpoints> self = weak.lock()) self->resolved(addresses, complete);
    });
  };
  try {
    std::thread(work).detach();
  } catch (const std::system_error&) {
    // No thread to be had now: as if the names had no answer.
    resolved({}, false);
  }
}

void RPCEndpoints::resolved(const std::vector<SocketAddress>& addresses, bool complete) {
  if (listener_ == nullptr) return;
  // An answer with nothing in it (a resolver that is down) changes nothing.
  if (!addresses.empty()) setAddresses(addresses, target_.dns);
  Duration next;
  if (!complete || addresses.empty()) {
    ++resolve_failures_;
    if (addresses.empty()) listener_->resolveFailed();
    if (listener_ == nullptr) return;
    if (options_.reconnect) next = backoff_.delay(resolve_failures_, randomUnit());
  } else {
    resolve_failures_ = 0;
  }
  if (target_.dns && options_.resolve_interval > Duration() &&
      (next == Duration() || options_.resolve_interval < next)) {
    next = options_.resolve_interval;
  }
  if (next == Duration()) return;
  std::weak_ptr<RPCEndpoints> weak = weak_from_this();
  resolve_timer_ =
      scheduleDeferred(makeWeakFunction(weak, std::bind(&RPCEndpoints::resolve, this)), next);
}

void RPCEndpoints::setAddresses(const std::vector<SocketAddress>& addresses, bool remove_missing) {
  std::vector<SocketAddress> wanted;
  for (const SocketAddress& address : addresses) {
    if (std::find(wanted.begin(), wanted.end(), address) == wanted.end()) wanted.push_back(address);
  }
  if (remove_missing) {
    for (size_t i = 0; i < endpoints_.size();) {
      Endpoint& endpoint = *endpoints_[i];
      if (std::find(wanted.begin(), wanted.end(), endpoint.address) != wanted.end()) {
        ++i;
        continue;
      }
      endpoint.retry.cancel();
      if (endpoint.connection) {
        if (endpoint.connection->ready()) {
          retire(endpoint.connection.get());
        } else {
          endpoint.connection->detach();
        }
      }
      endpoints_.erase(endpoints_.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  for (const SocketAddress& address : wanted) {
    const bool known = std::any_of(endpoints_.begin(), endpoints_.end(), [&](const auto& endpoint) {
      return endpoint->address == address;
    });
    if (known) continue;
    endpoints_.push_back(std::make_unique<Endpoint>());
    endpoints_.back()->address = address;
    connectEndpoint(endpoints_.back().get());
  }
}

void RPCEndpoints::connectEndpoint(Endpoint* endpoint) {
  std::shared_ptr<RPCConnection> connection(new RPCConnection(this, endpoint->address),
                                            LibEventThreadDeferredDeleter<RPCConnection>());
  connection->weak_this_ = connection;
  endpoint->connection = connection;
  const bool tls = options_.tls.enabled;
  // Without its context no TLS connection can be made: every attempt fails
  // as one that was refused, and the calls hear why.
  if ((!tls || tls_context_) &&
      connection->connect(options_.connect_timeout, options_.reconnect, tls_context_,
                          tls ? serverName(endpoint->address) : std::string())) {
    return;
  }
  endpoint->connection.reset();
  ++endpoint->failures;
  if (options_.reconnect)
    scheduleConnect(endpoint, backoff_.delay(endpoint->failures, randomUnit()));
}

void RPCEndpoints::scheduleConnect(Endpoint* endpoint, Duration delay) {
  std::weak_ptr<RPCEndpoints> weak = weak_from_this();
  const SocketAddress address = endpoint->address;
  // Found again by its address when the time comes: re-resolution may have
  // let it go meanwhile (and then cancelled this).
  auto reconnect = [this, address] {
    for (std::unique_ptr<Endpoint>& endpoint : endpoints_) {
      if (endpoint->address == address && !endpoint->connection) connectEndpoint(endpoint.get());
    }
  };
  endpoint->retry = scheduleDeferred(makeWeakFunction(weak, reconnect), delay);
}

RPCEndpoints::Endpoint* RPCEndpoints::endpointOf(const RPCConnection* connection) {
  for (std::unique_ptr<Endpoint>& endpoint : endpoints_) {
    if (endpoint->connection.get() == connection) return endpoint.get();
  }
  return nullptr;
}

void RPCEndpoints::retire(RPCConnection* connection) {
  Endpoint* endpoint = endpointOf(connection);
  if (endpoint == nullptr) return;
  connection->state_ = RPCConnection::State::kRetiring;
  retiring_.push_back(std::move(endpoint->connection));
  // With nothing outstanding it has nothing to wait for; otherwise the channel
  // ends it once its calls are settled.
  if (connection->outstanding.load(std::memory_order_relaxed) == 0) connection->shutdown();
}

RPCConnection* RPCEndpoints::pick() {
  const size_t count = endpoints_.size();
  RPCConnection* best = nullptr;
  size_t best_index = 0;
  for (size_t k = 0; k < count; ++k) {
    const size_t i = (next_pick_ + k) % count;
    RPCConnection* connection = endpoints_[i]->connection.get();
    if (connection == nullptr || !connection->ready()) continue;
    if (best == nullptr || connection->outstanding.load(std::memory_order_relaxed) <
                               best->outstanding.load(std::memory_order_relaxed)) {
      best = connection;
      best_index = i;
    }
  }
  if (best != nullptr) next_pick_ = (best_index + 1) % count;
  return best;
}

std::vector<SocketAddress> RPCEndpoints::addresses() const {
  std::vector<SocketAddress> addresses;
  for (const std::unique_ptr<Endpoint>& endpoint : endpoints_) {
    addresses.push_back(endpoint->address);
  }
  return addresses;
}

bool RPCEndpoints::unreachable() const {
  if (endpoints_.empty()) return resolve_failures_ > 0;
  for (const std::unique_ptr<Endpoint>& endpoint : endpoints_) {
    if (endpoint->connection || endpoint->failures == 0) return false;
  }
  return true;
}

void RPCEndpoints::connectionUp(RPCConnection* connection) {
  tls_failure_.clear();
  if (listener_ != nullptr && endpointOf(connection) != nullptr) {
    listener_->connectionReady(connection);
  }
}

void RPCEndpoints::connectionRetiring(RPCConnection* connection) {
  Endpoint* endpoint = endpointOf(connection);
  if (endpoint == nullptr) return;
  retire(connection);
  // It answered, so the server was there: a new connection at once (refused
  // while the server restarts, and then retried after the backoff).
  endpoint->failures = 0;
  scheduleConnect(endpoint, Duration());
}

void RPCEndpoints::answersArrived(RPCConnection* connection,
                                  const std::vector<HttpResponsePtr>& answers) {
  if (listener_ != nullptr) listener_->answersArrived(connection, answers);
}

void RPCEndpoints::connectionClosed(RPCConnection* connection) {
  // Kept until the end of this function: the listener may still look at it.
  std::shared_ptr<RPCConnection> keep;
  auto retired = std::find_if(retiring_.begin(), retiring_.end(),
                              [&](const auto& entry) { return entry.get() == connection; });
  if (retired != retiring_.end()) {
    keep = std::move(*retired);
    retiring_.erase(retired);
  }
  Endpoint* endpoint = endpointOf(connection);
  if (endpoint != nullptr) {
    keep = std::move(endpoint->connection);
    endpoint->failures = connection->answered() ? 0 : endpoint->failures + 1;
    if (!connection->tlsError().empty()) {
      tls_failure_ = endpoint->address.toString() + ": " + connection->tlsError();
    }
  }
  if (listener_ != nullptr) listener_->connectionLost(connection);
  if (endpoint != nullptr && options_.reconnect && listener_ != nullptr) {
    scheduleConnect(endpoint, backoff_.delay(endpoint->failures, randomUnit()));
  }
}

std::string RPCEndpoints::serverName(const SocketAddress& address) const {
  if (!options_.tls.server_name.empty()) return options_.tls.server_name;
  // The host it was named by: an IP literal is its own name; an address a
  // name resolved to proves that name (with several names, the first).
  std::string name;
  for (const RPCTarget::HostPort& host : target_.hosts) {
    SocketAddress literal(host.host, host.port);
    if (literal.isValid()) {
      if (literal == address) return host.host;
    } else if (name.empty()) {
      name = host.host;
    }
  }
  return name;
}

double RPCEndpoints::randomUnit() {
  return std::uniform_real_distribution<double>(0.0, 1.0)(random_);
}

}  // namespace relay
}  // namespace vantu
