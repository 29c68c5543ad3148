#ifndef RELAY_URL_ESCAPE_H_
#define RELAY_URL_ESCAPE_H_

#include <string>

namespace vantu {
namespace relay {

// Percent-escaping of URL components. Free functions without state: callable
// from any thread.

// Returns `text` escaped for use as one URI component: ASCII letters, digits
// and - _ . ! ~ * ' ( ) stay, every other byte becomes "%" and two upper-case
// hexadecimal digits (a blank becomes %20).
std::string urlEscape(const std::string& text);

// Decodes `*text` in place: "+" becomes a blank and "%" followed by two
// hexadecimal digits (either case) becomes the byte they give; any other byte,
// a "%" without two hexadecimal digits after it included, is kept. A byte that
// comes out of an escape is never decoded again. The result ends before the
// first NUL, whether the input held it or an escape (%00) produced it.
void urlUnescape(std::string* text);

// Returns a decoded copy of `text`, as the in-place form would produce it.
std::string urlUnescape(const std::string& text);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_URL_ESCAPE_H_
