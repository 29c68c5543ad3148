// How a parsed request gets its url and query components.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "relay/http_request_parser.h"

namespace vantu {
namespace relay {
namespace {

HttpRequestPtr parseOne(const std::string& bytes) {
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  EXPECT_TRUE(parser.parse(bytes, &requests));
  EXPECT_EQ(1u, requests.size());
  return requests.empty() ? nullptr : requests[0];
}

// A client could hide the query from every handler by sending a Host that
// makes the rebuilt URL unparsable: the query must be split whenever there is
// a "?", and the path must still be there to dispatch on.
TEST(RequestUrlTest, BrokenHostOrFragmentDoesNotHideThePathOrQuery) {
  struct Case {
    const char* host;
    const char* target;
  } cases[] = {
      {"h:99999", "/a?x=1"}, {"h:65536", "/a?x=1"}, {"h:80:80", "/a?x=1"}, {"a@b@c", "/a?x=1"},
      {"[::1", "/a?x=1"},    {"[zz]", "/a?x=1"},    {"h", "/a?x=1#f#g"},   {"h", "/a?x=1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.host) + " " + c.target);
    HttpRequestPtr request =
        parseOne(std::string("GET ") + c.target + " HTTP/1.1\r\nHost: " + c.host + "\r\n\r\n");
    ASSERT_TRUE(request);
    EXPECT_EQ(c.target, request->uri);
    EXPECT_EQ("/a", request->url.path());
    EXPECT_EQ(1u, request->numQueryComponent("x"));
    EXPECT_EQ("1", request->getStringQueryComponent("x", 0));
  }
}

TEST(RequestUrlTest, QueryComponentsAreSplitOnFirstUseAndBehaveAsTheMap) {
  HttpRequestPtr request = parseOne("GET /p?b=2&a=%41&a=&c=x+y HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(request);
  // A copy taken before anyone looked splits the same pairs on its own.
  HttpRequest copy = *request;
  const std::multimap<std::string, std::string> expected = {
      {"a", "A"}, {"a", ""}, {"b", "2"}, {"c", "x y"}};
  const std::multimap<std::string, std::string>& as_map = request->query_components;
  EXPECT_EQ(expected, as_map);
  std::vector<std::string> keys;
  for (const auto& pair : copy.query_components) keys.push_back(pair.first);
  EXPECT_EQ((std::vector<std::string>{"a", "a", "b", "c"}), keys);
  EXPECT_TRUE(copy.query_components == request->query_components);

  // Changing one changes only that one.
  copy.query_components.emplace("d", "4");
  copy.query_components.erase("b");
  EXPECT_EQ(4u, request->query_components.size());
  EXPECT_EQ(1u, copy.query_components.count("d"));
  EXPECT_EQ(0u, copy.query_components.count("b"));
  EXPECT_EQ("2", request->getStringQueryComponent("b", 0));

  // A new url replaces the pairs, even ones never looked at.
  HttpRequest other = *parseOne("GET /p?x=1 HTTP/1.1\r\nHost: h\r\n\r\n");
  other.url = GURL("http://h/q");
  other.query_components.assignFrom(other.url);
  EXPECT_TRUE(other.query_components.empty());
  other.query_components.clear();
  EXPECT_EQ(0u, other.numQueryComponent("x"));

  // Threads a handler hands the request to may all read it first at once.
  HttpRequestPtr shared = parseOne("GET /p?a=1&b=2&a=3 HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(shared);
  std::vector<std::thread> readers;
  std::atomic<int> right{0};
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] { right += shared->getStringQueryComponent("a", 1) == "3"; });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(4, right.load());
}

// The URL is built from "http://", Host and the target joined; the Host may
// hold what changes how the three read together.
TEST(RequestUrlTest, HostIsReadAsPartOfTheJoinedUrl) {
  struct Case {
    const char* host;
    const char* target;
    const char* spec;  // possibly_invalid_spec
    const char* path;
  } cases[] = {
      {"Example.COM:80", "/a/./b?q", "http://example.com/a/b?q", "/a/b"},
      {"h/x", "/y", "http://h/x/y", "/x/y"},
      {"h?x", "/y", "http://h/?x/y", "/"},
      {"h", "//x/../y", "http://h//y", "//y"},
      {"", "/a", "http:///a", "/a"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.host) + " " + c.target);
    HttpRequestPtr request =
        parseOne(std::string("GET ") + c.target + " HTTP/1.1\r\nHost: " + c.host + "\r\n\r\n");
    ASSERT_TRUE(request);
    EXPECT_EQ(c.spec, request->url.possibly_invalid_spec());
    EXPECT_EQ(c.path, request->url.path());
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
