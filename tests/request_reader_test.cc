#include "relay/request_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "relay/http_request_parser.h"

namespace vantu {
namespace relay {
namespace {

// What the connection asks a reader, the same way whichever reader it is, as
// one text: the requests read, then "ok" or the error's status (and whether
// the error closes and was a limit's), then what is so of the rest.
std::string read(RequestReader* reader, const std::string& input) {
  std::vector<HttpRequestPtr> requests;
  const bool parsed = reader->parse(input, &requests);
  std::string out = std::to_string(requests.size()) +
                    (parsed ? " ok" : " " + std::to_string(reader->errorStatus()));
  if (!parsed && reader->closesAfterError()) out += " closes";
  if (!parsed && reader->refusedByLimit()) out += " limit";
  if (parsed && reader->closing()) out += " closing";
  if (reader->takeContinueRequest()) out += " continue";
  if (reader->headInProgress()) out += " head";
  if (reader->bodyInProgress()) out += " body";
  return out;
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
    const char* expected;
  } cases[] = {
      // The default reader: HttpRequestParser as it is. Its 400 keeps the
      // connection; it never closes, never sends 100 Continue.
      {"default: two requests", false, kGet + kGet, "2 ok"},
      {"default: malformed line", false, "GET  / HTTP/1.1\r\n", "0 400"},
      {"default: target over the head limit", false, kLongTarget, "0 414 closes limit"},
      {"default: body over its limit", false, kBigBody, "0 413 closes limit"},
      {"default: connection close", false, "GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "1 ok"},
      {"default: expect", false, kExpect, "0 ok body"},
      {"default: head in progress", false, "GET / HT", "0 ok head"},
      // The strict reader: every fault ends the connection.
      {"strict: two requests", true, kGet + kGet, "2 ok"},
      {"strict: malformed line", true, "GET  / HTTP/1.1\r\n\r\n", "0 400 closes"},
      {"strict: version", true, "GET / HTTP/1.2\r\n\r\n", "0 505 closes"},
      {"strict: target over the head limit", true, kLongTarget, "0 414 closes limit"},
      {"strict: body over its limit", true, kBigBody, "0 413 closes limit"},
      {"strict: connection close", true, "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
       "1 ok closing"},
      {"strict: expect", true, kExpect, "0 ok continue body"},
      {"strict: head in progress", true, "GET / HT", "0 ok head"},
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
