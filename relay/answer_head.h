#ifndef RELAY_ANSWER_HEAD_H_
#define RELAY_ANSWER_HEAD_H_

#include <string>

#include "relay/http_message.h"

namespace vantu {
namespace relay {

// Replaces *out with the status line and header block of `response`, ended
// by the blank line: the bytes HttpResponse::outputHeader writes. Unlike
// outputHeader it stores nothing in the response: the reason phrase of an
// empty status_string is taken from the table, and "Content-Length: <size of
// content>" is written in its byte order place among the headers, in place
// of any Content-Length the response holds, without being stored. A server's
// answers then cost no header insert and no release of it.
//
// With `date`, the text carries "Date: <date>" likewise, in place of any Date
// the response holds.
//
// With `with_length` false (a streamed answer, whose length is not known),
// no Content-Length is written of its own; the caller removes any the
// response holds. Any thread; the caller owns both objects.
void writeAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                     bool with_length = true);

// writeAnswerHead, but appending to *out instead of replacing it: a
// connection that gathers the answers of one read writes each head where it
// goes, rather than into a buffer of its own first and copying it over.
void appendAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                      bool with_length = true);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_ANSWER_HEAD_H_
