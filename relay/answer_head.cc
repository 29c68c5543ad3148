#include "relay/answer_head.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "common/fast_thread_local.h"
#include "relay/message_pool.h"

namespace vantu {
namespace relay {
namespace {

// A header line of the text: one of the response's fields, or one the server
// writes itself in place of any field of that name the response holds.
struct HeadLine {
  // Plain pointers and sizes, so that a list of them costs nothing until
  // filled.
  const char* name;
  size_t name_length;
  const char* value;
  size_t value_length;

  std::string_view nameView() const { return std::string_view(name, name_length); }
  std::string_view valueView() const { return std::string_view(value, value_length); }
};

inline uint64_t loadBigEndian(const char* p) {
  uint64_t word;
  memcpy(&word, p, sizeof(word));
  return __builtin_bswap64(word);
}

// Byte order of names, as std::string compares them, eight bytes at a time:
// the names are short, and a call to memcmp would cost more than they do.
inline int compareNames(std::string_view name, std::string_view own) {
  const size_t common = name.size() < own.size() ? name.size() : own.size();
  size_t i = 0;
  for (; i + 8 <= common; i += 8) {
    const uint64_t a = loadBigEndian(name.data() + i);
    const uint64_t b = loadBigEndian(own.data() + i);
    if (a != b) return a < b ? -1 : 1;
  }
  for (; i < common; ++i) {
    const unsigned char a = static_cast<unsigned char>(name[i]);
    const unsigned char b = static_cast<unsigned char>(own[i]);
    if (a != b) return a < b ? -1 : 1;
  }
  if (name.size() == own.size()) return 0;
  return name.size() < own.size() ? -1 : 1;
}

// Whether two names or values hold the same bytes, eight at a time, for the
// same reason.
inline bool sameBytes(const std::string& a, const std::string& b) {
  const size_t size = a.size();
  if (size != b.size()) return false;
  const char* x = a.data();
  const char* y = b.data();
  auto same8 = [x, y](size_t at) {
    uint64_t p, q;
    memcpy(&p, x + at, 8);
    memcpy(&q, y + at, 8);
    return p == q;
  };
  if (size >= 8) {
    // The last eight bytes overlap the words before them.
    for (size_t i = 0; i + 8 < size; i += 8) {
      if (!same8(i)) return false;
    }
    return same8(size - 8);
  }
  if (size >= 4) {
    uint32_t p, q, r, t;
    memcpy(&p, x, 4);
    memcpy(&q, y, 4);
    memcpy(&r, x + size - 4, 4);
    memcpy(&t, y + size - 4, 4);
    return p == q && r == t;
  }
  for (size_t i = 0; i < size; ++i) {
    if (x[i] != y[i]) return false;
  }
  return true;
}

// Copies the short pieces of a head (names, values: mostly 2 to 16 bytes)
// with fixed-size moves, which the compiler inlines, rather than a call.
inline char* put(char* at, const char* data, size_t length) {
  if (length >= 8 && length <= 16) {
    memcpy(at, data, 8);
    memcpy(at + length - 8, data + length - 8, 8);
  } else if (length >= 4 && length < 8) {
    memcpy(at, data, 4);
    memcpy(at + length - 4, data + length - 4, 4);
  } else {
    memcpy(at, data, length);
  }
  return at + length;
}

// The size of the content as "%d" formats it, into `digits` (16 bytes);
// returns how many were written.
inline size_t formatLength(const HttpResponse& response, char* digits) {
  return static_cast<size_t>(
      std::to_chars(digits, digits + 16, static_cast<int>(response.content.size())).ptr - digits);
}

// Calls visit(name, value) for every header line of the text, in byte order
// of the names: the response's fields with the own lines (sorted by name)
// merged in, each in place of the field of its name.
template <typename Visit>
inline void forEachLine(const message_pool::Headers& headers, const HeadLine* own, size_t own_count,
                        Visit visit) {
  size_t next = 0;
  for (const auto& header : headers) {
    const std::string_view name(header.first);
    bool replaced = false;
    while (next < own_count) {
      const int order = compareNames(name, own[next].nameView());
      if (order < 0) break;
      visit(own[next].nameView(), own[next].valueView());
      ++next;
      if (order == 0) {
        replaced = true;
        break;
      }
    }
    if (!replaced) visit(name, std::string_view(header.second));
  }
  for (; next < own_count; ++next) visit(own[next].nameView(), own[next].valueView());
}

// The lines of a head of at most kMaxListed of them are listed once, with
// their size, and then written from the list; longer heads are walked twice.
constexpr size_t kMaxListed = 32;

// The head of `response`, written over *out from `start` on; *out ends with
// it. With `with_length`, *length_at receives where the digits of the
// Content-Length value begin, counted from `start`.
void writeHeadAt(HttpResponse* response, const std::string* date, std::string* out, size_t start,
                 bool with_length, size_t* length_at) {
  // "HTTP/1.1 %d %s\r\n" written in place: %s stops at a NUL. An empty
  // reason phrase is the table's, written without being stored.
  const char* phrase;
  size_t phrase_length;
  if (!response->status_string.empty()) {
    phrase = response->status_string.data();
    phrase_length = strnlen(phrase, response->status_string.size());
  } else if (response->status_code == HttpResponse::kOk) {
    phrase = "OK";  // nearly every answer's
    phrase_length = 2;
  } else {
    phrase = HttpResponse::getStatusString(response->status_code);
    phrase_length = strlen(phrase);
  }
  char number[16];
  const char* number_end;
  const int code = response->status_code;
  if (code >= 100 && code <= 999) {  // every status the table knows
    number[0] = static_cast<char>('0' + code / 100);
    number[1] = static_cast<char>('0' + code / 10 % 10);
    number[2] = static_cast<char>('0' + code % 10);
    number_end = number + 3;
  } else {
    number_end = std::to_chars(number, number + sizeof(number), code).ptr;
  }
  // The lines the server writes itself, in byte order of their names
  // ("Content-Length" before "Date"). Written where they belong among the
  // response's fields rather than stored in them: no map insertion, and no
  // node to take out again when the response is recycled.
  HeadLine own[2];
  size_t own_count = 0;
  char length[16];
  if (with_length) {
    own[own_count++] = {"Content-Length", 14, length, formatLength(*response, length)};
  }
  if (date != nullptr) own[own_count++] = {"Date", 4, date->data(), date->size()};
  size_t size = 9 + (number_end - number) + 1 + phrase_length + 2 + 2;
  HeadLine listed[kMaxListed];
  size_t listed_count = 0;
  const bool listing = response->headers.size() + own_count <= kMaxListed;
  forEachLine(response->headers, own, own_count,
              [&](std::string_view name, std::string_view value) {
                size += name.size() + value.size() + 4;
                if (listing)
                  listed[listed_count++] = {name.data(), name.size(), value.data(), value.size()};
              });
  // Sized once and filled in place: no growth, no per-piece bookkeeping (and
  // a kept buffer that held an answer of the same size is not even resized).
  out->resize(start + size);
  char* at = &(*out)[start];
  // The separators byte by byte: a call to memcpy per two bytes would cost
  // more than the bytes.
  auto put2 = [&at](char first, char second) {
    at[0] = first;
    at[1] = second;
    at += 2;
  };
  char* const head = at;
  auto line = [&](std::string_view name, std::string_view value) {
    at = put(at, name.data(), name.size());
    put2(':', ' ');
    if (value.data() == length) *length_at = static_cast<size_t>(at - head);
    at = put(at, value.data(), value.size());
    put2('\r', '\n');
  };
  at = put(at, "HTTP/1.1 ", 9);
  at = put(at, number, number_end - number);
  *at++ = ' ';
  at = put(at, phrase, phrase_length);
  put2('\r', '\n');
  if (listing) {
    for (size_t i = 0; i < listed_count; ++i) line(listed[i].nameView(), listed[i].valueView());
  } else {
    forEachLine(response->headers, own, own_count, line);
  }
  put2('\r', '\n');
}

// The last head a thread wrote, for the next answer made like it: a server
// answers most requests of a URL with the same status and fields, and only
// the length (and once a second the date) differs. Comparing the fields with
// the remembered ones costs a fraction of ordering and writing them again.
// One per thread, so it needs no lock; it holds copies, never pointers into a
// response.
class LastHead {
 public:
  // Heads with more fields than this are written each time: comparing them
  // would cost about what writing them does, and the copy would grow.
  static constexpr size_t kMaxFields = 8;

