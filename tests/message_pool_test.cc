#include "relay/message_pool.h"

#include <gtest/gtest.h>

#include <string>

#include "common/memory_policy.h"
#include "relay/http_request_parser.h"

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
  HttpResponse* used = newResponse(pool);
  used->headers.clear();  // even without its Connection header it comes back with one
  used->setHeader("X-A", "1");
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
  adopt(recycled);
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

}  // namespace
}  // namespace message_pool
}  // namespace relay
}  // namespace vantu
