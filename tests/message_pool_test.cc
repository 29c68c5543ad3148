#include "relay/message_pool.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/memory_policy.h"
#include "relay/http_request_parser.h"
#include "relay/request_reader.h"

namespace vantu {
namespace relay {
namespace message_pool {
namespace {

// Every field of a request and of a response, as text, so that a recycled
// message can be compared with a new one field by field. A field added to the
// messages belongs here, and in the pool's reset.
std::string describe(HttpRequest& request) {
  std::string text = "headers:";
  for (const auto& header : request.headers) text += header.first + "=" + header.second + ";";
  text += " content_length:" + std::to_string(request.content_length);
  text += " body:" + request.body;
  text += " url:" + request.url.possibly_invalid_spec() + (request.url.is_valid() ? "(valid)" : "");
  text += " method:" + std::to_string(request.method);
  text += " query:";
  for (const auto& pair : request.query_components) text += pair.first + "=" + pair.second + ";";
  text += " uri:" + request.uri;
  text += " minor_version:" + std::to_string(request.minor_version);
  return text;
}

std::string describe(HttpResponse& response) {
  std::string text = "headers:";
  for (const auto& header : response.headers) text += header.first + "=" + header.second + ";";
  text += " content_length:" + std::to_string(response.content_length);
  text += " body:" + response.body;
  text += " content:" + std::string(response.content.begin(), response.content.end());
  text += " status:" + std::to_string(response.status_code) + " " + response.status_string;
  return text;
}

TEST(MessagePoolTest, RecycledRequestEqualsANewOne) {
  Pool* pool = threadPool();
  ASSERT_NE(nullptr, pool);
  // Every field set, the query components split and one header stored twice.
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  ASSERT_TRUE(parser.parse(
      "PUT /p?a=1&b=%41 HTTP/1.0\r\nHost: h\r\nHost: h2\r\nContent-Length: 3\r\n\r\nxyz",
      &requests));
  ASSERT_EQ(1u, requests.size());
  HttpRequest* used = requests[0].get();
  ASSERT_EQ(2u, used->query_components.size());
  HttpRequest fresh;
  ASSERT_NE(describe(fresh), describe(*used));
  requests.clear();  // the last reference: back to this thread's pool

  HttpRequest* recycled = newRequest(pool);
  EXPECT_EQ(used, recycled) << "the pool did not keep the request";
  EXPECT_EQ(describe(fresh), describe(*recycled));
  EXPECT_EQ(0u, recycled->query_components.splitCount());
  // A header stored in a recycled node has its own value, not the old one's tail.
  setHeader(pool, &recycled->headers, recycled->headers.end(), "Host", 4, "z", 1);
  EXPECT_EQ("z", recycled->headers["Host"]);
  adopt(recycled);
}

TEST(MessagePoolTest, RecycledResponseEqualsANewOne) {
  Pool* pool = threadPool();
  // Whatever its Connection header became, a response comes back with the
  // default one.
  const char* const kConnections[] = {nullptr, "close", "keep-alive", ""};
  for (const char* connection : kConnections) {
    SCOPED_TRACE(connection != nullptr ? connection : "no Connection header");
    HttpResponse* used = newResponse(pool);
    used->headers.clear();
    if (connection != nullptr) used->setHeader("Connection", connection);
    used->setHeader("X-A", "1");
    used->setHeader("Age", "2");  // sorts before Connection
    used->content_length = 7;
    used->body = "body";
    used->content.assign(10, 'c');
    used->status_code = HttpResponse::kNotFound;
    used->status_string = "Gone Fishing";
    adopt(used).reset();

    HttpResponse* recycled = newResponse(pool);
    EXPECT_EQ(used, recycled) << "the pool did not keep the response";
    HttpResponse fresh;
    EXPECT_EQ(describe(fresh), describe(*recycled));
    std::string fresh_head, recycled_head;
    fresh.outputHeader(&fresh_head);
    recycled->outputHeader(&recycled_head);
    EXPECT_EQ(fresh_head, recycled_head);
    // With Connection first, its node is the one kept.
    recycled->setHeader("Connection", connection != nullptr ? connection : "x");
    adopt(recycled).reset();
    HttpResponse* again = newResponse(pool);
    ASSERT_EQ(used, again);
    HttpResponse also_fresh;
    EXPECT_EQ(describe(also_fresh), describe(*again));
    adopt(again);
  }
}

TEST(MessagePoolTest, RecycledNodesTakeTheNewNameAndValue) {
  Pool* pool = threadPool();
  // A node given back is the next one taken: the new field lands in the old
  // field's strings, of the same size or not.
  struct Case {
    const char* old_name;
    const char* old_value;
    const char* name;
    const char* value;
  } cases[] = {
      {"X-A", "1", "X-B", "2"},  // both the same size
      {"X-Long-Name", "v", "X-B", "value"},
      {"X-B", "value", "X-Long-Name", "v"},
      {"X-A", "", "X-B", ""},
      // Same sizes from 4 to 16 bytes, differing at both ends and between.
      {"X-Abcd", "abcde", "Y-Abce", "vwxyz"},
      {"X-Seven-Bytes", "012345678", "Y-Seven-Bytez", "876543210"},
      {"Content-Type", "text/plain", "Content-Tzpe", "text/plaim"},
      {"X-Sixteen-Bytes1", "0123456789abcdef", "Y-Sixteen-Bytes2", "fedcba9876543210"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.old_name) + " -> " + c.name);
    HttpResponse* used = newResponse(pool);
    used->setHeader(c.old_name, c.old_value);
    adopt(used).reset();
    HttpResponse* recycled = newResponse(pool);
    recycled->setHeader(c.name, c.value);
    HttpResponse fresh;
    fresh.setHeader(c.name, c.value);
    EXPECT_EQ(describe(fresh), describe(*recycled));
    // A field set to its own value keeps it.
    recycled->setHeader(c.name, recycled->headers[c.name]);
    EXPECT_EQ(c.value, recycled->headers[c.name]);
    adopt(recycled);
  }
}

TEST(MessagePoolTest, RecyclingKeepsSmallBuffersAndFreesLargeOnes) {
  Pool* pool = threadPool();
  for (size_t size : {size_t{100}, memory_policy::kLargestKeptString + 1}) {
    SCOPED_TRACE(size);
    HttpRequest* request = newRequest(pool);
    request->body.assign(size, 'b');
    request->uri.assign(size, 'u');
    const size_t capacity = request->body.capacity();
    adopt(request).reset();
    HttpRequest* recycled = newRequest(pool);
    ASSERT_EQ(request, recycled);
    if (capacity > memory_policy::kLargestKeptString) {
      EXPECT_EQ(std::string().capacity(), recycled->body.capacity());
      EXPECT_EQ(std::string().capacity(), recycled->uri.capacity());
    } else {
      EXPECT_EQ(capacity, recycled->body.capacity());
    }
    adopt(recycled);
  }
}

TEST(MessagePoolTest, RequestToFillKeepsOnlyFewSmallFields) {
  Pool* pool = threadPool();
  struct Case {
    const char* what;
    size_t fields;
    size_t value_size;
    bool kept;
  };
  const Case kCases[] = {
      {"few small fields", 3, 10, true},
      {"as many as are kept", memory_policy::kMaxRefilledHeaders, 10, true},
      {"one field too many", memory_policy::kMaxRefilledHeaders + 1, 10, false},
      {"a large value", 1, memory_policy::kLargestKeptString + 1, false},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    HttpRequest* request = newRequest(pool);
    for (size_t i = 0; i < c.fields; ++i) {
      request->headers["X-" + std::to_string(i)] = std::string(c.value_size, 'v');
    }
    adopt(request).reset();
    HttpRequest* refilled = newRequestToFill(pool);
    ASSERT_EQ(request, refilled);
    EXPECT_EQ(c.kept ? c.fields : 0u, refilled->headers.size());
    adopt(refilled).reset();
    // The plain kind comes out as new whatever its last use left.
    HttpRequest* fresh = newRequest(pool);
    ASSERT_EQ(request, fresh);
    EXPECT_TRUE(fresh->headers.empty());
    adopt(fresh);
  }
}

// Requests of one connection, each released before the next arrives: each
// reader's requests mostly land in objects that held another request's
// fields, and must come out with their own only.
TEST(MessagePoolTest, ReadersRefillRecycledRequestsWithTheirOwnFieldsOnly) {
  struct Head {
    const char* fields;
    Headers expected;
  };
  const Head kHeads[] = {
      {"Host: h\r\nX-A: 1\r\nX-B: 2\r\n", {{"Host", "h"}, {"X-A", "1"}, {"X-B", "2"}}},
      // A name that an old one starts with.
      {"Host: h\r\nX: 9\r\n", {{"Host", "h"}, {"X", "9"}}},
      {"Host: h2\r\nX-B: 3\r\n", {{"Host", "h2"}, {"X-B", "3"}}},
      {"Host: h\r\nX-A: 4\r\nX-A: 5\r\nX-C: 6\r\n", {{"Host", "h"}, {"X-A", "5"}, {"X-C", "6"}}},
      {"Host: h\r\nx-a: 7\r\n", {{"Host", "h"}, {"x-a", "7"}}},
      {"Host: h3\r\n", {{"Host", "h3"}}},
      {"Host: h\r\nX-A: 1\r\nX-B: 2\r\nX-C: 3\r\nX-D: 4\r\n",
       {{"Host", "h"}, {"X-A", "1"}, {"X-B", "2"}, {"X-C", "3"}, {"X-D", "4"}}},
      {"Host: h\r\nContent-Length: 2\r\nX-B: 8\r\n",
       {{"Content-Length", "2"}, {"Host", "h"}, {"X-B", "8"}}},
  };
  for (bool strict : {false, true}) {
    SCOPED_TRACE(strict ? "strict reader" : "default reader");
    std::unique_ptr<RequestReader> reader = newRequestReader(strict, RequestLimits());
    std::set<HttpRequest*> seen;
    int refilled = 0;
    for (int round = 0; round < 3; ++round) {
      for (const Head& head : kHeads) {
        SCOPED_TRACE(head.fields);
        const bool with_body = head.expected.count("Content-Length") != 0;
        std::vector<HttpRequestPtr> got;
        ASSERT_TRUE(reader->parse(
            std::string("POST /p HTTP/1.1\r\n") + head.fields + "\r\n" + (with_body ? "ok" : ""),
            &got));
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(head.expected, got[0]->headers);
        EXPECT_EQ("http://" + head.expected.at("Host") + "/p", got[0]->url.possibly_invalid_spec());
        if (!seen.insert(got[0].get()).second) ++refilled;
      }
    }
    EXPECT_GT(refilled, 10) << "requests were not recycled: the test tests nothing";
  }
}

}  // namespace
}  // namespace message_pool
}  // namespace relay
}  // namespace vantu