  // True, with the head appended to *out, when `response` is made like the
  // remembered one: same status code, no phrase of its own, the same fields,
  // the same date and the same choice of length.
  bool appendIfSame(const HttpResponse& response, const std::string* date, bool with_length,
                    std::string* out) const {
    if (!valid_ || response.status_code != status_code_ || !response.status_string.empty() ||
        with_length != with_length_ || (date != nullptr) != with_date_ ||
        response.headers.size() != fields_.size()) {
      return false;
    }
    if (date != nullptr && !sameBytes(*date, date_)) return false;
    auto field = fields_.begin();
    for (const auto& header : response.headers) {
      if (!sameBytes(header.first, field->first) || !sameBytes(header.second, field->second)) {
        return false;
      }
      ++field;
    }
    char digits[16];
    const size_t digit_count = with_length ? formatLength(response, digits) : 0;
    const size_t start = out->size();
    out->resize(start + text_.size() + digit_count);
    char* at = &(*out)[start];
    memcpy(at, text_.data(), length_at_);
    at = put(at + length_at_, digits, digit_count);
    memcpy(at, text_.data() + length_at_, text_.size() - length_at_);
    return true;
  }

  // Remembers the head of `response` that `head` holds (its Content-Length
  // digits, when written, at `length_at`), when it is one worth remembering.
  void remember(const HttpResponse& response, const std::string* date, bool with_length,
                std::string_view head, size_t length_at) {
    valid_ = false;
    if (!response.status_string.empty() || response.headers.size() > kMaxFields) return;
    // As many digits as appendIfSame will write in their place.
    char digits[16];
    const size_t digit_count = with_length ? formatLength(response, digits) : 0;
    if (!with_length) length_at = head.size();
    text_.assign(head.data(), length_at);
    text_.append(head.data() + length_at + digit_count, head.size() - length_at - digit_count);
    length_at_ = length_at;
    status_code_ = response.status_code;
    with_length_ = with_length;
    with_date_ = date != nullptr;
    if (with_date_) date_ = *date;
    fields_.resize(response.headers.size());
    auto field = fields_.begin();
    for (const auto& header : response.headers) {
      field->first = header.first;
      field->second = header.second;
      ++field;
    }
    valid_ = true;
  }

 private:
  bool valid_ = false;
  int status_code_ = 0;
  bool with_length_ = false;
  bool with_date_ = false;
  std::string date_;
  std::vector<std::pair<std::string, std::string>> fields_;
  // The head without its length digits, which go at length_at_.
  std::string text_;
  size_t length_at_ = 0;
};

void writeHead(HttpResponse* response, const std::string* date, std::string* out, size_t start,
               bool with_length) {
  // Heap-held, so that the thread-local itself stays a pointer's size.
  VANTU_FAST_THREAD_LOCAL std::unique_ptr<LastHead> last;
  if (last == nullptr) last.reset(new LastHead);
  out->resize(start);
  if (last->appendIfSame(*response, date, with_length, out)) return;
  size_t length_at = 0;
  writeHeadAt(response, date, out, start, with_length, &length_at);
  last->remember(*response, date, with_length, std::string_view(*out).substr(start), length_at);
}

}  // namespace

void writeAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                     bool with_length) {
  writeHead(response, date, out, 0, with_length);
}

void appendAnswerHead(HttpResponse* response, const std::string* date, std::string* out,
                      bool with_length) {
  writeHead(response, date, out, out->size(), with_length);
}

}  // namespace relay
}  // namespace vantu
