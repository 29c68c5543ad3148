#ifndef RELAY_HTTP_LINE_MATCH_H_
#define RELAY_HTTP_LINE_MATCH_H_

#include <cstddef>
#include <string>

#include "relay/http_message.h"

namespace vantu {
namespace relay {

// Hand-written matchers for the three fixed line patterns of HTTP/1.x. Each one
// accepts exactly what pcrecpp's FullMatch of its pattern (default options)
// accepts and captures the same text; they exist because they are several times
// faster than running PCRE once per line. A differential test and the parser
// fuzzers hold them to that.

// "([A-Z]*) ([^ ]*) HTTP/1.[0-1]"
bool matchRequestLine(const std::string& line, std::string* method, std::string* target);
// The same match, giving where the two captures lie instead of copies.
bool matchRequestLineAt(const std::string& line, size_t* method_length, size_t* target_begin,
                        size_t* target_length);

// "HTTP/1.[0-9] ([0-9]*) (.*)" with the code captured into an int (no digits, or
// a value that does not fit an int, is no match).
bool matchStatusLine(const std::string& line, int* code, std::string* reason);

// "([^:]*): (.*)": the name is everything before the first colon, which must be
// followed by a blank; the value is the rest. Returns the split by position.
bool matchHeaderLine(const std::string& line, size_t* name_length, size_t* value_start);
// The same for a line known to hold no line feed, as every line the parser
// splits off is.
bool matchHeaderLineWithoutLineFeed(const char* data, size_t size, size_t* name_length,
                                    size_t* value_start);

// httpMethodFromName of the `length` bytes at `name`, without making a string
// of them.
HttpMethod httpMethodFromName(const char* name, size_t length);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_LINE_MATCH_H_
