#include "relay/http_date.h"

#include <cstdio>

#include "common/fast_thread_local.h"

namespace vantu {
namespace relay {

std::string formatHttpDate(time_t when) {
  // Written by hand: strftime's names follow the process's locale.
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  tm fields;
  gmtime_r(&when, &fields);
  char buffer[40];
  snprintf(buffer, sizeof(buffer), "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[fields.tm_wday],
           fields.tm_mday, kMonths[fields.tm_mon], fields.tm_year + 1900, fields.tm_hour,
           fields.tm_min, fields.tm_sec);
  return buffer;
}

const std::string& httpDate() {
  VANTU_FAST_THREAD_LOCAL time_t last = -1;
  VANTU_FAST_THREAD_LOCAL std::string text;
  const time_t now = time(nullptr);
  if (now != last) {
    text = formatHttpDate(now);
    last = now;
  }
  return text;
}

}  // namespace relay
}  // namespace vantu
