// The limits a server may put on the requests HttpRequestParser reads.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "relay/http_request_parser.h"

namespace vantu {
namespace relay {
namespace {

// Feeds `chunks` one by one, stopping at the first false: the requests read,
// then "ok" or errorStatus().
std::string feed(HttpRequestParser* parser, const std::vector<std::string>& chunks) {
  std::vector<HttpRequestPtr> requests;
  for (const std::string& chunk : chunks) {
    if (!parser->parse(chunk, &requests)) {
      return std::to_string(requests.size()) + " " + std::to_string(parser->errorStatus());
    }
  }
  return std::to_string(requests.size()) + " ok";
}

TEST(RequestLimitsTest, HeadAndBodyLimitsAnswerBeforeTheBytesArrive) {
  RequestLimits limits;
  limits.max_header_bytes = 64;
  limits.max_body_bytes = 10;
  const std::string fits = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";  // 29 bytes counted
  struct Case {
    const char* name;
    std::vector<std::string> chunks;
    const char* expected;
  } cases[] = {
      {"within every limit",
       {fits + "POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789"},
       "2 ok"},
      // A request line with no end in sight is refused once it passes the limit.
      {"endless request line",
       {"GET /" + std::string(60, 'a'), std::string(1 << 20, 'a')},
       "0 414"},
      {"request line just over", {"GET /" + std::string(56, 'a') + " HTTP/1.1\r\n"}, "0 414"},
      {"request line at the limit",
       {"GET /" + std::string(50, 'a') + " HTTP/1.1\r\n\r\n"},  // 64 bytes, then 2 of line end
       "0 400"},
      {"endless header line", {"GET / HTTP/1.1\r\nX: " + std::string(100, 'v')}, "0 400"},
      // 17 + 9 + 38 bytes of lines: the head is at the limit, the blank line
      // that ends it is not counted against it.
      {"head at the limit",
       {"GET /a HTTP/1.1\r\nHost: h\r\nX: " + std::string(33, 'v') + "\r\n\r\n"},
       "1 ok"},
      {"head just over",
       {"GET /a HTTP/1.1\r\nHost: h\r\nX: " + std::string(34, 'v') + "\r\n\r\n"},
       "0 400"},
      // Requests completed before the refusal are still delivered.
      {"second request over",
       {fits + "GET / HTTP/1.1\r\nX: " + std::string(100, 'v') + "\r\n\r\n"},
       "1 400"},
      {"declared body too large", {"POST / HTTP/1.1\r\nContent-Length: 11\r\n\r\n"}, "0 413"},
      {"body limit counts the declaration, not the bytes",
       {"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n01234", "56789"},
       "1 ok"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HttpRequestParser parser;
    parser.setLimits(limits);
    const std::string outcome = feed(&parser, c.chunks);
    EXPECT_EQ(c.expected, outcome);
    if (outcome.find("ok") == std::string::npos) {
      // A refusal spends the parser: a good request after it is not read.
      std::vector<HttpRequestPtr> later;
      EXPECT_FALSE(parser.parse(fits, &later));
      EXPECT_TRUE(later.empty());
      EXPECT_FALSE(parser.headInProgress());
      EXPECT_FALSE(parser.bodyInProgress());
    }
  }
}

TEST(RequestLimitsTest, ProgressTellsHeadFromBody) {
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  EXPECT_FALSE(parser.headInProgress());
  ASSERT_TRUE(parser.parse("GE", &requests));
  EXPECT_TRUE(parser.headInProgress());
  ASSERT_TRUE(parser.parse("T / HTTP/1.1\r\nContent-Length: 2\r\n", &requests));
  EXPECT_TRUE(parser.headInProgress());
  EXPECT_FALSE(parser.bodyInProgress());
  ASSERT_TRUE(parser.parse("\r\nx", &requests));
  EXPECT_FALSE(parser.headInProgress());
  EXPECT_TRUE(parser.bodyInProgress());
  ASSERT_TRUE(parser.parse("y", &requests));
  EXPECT_FALSE(parser.headInProgress());
  EXPECT_FALSE(parser.bodyInProgress());
  EXPECT_EQ(1u, requests.size());
}

}  // namespace
}  // namespace relay
}  // namespace vantu
