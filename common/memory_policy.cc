#include "common/memory_policy.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "common/mutex.h"

namespace vantu {
namespace memory_policy {

bool TrimSchedule::due(Clock::time_point now) {
  if (trimmed_ && now - last_ < kTrimInterval) return false;
  trimmed_ = true;
  last_ = now;
  return true;
}

void releaseFreeMemory() {
#ifdef __GLIBC__
  // The process's one schedule. Made once and never destroyed: large
  // requests may still be freed while static destructors run.
  struct Trimmer {
    Mutex mutex;
    TrimSchedule schedule VANTU_GUARDED_BY(mutex);
  };
  static Trimmer* const trimmer = new Trimmer;
  {
    MutexLock lock(trimmer->mutex);
    if (!trimmer->schedule.due(TrimSchedule::Clock::now())) return;
  }
  malloc_trim(0);
#endif
}

}  // namespace memory_policy
}  // namespace vantu
