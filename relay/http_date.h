#ifndef RELAY_HTTP_DATE_H_
#define RELAY_HTTP_DATE_H_

#include <ctime>
#include <string>

namespace vantu {
namespace relay {

// `when` (seconds since the epoch) in the IMF-fixdate form of the Date header:
// "Sun, 06 Nov 1994 08:49:37 GMT". The day and month names are English
// whatever the process's locale. Any thread.
std::string formatHttpDate(time_t when);

// The current second as formatHttpDate writes it. Each thread keeps the last
// text it made, so that answers within one second share one formatting; the
// reference stays valid on this thread until its next call.
const std::string& httpDate();

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_DATE_H_
