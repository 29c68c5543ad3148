#include "relay/http_line_match.h"

#include <gtest/gtest.h>
#include <pcrecpp.h>

#include <random>

namespace vantu {
namespace relay {
namespace {

// The hand-written matchers must agree with PCRE on every input: same verdict,
// same captures.
void expectSameAsPcre(const std::string& line) {
  static const pcrecpp::RE kRequest("([A-Z]*) ([^ ]*) HTTP/1.[0-1]");
  static const pcrecpp::RE kStatus("HTTP/1.[0-9] ([0-9]*) (.*)");
  static const pcrecpp::RE kHeader("([^:]*): (.*)");
  SCOPED_TRACE(::testing::PrintToString(line));

  std::string m1, t1, m2, t2, r1, r2, n1, v1;
  int c1 = -1, c2 = -1;
  size_t name_length = 0, value_start = 0;
  bool pcre = kRequest.FullMatch(line, &m1, &t1);
  ASSERT_EQ(pcre, matchRequestLine(line, &m2, &t2));
  if (pcre) {
    EXPECT_EQ(m1, m2);
    EXPECT_EQ(t1, t2);
  }
  pcre = kStatus.FullMatch(line, &c1, &r1);
  ASSERT_EQ(pcre, matchStatusLine(line, &c2, &r2));
  if (pcre) {
    EXPECT_EQ(c1, c2);
    EXPECT_EQ(r1, r2);
  }
  pcre = kHeader.FullMatch(line, &n1, &v1);
  ASSERT_EQ(pcre, matchHeaderLine(line, &name_length, &value_start));
  if (pcre) {
    EXPECT_EQ(n1, line.substr(0, name_length));
    EXPECT_EQ(v1, line.substr(value_start));
  }
}

TEST(HttpLineMatchTest, AgreesWithPcreOnChosenLines) {
  // (Only a blank may follow a header's colon: "Host:\th" is no header.)
  const std::string lines[] = {
      "GET / HTTP/1.1",
      "GET / HTTP/1.0",
      "GET / HTTP/1.2",
      "GET  / HTTP/1.1",
      "get / HTTP/1.1",
      " / HTTP/1.1",
      "GET  HTTP/1.1",
      "GET / HTTP/1x1",
      "GET / HTTP/1\n1",
      "GET / HTTP/1.1 ",
      "GET /a\nb HTTP/1.1",
      "GET / HTTP/1.11",
      "HTTP/1.1 200 OK",
      "HTTP/1.1 200 ",
      "HTTP/1.1 200",
      "HTTP/1.1  OK",
      "HTTP/1.9 007 x y",
      "HTTP/1.1 2147483647 max",
      "HTTP/1.1 2147483648 over",
      "HTTP/1.1 200 a\nb",
      "HTTP/1\n1 200 OK",
      "HTTP/1.1 99999999999999999999999999999999999 x",
      "HTTP/1.1 000000000000000000000000000000000000000001 x",
      "Host: h",
      "Host:h",
      "Host:\th",
      "a:\t b",
      "a: \tb",
      ": v",
      "a: ",
      "a:",
      "a:  b",
      "a: b: c",
      "a\nb: c",
      "a: b\nc",
      "",
      ":",
      ": ",
      "x:y: z",
  };
  for (const std::string& line : lines) expectSameAsPcre(line);
  expectSameAsPcre(std::string("GET /\0 HTTP/1.1", 15));
}

TEST(HttpLineMatchTest, AgreesWithPcreOnRandomLines) {
  // Random lines over the bytes that matter to the three patterns.
  static const char kBytes[] = "GETHP/1.0129 :a\n\x00\xff-\t";
  const std::string alphabet(kBytes, sizeof(kBytes) - 1);
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  const std::string prefixes[] = {"", "GET ", "HTTP/1.1 ", "HTTP/1.", "GET / HTTP/1.", "Name"};
  for (int i = 0; i < 200000; ++i) {
    std::string line = prefixes[random() % 6];
    const size_t length = random() % 14;
    for (size_t j = 0; j < length; ++j) line += alphabet[random() % alphabet.size()];
    expectSameAsPcre(line);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

TEST(HttpLineMatchTest, MethodFromBytesAgreesWithMethodFromString) {
  const std::string kNames[] = {
      "GET",   "PUT",    "POST",    "HEAD",  "TRACE",   "DELETE",   "OPTIONS",
      "",      "get",    "GE",      "GETS",  "PUT ",    "POSTS",    "HEAd",
      "TRACe", "DELETe", "OPTIONs", "PATCH", "CONNECT", "OPTIONSS", std::string("GET\0", 4),
      "XXX"};
  for (const std::string& name : kNames) {
    SCOPED_TRACE(name);
    EXPECT_EQ(httpMethodFromName(name), httpMethodFromName(name.data(), name.size()));
  }
  // Every method is found, not just refused alike.
  for (int method = kHttpOptions; method < kHttpUnknown; ++method) {
    const std::string name = httpMethodToName(static_cast<HttpMethod>(method));
    EXPECT_EQ(method, httpMethodFromName(name.data(), name.size())) << name;
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
