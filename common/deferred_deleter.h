#ifndef COMMON_DEFERRED_DELETER_H_
#define COMMON_DEFERRED_DELETER_H_

#include <functional>

#include "common/event_thread.h"

namespace vantu {

// Deletes `p` (through its virtual destructor where it has one); nothing for
// null. This is what runs on the event thread.
template <typename T>
void libeventThreadDeferredDeleteDoDelete(T* p) {
  if (p != nullptr) delete p;
}

// Queues the deletion of `p` on the event thread and returns at once, on any
// thread. Always queued, even on the event thread and even for null, so the
// destructor never runs inside the caller's frame.
template <typename T>
void libeventThreadDeferredDelete(T* p) {
  defer(std::function<void()>([p] { libeventThreadDeferredDeleteDoDelete<T>(p); }));
}

// Deleter for std::shared_ptr<T> of objects that the event thread may still be
// using: the last reference may be dropped on any thread, and the destructor
// then runs later on the event thread. Weak references expire at once, before
// the destructor runs. Stateless; any thread.
template <typename T>
struct LibEventThreadDeferredDeleter {
  void operator()(T* p) const { libeventThreadDeferredDelete<T>(p); }
};

}  // namespace vantu

#endif  // COMMON_DEFERRED_DELETER_H_
