#include "relay/answer_head.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "relay/message_pool.h"

namespace vantu {
namespace relay {
namespace {

// Calls visit(name, value) for every header line of the text, in byte order of
// the names, with `date` (when given) in place of the response's own Date.
template <typename Visit>
inline void forEachLine(const message_pool::Headers& headers, const std::string* date,
                        Visit visit) {
  if (date == nullptr) {
    for (const auto& header : headers) visit(header.first, header.second);
    return;
  }
  static constexpr std::string_view kDate = "Date";
  bool date_due = true;
  for (const auto& header : headers) {
    if (date_due) {
      const int order = std::string_view(header.first).compare(kDate);
      if (order >= 0) {
        visit(kDate, std::string_view(*date));
        date_due = false;
        if (order == 0) continue;
      }
    }
    visit(std::string_view(header.first), std::string_view(header.second));
  }
  if (date_due) visit(kDate, std::string_view(*date));
}

}  // namespace

void writeAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                     bool with_length) {
  std::string& status_string = response->status_string;
  if (status_string.empty()) status_string = HttpResponse::getStatusString(response->status_code);
  // "HTTP/1.1 %d %s\r\n" written in place: %s stops at a NUL.
  char number[16];
  const char* number_end =
      std::to_chars(number, number + sizeof(number), static_cast<int>(response->status_code)).ptr;
  const size_t phrase_length = strnlen(status_string.data(), status_string.size());
  if (with_length) {
    char length[16];
    const char* length_end =
        std::to_chars(length, length + sizeof(length), static_cast<int>(response->content.size()))
            .ptr;
    static const char kContentLength[] = "Content-Length";
    message_pool::setHeader(message_pool::threadPool(), &response->headers, response->headers.end(),
                            kContentLength, sizeof(kContentLength) - 1, length,
                            length_end - length);
  }
  size_t size = 9 + (number_end - number) + 1 + phrase_length + 2 + 2;
  forEachLine(response->headers, date, [&size](std::string_view name, std::string_view value) {
    size += name.size() + value.size() + 4;
  });
  // Sized once and filled in place: no growth, no per-piece bookkeeping (and
  // a kept buffer that held an answer of the same size is not even resized).
  out->resize(size);
  char* at = &(*out)[0];
  auto put = [&at](const char* data, size_t length) {
    memcpy(at, data, length);
    at += length;
  };
  // The separators byte by byte: a call to memcpy per two bytes would cost
  // more than the bytes.
  auto put2 = [&at](char first, char second) {
    at[0] = first;
    at[1] = second;
    at += 2;
  };
  put("HTTP/1.1 ", 9);
  put(number, number_end - number);
  *at++ = ' ';
  put(status_string.data(), phrase_length);
  put2('\r', '\n');
  forEachLine(response->headers, date, [&](std::string_view name, std::string_view value) {
    put(name.data(), name.size());
    put2(':', ' ');
    put(value.data(), value.size());
    put2('\r', '\n');
  });
  put2('\r', '\n');
}

}  // namespace relay
}  // namespace vantu
