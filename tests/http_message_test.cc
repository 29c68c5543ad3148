#include "relay/http_message.h"

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <map>

#include "relay/http_request_parser.h"

namespace vantu {
namespace relay {
namespace {

TEST(HttpMessageTest, MethodNamesMatchTheTableAndRejectNearMisses) {
  const char* const kNames[] = {"OPTIONS", "GET", "HEAD", "POST", "PUT", "DELETE", "TRACE"};
  for (int m = 0; m < 7; ++m) {
    SCOPED_TRACE(kNames[m]);
    EXPECT_STREQ(kNames[m], httpMethodToName(static_cast<HttpMethod>(m)));
    EXPECT_EQ(m, httpMethodFromName(kNames[m]));
  }
  for (const char* name : {"get", "GET ", "", "CONNECT", "PATCH", " GET", "G", "GETS", "Post"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(kHttpUnknown, httpMethodFromName(name));
  }
  EXPECT_EQ(kHttpUnknown, httpMethodFromName(std::string("GET\0", 4)));
  EXPECT_STREQ("", httpMethodToName(kHttpUnknown));
  EXPECT_STREQ("", httpMethodToName(static_cast<HttpMethod>(-1)));
  EXPECT_STREQ("", httpMethodToName(static_cast<HttpMethod>(1000)));
}

// Builds a request the way the server gets it: through the parser.
HttpRequestPtr parseOne(const std::string& text) {
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  EXPECT_TRUE(parser.parse(text, &requests));
  EXPECT_EQ(1u, requests.size());
  return requests.empty() ? std::make_shared<HttpRequest>() : requests[0];
}

TEST(HttpMessageTest, QueryAccessorsFollowQueryOrderAndIndex) {
  HttpRequestPtr request = parseOne("GET /p?a=1&a=2&b&n=42&t=abc HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(2u, request->numQueryComponent("a"));
  EXPECT_EQ("1", request->getStringQueryComponent("a", 0));
  EXPECT_EQ("2", request->getStringQueryComponent("a", 1));
  EXPECT_EQ("", request->getStringQueryComponent("a", 2));
  EXPECT_EQ("", request->getStringQueryComponent("a", -1));
  EXPECT_TRUE(request->hasQueryComponent("b"));
  EXPECT_EQ("", request->getStringQueryComponent("b", 0));
  EXPECT_EQ(0u, request->numQueryComponent("c"));
  EXPECT_FALSE(request->hasQueryComponent("c"));
  EXPECT_EQ(42, request->getIntQueryComponent("n", 0));
  EXPECT_EQ(0, request->getIntQueryComponent("t", 0));
  EXPECT_EQ(0, request->getIntQueryComponent("missing", 0));
  EXPECT_EQ(2, request->getIntQueryComponent("a", 1));

  std::vector<std::string> values;
  request->getStringQueryComponents("a", &values);
  request->getStringQueryComponents("a", &values);
  request->getStringQueryComponents("none", &values);
  EXPECT_EQ((std::vector<std::string>{"1", "2", "1", "2"}), values);
}

std::string render(HttpResponse* response) {
  std::string out = "stale bytes that must vanish";
  response->outputHeader(&out);
  return out;
}

TEST(HttpMessageTest, OutputHeaderWritesStatusLineAndSortedHeaders) {
  HttpResponse fresh;
  EXPECT_EQ("HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n",
            render(&fresh));

  HttpResponse html;
  html.content = {'a', 'b', 'c'};
  html.setTextHtml();
  html.setHeader("Content-Length", "999");  // replaced by the real size
  html.setHeader("x-lower", "1");
  html.setHeader("X-Upper", "2");
  const std::string expected =
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 3\r\n"
      "Content-Type: text/html\r\nX-Upper: 2\r\nx-lower: 1\r\n\r\n";
  EXPECT_EQ(expected, render(&html));
  EXPECT_EQ(expected, render(&html));  // rendering twice gives the same text

  struct Case {
    int code;
    const char* phrase;
    const char* status_line;
  } cases[] = {
      {404, "", "HTTP/1.1 404 Not Found\r\n"},
      {299, "", "HTTP/1.1 299 \r\n"},
      {200, "Fine", "HTTP/1.1 200 Fine\r\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    HttpResponse response;
    response.status_code = static_cast<HttpResponse::StatusCode>(c.code);
    response.status_string = c.phrase;
    EXPECT_EQ(0u, render(&response).find(c.status_line));
  }
}

// The letters of `text`, lower-cased: "Request Time-out" and "RequestTimeout"
// both give "requesttimeout".
std::string letters(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (isalnum(static_cast<unsigned char>(c))) out += static_cast<char>(tolower(c));
  }
  return out;
}

// The statuses of the enumeration, with their enumerator's name.
#define STATUS(name) \
  { HttpResponse::k##name, #name }
const struct {
  HttpResponse::StatusCode code;
  const char* name;
} kStatuses[] = {
    STATUS(Continue),
    STATUS(SwitchingProtocols),
    STATUS(Ok),
    STATUS(Created),
    STATUS(Accepted),
    STATUS(NonAuthoritativeInformation),
    STATUS(NoContent),
    STATUS(ResetContent),
    STATUS(PartialContent),
    STATUS(MultipleChoices),
    STATUS(MovedPermanently),
    STATUS(Found),
    STATUS(SeeOther),
    STATUS(NotModified),
    STATUS(UseProxy),
    STATUS(TemporaryRedirect),
    STATUS(BadRequest),
    STATUS(Unauthorized),
    STATUS(PaymentRequired),
    STATUS(Forbidden),
    STATUS(NotFound),
    STATUS(MethodNotAllowed),
    STATUS(NotAcceptable),
    STATUS(ProxyAuthenticationRequired),
    STATUS(RequestTimeout),
    STATUS(Conflict),
    STATUS(Gone),
    STATUS(LengthRequired),
    STATUS(PreconditionFailed),
    STATUS(RequestEntityTooLarge),
    STATUS(RequestUriTooLarge),
    STATUS(UnsupportedMediaType),
    STATUS(RequestedRangeNotSatisfiable),
    STATUS(ExpectationFailed),
    STATUS(InternalServerError),
    STATUS(NotImplemented),
    STATUS(BadGateway),
    STATUS(ServiceUnavailable),
    STATUS(GatewayTimeout),
    STATUS(HttpVersionNotSupported),
};
#undef STATUS

TEST(HttpMessageTest, EveryStatusHasThePhraseItsNameSpellsAndNoOtherCodeHasOne) {
  std::map<int, const char*> named;
  for (const auto& status : kStatuses) {
    SCOPED_TRACE(status.name);
    // A phrase moved to another code, or misspelt, spells another name.
    EXPECT_EQ(letters(status.name), letters(HttpResponse::getStatusString(status.code)));
    EXPECT_TRUE(named.emplace(status.code, status.name).second) << "two names for one code";
  }
  // Every code around them, and the edges of int: a phrase only where the
  // enumeration names one.
  for (int code = -2; code < 1100; ++code) {
    SCOPED_TRACE(code);
    const char* phrase = HttpResponse::getStatusString(static_cast<HttpResponse::StatusCode>(code));
    ASSERT_NE(nullptr, phrase);
    EXPECT_EQ(named.count(code) != 0, phrase[0] != '\0') << phrase;
  }
  for (int code : {INT_MIN, INT_MAX}) {
    EXPECT_STREQ("", HttpResponse::getStatusString(static_cast<HttpResponse::StatusCode>(code)));
  }
  // Older spellings than today's RFC, and part of what goes on the wire: the
  // letters above would not notice them modernised.
  EXPECT_STREQ("Request Time-out", HttpResponse::getStatusString(HttpResponse::kRequestTimeout));
  EXPECT_STREQ("Request-URI Too Large",
               HttpResponse::getStatusString(HttpResponse::kRequestUriTooLarge));
  EXPECT_STREQ("Requested range not satisfiable",
               HttpResponse::getStatusString(HttpResponse::kRequestedRangeNotSatisfiable));
  EXPECT_STREQ("HTTP Version not supported",
               HttpResponse::getStatusString(HttpResponse::kHttpVersionNotSupported));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
