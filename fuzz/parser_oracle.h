#ifndef FUZZ_PARSER_ORACLE_H_
#define FUZZ_PARSER_ORACLE_H_

// The parsers' own oracle: the same bytes fed whole, byte by byte, or split at
// chosen points must give the same messages and the same verdict. Also checks
// that every line the parser sees gets the same verdict from the hand-written
// matchers as from PCRE.

#include <pcrecpp.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "relay/http_line_match.h"
#include "relay/http_request_parser.h"

namespace fuzz {

inline void fail(const char* what) {
  fprintf(stderr, "oracle violated: %s\n", what);
  abort();
}

inline std::string describe(const vantu::relay::HttpRequest& r) {
  std::ostringstream out;
  out << r.method << '|' << r.uri << '|' << r.url.possibly_invalid_spec() << '|' << r.url.is_valid()
      << '|' << r.content_length << '|' << r.body;
  for (const auto& h : r.headers) out << "|H" << h.first << ':' << h.second;
  for (const auto& q : r.query_components) out << "|Q" << q.first << '=' << q.second;
  return out.str();
}

inline std::string describe(const vantu::relay::HttpResponse& r) {
  std::ostringstream out;
  out << r.status_code << '|' << r.status_string << '|' << r.content_length << '|' << r.body;
  for (const auto& h : r.headers) out << "|H" << h.first << ':' << h.second;
  return out.str();
}

struct Outcome {
  std::vector<std::string> messages;
  bool ok = true;
  bool operator==(const Outcome& o) const { return ok == o.ok && messages == o.messages; }
};

// Feeds the chunks in order and stops at the first rejection: after one, the
// rest of that chunk is dropped, so later bytes depend on where the cut was.
template <typename Parser, typename Ptr>
Outcome feedChunks(const std::vector<std::string>& chunks) {
  Parser parser;
  Outcome outcome;
  for (const std::string& chunk : chunks) {
    std::vector<Ptr> parsed;
    outcome.ok = parser.parse(chunk, &parsed);
    for (const auto& m : parsed) outcome.messages.push_back(describe(*m));
    if (!outcome.ok) break;
  }
  return outcome;
}

template <typename Parser, typename Ptr>
void checkSplits(const std::string& input, const std::vector<size_t>& cuts) {
  const Outcome whole = feedChunks<Parser, Ptr>({input});

  std::vector<std::string> bytes;
  bytes.reserve(input.size());
  for (char c : input) bytes.emplace_back(1, c);
  if (!(feedChunks<Parser, Ptr>(bytes) == whole)) fail("byte by byte differs from whole");

  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t cut : cuts) {
    cut = std::min(std::max(cut, start), input.size());
    pieces.push_back(input.substr(start, cut - start));
    start = cut;
  }
  pieces.push_back(input.substr(start));
  if (!(feedChunks<Parser, Ptr>(pieces) == whole)) fail("split feed differs from whole");
}

// Every CR/LF-separated line of the input through both matchers.
inline void checkLineMatchers(const std::string& input) {
  static const pcrecpp::RE kRequest("([A-Z]*) ([^ ]*) HTTP/1.[0-1]");
  static const pcrecpp::RE kStatus("HTTP/1.[0-9] ([0-9]*) (.*)");
  static const pcrecpp::RE kHeader("([^:]*): (.*)");
  size_t start = 0;
  while (start <= input.size()) {
    size_t end = input.find_first_of("\r\n", start);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(start, end - start);
    std::string a, b, c, d;
    int code1 = 0, code2 = 0;
    size_t name_length, value_start;
    if (kRequest.FullMatch(line, &a, &b) != vantu::relay::matchRequestLine(line, &c, &d) ||
        a != c || b != d) {
      fail("request line matcher differs from PCRE");
    }
    a.clear(), c.clear();
    if (kStatus.FullMatch(line, &code1, &a) != vantu::relay::matchStatusLine(line, &code2, &c) ||
        code1 != code2 || a != c) {
      fail("status line matcher differs from PCRE");
    }
    a.clear(), b.clear();
    bool pcre = kHeader.FullMatch(line, &a, &b);
    if (pcre != vantu::relay::matchHeaderLine(line, &name_length, &value_start) ||
        (pcre && (a != line.substr(0, name_length) || b != line.substr(value_start)))) {
      fail("header line matcher differs from PCRE");
    }
    start = end + 1;
  }
}

// The fuzzer controls the cut points through the first bytes of the input.
inline std::vector<size_t> takeCuts(const uint8_t** data, size_t* size) {
  std::vector<size_t> cuts;
  if (*size == 0) return cuts;
  size_t count = std::min<size_t>((*data)[0] % 8, (*size - 1) / 2);
  const uint8_t* p = *data + 1;
  size_t previous = 0;
  for (size_t i = 0; i < count; ++i, p += 2) {
    previous += static_cast<size_t>(p[0]) << 8 | p[1];
    cuts.push_back(previous);
  }
  *size -= p - *data;
  *data = p;
  return cuts;
}

}  // namespace fuzz

#endif  // FUZZ_PARSER_ORACLE_H_
