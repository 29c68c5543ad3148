#include "relay/handler_match.h"

#include <cstring>

namespace vantu {
namespace relay {
namespace {

// The characters that mean something to PCRE in a pattern.
const char kPcreSpecial[] = "\\^$.|?*+()[]{}";

}  // namespace

HandlerPattern::HandlerPattern(const std::string& regex)
    : regex_(regex),
      pattern_(regex),
      literal_(regex.find_first_of(kPcreSpecial) == std::string::npos &&
               regex.find('\0') == std::string::npos) {}

std::string HandlerPattern::literal(const std::string& path) {
  std::string pattern;
  for (char c : path) {
    if (strchr(kPcreSpecial, c) != nullptr && c != '\0') pattern += '\\';
    pattern += c;
  }
  return pattern;
}

}  // namespace relay
}  // namespace vantu
