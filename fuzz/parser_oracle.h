#ifndef FUZZ_PARSER_ORACLE_H_
#define FUZZ_PARSER_ORACLE_H_

// What the parser fuzzers hold the parsers to:
//  - differential: chunk by chunk, the real parser and the plain reference of
//    reference_parser.h give the same verdict, the same completed messages,
//    and are left in the same state with the same message in progress; the
//    comparison goes on after a rejected chunk, so what a rejection leaves
//    behind is checked too;
//  - split invariance: an input that parses cleanly gives the same messages
//    whole, byte by byte, and cut at the fuzzer's points;
//  - every line gets the same verdict and captures from the hand-written line
//    matchers as from PCRE.

#include <pcrecpp.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "common/logging.h"
#include "fuzz/reference_parser.h"
#include "relay/http_line_match.h"
#include "relay/http_request_parser.h"

namespace fuzz {

inline void fail(const char* what) {
  fprintf(stderr, "oracle violated: %s\n", what);
  abort();
}

inline void fail(const char* what, const std::string& mine, const std::string& reference) {
  fprintf(stderr, "parser:    %s\nreference: %s\n", mine.c_str(), reference.c_str());
  fail(what);
}

// Malformed input is the point of fuzzing; its log records are only noise.
inline void quietLogs() {
  static const bool quiet = [] {
    vantu::setLogSink([](const vantu::LogRecord&) {});
    return true;
  }();
  (void)quiet;
}

// Everything a caller can see of a request or a response, as one text; works
// on the library's messages and on the reference's alike.
template <typename Request>
std::string describeRequest(const Request& r) {
  std::ostringstream out;
  out << static_cast<int>(r.method) << '|' << r.uri << "|1." << r.minor_version << '|'
      << r.url.possibly_invalid_spec() << '|' << r.url.is_valid() << '|' << r.content_length << '|'
      << r.body;
  for (const auto& h : r.headers) out << "|H" << h.first << ':' << h.second;
  for (const auto& q : r.query_components) out << "|Q" << q.first << '=' << q.second;
  return out.str();
}

template <typename Response>
std::string describeResponse(const Response& r) {
  std::ostringstream out;
  out << static_cast<int>(r.status_code) << '|' << r.status_string << '|' << r.content_length << '|'
      << r.body;
  for (const auto& h : r.headers) out << "|H" << h.first << ':' << h.second;
  return out.str();
}

// The two parsers with the state they keep between chunks made visible.
template <typename Base>
class Exposed : public Base {
 public:
  int state() const { return this->state_; }
  // The message in progress as it will be delivered. A request filled over a
  // recycled one still holds that one's fields until its head ends, unless new
  // fields replace them; those are left out here, as the end of the head
  // takes them out.
  const vantu::relay::HttpMessage* inProgress() const {
    const vantu::relay::HttpMessage* message = this->message_.get();
    if (message == nullptr) return nullptr;
    bool holds_old = false;
    for (auto it = message->headers.begin(); it != message->headers.end(); ++it) {
      holds_old = holds_old || this->head_.isOldField(it);
    }
    if (!holds_old) return message;
    shown_ = *static_cast<const vantu::relay::HttpRequest*>(message);
    for (auto it = message->headers.begin(); it != message->headers.end(); ++it) {
      if (this->head_.isOldField(it)) shown_.headers.erase(it->first);
    }
    return &shown_;
  }

