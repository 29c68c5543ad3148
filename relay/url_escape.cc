#include "relay/url_escape.h"

#include <algorithm>
#include <cctype>

#include "url/url_canon.h"
#include "url/url_util.h"

namespace vantu {
namespace relay {
namespace {

// The escaping routine counts in int and triples the length at worst, so very
// long texts go through in slices of this size. Escaping looks at one byte at
// a time, so slicing does not change the result.
constexpr size_t kEscapeSlice = 256 << 20;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

}  // namespace

std::string urlEscape(const std::string& text) {
  url_canon::RawCanonOutputT<char, 1024> output;
  std::string escaped;
  for (size_t begin = 0; begin < text.size(); begin += kEscapeSlice) {
    const size_t length = std::min(kEscapeSlice, text.size() - begin);
    output.clear();
    url_util::EncodeURIComponent(text.data() + begin, static_cast<int>(length), &output);
    escaped.append(output.data(), output.length());
  }
  return escaped;
}

void urlUnescape(std::string* text) {
  std::string& s = *text;
  const size_t size = s.size();
  // Writing never overtakes reading, so decoding in place is safe and a
  // decoded byte is never read again.
  size_t read = 0;
  size_t write = 0;
  while (read < size && s[read] != '\0') {
    const char c = s[read];
    if (c == '+') {
      s[write++] = ' ';
      read += 1;
    } else if (c == '%' && read + 2 < size && isHexDigit(s[read + 1]) && isHexDigit(s[read + 2])) {
      const char decoded = static_cast<char>(hexValue(s[read + 1]) * 16 + hexValue(s[read + 2]));
      // An escaped NUL ends the result: nothing after it would survive.
      if (decoded == '\0') break;
      s[write++] = decoded;
      read += 3;
    } else {
      s[write++] = c;
      read += 1;
    }
  }
  s.resize(write);
}

std::string urlUnescape(const std::string& text) {
  std::string copy = text;
  urlUnescape(&copy);
  return copy;
}

}  // namespace relay
}  // namespace vantu
