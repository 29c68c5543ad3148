#include "relay/http_message.h"

#include <gtest/gtest.h>

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

TEST(HttpMessageTest, HeadersReplaceByExactNameOnly) {
  HttpResponse response;
  response.setHeader("Rpc-Id", "1");
  response.setHeader("Rpc-Id", "2");
  response.setHeader("rpc-id", "3");
  response.setHeaderF("Rpc-Failed", "%d", 0);
  response.setHeaderF("Weird", "a%cb", '\0');  // cut at the NUL
  EXPECT_EQ("2", response.headers["Rpc-Id"]);
  EXPECT_EQ("3", response.headers["rpc-id"]);
  EXPECT_EQ("0", response.headers["Rpc-Failed"]);
  EXPECT_EQ("a", response.headers["Weird"]);
  // CR and LF in a value are written unchanged: the caller owns the value.
  response.setHeader("Raw", "a\r\nb");
  EXPECT_NE(std::string::npos, render(&response).find("Raw: a\r\nb\r\n"));
}

TEST(HttpMessageTest, StatusTableHasEveryCodeWithItsPhraseAndNothingElse) {
  using S = HttpResponse::StatusCode;
  const std::map<int, std::string> kTable = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {203, "Non-Authoritative Information"},
      {204, "No Content"},
      {205, "Reset Content"},
      {206, "Partial Content"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {305, "Use Proxy"},
      {307, "Temporary Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Time-out"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Request Entity Too Large"},
      {414, "Request-URI Too Large"},
      {415, "Unsupported Media Type"},
      {416, "Requested range not satisfiable"},
      {417, "Expectation Failed"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Time-out"},
      {505, "HTTP Version not supported"},
  };
  ASSERT_EQ(40u, kTable.size());
  // Every code the table names, every code around them, and the edges of int.
  for (int code = -2; code < 1100; ++code) {
    SCOPED_TRACE(code);
    auto entry = kTable.find(code);
    const char* phrase = HttpResponse::getStatusString(static_cast<S>(code));
    ASSERT_NE(nullptr, phrase);
    EXPECT_EQ(entry == kTable.end() ? "" : entry->second, phrase);
  }
  for (int code : {INT_MIN, INT_MAX}) {
    EXPECT_STREQ("", HttpResponse::getStatusString(static_cast<S>(code)));
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