 private:
  mutable vantu::relay::HttpRequest shown_;
};

struct RequestSide {
  using Parser = Exposed<vantu::relay::HttpRequestParser>;
  using Ptr = vantu::relay::HttpRequestPtr;
  static constexpr ReferenceParser::Kind kKind = ReferenceParser::kRequests;
  static std::string describe(const vantu::relay::HttpMessage& m) {
    return describeRequest(static_cast<const vantu::relay::HttpRequest&>(m));
  }
  static std::string describe(const ReferenceMessage& m) { return describeRequest(m); }
};

struct ResponseSide {
  using Parser = Exposed<vantu::relay::HttpResponseParser>;
  using Ptr = vantu::relay::HttpResponsePtr;
  static constexpr ReferenceParser::Kind kKind = ReferenceParser::kResponses;
  static std::string describe(const vantu::relay::HttpMessage& m) {
    return describeResponse(static_cast<const vantu::relay::HttpResponse&>(m));
  }
  static std::string describe(const ReferenceMessage& m) { return describeResponse(m); }
};

// What one feed of chunks produced.
struct Outcome {
  std::vector<std::string> messages;
  bool rejected = false;  // some chunk was rejected
};

// Feeds the chunks to both parsers, comparing after every chunk; returns what
// the real parser produced.
template <typename Side>
Outcome feedBoth(const std::vector<std::string>& chunks) {
  typename Side::Parser parser;
  ReferenceParser reference(Side::kKind);
  Outcome outcome;
  for (const std::string& chunk : chunks) {
    std::vector<typename Side::Ptr> parsed;
    const bool ok = parser.parse(chunk, &parsed);
    std::vector<ReferenceMessage> expected;
    const bool expected_ok = reference.feed(chunk, &expected);
    if (ok != expected_ok) {
      fail("verdict differs from the reference", ok ? "accepted" : "rejected",
           expected_ok ? "accepted" : "rejected");
    }
    if (parsed.size() != expected.size()) {
      fail("number of messages differs from the reference", std::to_string(parsed.size()),
           std::to_string(expected.size()));
    }
    for (size_t i = 0; i < parsed.size(); ++i) {
      const std::string mine = Side::describe(*parsed[i]);
      if (mine != Side::describe(expected[i])) {
        fail("message differs from the reference", mine, Side::describe(expected[i]));
      }
      outcome.messages.push_back(mine);
    }
    if (parser.state() != reference.state()) {
      fail("state after the chunk differs from the reference", std::to_string(parser.state()),
           std::to_string(reference.state()));
    }
    const std::string mine = parser.inProgress() ? Side::describe(*parser.inProgress()) : "none";
    const std::string theirs =
        reference.inProgress() ? Side::describe(*reference.inProgress()) : "none";
    if (mine != theirs) fail("message in progress differs from the reference", mine, theirs);
    outcome.rejected = outcome.rejected || !ok;
  }
  return outcome;
}

// The input whole, byte by byte and cut at `cuts`, each against the reference;
// when nothing is rejected all three give the same messages.
template <typename Side>
void checkFeeds(const std::string& input, const std::vector<std::string>& pieces) {
  const Outcome whole = feedBoth<Side>({input});
  std::vector<std::string> bytes;
  bytes.reserve(input.size());
  for (char c : input) bytes.emplace_back(1, c);
  const Outcome byte_by_byte = feedBoth<Side>(bytes);
  const Outcome split = feedBoth<Side>(pieces);
  if (!whole.rejected) {
    if (byte_by_byte.rejected || byte_by_byte.messages != whole.messages) {
      fail("byte by byte differs from whole");
    }
    if (split.rejected || split.messages != whole.messages) fail("split feed differs from whole");
  }
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

// How a fuzz input is framed. The bytes up to the first kCutMarker are the
// stream; each byte after it is the length of one more chunk to cut off the
// front of the stream, and whatever remains is the last chunk. Without the
// marker the whole input is the stream, in one piece, so that a seed file is
// a plain capture of traffic and is parsed whole.
constexpr char kCutMarker[] =
    "\xff\xfe"
    "cuts:";
constexpr size_t kCutMarkerSize = sizeof(kCutMarker) - 1;

struct FramedInput {
  std::string stream;
  std::vector<std::string> pieces;  // the stream cut as the input says
};

inline FramedInput unframe(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  // memmem, so that libFuzzer learns the marker from its comparison hook.
  const void* marker = memmem(text, size, kCutMarker, kCutMarkerSize);
  const size_t stream_size =
      marker != nullptr ? static_cast<size_t>(static_cast<const char*>(marker) - text) : size;
  FramedInput input;
  input.stream.assign(text, stream_size);
  size_t start = 0;
  if (marker != nullptr) {
    for (size_t i = stream_size + kCutMarkerSize; i < size; ++i) {
      const size_t length = std::min<size_t>(data[i], stream_size - start);
      input.pieces.push_back(input.stream.substr(start, length));
      start += length;
    }
  }
  input.pieces.push_back(input.stream.substr(start));
  return input;
}

}  // namespace fuzz

#endif  // FUZZ_PARSER_ORACLE_H_
