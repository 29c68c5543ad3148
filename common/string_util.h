#ifndef COMMON_STRING_UTIL_H_
#define COMMON_STRING_UTIL_H_

#include <cstdarg>
#include <cstdint>
#include <string>

namespace vantu {

// printf into a std::string. The result holds everything the format produced,
// embedded NULs included.
std::string stringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string stringVPrintf(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// Parses an optionally signed decimal integer that fits an int: the whole text,
// no blanks. Returns false and leaves *value alone otherwise.
bool ParseInt(const std::string& text, int* value);

// Parses an unsigned decimal number that fits 32 bits: one or more digits and
// nothing else (no sign, no blanks). Returns false and leaves *value alone
// otherwise.
bool ParseUInt32(const std::string& text, uint32_t* value);

}  // namespace vantu

#endif  // COMMON_STRING_UTIL_H_
