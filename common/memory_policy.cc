#include "common/memory_policy.h"

#include <algorithm>
#include <mutex>

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

void keepLargeBuffers() {
#ifdef __GLIBC__
  static std::once_flag once;
  std::call_once(once, [] {
    // The trim threshold first: setting either one fixes both (glibc stops
    // adapting them), and the mmap threshold is then set explicitly.
    mallopt(M_TRIM_THRESHOLD, static_cast<int>(kKeptHeapTop));
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(kLargestHeapBlock));
  });
#endif
}

void reserveBodyAhead(std::string* body, uint64_t declared) {
  if (declared > kLargeRequestBytes) keepLargeBuffers();
  body->reserve(static_cast<size_t>(std::min<uint64_t>(declared, kLargestBodyReservedAhead)));
}

void growBody(std::string* body, size_t needed, uint64_t declared) {
  uint64_t wanted = uint64_t{kBodyGrowthFactor} * needed;
  // Past half the declared length, the next step would re-copy most of the
  // body: the whole of it is taken now instead.
  if (wanted >= declared / 2) wanted = declared;
  wanted = std::max<uint64_t>(wanted, needed);
  // libstdc++ rounds a reserve that less than doubles the capacity up to the
  // double: a fresh string reserves exactly.
  std::string grown;
  grown.reserve(static_cast<size_t>(wanted));
  grown.append(*body);
  body->swap(grown);
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
