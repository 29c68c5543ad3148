#include "relay/connection_registry.h"

#include <vector>

#include "common/event_thread_check.h"
#include "relay/http_server.h"

namespace vantu {
namespace relay {

ConnectionRegistry::ConnectionRegistry(Duration sweep_period) : sweep_period_(sweep_period) {}

ConnectionRegistry::~ConnectionRegistry() { sweep_timer_.cancel(); }

void ConnectionRegistry::add(HttpConnectionHandler* connection) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  {
    MutexLock lock(mutex_);
    connections_.insert(connection);
  }
  scheduleSweep();
}

void ConnectionRegistry::remove(HttpConnectionHandler* connection) {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  MutexLock lock(mutex_);
  if (connections_.erase(connection) != 0 && connections_.empty()) changed_.notifyAll();
}

void ConnectionRegistry::startDrain() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  draining_ = true;
  scheduleSweep();
  std::vector<HttpConnectionHandler*> connections;
  {
    MutexLock lock(mutex_);
    connections.assign(connections_.begin(), connections_.end());
  }
  // Nothing here closes a connection on the spot (that happens in the
  // socket's own callbacks), so every pointer stays good through the loop.
  for (HttpConnectionHandler* connection : connections) connection->beginDrain();
}

void ConnectionRegistry::endStreams() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  std::vector<HttpConnectionHandler*> connections;
  {
    MutexLock lock(mutex_);
    connections.assign(connections_.begin(), connections_.end());
  }
  // As in startDrain: nothing closes on the spot.
  for (HttpConnectionHandler* connection : connections) connection->endStreams();
}

void ConnectionRegistry::abortAll() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  std::vector<HttpConnectionHandler*> connections;
  {
    MutexLock lock(mutex_);
    connections.assign(connections_.begin(), connections_.end());
  }
  for (HttpConnectionHandler* connection : connections) connection->abort();
}

bool ConnectionRegistry::waitUntilEmpty(Time deadline) {
  MutexLock lock(mutex_);
  while (!connections_.empty()) {
    if (!changed_.timedWaitAbsolute(mutex_, deadline) && Time::now() >= deadline) break;
  }
  return connections_.empty();
}

void ConnectionRegistry::scheduleSweep() {
  Duration period = sweep_period_;
  // A draining connection closes a quiet period after the client's last
  // request: looked at a few times within it.
  const Duration drain_period =
      Duration::microseconds(DrainGoodbye::kQuietPeriod.toMicroseconds() / 4);
  if (draining_ && (period <= Duration() || drain_period < period)) period = drain_period;
  if (period <= Duration() || sweep_scheduled_) return;
  sweep_scheduled_ = true;
  // Cancelled by the destructor, which runs on the event thread too: the
  // sweep never meets a registry that is gone.
  sweep_timer_ = scheduleDeferred([this] { sweep(); }, period);
}

void ConnectionRegistry::sweep() {
  VANTU_DCHECK_ON_EVENT_THREAD("relay/connection_registry");
  sweep_scheduled_ = false;
  std::vector<HttpConnectionHandler*> connections;
  {
    MutexLock lock(mutex_);
    if (connections_.empty()) return;
    connections.assign(connections_.begin(), connections_.end());
  }
  const Time now = Time::now();
  for (HttpConnectionHandler* connection : connections) connection->checkDeadline(now);
  scheduleSweep();
}

}  // namespace relay
}  // namespace vantu
