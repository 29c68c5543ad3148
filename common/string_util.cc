#include "common/string_util.h"

#include <cstdio>

namespace vantu {

std::string stringVPrintf(const char* format, va_list args) {
  char stack_buffer[256];
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(stack_buffer, sizeof(stack_buffer), format, copy);
  va_end(copy);
  if (length < 0) return std::string();
  if (static_cast<size_t>(length) < sizeof(stack_buffer)) {
    return std::string(stack_buffer, length);
  }
  std::string result(length, '\0');
  va_copy(copy, args);
  vsnprintf(&result[0], length + 1, format, copy);
  va_end(copy);
  return result;
}

std::string stringPrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string result = stringVPrintf(format, args);
  va_end(args);
  return result;
}

namespace {

// Accumulates the digits of text[start..] into *out; false on no digits, a
// non-digit, or a value above limit.
bool parseDigits(const std::string& text, size_t start, uint64_t limit, uint64_t* out) {
  if (start >= text.size()) return false;
  uint64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    unsigned char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
    if (value > limit) return false;
  }
  *out = value;
  return true;
}

}  // namespace

bool ParseInt(const std::string& text, int* value) {
  bool negative = !text.empty() && text[0] == '-';
  size_t start = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
  uint64_t magnitude;
  uint64_t limit = negative ? 2147483648ULL : 2147483647ULL;
  if (!parseDigits(text, start, limit, &magnitude)) return false;
  *value =
      negative ? static_cast<int>(-static_cast<int64_t>(magnitude)) : static_cast<int>(magnitude);
  return true;
}

bool ParseUInt32(const std::string& text, uint32_t* value) {
  uint64_t parsed;
  if (!parseDigits(text, 0, 0xFFFFFFFFULL, &parsed)) return false;
  *value = static_cast<uint32_t>(parsed);
  return true;
}

}  // namespace vantu
