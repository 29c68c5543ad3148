#include "relay/request_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "relay/http_request_parser.h"

namespace vantu {
namespace relay {
namespace {

// What the connection asks a reader, the same way whichever reader it is.
struct Outcome {
  bool parsed;
  size_t requests;
  int status;  // errorStatus(), after a false parse
  bool closes_after_error;
  bool by_limit;
  bool closing;  // after a true parse
  bool continue_requested;
  bool head_in_progress;
  bool body_in_progress;

  bool operator==(const Outcome& other) const {
    return parsed == other.parsed && requests == other.requests &&
           (parsed || (status == other.status && closes_after_error == other.closes_after_error &&
                       by_limit == other.by_limit)) &&
           (!parsed || closing == other.closing) &&
           continue_requested == other.continue_requested &&
           head_in_progress == other.head_in_progress && body_in_progress == other.body_in_progress;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
  return out << "{parsed " << o.parsed << ", " << o.requests << " requests, status " << o.status
             << ", closes after error " << o.closes_after_error << ", by limit " << o.by_limit
             << ", closing " << o.closing << ", continue " << o.continue_requested
             << ", head in progress " << o.head_in_progress << ", body in progress "
             << o.body_in_progress << "}";
}

Outcome read(RequestReader* reader, const std::string& input) {
  std::vector<HttpRequestPtr> requests;
  Outcome o{};
  o.parsed = reader->parse(input, &requests);
  o.requests = requests.size();
  o.status = reader->errorStatus();
  o.closes_after_error = reader->closesAfterError();
  o.by_limit = reader->refusedByLimit();
  o.closing = reader->closing();
  o.continue_requested = reader->takeContinueRequest();
  o.head_in_progress = reader->headInProgress();
  o.body_in_progress = reader->bodyInProgress();
  return o;
}

TEST(RequestReaderTest, BothReadersAnswerTheConnectionsQuestions) {
  const std::string kGet = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string kExpect =
      "POST / HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n";
  const std::string kLongTarget = "GET /" + std::string(200, 'a') + " HTTP/1.1\r\n";
  const std::string kBigBody = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 99\r\n\r\n";
  struct Case {
    const char* name;
    bool strict;
    std::string input;
    Outcome expected;
  } cases[] = {
      // The default reader: HttpRequestParser as it is. Its 400 keeps the
      // connection; it never closes, never sends 100 Continue.
      {"default: two requests",
       false,
       kGet + kGet,
       {true, 2, 0, false, false, false, false, false, false}},
      {"default: malformed line",
       false,
       "GET  / HTTP/1.1\r\n",
       {false, 0, 400, false, false, false, false, false, false}},
      {"default: target over the head limit",
       false,
       kLongTarget,
       {false, 0, 414, true, true, false, false, false, false}},
      {"default: body over its limit",
       false,
       kBigBody,
       {false, 0, 413, true, true, false, false, false, false}},
      {"default: connection close",
       false,
       "GET / HTTP/1.1\r\nConnection: close\r\n\r\n",
       {true, 1, 0, false, false, false, false, false, false}},
      {"default: expect", false, kExpect, {true, 0, 0, false, false, false, false, false, true}},
      {"default: head in progress",
       false,
       "GET / HT",
       {true, 0, 0, false, false, false, false, true, false}},
      // The strict reader: every fault ends the connection.
      {"strict: two requests",
       true,
       kGet + kGet,
       {true, 2, 0, false, false, false, false, false, false}},
      {"strict: malformed line",
       true,
       "GET  / HTTP/1.1\r\n\r\n",
       {false, 0, 400, true, false, false, false, false, false}},
      {"strict: version",
       true,
       "GET / HTTP/1.2\r\n\r\n",
       {false, 0, 505, true, false, false, false, false, false}},
      {"strict: target over the head limit",
       true,
       kLongTarget,
       {false, 0, 414, true, true, false, false, false, false}},
      {"strict: body over its limit",
       true,
       kBigBody,
       {false, 0, 413, true, true, false, false, false, false}},
      {"strict: connection close",
       true,
       "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
       {true, 1, 0, false, false, true, false, false, false}},
      {"strict: expect", true, kExpect, {true, 0, 0, false, false, false, true, false, true}},
      {"strict: head in progress",
       true,
       "GET / HT",
       {true, 0, 0, false, false, false, false, true, false}},
  };
  RequestLimits limits;
  limits.max_header_bytes = 128;
  limits.max_body_bytes = 50;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<RequestReader> reader = newRequestReader(c.strict, limits);
    EXPECT_EQ(c.expected, read(reader.get(), c.input));
    const RequestReader::AnswerRules rules = reader->answerRules();
    EXPECT_EQ(c.strict, rules.date);
    EXPECT_EQ(c.strict, rules.head_without_content);
  }
}

// Requests of one connection, each given back before the next is read, so
// that the next is made from its memory: each has the url and query of its
// own target and Host, whether the last one had the same or another.
TEST(RequestReaderTest, RecycledRequestsGetTheirOwnUrl) {
  const struct {
    const char* target;
    const char* host;
    const char* url;
    const char* query_a;
  } kRequests[] = {
      {"/a", "h", "http://h/a", ""},
      {"/a", "h", "http://h/a", ""},
      {"/b", "h", "http://h/b", ""},
      {"/b", "h2:81", "http://h2:81/b", ""},
      {"http://x/y?a=abs", "h", "http://x/y?a=abs", "abs"},
      {"/b", "h2:81", "http://h2:81/b", ""},
      {"/a?a=1", "h", "http://h/a?a=1", "1"},
      {"/a?a=2", "h", "http://h/a?a=2", "2"},
      {"/a", "h", "http://h/a", ""},
  };
  for (bool strict : {false, true}) {
    SCOPED_TRACE(strict ? "strict reader" : "default reader");
    std::unique_ptr<RequestReader> reader = newRequestReader(strict, RequestLimits());
    for (const auto& r : kRequests) {
      SCOPED_TRACE(std::string(r.target) + " on " + r.host);
      std::vector<HttpRequestPtr> requests;
      ASSERT_TRUE(reader->parse(
          std::string("GET ") + r.target + " HTTP/1.1\r\nHost: " + r.host + "\r\n\r\n", &requests));
      ASSERT_EQ(1u, requests.size());
      EXPECT_EQ(r.url, requests[0]->url.spec());
      EXPECT_TRUE(requests[0]->url.is_valid());
      EXPECT_EQ(r.query_a, requests[0]->getStringQueryComponent("a", 0));
      EXPECT_EQ(*r.query_a != '\0' ? 1u : 0u, requests[0]->query_components.size());
    }
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
