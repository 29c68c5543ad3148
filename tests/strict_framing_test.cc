#include "relay/strict_framing.h"

#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

namespace vantu {
namespace relay {
namespace {

// Method, target and (when there is one) the body of each request, so that a
// table row can say which requests a stream must give.
std::string summarize(const std::vector<HttpRequestPtr>& requests) {
  std::string out;
  for (const auto& r : requests) {
    if (!out.empty()) out += ", ";
    out += httpMethodToName(r->method);
    out += " " + r->uri;
    if (!r->body.empty()) out += " " + r->body;
    if (r->content_length != r->body.size()) out += " len=" + std::to_string(r->content_length);
  }
  return out;
}

// Everything a handler can see of a request.
std::string describe(const HttpRequest& r) {
  std::ostringstream out;
  out << r.method << " " << r.uri << " 1." << r.minor_version
      << " url=" << r.url.possibly_invalid_spec() << " valid=" << r.url.is_valid()
      << " len=" << r.content_length << " body=" << r.body;
  for (const auto& h : r.headers) out << " [" << h.first << "|" << h.second << "]";
  for (const auto& q : r.query_components) out << " {" << q.first << "|" << q.second << "}";
  return out.str();
}

// The requests read, whether every chunk was accepted, errorStatus() when one
// was not, and whether the stream ends with them.
using Outcome = std::tuple<std::string, bool, int, bool>;

// Feeds every chunk, also those after the parser is spent: they must add
// nothing, and a false result must stay false.
Outcome feed(const std::vector<std::string>& chunks, const RequestLimits& limits = {}) {
  StrictRequestParser parser(limits);
  std::vector<HttpRequestPtr> requests;
  bool ok = true;
  for (const std::string& chunk : chunks) {
    const bool accepted = parser.parse(chunk, &requests);
    EXPECT_TRUE(ok || !accepted) << "a failed parser recovered";
    ok = ok && accepted;
  }
  return {summarize(requests), ok, ok ? 0 : parser.errorStatus(), parser.closing()};
}

// The stream whole, byte by byte, and cut in two at every position must all
// give `expected`.
void expectEverySplit(const std::string& stream, const Outcome& expected,
                      const RequestLimits& limits = {}) {
  EXPECT_EQ(expected, feed({stream}, limits)) << "whole";
  std::vector<std::string> bytes;
  for (char c : stream) bytes.emplace_back(1, c);
  EXPECT_EQ(expected, feed(bytes, limits)) << "byte by byte";
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    ASSERT_EQ(expected, feed({stream.substr(0, cut), stream.substr(cut)}, limits)) << "cut " << cut;
  }
}

const std::string kHost = "Host: h\r\n";
const std::string kChunked = "Transfer-Encoding: chunked\r\n";
std::string get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\n" + kHost + "\r\n";
}
std::string post(const std::string& fields, const std::string& body) {
  return "POST /p HTTP/1.1\r\n" + kHost + fields + "\r\n" + body;
}

// One chunk of a chunked body holding `data`.
std::string chunk(const std::string& data) {
  std::ostringstream out;
  out << std::hex << data.size() << "\r\n" << data << "\r\n";
  return out.str();
}

struct Accepted {
  std::string stream;
  std::string requests;
  bool closing;
};

TEST(StrictRequestParserTest, AcceptsWhatTheRfcAllowsHoweverSplit) {
  const Accepted kCases[] = {
      {"\r\n\r\n" + get("/a") + "\r\n" + get("/b"), "GET /a, GET /b", false},
      {post("Content-Length: 5\r\n", "hello") + get("/n"), "POST /p hello, GET /n", false},
      {post("content-LENGTH: 003\r\n", "abc"), "POST /p abc", false},
      {post("Content-Length: 0\r\n", "") + get("/n"), "POST /p, GET /n", false},
      // A line longer than any buffer kept between requests.
      {get("/" + std::string(5000, 'l') + "?q") + get("/n"),
       "GET /" + std::string(5000, 'l') + "?q, GET /n", false},
      {post(kChunked, "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n") + get("/n"),
       "POST /p hello world, GET /n", false},
      {post("transfer-ENCODING: Chunked\r\n", "a\r\n0123456789\r\nA\r\nabcdefghij\r\n000\r\n\r\n"),
       "POST /p 0123456789abcdefghij", false},
      {post(kChunked, "0005;name=value\r\nhello\r\n0 ; a = \"q\\\"x;\" ; b\r\n\r\n"),
       "POST /p hello", false},
      {post(kChunked, "3\r\nabc\r\n0\r\nX-Sum: 1\r\nY:\r\n\r\n"), "POST /p abc", false},
      {post("Transfer-Encoding: , chunked,\r\n", "0\r\n\r\n"), "POST /p", false},
      // A chunk whose data is a whole request is only body.
      {post(kChunked, chunk(get("/hidden")) + "0\r\n\r\n"), "POST /p " + get("/hidden"), false},
      {"GET /a HTTP/1.1\r\nHost: [::1]:8080\r\n\r\n"
       "GET /b HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"
       "GET /c HTTP/1.1\r\nhOST: ex-ample.com:65535\r\n\r\n"
       "GET /d HTTP/1.1\r\nHost:\r\n\r\n"
       "GET /e HTTP/1.1\r\nHost: a%20b:\r\n\r\n"
       "GET /f HTTP/1.1\r\nHost: [v1.x:y]\r\n\r\n",
       "GET /a, GET /b, GET /c, GET /d, GET /e, GET /f", false},
      {"OPTIONS * HTTP/1.1\r\n" + kHost + "\r\nHEAD /h HTTP/1.1\r\n" + kHost +
           "\r\nPUT /u HTTP/1.1\r\n" + kHost + "\r\nDELETE /d HTTP/1.1\r\n" + kHost +
           "\r\nTRACE /t HTTP/1.1\r\n" + kHost + "\r\n" + get("http://x/y?q=1") + get("//z"),
       "OPTIONS *, HEAD /h, PUT /u, DELETE /d, TRACE /t, GET http://x/y?q=1, GET //z", false},
      {"GET /v HTTP/1.1\r\n" + kHost + "X-V: \t a \"b\" \x80\xff\t \r\nX-E:\r\n\r\n", "GET /v",
       false},
      // Connection: close and HTTP/1.0 end the stream, wherever the body splits:
      // what follows is never read.
      {"GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\nGET /b HTTP/1.0\r\n\r\n" + get("/hidden"),
       "GET /a, GET /b", true},
      {post("Connection: close\r\n" + kChunked, "1\r\nx\r\n0\r\n\r\n") + get("/hidden"),
       "POST /p x", true},
  };
  for (const Accepted& c : kCases) {
    SCOPED_TRACE(c.stream);
    expectEverySplit(c.stream, {c.requests, true, 0, c.closing});
  }
}

struct Rejected {
  std::string request;
  int status;
};

// Each faulty request comes after a good one and before a request that must
// never be seen.
TEST(StrictRequestParserTest, RejectsAtTheFaultAndNeverReadsPastIt) {
  // The end-to-end table covers the common shapes; these are the ones only
  // the reader sees, and every chunk syntax fault, split anywhere.
  // A request line, with Host; a chunked body; a Host.
  auto line = [](const std::string& text) { return text + "\r\n" + kHost + "\r\n"; };
  auto chunks = [](const std::string& body) { return post(kChunked, body); };
  auto host = [](const std::string& value) {
    return "GET /a HTTP/1.1\r\nHost: " + value + "\r\n\r\n";
  };
  const Rejected kCases[] = {
      // Line ends and field lines.
      {"\nGET /a HTTP/1.1\r\n" + kHost + "\r\n", 400},
      {"\r\r\n" + get("/a"), 400},
      {"GET /a HTTP/1.1\r\n\tHost: h\r\n\r\n", 400},
      {"GET /a HTTP/1.1\r\n" + kHost + "X(y): 1\r\n\r\n", 400},
      {"GET /a HTTP/1.1\r\n" + kHost + "X\x01: 1\r\n\r\n", 400},
      // Content-Length.
      {post("Content-Length: +5\r\n", "hello"), 400},
      {post("Content-Length: 5 5\r\n", "hello"), 400},
      {post("Content-Length: 0x5\r\n", "hello"), 400},
      {post("Content-Length: 99999999999999999999999\r\n", ""), 413},
      {post("Content-Length: 4294967296\r\n", ""), 413},
      // Transfer-Encoding.
      {post("content-length: 5\r\ntransfer-encoding: CHUNKED\r\n", "0\r\n\r\n"), 400},
      {post("Transfer-Encoding: identity\r\n", ""), 501},
      {post("Transfer-Encoding: chunked, chunked\r\n", "0\r\n\r\n"), 400},
      {post("Transfer-Encoding: chunked;x=1\r\n", "0\r\n\r\n"), 400},
      {post("Transfer-Encoding:\r\n", "0\r\n\r\n"), 400},
      {post("Transfer-Encoding: \"chunked\"\r\n", "0\r\n\r\n"), 400},
      // Chunk sizes, extensions, data ends, trailers.
      {chunks("+5\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("-5\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("0x5\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks(" 5\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5 \r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5\t\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("g\r\n"), 400},
      {chunks("10000000000000000\r\n"), 400},
      {chunks("100000000\r\n"), 413},
      {chunks("5;\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5;a=\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5;a=\"x\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5;a b\r\nhello\r\n0\r\n\r\n"), 400},
      {chunks("5\r\nhelloX\r\n0\r\n\r\n"), 400},
      {chunks("5\r\nhello\n0\r\n\r\n"), 400},
      {chunks("5\r\nhello\r0\r\n\r\n"), 400},
      {chunks("5\nhello\r\n0\r\n\r\n"), 400},
      {chunks("0\r\nBad Trailer: x\r\n\r\n"), 400},
      {chunks("0\r\nT: x\r\n folded\r\n\r\n"), 400},
      {chunks("0\r\n\n"), 400},
      // Host ("%" is as long as the valid Host before it).
      {"GET /a HTTP/1.0\r\nHost: h\r\nHOST: i\r\n\r\n", 400},
      {host("h:65536"), 400},
      {host("h:8x"), 400},
      {host(":80"), 400},
      {host("[::1"), 400},
      {host("h%2"), 400},
      {host("%"), 400},
      // Request lines and targets.
      {"GET /a HTTP/0.9\r\n\r\n", 505},
      {line("GET /a"), 400},
      {line("GET /aXHTTP/1.1"), 400},
      {line("GET /a b HTTP/1.1"), 400},
      {line("GET /a  HTTP/1.1"), 400},
      {line("GET /a HTTP/1.1 "), 400},
      {line("GET /a HTTP/1.1 HTTP/1.1"), 400},
      {line("GET /a HTTP/1.10"), 400},
      {line("GET /a HTTP/2.0"), 505},
      {line("GE(T /a HTTP/1.1"), 400},
      {line("get /a HTTP/1.1"), 501},
      {line(" /a HTTP/1.1"), 400},
      {line("GET /a\tb HTTP/1.1"), 400},
      {line("GET /\x01 HTTP/1.1"), 400},
      {line("GET * HTTP/1.1"), 400},
      {line("OPTIONS *x HTTP/1.1"), 400},
      {line("GET 1http://x/ HTTP/1.1"), 400},
  };

  for (const Rejected& c : kCases) {
    SCOPED_TRACE(c.request);
    expectEverySplit(get("/first") + c.request + get("/hidden"),
                     {"GET /first", false, c.status, false});
  }
}

struct Limited {
  std::string stream;  // never complete: the answer must come before the rest
  RequestLimits limits;
  int status;
};

TEST(StrictRequestParserTest, LimitsAnswerBeforeTheLineOrBodyArrives) {
  const Limited kCases[] = {
      // The request line counts with its CR LF: 32 bytes fit, 33 do not.
      {"GET /" + std::string(100, 'a'), {32, 0}, 414},
      {"GET /" + std::string(17, 'a') + " HTTP/1.1\r\n", {32, 0}, 414},
      {"GET / HTTP/1.1\r\nX: " + std::string(100, 'a'), {32, 0}, 400},
      {"GET / HTTP/1.1\r\nHost: h\r\nX: 123\r\n", {32, 0}, 400},
      {"POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 11\r\n\r\n", {0, 10}, 413},
      {"POST / HTTP/1.1\r\nHost: h\r\n" + kChunked + "\r\n6\r\nabcdef\r\n5\r\n", {0, 10}, 413},
      {"POST / HTTP/1.1\r\nHost: h\r\n" + kChunked + "\r\n1;" + std::string(100, 'x'),
       {64, 0},
       400},
      {"POST / HTTP/1.1\r\nHost: h\r\n" + kChunked + "\r\n0\r\nT: " + std::string(100, 'x'),
       {64, 0},
       400},
  };
  for (const Limited& c : kCases) {
    SCOPED_TRACE(c.stream);
    expectEverySplit(c.stream, {"", false, c.status, false}, c.limits);
  }
  // Within the limits the same shapes pass: a 32-byte request line, a 10-byte
  // chunked body, a trailer block of its own size, a 10-byte declared body.
  expectEverySplit("GET /" + std::string(16, 'a') + " HTTP/1.1\r\n", {"", true, 0, false}, {32, 0});
  expectEverySplit(post(kChunked, "6\r\nabcdef\r\n4\r\nghij\r\n0\r\nT: 1\r\n\r\n"),
                   {"POST /p abcdefghij", true, 0, false}, {60, 10});
  expectEverySplit(post("Content-Length: 10\r\n", "0123456789"),
                   {"POST /p 0123456789", true, 0, false}, {0, 10});

  // One huge chunk is refused from its first bytes past the limit.
  StrictRequestParser parser({64 * 1024, 0});
  std::vector<HttpRequestPtr> requests;
  EXPECT_FALSE(parser.parse("GET /" + std::string(8 << 20, 'a'), &requests));
  EXPECT_EQ(HttpResponse::kRequestUriTooLarge, parser.errorStatus());
}

TEST(StrictRequestParserTest, GivesTheSameRequestsAsTheDefaultReader) {
  const std::string kStreams[] = {
      "GET /a?x=1&y=%41+b&x HTTP/1.1\r\nHost: Example.com:80\r\nAccept: */*\r\nb: 2\r\n\r\n",
      "GET http://Other.example/p/../q?k=v HTTP/1.1\r\nHost: h\r\n\r\n",
      "POST /rpc HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\nRpc-Service: s\r\n\r\nbody",
      "OPTIONS * HTTP/1.1\r\nHost: h\r\n\r\n",
      "GET /old HTTP/1.0\r\nHost: h\r\n\r\n",
  };
  for (const std::string& stream : kStreams) {
    SCOPED_TRACE(stream);
    std::vector<HttpRequestPtr> strict;
    std::vector<HttpRequestPtr> lenient;
    StrictRequestParser strict_parser;
    HttpRequestParser default_parser;
    ASSERT_TRUE(strict_parser.parse(stream, &strict));
    ASSERT_TRUE(default_parser.parse(stream, &lenient));
    ASSERT_EQ(1u, strict.size());
    ASSERT_EQ(1u, lenient.size());
    EXPECT_EQ(describe(*lenient[0]), describe(*strict[0]));
  }
}

// Chunk data may hold line ends; trailers are read but not kept as headers.
TEST(StrictRequestParserTest, ChunkedBodyKeepsItsBytesAndDropsTrailers) {
  const std::string stream =
      "PUT /up HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n"
      "7;ext=\"a b\"\r\nchunk1\n\r\n1\r\n\r\r\n0a\r\n0123456789\r\n"
      "0\r\nChecksum: abc\r\n\r\n" +
      post(kChunked, "2\r\nok\r\n0\r\n\r\n");
  expectEverySplit(stream, {"PUT /up chunk1\n\r0123456789, POST /p ok", true, 0, false});
  StrictRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  ASSERT_TRUE(parser.parse(stream, &requests));
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(
      "4 /up 1.1 url=http://h/up valid=1 len=18 body=chunk1\n\r0123456789 [Host|h] "
      "[Transfer-Encoding|chunked]",
      describe(*requests[0]));
}

TEST(StrictRequestParserTest, ReportsProgressAndContinueRequests) {
  StrictRequestParser parser;
  std::vector<HttpRequestPtr> requests;
  EXPECT_FALSE(parser.headInProgress());
  ASSERT_TRUE(parser.parse("\r\n\r", &requests));
  EXPECT_FALSE(parser.headInProgress());  // empty lines are no head
  ASSERT_TRUE(parser.parse("\nPOST /a HTTP/1.1\r\nHost: h\r\n", &requests));
  EXPECT_TRUE(parser.headInProgress());
  EXPECT_FALSE(parser.bodyInProgress());
  ASSERT_TRUE(parser.parse("Expect: 100-Continue\r\nContent-Length: 2\r\n\r\n", &requests));
  EXPECT_FALSE(parser.headInProgress());
  EXPECT_TRUE(parser.bodyInProgress());
  EXPECT_TRUE(parser.takeContinueRequest());
  EXPECT_FALSE(parser.takeContinueRequest());
  ASSERT_TRUE(parser.parse("ok", &requests));
  EXPECT_FALSE(parser.bodyInProgress());
  EXPECT_EQ(1u, requests.size());

  // A body that arrives with its head, or an HTTP/1.0 client, owes no 100.
  ASSERT_TRUE(parser.parse(
      "POST /b HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\nok",
      &requests));
  EXPECT_FALSE(parser.takeContinueRequest());
  ASSERT_TRUE(
      parser.parse("POST /c HTTP/1.0\r\nConnection: keep-alive\r\nExpect: "
                   "100-continue\r\nContent-Length: 2\r\n\r\n",
                   &requests));
  EXPECT_FALSE(parser.takeContinueRequest());
  EXPECT_TRUE(parser.bodyInProgress());
  ASSERT_TRUE(parser.parse("ok", &requests));
  // A chunked upload asks for it as well.
  ASSERT_TRUE(parser.parse(post("Expect: 100-continue\r\n" + kChunked, "1\r\n"), &requests));
  EXPECT_TRUE(parser.takeContinueRequest());
  ASSERT_TRUE(parser.parse("x\r\n0\r\n", &requests));
  EXPECT_TRUE(parser.bodyInProgress());  // trailers are still to come
  ASSERT_TRUE(parser.parse("\r\n", &requests));
  EXPECT_EQ(4u, requests.size());
  EXPECT_FALSE(parser.closing());
}

// What a parser keeps while it reads a request is lent to it by its thread
// and taken back between requests. Many connections reading at once, a byte
// each in turn, must each get their own; one spent by a fault, or by a
// request that closes, must not lend its leftovers to the next parser; a
// parser whose state went back reads its next request right however split.
TEST(StrictRequestParserTest, ConnectionsReadingAtOnceKeepTheirOwnRequests) {
  // More parsers than the thread keeps spare, each with a request of its own.
  constexpr int kParsers = 40;
  std::vector<std::unique_ptr<StrictRequestParser>> parsers;
  std::vector<std::string> streams;
  std::vector<std::vector<HttpRequestPtr>> got(kParsers);
  for (int i = 0; i < kParsers; ++i) {
    parsers.push_back(std::make_unique<StrictRequestParser>(RequestLimits{256, 64}));
    const std::string n = std::to_string(i);
    std::string stream = "POST /p" + n + " HTTP/1.1\r\nHost: h" + n + "\r\nX-N: " + n + "\r\n";
    stream += i % 2 == 0 ? "Content-Length: " + std::to_string(n.size()) + "\r\n\r\n" + n
                         : "Transfer-Encoding: chunked\r\n\r\n" + std::to_string(n.size()) +
                               "\r\n" + n + "\r\n0\r\n\r\n";
    // A second request on the same connection, read after the first one's
    // state went back.
    stream += "GET /again" + n + " HTTP/1.1\r\nHost: h" + n + "\r\n\r\n";
    streams.push_back(stream);
  }
  for (size_t at = 0;; ++at) {
    bool any = false;
    for (int i = 0; i < kParsers; ++i) {
      if (at >= streams[i].size()) continue;
      any = true;
      ASSERT_TRUE(parsers[i]->parse(streams[i].substr(at, 1), &got[i])) << i << " at " << at;
    }
    if (!any) break;
  }
  for (int i = 0; i < kParsers; ++i) {
    SCOPED_TRACE(i);
    const std::string n = std::to_string(i);
    ASSERT_EQ(2u, got[i].size());
    EXPECT_EQ("POST /p" + n + " " + n + ", GET /again" + n, summarize(got[i]));
    EXPECT_EQ("h" + n, got[i][0]->headers["Host"]);
    EXPECT_EQ(n, got[i][0]->headers["X-N"]);
    EXPECT_EQ("http://h" + n + "/again" + n, got[i][1]->url.possibly_invalid_spec());
    EXPECT_EQ(0u, got[i][1]->headers.count("X-N"));
    EXPECT_FALSE(parsers[i]->headInProgress());
  }

  // Spent in the middle of a head that counted framing fields and a Host,
  // or after a request that closes: whatever parser reads next on this
  // thread starts clean (a leftover count would refuse its one Host or
  // Content-Length; a leftover line, budget or close would misread it).
  const std::vector<std::string> spenders = {
      "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\nBad "
      "Line\r\n",
      "GET /x HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\nGET /y HTTP/1.1\r\nHo",
      "GET /" + std::string(300, 'a'),
      "POST /x HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 99\r\n\r\n",
  };
  for (const std::string& spender : spenders) {
    SCOPED_TRACE(spender.substr(0, 40));
    StrictRequestParser spent(RequestLimits{256, 64});
    std::vector<HttpRequestPtr> ignored;
    spent.parse(spender, &ignored);
    spent.parse("Z", &ignored);
    const std::string next =
        "POST /n HTTP/1.1\r\nHost: b\r\nContent-Length: 2\r\n\r\nokGET /m HTTP/1.1\r\nHost: "
        "b\r\n\r\n";
    for (size_t split = 1; split < next.size(); split += 7) {
      SCOPED_TRACE(split);
      StrictRequestParser parser(RequestLimits{256, 64});
      std::vector<HttpRequestPtr> requests;
      ASSERT_TRUE(parser.parse(next.substr(0, split), &requests));
      ASSERT_TRUE(parser.parse(next.substr(split), &requests));
      EXPECT_EQ("POST /n ok, GET /m", summarize(requests));
      EXPECT_FALSE(parser.closing());
      EXPECT_FALSE(parser.takeContinueRequest());
    }
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
