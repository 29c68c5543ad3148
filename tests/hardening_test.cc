// A server that untrusted peers can reach, end to end over loopback: limits,
// strict framing, timeouts, the connection cap, slow readers, half-closes and
// the drain. Answers are compared byte for byte (the Date value aside, whose
// form is checked instead).
#include <gtest/gtest.h>
#include <pcrecpp.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "common/time.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"
#include "tests/shell_output.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;
using vantu::testing::rpcRequest;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

// Replaces every Date header's value with "*" once its form is checked.
std::string withoutDates(const std::string& bytes) {
  static const pcrecpp::RE kDate(
      "Date: (Mon|Tue|Wed|Thu|Fri|Sat|Sun), [0-3][0-9] "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} [0-2][0-9]:[0-5][0-9]:[0-6][0-9] "
      "GMT\r\n");
  std::string out = bytes;
  kDate.GlobalReplace("Date: *\r\n", &out);
  return out;
}

std::string refusal(const std::string& status) {
  return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: 0\r\nDate: *\r\n\r\n";
}

std::string text(const std::string& body, bool close = false) {
  return "HTTP/1.1 200 OK\r\nConnection: " + std::string(close ? "close" : "keep-alive") +
         "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nContent-Type: text/plain\r\nDate: *\r\n\r\n" + body;
}

const std::string kHello = text("hello\n");
const std::string kHelloClose = text("hello\n", true);
// What the wire carries for kHello: the Date's value is 28 bytes longer than
// its placeholder.
const size_t kHelloOnWire = kHello.size() + 28;
// The same answer from a server with the default options: no Date.
const std::string kPlainHello =
    "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 6\r\n"
    "Content-Type: text/plain\r\n\r\nhello\n";

std::string rpcAnswer(const std::string& text, int id, bool dated) {
  const std::string body = textMessage(text);
  return "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n" + (dated ? "Date: *\r\n" : "") +
         "Rpc-Failed: 0\r\nRpc-Id: " + std::to_string(id) + "\r\n\r\n" + body;
}

struct WireCase {
  const char* name;
  std::string request;
  std::string answer;
};

class HardeningTest : public ::testing::Test {
 protected:
  void start(const HttpServerOptions& options) {
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 128, options);
    ASSERT_TRUE(server_);
    port_ = server_->localAddress().port();
    server_->registerHandler("/hello", [](const HttpRequestPtr&, const HttpResponsePtr& r) {
      r->setContentType("text/plain");
      r->content.assign({'h', 'e', 'l', 'l', 'o', '\n'});
    });
    server_->registerHandler("/echo", [](const HttpRequestPtr& request, const HttpResponsePtr& r) {
      const std::string body =
          "len=" + std::to_string(request->content_length) + ":" + request->body;
      r->setContentType("text/plain");
      r->content.assign(body.begin(), body.end());
    });
    std::atomic<int>* hidden = &hidden_;
    server_->registerHandler("/hidden", [hidden](const HttpRequestPtr&, const HttpResponsePtr&) {
      hidden->fetch_add(1);
    });
    service_ = std::make_shared<TestServiceImpl>();
    server_->registerRPCService(service_);
  }
  void TearDown() override {
    server_.reset();
    waitForDeferredWork();
  }

  // Sends `request`; when `closes` the server must end the connection by
  // itself, else the client half-closes after sending. Returns everything
  // the server wrote, Dates blanked.
  std::string exchange(const std::string& request, bool closes) {
    LoopbackClient client(port_);
    EXPECT_TRUE(client.connected());
    client.write(request);
    if (!closes) client.shutdownWrite();
    const std::string answer = client.readToEnd();
    EXPECT_TRUE(client.peerClosed());
    return withoutDates(answer);
  }
  void expectAnswers(const std::vector<WireCase>& cases) {
    for (const WireCase& c : cases) {
      SCOPED_TRACE(c.name);
      // The server ends the connection by itself exactly when its last
      // answer says so.
      EXPECT_EQ(c.answer,
                exchange(c.request, c.answer.find("Connection: close") != std::string::npos));
      EXPECT_EQ(0, hidden_.load()) << "a request hidden in the bytes was run";
    }
  }

  static HttpServerOptions strictWithSmallLimits() {
    HttpServerOptions options = HttpServerOptions::hardened();
    options.max_header_bytes = 1024;
    options.max_body_bytes = 64;
    return options;
  }

  std::shared_ptr<HttpServer> server_;
  std::shared_ptr<TestServiceImpl> service_;
  uint16_t port_ = 0;
  std::atomic<int> hidden_{0};
};

