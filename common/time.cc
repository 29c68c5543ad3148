#include "common/time.h"

#include <ctime>

namespace vantu {

Time Time::now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return Time::fromMicroseconds(static_cast<uint64_t>(ts.tv_sec) * 1000000 +
                                static_cast<uint64_t>(ts.tv_nsec) / 1000);
}

}  // namespace vantu
