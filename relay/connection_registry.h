#ifndef RELAY_CONNECTION_REGISTRY_H_
#define RELAY_CONNECTION_REGISTRY_H_

#include <cstddef>
#include <unordered_set>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/time.h"

namespace vantu {
namespace relay {

class HttpConnectionHandler;

// The open connections of one server, for what concerns them all: the sweep
// that ends connections whose time ran out, and the drain that ends them all.
//
// Owned by the server's HttpServerImpl, so it outlives every connection.
// Connections join when they are made and leave when they close, on the event
// thread, which is also where the sweep and the drain's steps run;
// waitUntilEmpty() may be called from any thread.
class ConnectionRegistry {
 public:
  // `sweep_period`: how often deadlines are checked; zero for never.
  explicit ConnectionRegistry(Duration sweep_period);
  ~ConnectionRegistry();
  ConnectionRegistry(const ConnectionRegistry&) = delete;
  ConnectionRegistry& operator=(const ConnectionRegistry&) = delete;

  // Event thread.
  void add(HttpConnectionHandler* connection);
  void remove(HttpConnectionHandler* connection);
  // Tells every connection to finish what it owes and close; connections are
  // not made any more by then (the listener has stopped). From then on the
  // connections are looked at often enough to close when they are done.
  void startDrain();
  // Ends every stream cleanly; their connections close once that is written.
  void endStreams();
  // Closes every connection still open at once.
  void abortAll();

  // Any thread. Waits until no connection is open, or `deadline`; true when none is. Not
  // on the event thread, which the connections need in order to close.
  bool waitUntilEmpty(Time deadline);

 private:
  void scheduleSweep();
  void sweep();

  // Constant after construction.
  const Duration sweep_period_;

  mutable Mutex mutex_;
  ConditionVariable changed_;
  std::unordered_set<HttpConnectionHandler*> connections_ VANTU_GUARDED_BY(mutex_);

  // Event thread only.
  bool draining_ = false;
  bool sweep_scheduled_ = false;
  TimerHandle sweep_timer_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_CONNECTION_REGISTRY_H_