const std::string kHost = "Host: h\r\n";
std::string get(const std::string& path, const std::string& headers = kHost) {
  return "GET " + path + " HTTP/1.1\r\n" + headers + "\r\n";
}
std::string post(const std::string& headers, const std::string& body) {
  return "POST /echo HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n" + body;
}
std::string chunked(const std::string& body) {
  return post("Transfer-Encoding: chunked\r\n", body);
}
const std::string kHiddenRequest = "GET /hidden HTTP/1.1\r\nHost: h\r\n\r\n";

TEST_F(HardeningTest, StrictFramingAnswersEveryCaseAsTheRfcRequires) {
  start(strictWithSmallLimits());
  const std::string k400 = refusal("400 Bad Request");
  const std::string k501 = refusal("501 Not Implemented");
  const std::string k505 = refusal("505 HTTP Version not supported");
  char size[8];
  snprintf(size, sizeof(size), "%zx", kHiddenRequest.size());
  const std::string hidden_chunk = size + ("\r\n" + kHiddenRequest) + "\r\n0\r\n\r\n";
  const std::vector<WireCase> cases = {
      // Read and answered; the connection stays open.
      {"pipelined", get("/hello") + get("/hello"), kHello + kHello},
      {"empty line before the request", "\r\n" + get("/hello"), kHello},
      {"blanks around a value, none after the colon", get("/hello", "Host:   h \t\r\n"), kHello},
      {"IP literal host with port", get("/hello", "Host: [::1]:8080\r\n"), kHello},
      {"empty host", get("/hello", "Host: \r\n"), kHello},
      {"HEAD has no body", "HEAD /hello HTTP/1.1\r\nHost: h\r\n\r\n" + get("/hello"),
       kHello.substr(0, kHello.size() - 6) + kHello},
      {"chunked body with extensions and trailers",
       post("Transfer-Encoding: chunked\r\n",
            "5;a=1;b=\"x y\"\r\nhello\r\n6\r\n world\r\n0\r\nX-Trailer: t\r\n\r\n") +
           get("/hello"),
       text("len=11:hello world") + kHello},
      {"framing headers in any case",
       post("transfer-encoding: Chunked\r\n", "3\r\nabc\r\n0\r\n\r\n") +
           post("content-length: 2\r\n", "de"),
       text("len=3:abc") + text("len=2:de")},
      {"a request in a chunk is body", chunked(hidden_chunk),
       text("len=" + std::to_string(kHiddenRequest.size()) + ":" + kHiddenRequest)},
      // Read and answered; then the connection ends.
      {"close among other tokens, any case",
       get("/hello", "Host: h\r\nConnection: Keep-Alive, CLOSE\r\n") + kHiddenRequest, kHelloClose},
      {"HTTP/1.0 without keep-alive", "GET /hello HTTP/1.0\r\n\r\nGET /hidden HTTP/1.0\r\n\r\n",
       kHelloClose},
      {"HTTP/1.0 with keep-alive",
       "GET /hello HTTP/1.0\r\nConnection: keep-alive\r\n\r\nGET /hello HTTP/1.0\r\n\r\n",
       kHello + kHelloClose},
      // Limits.
      {"request line too long", get("/" + std::string(1100, 'a')),
       refusal("414 Request-URI Too Large")},
      {"head too long", get("/hello", "Host: h\r\nX: " + std::string(1100, 'v') + "\r\n"), k400},
      {"declared body too large", post("Content-Length: 65\r\n", std::string(65, 'b')),
       refusal("413 Request Entity Too Large")},
      {"chunked body too large", chunked("40\r\n" + std::string(64, 'b') + "\r\n1\r\nb\r\n"),
       refusal("413 Request Entity Too Large")},
      // Transfer codings.
      {"unknown coding", post("Transfer-Encoding: gzip\r\n", ""), k501},
      {"another coding before chunked", post("Transfer-Encoding: gzip, chunked\r\n", "0\r\n\r\n"),
       k501},
      {"chunked not last", post("Transfer-Encoding: chunked, gzip\r\n", "0\r\n\r\n"), k400},
      {"chunked twice",
       post("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"), k400},
      {"TE with CL (smuggling)",
       post("Content-Length: 4\r\nTransfer-Encoding: chunked\r\n", hidden_chunk), k400},
      {"TE in HTTP/1.0", "POST /echo HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
       k400},
      {"TE with a blank before the colon", post("Transfer-Encoding : chunked\r\n", hidden_chunk),
       k400},
      // Content-Length.
      {"two equal CLs (smuggling)", post("Content-Length: 2\r\nContent-Length: 2\r\n", "ab"), k400},
      {"two different CLs in two cases", post("Content-Length: 2\r\ncontent-length: 3\r\n", "abc"),
       k400},
      {"CL list", post("Content-Length: 2, 2\r\n", "ab"), k400},
      {"negative CL", post("Content-Length: -1\r\n", ""), k400},
      {"empty CL", post("Content-Length: \r\n", ""), k400},
      // Header lines.
      {"blank inside a name", get("/hello", "Host: h\r\nBad Name: x\r\n"), k400},
      {"empty name", get("/hello", "Host: h\r\n: x\r\n"), k400},
      {"no colon", get("/hello", "Host: h\r\nNameOnly\r\n"), k400},
      {"non-ASCII name", get("/hello", "Host: h\r\nN\xc3\xa4me: x\r\n"), k400},
      {"NUL in a value", get("/hello", std::string("Host: h\r\nX: a\0b\r\n", 17)), k400},
      {"DEL in a value", get("/hello", "Host: h\r\nX: a\x7fz\r\n"), k400},
      {"obs-fold", get("/hello", "Host: h\r\nX: a\r\n  b\r\n"), k400},
      {"blank line start before the first header", "GET /hello HTTP/1.1\r\n Host: h\r\n\r\n", k400},
      {"lone CR inside a value (smuggling)", get("/hello", "Host: h\r\nX: a\rb\r\n"), k400},
      {"lone CR as a line end", "GET /hello HTTP/1.1\rHost: h\r\n\r\n", k400},
      {"bare LF line ends", "GET /hello HTTP/1.1\nHost: h\n\n", k400},
      // Request lines.
      {"HTTP/1.2", "GET /hello HTTP/1.2\r\nHost: h\r\n\r\n", k505},
      {"HTTP/2.0", "GET /hello HTTP/2.0\r\nHost: h\r\n\r\n", k505},
      {"lower-case version", "GET /hello http/1.1\r\nHost: h\r\n\r\n", k400},
      {"two-digit minor", "GET /hello HTTP/1.10\r\nHost: h\r\n\r\n", k400},
      {"unknown method", "PATCH /hello HTTP/1.1\r\nHost: h\r\n\r\n", k501},
      {"method not a token", "G@T /hello HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      {"two blanks", "GET  /hello HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      {"blank in the target", "GET /a b HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      {"DEL in the target", "GET /he\x7fllo HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      {"non-ASCII target", "GET /h\xc3\xa9 HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      {"target of no form", "GET hello HTTP/1.1\r\nHost: h\r\n\r\n", k400},
      // Host.
      {"no Host in 1.1", get("/hello", ""), k400},
      {"two Hosts", get("/hello", "Host: h\r\nhost: h\r\n"), k400},
      {"userinfo in Host", get("/hello", "Host: a@b\r\n"), k400},
      {"path in Host", get("/hello", "Host: h/x\r\n"), k400},
      {"port too large", get("/hello", "Host: h:99999\r\n"), k400},
      {"bad IP literal", get("/hello", "Host: [zz]\r\n"), k400},
      // After an error nothing more is read.
      {"good, bad, then a request", get("/hello") + "GET /x\x01 HTTP/1.1\r\n\r\n" + kHiddenRequest,
       kHello + k400},
  };
  expectAnswers(cases);
  // A call whose body passes the limit is refused before it is decoded.
  EXPECT_EQ(
      refusal("413 Request Entity Too Large"),
      exchange(rpcRequest("relaytest.TestService", "Echo", "7", textMessage(std::string(70, 'x'))),
               true));
  EXPECT_EQ(
      rpcAnswer("small", 8, true),
      exchange(rpcRequest("relaytest.TestService", "Echo", "8", textMessage("small")), false));
  EXPECT_EQ(1, service_->calls);
}

// Limits without strict framing: their refusals end the connection, but a
// malformed line still gets the plain 400 and the connection goes on.
TEST_F(HardeningTest, LimitsAloneKeepTheDefaultFramingOtherwise) {
  HttpServerOptions options;
  options.max_header_bytes = 256;
  options.max_body_bytes = 8;
  start(options);
  auto plain = [](const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
  };
  const std::vector<WireCase> cases = {
      {"within the limits", get("/hello"), kPlainHello},
      // (The rest of a chunk after a rejected line is dropped.)
      {"malformed line: plain 400, and on", get("/hello") + "bad\r\n",
       kPlainHello + "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"},
      {"head too long", get("/hello", "Host: h\r\nX: " + std::string(300, 'v') + "\r\n"),
       plain("400 Bad Request")},
      {"body too large", post("Content-Length: 9\r\n", "123456789") + kHiddenRequest,
       plain("413 Request Entity Too Large")},
  };
  expectAnswers(cases);
}

// hardened() is what the README promises: a head of 64 KiB, counted with its
// line ends, and a body of 16 MiB; a byte more is refused.
TEST_F(HardeningTest, HardenedLimitsAreExactlyTheDocumentedOnes) {
  start(HttpServerOptions::hardened());
  const std::string start_of_head = "GET /hello HTTP/1.1\r\nHost: h\r\nX: ";
  const size_t value = 64 * 1024 - start_of_head.size() - 4;  // and two CR LFs
  EXPECT_EQ(kHello, exchange(start_of_head + std::string(value, 'v') + "\r\n\r\n", false));
  EXPECT_EQ(refusal("400 Bad Request"),
            exchange(start_of_head + std::string(value + 1, 'v') + "\r\n\r\n", true));
  const std::string body(16 * 1024 * 1024, 'b');
  EXPECT_EQ(kHello, exchange("POST /hello HTTP/1.1\r\nHost: h\r\nContent-Length: " +
                                 std::to_string(body.size()) + "\r\n\r\n" + body,
                             false));
  EXPECT_EQ(refusal("413 Request Entity Too Large"),
            exchange("POST /hello HTTP/1.1\r\nHost: h\r\nContent-Length: " +
                         std::to_string(body.size() + 1) + "\r\n\r\n",
                     true));
}

// Options that cannot be used give no server, rather than one that behaves
// in some way nobody asked for.
TEST(HardeningOptionsTest, NegativeTimeoutsGiveNoServer) {
  for (Duration HttpServerOptions::*timeout :
       {&HttpServerOptions::header_timeout, &HttpServerOptions::idle_timeout}) {
    HttpServerOptions options = HttpServerOptions::hardened();
    options.*timeout = Duration::milliseconds(-1);
    EXPECT_FALSE(HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options));
  }
  EXPECT_TRUE(HttpServer::create(SocketAddress("127.0.0.1", 0), 16, HttpServerOptions()));
  waitForDeferredWork();
}

TEST_F(HardeningTest, TimeoutsEndSlowAndIdleConnections) {
  HttpServerOptions options = HttpServerOptions::hardened();
  options.header_timeout = Duration::milliseconds(100);
  options.idle_timeout = Duration::milliseconds(150);
  start(options);
  struct Case {
    const char* name;
    std::string sent;  // and then nothing more
    std::string answer;
  } cases[] = {
      {"idle after connecting", "", ""},
      {"idle after an answer", get("/hello"), kHello},
      {"body stopped", post("Content-Length: 10\r\n", "12345"), refusal("408 Request Time-out")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackClient client(port_);
    client.write(c.sent);
    EXPECT_EQ(c.answer, withoutDates(client.readToEnd()));
    EXPECT_TRUE(client.peerClosed());
  }
}

// A head's time runs from its first byte: a client that trickles a head,
// each byte well within the header timeout, is cut off all the same. That
// time is the header timeout's alone: with no idle timeout at all the head
// still times out, and the idle connection beside it is left alone.
TEST_F(HardeningTest, HeadTimeoutRunsFromTheFirstByteAndIsItsOwn) {
  HttpServerOptions options = HttpServerOptions::hardened();
  options.header_timeout = Duration::milliseconds(100);
  options.idle_timeout = Duration();
  start(options);
  LoopbackClient idle(port_);
  ASSERT_TRUE(idle.connected());
  LoopbackClient slow(port_);
  const std::string start_of_head = "GET /hello HTTP/1.1\r\nHost: h\r\nX: ";
  // A byte every 10 ms for up to 100 header timeouts, until the server
  // answers.
  bool answered = false;
  for (size_t i = 0; i < 1000 && !answered; ++i) {
    slow.write(i < start_of_head.size() ? start_of_head.substr(i, 1) : "v");
    answered = slow.waitReadable(10);
  }
  ASSERT_TRUE(answered) << "the head never timed out";
  EXPECT_EQ(refusal("408 Request Time-out"), withoutDates(slow.readToEnd()));
  EXPECT_TRUE(slow.peerClosed());
  ASSERT_TRUE(idle.write(get("/hello")));
  EXPECT_EQ(kHello, withoutDates(idle.read(kHelloOnWire)));
}

// A connection waiting for an RPC's answer is not idle, however long the call
// takes. A witness opened after the call started times out idle first; by
// then the busy connection would have, were it counted idle.
TEST_F(HardeningTest, IdleTimeoutSparesConnectionsOwedAnAnswer) {
  HttpServerOptions options = HttpServerOptions::hardened();
  options.idle_timeout = Duration::milliseconds(100);
  start(options);
  LoopbackClient busy(port_);
  ASSERT_TRUE(busy.write(rpcRequest("relaytest.TestService", "Hold", "4", textMessage("slow"))));
  ASSERT_TRUE(service_->waitHeld(1));
  LoopbackClient witness(port_);
  EXPECT_EQ("", witness.readToEnd());
  EXPECT_TRUE(witness.peerClosed());
  service_->release();
  // The answer, and then, idle again, the end.
  EXPECT_EQ(rpcAnswer("slow", 4, true), withoutDates(busy.readToEnd()));
  EXPECT_TRUE(busy.peerClosed());
}

// A call the server still owes is answered, when the service completes it,
// before the connection ends: whether the client half-closed after sending
// it and a request, or the request after it asked to close.
TEST_F(HardeningTest, AnswersStillOwedComeBeforeTheEnd) {
  const struct {
    const char* name;
    bool hardened;
    bool asks_to_close;  // else the client half-closes
    std::string hello;
  } cases[] = {
      {"half-closed, default", false, false, kPlainHello},
      {"half-closed, hardened", true, false, kHello},
      {"Connection: close", true, true, kHelloClose},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    start(c.hardened ? HttpServerOptions::hardened() : HttpServerOptions());
    LoopbackClient client(port_);
    client.write(rpcRequest("relaytest.TestService", "Hold", "5", textMessage("owed")) +
                 get("/hello", c.asks_to_close ? kHost + "Connection: close\r\n" : kHost));
    if (!c.asks_to_close) client.shutdownWrite();
    ASSERT_TRUE(service_->waitHeld(1));
    // A Date's value is 28 bytes longer than its placeholder.
    EXPECT_EQ(c.hello, withoutDates(client.read(c.hello.size() + (c.hardened ? 28 : 0))));
    service_->release();
    EXPECT_EQ(rpcAnswer("owed", 5, c.hardened), withoutDates(client.readToEnd()));
    EXPECT_TRUE(client.peerClosed());
    server_.reset();
    waitForDeferredWork();
  }
}

TEST_F(HardeningTest, DrainFinishesWhatWasReceivedAndClosesTheRest) {
  start(HttpServerOptions::hardened());
  LoopbackClient idle(port_);
  LoopbackClient busy(port_);
  busy.write(rpcRequest("relaytest.TestService", "Hold", "9", textMessage("in flight")));
  ASSERT_TRUE(service_->waitHeld(1));
  idle.write(get("/hello"));
  EXPECT_EQ(kHello, withoutDates(idle.read(kHelloOnWire)));

  std::atomic<bool> drained{false};
  std::thread drainer([&] { drained = server_->drain(Duration::seconds(30)); });
  // The idle connection closes at once; the busy one waits for its answer.
  EXPECT_EQ("", idle.readToEnd());
  EXPECT_TRUE(idle.peerClosed());
  EXPECT_FALSE(LoopbackClient(port_).connected());  // no longer accepting
  // Arrives while draining: answered, not run. Every answer now says the
  // connection closes.
  busy.write(get("/hidden"));
  const std::string refused = refusal("503 Service Unavailable");
  EXPECT_EQ(refused, withoutDates(busy.read(refused.size() + 28)));  // 28: the Date's value
  service_->release();
  std::string closing = rpcAnswer("in flight", 9, true);
  closing.replace(closing.find("keep-alive"), 10, "close");
  EXPECT_EQ(closing, withoutDates(busy.readToEnd()));
  EXPECT_TRUE(busy.peerClosed());
  drainer.join();
  EXPECT_TRUE(drained);
  EXPECT_EQ(0, hidden_.load());
}

TEST_F(HardeningTest, ExpectContinueGetsTheInterimAnswerBeforeTheBody) {
  start(HttpServerOptions::hardened());
  LoopbackClient client(port_);
  client.write(post("Expect: 100-continue\r\nContent-Length: 2\r\n", ""));
  EXPECT_EQ("HTTP/1.1 100 Continue\r\n\r\n", client.read(25));
  client.write("ok");
  const std::string answer = text("len=2:ok");
  EXPECT_EQ(answer, withoutDates(client.read(answer.size() + 28)));
}

// curl streams an upload of unknown length with chunked coding; the strict
// reader decodes it.
TEST_F(HardeningTest, CurlChunkedUploadArrivesWhole) {
  start(HttpServerOptions::hardened());
  std::string payload;
  for (int i = 0; i < 20000; ++i) payload += "line " + std::to_string(i) + "\n";
  // The server's 100 Continue lets curl send at once.
  const vantu::testing::ProcessOutcome curl =
      vantu::testing::runProcess({"curl", "-sS", "--max-time", "30", "-T", "-",
                                  "http://127.0.0.1:" + std::to_string(port_) + "/echo"},
                                 payload);
  EXPECT_EQ(0, curl.exit_code) << curl.err;
  const std::string& answer = curl.out;
  EXPECT_EQ("len=" + std::to_string(payload.size()) + ":" + payload, answer);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
