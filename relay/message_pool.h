#ifndef RELAY_MESSAGE_POOL_H_
#define RELAY_MESSAGE_POOL_H_

#include <map>
#include <memory>
#include <string>

#include "common/memory_policy.h"
#include "relay/http_message.h"

namespace vantu {
namespace relay {

// Messages a thread is done with, kept for its next ones: the object, the
// nodes of its header map and the capacity of their strings. Making a
// request or a response then costs no allocation in the steady state of a
// connection, where the last request's memory serves the next.
//
// Each thread that makes messages has its own pool (the event thread, in a
// server); a message whose last reference is dropped on another thread is
// simply deleted. Pools are bounded, and large buffers are never kept: a
// request with a million headers or a 100 MB body leaves nothing pinned
// (common/memory_policy.h has the bounds).
//
// What comes out is indistinguishable from a newly constructed message.
namespace message_pool {

// A thread's pool. Opaque; only the thread that got it may use it.
class Pool;
// This thread's pool, made on first use; null once the thread is ending.
// Callers that make many messages or headers in a row fetch it once.
Pool* threadPool();

// A request as its default constructor makes it, owned by the caller.
HttpRequest* newRequest(Pool* pool = threadPool());
// A request for a reader to fill, owned by the caller: as newRequest makes it,
// except that its headers and its url may still hold those of the request it
// was before. The reader stores the new request's fields through a
// HeaderRefill and calls its finish(), and sets its url
// (resolveAbsoluteTarget, resolveUrlFromHost), before anyone else sees the
// request.
HttpRequest* newRequestToFill(Pool* pool = threadPool());
// A response as its default constructor makes it, owned by the caller.
HttpResponse* newResponse(Pool* pool = threadPool());

// Shared pointers whose deleter gives the message back to the pool of the
// thread that drops the last reference (or deletes it there, if that thread
// has none). Their control blocks come from the pool too.
HttpRequestPtr adopt(HttpRequest* request);
HttpResponsePtr adopt(HttpResponse* response);

// Stores `value` under `name`, as headers.insert_or_assign would, reusing a
// pooled node when there is one. `hint` as for std::map::insert.
using Headers = std::map<std::string, std::string>;
Headers::iterator setHeader(Pool* pool, Headers* headers, Headers::const_iterator hint,
                            const char* name, size_t name_length, const char* value,
                            size_t value_length);

// Stores the header fields of a request from newRequestToFill over the fields
// its headers still hold, which keeps a reader's steady state free of map
// insertions and removals: a client's next request mostly carries the names
// of its last one (an RPC client's always do), and for each of those only the
// value is copied. finish() takes out the old fields no new one replaced, so
// that the headers then hold exactly what was stored, as setHeader would have
// left them.
//
// Owned by a reader, as a member; used on the reader's thread only.
class HeaderRefill {
 public:
  HeaderRefill() = default;
  HeaderRefill(const HeaderRefill&) = delete;
  HeaderRefill& operator=(const HeaderRefill&) = delete;

  // The fields `headers` holds now are old ones, to be replaced or taken out.
  // Past memory_policy::kMaxRefilledHeaders of them, the rest are taken out
  // now.
  void start(Pool* pool, Headers* headers);
  // As setHeader(pool, headers, headers->end(), ...), on the headers given to
  // start().
  Headers::iterator store(Pool* pool, Headers* headers, const char* name, size_t name_length,
                          const char* value, size_t value_length);
  // Takes out of `headers` (those given to start()) the old fields that no
  // stored one replaced, giving their nodes to the pool.
  void finish(Pool* pool, Headers* headers);
  // Whether `field` is an old field that nothing replaced yet.
  bool isOld(Headers::const_iterator field) const;

 private:
  // The old fields not replaced yet, in no particular order.
  Headers::iterator old_[memory_policy::kMaxRefilledHeaders];
  size_t old_count_ = 0;
};

}  // namespace message_pool
}  // namespace relay
}  // namespace vantu

#endif  // RELAY_MESSAGE_POOL_H_
