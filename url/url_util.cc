#include "url/url_util.h"

namespace url_util {
namespace {

bool passesUnescaped(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-':
    case '_':
    case '.':
    case '!':
    case '~':
    case '*':
    case '\'':
    case '(':
    case ')':
      return true;
    default:
      return false;
  }
}

}  // namespace

void EncodeURIComponent(const char* input, int length, url_canon::CanonOutput* output) {
  static const char kHexDigits[] = "0123456789ABCDEF";
  for (int i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(input[i]);
    if (passesUnescaped(c)) {
      output->push_back(static_cast<char>(c));
    } else {
      const char escaped[3] = {'%', kHexDigits[c >> 4], kHexDigits[c & 0xF]};
      output->Append(escaped, 3);
    }
  }
}

}  // namespace url_util
