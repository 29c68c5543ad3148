#ifndef RELAY_DRAIN_GOODBYE_H_
#define RELAY_DRAIN_GOODBYE_H_

#include <atomic>

#include "common/time.h"
#include "relay/http_message.h"

namespace vantu {
namespace relay {

// How one connection says goodbye while its server drains, the HTTP/1.1 way:
// every answer carries "Connection: close"; a request that arrives is not run
// but answered (an RPC with a failure that says it was not run, so that the
// client may send it elsewhere; a plain request with 503); and the
// connection closes once it owes nothing and the client has either ended its
// side or sent nothing for kQuietPeriod. The wait lets the requests that
// were already on their way when the client read its first "Connection:
// close" arrive and be answered, instead of being lost with the connection.
//
// A member of its connection. begin() and the event-thread queries on the
// event thread; active() from any thread (answers are written from the
// thread that completes them).
class DrainGoodbye {
 public:
  static constexpr Duration kQuietPeriod = Duration::milliseconds(250);

  // The drain has begun.
  void begin(Time now);
  bool active() const { return active_.load(std::memory_order_acquire); }
  // A request arrived. Event thread.
  void heard(Time now) { last_heard_ = now; }
  // The client has sent nothing for kQuietPeriod. Event thread.
  bool quiet(Time now) const { return now - last_heard_ >= kQuietPeriod; }

  // Makes `response` the answer to `request` that arrived while draining.
  static void refuse(const HttpRequest& request, HttpResponse* response);
  // Makes `response` close the connection after it.
  static void markClosing(HttpResponse* response);

 private:
  std::atomic<bool> active_{false};
  Time last_heard_;  // event thread only
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_DRAIN_GOODBYE_H_
