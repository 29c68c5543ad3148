#ifndef RELAY_ANSWER_HEAD_H_
#define RELAY_ANSWER_HEAD_H_

#include <string>

#include "relay/http_message.h"

namespace vantu {
namespace relay {

// Replaces *out with the status line and header block of `response`, ended
// by the blank line, exactly as HttpResponse::outputHeader writes them; it changes
// the response as outputHeader does (status_string filled from the table when
// empty, "Content-Length" stored).
//
// With `date`, the text carries "Date: <date>" among the headers in its byte
// order place, in place of any Date the response holds, without storing it in
// the response: the answers of a server that dates them then cost no header
// insert and no release of it.
//
// With `with_length` false (a streamed answer, whose length is not known),
// no Content-Length is stored or written; the caller removes any the response
// holds. Any thread; the caller owns both objects.
void writeAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                     bool with_length = true);

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_ANSWER_HEAD_H_
