#include "relay/http_line_match.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

namespace vantu {
namespace relay {
namespace {

// PCRE's "." without options matches any byte but a line feed.
inline bool dotMatches(char c) { return c != '\n'; }

inline bool noLineFeed(const char* data, size_t size) {
  return memchr(data, '\n', size) == nullptr;
}

}  // namespace

bool matchRequestLine(const std::string& line, std::string* method, std::string* target) {
  size_t method_length;
  size_t target_begin;
  size_t target_length;
  if (!matchRequestLineAt(line, &method_length, &target_begin, &target_length)) return false;
  method->assign(line, 0, method_length);
  target->assign(line, target_begin, target_length);
  return true;
}

bool matchRequestLineAt(const std::string& line, size_t* method_length, size_t* target_begin,
                        size_t* target_length) {
  const char* data = line.data();
  const size_t size = line.size();
  // The method: capital letters up to the first blank.
  size_t i = 0;
  while (i < size && data[i] >= 'A' && data[i] <= 'Z') ++i;
  if (i == size || data[i] != ' ') return false;
  const size_t method_end = i;
  // The target cannot hold a blank, so it ends at the next one, and exactly
  // " HTTP/1" + any byte + "0" or "1" must follow.
  const char* blank = static_cast<const char*>(memchr(data + i + 1, ' ', size - i - 1));
  if (blank == nullptr) return false;
  const size_t target_start = i + 1;
  const size_t target_end = blank - data;
  if (size - target_end != 9) return false;
  const char* version = blank + 1;
  if (memcmp(version, "HTTP/1", 6) != 0 || !dotMatches(version[6]) ||
      (version[7] != '0' && version[7] != '1')) {
    return false;
  }
  *method_length = method_end;
  *target_begin = target_start;
  *target_length = target_end - target_start;
  return true;
}

bool matchStatusLine(const std::string& line, int* code, std::string* reason) {
  const char* data = line.data();
  const size_t size = line.size();
  if (size < 10 || memcmp(data, "HTTP/1", 6) != 0 || !dotMatches(data[6]) || data[7] < '0' ||
      data[7] > '9' || data[8] != ' ') {
    return false;
  }
  size_t i = 9;
  int64_t value = 0;
  bool overflow = false;
  while (i < size && data[i] >= '0' && data[i] <= '9') {
    if (!overflow) {
      value = value * 10 + (data[i] - '0');
      overflow = value > INT_MAX;
    }
    ++i;
  }
  if (i == 9 || i == size || data[i] != ' ' || overflow) return false;
  if (!noLineFeed(data + i + 1, size - i - 1)) return false;
  *code = static_cast<int>(value);
  reason->assign(data + i + 1, size - i - 1);
  return true;
}

bool matchHeaderLine(const std::string& line, size_t* name_length, size_t* value_start) {
  if (!matchHeaderLineWithoutLineFeed(line.data(), line.size(), name_length, value_start)) {
    return false;
  }
  // The name may hold any byte but a colon, a line feed included; the value
  // (".*") no line feed.
  return noLineFeed(line.data() + *value_start, line.size() - *value_start);
}

bool matchHeaderLineWithoutLineFeed(const char* data, size_t size, size_t* name_length,
                                    size_t* value_start) {
  const char* colon = static_cast<const char*>(memchr(data, ':', size));
  if (colon == nullptr) return false;
  const size_t colon_at = colon - data;
  if (colon_at + 1 >= size || data[colon_at + 1] != ' ') return false;
  *name_length = colon_at;
  *value_start = colon_at + 2;
  return true;
}

HttpMethod httpMethodFromName(const char* name, size_t length) {
  // Within a case, every candidate has the name's length.
  auto is = [name, length](const char* candidate) { return memcmp(name, candidate, length) == 0; };
  switch (length) {
    case 3:
      if (is("GET")) return kHttpGet;
      if (is("PUT")) return kHttpPut;
      break;
    case 4:
      if (is("POST")) return kHttpPost;
      if (is("HEAD")) return kHttpHead;
      break;
    case 5:
      if (is("TRACE")) return kHttpTrace;
      break;
    case 6:
      if (is("DELETE")) return kHttpDelete;
      break;
    case 7:
      if (is("OPTIONS")) return kHttpOptions;
      break;
    default:
      break;
  }
  return kHttpUnknown;
}

}  // namespace relay
}  // namespace vantu
