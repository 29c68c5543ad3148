#include "relay/http_request_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <sstream>

#include "common/logging.h"
#include "tests/log_capture.h"

// Every allocation of the process is counted, so that a test can measure the
// work the parser does by the bytes it allocates. ThreadSanitizer's runtime
// brings operators of its own that cannot be replaced; the count is off there
// (this file has no threads for it to look at anyway).
#if defined(__SANITIZE_THREAD__)
#define HSL_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HSL_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef HSL_COUNT_ALLOCATIONS
#define HSL_COUNT_ALLOCATIONS 1
#endif

namespace {
std::atomic<size_t> g_allocated_bytes{0};

[[maybe_unused]] void* countedAllocation(size_t size) {
  g_allocated_bytes.fetch_add(size, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}
}  // namespace

#if HSL_COUNT_ALLOCATIONS
void* operator new(size_t size) {
  void* p = countedAllocation(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return countedAllocation(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return countedAllocation(size);
}
// GCC sees free() after a call of this very operator new and takes it for a
// mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#endif

namespace vantu {
namespace relay {
namespace {

size_t allocatedBytes() { return g_allocated_bytes.load(std::memory_order_relaxed); }

// Everything a caller can see of a parsed request, as one comparable text.
std::string describe(const HttpRequest& r) {
  std::ostringstream out;
  out << "method=" << r.method << " uri=" << r.uri << " url=" << r.url.possibly_invalid_spec()
      << " valid=" << r.url.is_valid() << " len=" << r.content_length << " body=" << r.body;
  for (const auto& h : r.headers) out << " [" << h.first << "|" << h.second << "]";
  for (const auto& q : r.query_components) out << " {" << q.first << "|" << q.second << "}";
  return out.str();
}

std::string describe(const HttpResponse& r) {
  std::ostringstream out;
  out << r.status_code << " " << r.status_string << " len=" << r.content_length
      << " body=" << r.body;
  for (const auto& h : r.headers) out << " [" << h.first << "|" << h.second << "]";
  return out.str();
}

struct Fed {
  std::vector<std::string> messages;  // described
  std::vector<bool> results;          // one per chunk
  bool ok() const { return std::find(results.begin(), results.end(), false) == results.end(); }
};

// Feeds the chunks in turn to one parser.
template <typename Parser = HttpRequestParser, typename Message = HttpRequest>
Fed feed(const std::vector<std::string>& chunks) {
  Parser parser;
  Fed fed;
  for (const std::string& chunk : chunks) {
    std::vector<std::shared_ptr<Message>> parsed;
    fed.results.push_back(parser.parse(chunk, &parsed));
    for (const auto& m : parsed) fed.messages.push_back(describe(*m));
  }
  return fed;
}

Fed feedResponses(const std::vector<std::string>& chunks) {
  return feed<HttpResponseParser, HttpResponse>(chunks);
}

// The stream whole, cut in two anywhere, and byte by byte (with an empty
// chunk among them, when `empty_chunk`) must give the same messages, every
// chunk accepted. Returns the stream's messages read whole.
template <typename Parser = HttpRequestParser, typename Message = HttpRequest>
Fed expectEverySplitAgrees(const std::string& stream, bool empty_chunk) {
  const Fed whole = feed<Parser, Message>({stream});
  EXPECT_TRUE(whole.ok());
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    const Fed split = feed<Parser, Message>({stream.substr(0, cut), stream.substr(cut)});
    EXPECT_TRUE(split.ok());
    EXPECT_EQ(whole.messages, split.messages);
  }
  std::vector<std::string> bytes;
  for (char c : stream) bytes.emplace_back(1, c);
  if (empty_chunk) bytes.insert(bytes.begin() + bytes.size() / 2, std::string());
  const Fed byte_by_byte = feed<Parser, Message>(bytes);
  EXPECT_TRUE(byte_by_byte.ok());
  EXPECT_EQ(whole.messages, byte_by_byte.messages);
  return whole;
}

const char* const kStreams[] = {
    "GET /a?x=1 HTTP/1.1\r\nHost: h\r\n\r\n",
    ("POST /rpc HTTP/1.1\r\nContent-Length: 5\r\nRpc-Service: s\r\n\r\nhello"
     "GET / HTTP/1.0\r\n\r\n"),
    "PUT /p HTTP/1.1\nContent-Length: 4\n\nab\ncDELETE /d HTTP/1.1\r\r",
    "GET http://Example.COM:80/a/../b?q=%41+b HTTP/1.1\r\nHost: ignored\r\n\r\n",
    "POST / HTTP/1.1\r\nContent-Length: 2\r\n\r\n\r\nHEAD /h HTTP/1.1\r\n\r\n",
    "OPTIONS * HTTP/1.1\r\nX: a: b\r\nX: c\r\nContent-length: 3\r\n\r\n",
};

TEST(HttpRequestParserTest, SplitAnywhereYieldsSameRequests) {
  for (const char* stream : kStreams) {
    SCOPED_TRACE(stream);
    EXPECT_FALSE(expectEverySplitAgrees(stream, true).messages.empty());
  }
}

TEST(HttpRequestParserTest, RequestFieldsUrlAndQuery) {
  // No Host: an empty one is added, beside a differently cased one. Query
  // keys and values are unescaped.
  Fed fed = feed({"GET /p HTTP/1.1\r\nhost: x\r\n\r\n",
                  "GET /q?%61=1&b%20c=%41+%2B&%7a&=e&d=%4 HTTP/1.1\r\nHost: h\r\n\r\n"});
  ASSERT_EQ(2u, fed.messages.size());
  EXPECT_NE(std::string::npos, fed.messages[0].find("[Host|] [host|x]"));
  EXPECT_NE(std::string::npos, fed.messages[1].find(" {|e} {a|1} {b c|A +} {d|%4} {z|}"))
      << fed.messages[1];
  // Queries survive what strict URL grammar forbids but clients send, and a
  // request without Host (its URL cannot be valid) keeps its query too.
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  ASSERT_TRUE(
      parser.parse("GET /a?q=a|b&p=100%&u=\xc3\xa9 HTTP/1.1\r\nHost: h\r\n\r\n"
                   "GET /b?x=1 HTTP/1.0\r\n\r\n",
                   &r));
  ASSERT_EQ(2u, r.size());
  EXPECT_TRUE(r[0]->url.is_valid());
  EXPECT_EQ("a|b", r[0]->getStringQueryComponent("q", 0));
  EXPECT_EQ("100%", r[0]->getStringQueryComponent("p", 0));
  EXPECT_EQ("\xc3\xa9", r[0]->getStringQueryComponent("u", 0));
  EXPECT_FALSE(r[1]->url.is_valid());
  EXPECT_EQ("1", r[1]->getStringQueryComponent("x", 0));
  EXPECT_EQ("/b", r[1]->url.path());
}

TEST(HttpRequestParserTest, HeaderFramingRules) {
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  ASSERT_TRUE(parser.parse(
      "POST / HTTP/1.1\r\nContent-Length: 5\r\nX:  two\r\n: empty\r\nV: a:b\r\nV: c\r\n\r\n"
      "12345GE",
      &r));
  ASSERT_EQ(1u, r.size());
  EXPECT_EQ("12345", r[0]->body);
  EXPECT_EQ(5u, r[0]->content_length);
  EXPECT_EQ(" two", r[0]->headers["X"]);
  EXPECT_EQ("empty", r[0]->headers[""]);
  EXPECT_EQ("c", r[0]->headers["V"]);
  // The two extra bytes start the next request.
  ASSERT_TRUE(parser.parse("T /x HTTP/1.1\r\n\r\n", &r));
  ASSERT_EQ(2u, r.size());
  EXPECT_EQ(kHttpGet, r[1]->method);
  EXPECT_EQ("/x", r[1]->uri);

  // Only the exact name frames a body; the blank line as last byte completes.
  ASSERT_TRUE(parser.parse("POST /y HTTP/1.1\r\ncontent-length: 3\r\n\r\n", &r));
  ASSERT_EQ(3u, r.size());
  EXPECT_EQ("", r[2]->body);
  EXPECT_EQ(0u, r[2]->content_length);

  // An LF then a CR are two line ends: the second line is the blank one.
  ASSERT_TRUE(parser.parse("GET /z HTTP/1.1\n\r", &r));
  ASSERT_EQ(4u, r.size());
}

TEST(HttpRequestParserTest, ParsingGoesOnAfterARejectedLine) {
  // Which lines match is the line matcher's to prove; here, that a refused
  // header line delivers nothing.
  for (const char* header : {"X:y", "X", "Content-Length: -1", "Content-Length: 1x",
                             "Content-Length: 4294967296", "Content-Length:  1"}) {
    SCOPED_TRACE(header);
    const Fed fed = feed({std::string("GET / HTTP/1.1\r\n") + header + "\r\n\r\n"});
    EXPECT_FALSE(fed.ok());
    EXPECT_TRUE(fed.messages.empty());
  }
  // Two good requests, then a bad one: both delivered, result false; the parser
  // goes on from the state before the bad line.
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  EXPECT_FALSE(
      parser.parse("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\nGET /3 HTTP/1.1\r\n"
                   "bad header\r\nmore garbage",
                   &r));
  ASSERT_EQ(2u, r.size());
  EXPECT_EQ("/2", r[1]->uri);
  EXPECT_TRUE(parser.parse("Ok: 1\r\n\r\n", &r));
  ASSERT_EQ(3u, r.size());
  EXPECT_EQ("/3", r[2]->uri);
  EXPECT_EQ("1", r[2]->headers["Ok"]);
  r.clear();

  // Rejected request lines, the unknown method one included, leave the parser
  // waiting for a request line, and the next good one is taken.
  EXPECT_FALSE(parser.parse("GET /v HTTP/1.2\r\n", &r));
  EXPECT_FALSE(parser.parse("PATCH /p HTTP/1.1\r\n", &r));
  EXPECT_FALSE(parser.parse("\r\n", &r));
  EXPECT_TRUE(parser.parse("PUT /ok HTTP/1.0\r\nHost: h\r\n\r\n", &r));
  ASSERT_EQ(1u, r.size());
  EXPECT_EQ("method=4 uri=/ok url=http://h/ok valid=1 len=0 body= [Host|h]", describe(*r[0]));

  // A rejected Content-Length line has stored its header but left the length
  // that an earlier one set, and that length still frames the body.
  EXPECT_TRUE(parser.parse("POST /p HTTP/1.1\r\nContent-Length: 5\r\n", &r));
  EXPECT_FALSE(parser.parse("Content-Length: 1x\r\nthe rest: dropped\r\n", &r));
  EXPECT_TRUE(parser.parse("Host: h\r\n\r\nhelloGET /next HTTP/1.1\r\n\r\n", &r));
  ASSERT_EQ(3u, r.size());
  EXPECT_EQ("method=3 uri=/p url=http://h/p valid=1 len=5 body=hello [Content-Length|1x] [Host|h]",
            describe(*r[1]));
  EXPECT_EQ("/next", r[2]->uri);

  // Without an earlier length the request keeps 0 and ends at its blank line.
  EXPECT_FALSE(parser.parse("POST /q HTTP/1.1\r\nContent-Length: -3\r\n", &r));
  EXPECT_TRUE(parser.parse("\r\nGET /after HTTP/1.1\r\n\r\n", &r));
  ASSERT_EQ(5u, r.size());
  EXPECT_EQ("method=3 uri=/q url=http:///q valid=0 len=0 body= [Content-Length|-3] [Host|]",
            describe(*r[3]));
  EXPECT_EQ("/after", r[4]->uri);

  // Split between CR and LF after a rejected line, the LF is still part of
  // that line end and not an empty line of its own.
  EXPECT_FALSE(parser.parse("GET / HTTP/1.1\r\nbad\r", &r));
  EXPECT_TRUE(parser.parse("\nHost: h\r\n\r\n", &r));
  ASSERT_EQ(6u, r.size());
  EXPECT_EQ("h", r[5]->headers["Host"]);
}

TEST(HttpRequestParserTest, LogsUnknownMethodsAndTracesAtLevelFive) {
  vantu::testing::LogCapture log("http_request_parser", 2);
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  EXPECT_FALSE(parser.parse("PATCH /x HTTP/1.1\r\n", &r));
  EXPECT_FALSE(parser.parse(" /x HTTP/1.1\r\n", &r));
  EXPECT_FALSE(parser.parse("GET /x HTTP/1.2\r\n", &r));  // not logged
  setLogLevel("http_request_parser", 5);
  EXPECT_TRUE(parser.parse("POST /rpc HTTP/1.1\r\nA: b c\r\n\r\n", &r));
  const std::vector<std::string> records = log.takeTexts();
  const std::string prefix = "|relay/http_request_parser|";
  EXPECT_EQ((std::vector<std::string>{
                "2" + prefix + "Unknown method PATCH", "2" + prefix + "Unknown method ",
                "5" + prefix + "Method: 3=POST URI=/rpc", "5" + prefix + "Key=A value=b c"}),
            records);
}

TEST(HttpRequestParserTest, ReusedOutputVectorGrowsGeometrically) {
  // One request per call into the same vector: growing it to its exact new
  // size on every call would copy it whole each time.
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  const std::string request = "GET / HTTP/1.1\r\nHost: h\r\n\r\n";
  int reallocations = 0;
  for (int i = 0; i < 20000; ++i) {
    const size_t capacity = r.capacity();
    ASSERT_TRUE(parser.parse(request, &r));
    if (r.capacity() != capacity) ++reallocations;
  }
  EXPECT_EQ(20000u, r.size());
  EXPECT_LE(reallocations, 40);
}

TEST(HttpRequestParserTest, LongLinesFedByteByByteCopyEachByteAFewTimes) {
  // A line that arrives one byte per chunk must cost a constant amount of work
  // per byte: counted here as the bytes the parser allocates, which a parser
  // that rebuilds its partial line for every chunk makes grow with the square
  // of the line's length. The budget is checked as the bytes go in, so such a
  // parser fails long before it would finish.
  if (!HSL_COUNT_ALLOCATIONS) GTEST_SKIP() << "allocations are not counted in this build";
  constexpr size_t kLength = 256 << 10;
  constexpr size_t kBudget = 16 * kLength;
  HttpRequestParser parser;
  std::vector<HttpRequestPtr> r;
  r.reserve(2);
  const std::string byte(1, 'a');
  for (const char* start : {"GET /", "X: "}) {
    SCOPED_TRACE(start);
    const size_t before = allocatedBytes();
    ASSERT_TRUE(parser.parse(start, &r));
    for (size_t i = 0; i < kLength; ++i) {
      ASSERT_TRUE(parser.parse(byte, &r));
      ASSERT_LE(allocatedBytes() - before, kBudget) << "after " << i << " bytes";
    }
    ASSERT_TRUE(parser.parse(*start == 'G' ? " HTTP/1.1\r\n" : "\r\n", &r));
    EXPECT_LE(allocatedBytes() - before, kBudget);
  }
  ASSERT_TRUE(parser.parse("\r\n", &r));
  ASSERT_EQ(1u, r.size());
  EXPECT_EQ(kLength + 1, r[0]->uri.size());
  EXPECT_EQ(kLength, r[0]->headers["X"].size());
}

TEST(HttpResponseParserTest, SplitAnywhereYieldsSameResponses) {
  const std::string stream =
      "HTTP/1.1 200 OK\r\nRpc-Id: 7\r\nContent-Length: 3\r\nRpc-Failed: 0\r\n\r\n\r\nx"
      "HTTP/1.0 500 Bad: news\nConnection: close\n\n"
      "HTTP/1.1 204 \r\rHTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  const Fed whole = expectEverySplitAgrees<HttpResponseParser, HttpResponse>(stream, false);
  ASSERT_EQ(4u, whole.messages.size());
  EXPECT_EQ(
      "200 OK len=3 body=\r\nx [Connection|keep-alive] [Content-Length|3] [Rpc-Failed|0] "
      "[Rpc-Id|7]",
      whole.messages[0]);
  EXPECT_EQ("500 Bad: news len=0 body= [Connection|close]", whole.messages[1]);
  EXPECT_EQ("204  len=0 body= [Connection|keep-alive]", whole.messages[2]);
}

TEST(HttpResponseParserTest, ParsingGoesOnAfterARejectedLine) {
  for (const char* line : {"HTTP/1.1 200", "HTTP/1.1  OK", "HTTP/1.1 99999999999 OK",
                           "HTTP/2.0 200 OK", "", "HTTP/1.1 2x0 OK"}) {
    SCOPED_TRACE(line);
    const Fed fed = feedResponses({std::string(line) + "\r\n\r\n"});
    EXPECT_FALSE(fed.ok());
    EXPECT_TRUE(fed.messages.empty());
  }
  // A rejected status line, then a rejected header line: each drops the rest
  // of its chunk, and the same parser reads what follows.
  const Fed fed = feedResponses({
      "HTTP/1.1 200\r\nHTTP/1.1 201 dropped with the rest of the chunk\r\n\r\n",
      "HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\n\r\nhi",
      "HTTP/1.1 200 OK\r\nA: 1\r\nno colon\r\nB: dropped\r\n",
      "C: 3\r\n\r\n",
  });
  EXPECT_EQ((std::vector<bool>{false, true, false, true}), fed.results);
  ASSERT_EQ(2u, fed.messages.size());
  EXPECT_EQ("404 Not Found len=2 body=hi [Connection|keep-alive] [Content-Length|2]",
            fed.messages[0]);
  EXPECT_EQ("200 OK len=0 body= [A|1] [C|3] [Connection|keep-alive]", fed.messages[1]);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
