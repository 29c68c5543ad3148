#ifndef COMMON_EVENT_THREAD_CHECK_H_
#define COMMON_EVENT_THREAD_CHECK_H_

#include "common/event_thread.h"
#include "common/logging.h"

// VANTU_DCHECK_ON_EVENT_THREAD(file), at the top of an operation that only the
// event thread may run: in debug builds (NDEBUG not defined), a call on any
// other thread writes a level 1 "check" record, "Check failed
// isEventThread() ", under `file` and the function's signature, as the
// library's other checks do, and the operation goes on: it is never fatal.
// Release builds compile it to nothing.
#ifndef NDEBUG
#define VANTU_DCHECK_ON_EVENT_THREAD(file)                              \
  do {                                                                  \
    if (!::vantu::isEventThread()) {                                    \
      VANTU_LOG(1, "check", (file)) << "Check failed isEventThread() "; \
    }                                                                   \
  } while (false)
#else
#define VANTU_DCHECK_ON_EVENT_THREAD(file) \
  do {                                     \
  } while (false)
#endif

#endif  // COMMON_EVENT_THREAD_CHECK_H_
