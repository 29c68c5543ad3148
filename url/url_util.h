#ifndef URL_URL_UTIL_H_
#define URL_URL_UTIL_H_

#include "url/url_canon.h"

namespace url_util {

// Appends `input[0, length)` to `*output` escaped for use as one URI component
// (a path segment, a query key or value): ASCII letters, digits and
// - _ . ! ~ * ' ( ) are copied, every other byte is written as "%" and two
// upper-case hexadecimal digits. Bytes are bytes: no character set is assumed.
// A length of 0 or less appends nothing. Thread-safe: touches only `*output`.
void EncodeURIComponent(const char* input, int length, url_canon::CanonOutput* output);

}  // namespace url_util

#endif  // URL_URL_UTIL_H_
