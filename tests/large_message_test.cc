// Large messages end to end over loopback. Large bodies travel by reference
// and are reserved from their Content-Length; these tests watch that every
// byte still arrives, once, in order, with the right call.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "common/memory_policy.h"
#include "common/socket_address.h"
#include "common/time.h"
#include "loopback_client.h"
#include "relay/http_request_parser.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "relay/http_server_options.h"
#include "relay/rpc.h"
#include "test_service.h"
#include "tests/scripted_server.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

using ::vantu::testing::eventually;
using ::vantu::testing::LoopbackClient;
using ::vantu::testing::TestServiceImpl;
using ::vantu::testing::textMessage;

// `size` letters, different for every `seed`: a reply given to the wrong
// call, or with a piece missing or repeated, does not compare equal.
std::string letters(size_t size, unsigned seed) {
  std::string text(size, 'a');
  for (size_t i = 0; i < size; ++i)
    text[i] = static_cast<char>('a' + (i * 7 + seed * 13 + i / 4096) % 26);
  return text;
}

TEST(LargeMessageTest, CallsOfMegabytesInFlightBothWaysComeBackWhole) {
  struct Case {
    const char* name;
    bool hardened;  // hardened() with its body limit raised to 32 MiB
    size_t size;
    int in_flight;
    bool from_another_thread;
  };
  const Case cases[] = {
      // 128 MiB each way: far more than the kernel buffers and either side's
      // output bound, so the client must go on reading while its own
      // requests wait (it stalled for good when it did not).
      {"eight 16 MiB calls", false, size_t{16} << 20, 8, false},
      {"hardened, eight 4 MiB calls", true, size_t{4} << 20, 8, false},
      // Answers made off the event thread take the queued path.
      {"eight 2 MiB calls answered from another thread", false, size_t{2} << 20, 8, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    HttpServerOptions options;
    if (test.hardened) {
      options = HttpServerOptions::hardened();
      options.max_body_bytes = uint64_t{32} << 20;
    }
    std::shared_ptr<HttpServer> server =
        HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options);
    ASSERT_TRUE(server);
    auto service = std::make_shared<TestServiceImpl>();
    server->registerRPCService(service);
    RPCChannelPtr channel =
        RPCChannel::create(SocketAddress("127.0.0.1", server->localAddress().port()));
    ASSERT_TRUE(channel);
    relaytest::TestService_Stub stub(channel.get());

    std::vector<relaytest::Text> requests(test.in_flight);
    std::vector<relaytest::Text> replies(test.in_flight);
    std::vector<std::unique_ptr<RPC>> rpcs;
    for (int i = 0; i < test.in_flight; ++i) {
      requests[i].set_text(letters(test.size, static_cast<unsigned>(i)));
      rpcs.push_back(std::make_unique<RPC>());
      (stub.*(test.from_another_thread ? &relaytest::TestService_Stub::Hold
                                       : &relaytest::TestService_Stub::Echo))(
          rpcs[i].get(), &requests[i], &replies[i], nullptr);
    }
    if (test.from_another_thread) {
      ASSERT_TRUE(service->waitHeld(test.in_flight));
      // Last first: the answers leave in the order they are completed.
      for (int i = test.in_flight; i-- > 0;) service->complete(i);
    }
    for (int i = 0; i < test.in_flight; ++i) {
      SCOPED_TRACE("call " + std::to_string(i));
      ASSERT_TRUE(rpcs[i]->timedWaitRelative(Duration::seconds(60)));
      ASSERT_FALSE(rpcs[i]->Failed()) << rpcs[i]->ErrorText();
      EXPECT_EQ(test.size, replies[i].text().size());
      EXPECT_TRUE(replies[i].text() == requests[i].text());
    }
  }
}

// Reads one answer's head (into *head_out) and the body its Content-Length
// says; empty when the connection ends first.
std::string readAnswerBody(LoopbackClient* client, std::string* pending,
                           std::string* head_out = nullptr) {
  size_t end;
  while ((end = pending->find("\r\n\r\n")) == std::string::npos) {
    std::string more = client->read(1);
    if (more.empty()) return std::string();
    pending->append(more);
  }
  const std::string head = pending->substr(0, end);
  pending->erase(0, end + 4);
  if (head_out != nullptr) *head_out = head;
  const size_t at = head.find("Content-Length: ");
  if (at == std::string::npos) return std::string();
  const size_t length = std::strtoul(head.c_str() + at + 16, nullptr, 10);
  if (pending->size() < length) pending->append(client->read(length - pending->size()));
  std::string body = pending->substr(0, length);
  pending->erase(0, length);
  return body;
}

TEST(LargeMessageTest, PipelinedAnswersOfMixedSizesArriveWholeAndInOrder) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  // /size/N answers N letters made from N.
  server->registerHandler("/size/[0-9]+",
                          [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
                            const size_t size = std::strtoul(request->uri.c_str() + 6, nullptr, 10);
                            const std::string body = letters(size, static_cast<unsigned>(size));
                            response->content.assign(body.begin(), body.end());
                          });
  // Small answers gathered around large ones sent by reference, in one read.
  const std::vector<size_t> sizes = {10, 100000, 5, 3000000, 16384, 16385, 0, 20000, 1};
  std::string pipelined;
  for (size_t size : sizes) {
    pipelined += "GET /size/" + std::to_string(size) + " HTTP/1.1\r\nHost: test\r\n\r\n";
  }
  LoopbackClient client(server->localAddress().port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.write(pipelined));
  std::string pending;
  for (size_t size : sizes) {
    SCOPED_TRACE("answer of " + std::to_string(size) + " bytes");
    const std::string body = readAnswerBody(&client, &pending);
    EXPECT_EQ(size, body.size());
    EXPECT_TRUE(body == letters(size, static_cast<unsigned>(size)));
  }
  EXPECT_TRUE(pending.empty());
}

TEST(LargeMessageTest, BodyBufferGrowsInFewStepsAndWithinBounds) {
  // A body arriving in pieces is appended the way both readers do: its
  // buffer reserved ahead from the declared length, then grown as bytes come.
  struct Case {
    uint64_t declared;
    size_t piece;
  };
  const Case cases[] = {
      {100, 7},
      {memory_policy::kLargestBodyReservedAhead, 1460},
      {memory_policy::kLargestBodyReservedAhead + 1, 65536},
      {size_t{1} << 20, 1460},
      {size_t{16} << 20, 65536},
      {size_t{40} << 20, 65536},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(std::to_string(test.declared) + " bytes in pieces of " +
                 std::to_string(test.piece));
    const std::string piece(test.piece, 'x');
    std::string body;
    memory_policy::reserveBodyAhead(&body, test.declared);
    EXPECT_LE(body.capacity(), memory_policy::kLargestBodyReservedAhead);
    int growths = 0;
    size_t recopied = 0;
    while (body.size() < test.declared) {
      const size_t take = std::min<size_t>(test.piece, test.declared - body.size());
      const size_t capacity = body.capacity();
      memory_policy::growBodyFor(&body, take, test.declared);
      if (body.capacity() != capacity) {
        ++growths;
        recopied += body.size();
      }
      body.append(piece, 0, take);
      // Never more than a bounded multiple of what arrived, nor past the
      // declared length (a plain reserve would double it).
      ASSERT_LE(body.capacity(),
                std::max<size_t>(memory_policy::kLargestBodyReservedAhead,
                                 2 * memory_policy::kBodyGrowthFactor * body.size()));
      ASSERT_LE(body.capacity(), std::max<size_t>(test.declared, std::string().capacity()));
    }
    // Growing by doubling would take a dozen steps and copy the body again.
    EXPECT_LE(growths, 3);
    EXPECT_LE(recopied,
              std::max<uint64_t>(memory_policy::kLargestBodyReservedAhead, test.declared / 6));
  }
}

struct ReceivedBytes : public HttpServerObserver {
  void bytesReceived(size_t bytes) override { total += bytes; }
  std::atomic<size_t> total{0};
};

// The process's address space in kB (VmSize): what a reservation takes, even
// before it is touched.
long addressSpaceKb() {
  FILE* file = std::fopen("/proc/self/status", "r");
  if (file == nullptr) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, "VmSize:", 7) == 0) kb = std::atol(line + 7);
  }
  std::fclose(file);
  return kb;
}

TEST(LargeMessageTest, ConnectionsDeclaringHugeBodiesDoNotReserveThem) {
  // Each connection declares a gigabyte and sends ten bytes of it. Reserving
  // the declared length (or any large part of it) before the bytes come would
  // let a few peers take the address space of the process.
  constexpr int kConnections = 64;
  constexpr uint64_t kDeclared = uint64_t{1} << 30;
  for (bool hardened : {false, true}) {
    SCOPED_TRACE(hardened ? "hardened, body limit raised" : "default server");
    HttpServerOptions options;
    if (hardened) {
      options = HttpServerOptions::hardened();
      options.max_body_bytes = kDeclared;
    }
    // A backlog that takes them all: a connection beyond it waits a second
    // for its SYN to be sent again.
    std::shared_ptr<HttpServer> server =
        HttpServer::create(SocketAddress("127.0.0.1", 0), kConnections, options);
    ASSERT_TRUE(server);
    auto received = std::make_shared<ReceivedBytes>();
    server->setObserver(received);
    const std::string request =
        "POST /upload HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(kDeclared) +
        "\r\n\r\n0123456789";
    const long before_kb = addressSpaceKb();
    ASSERT_GT(before_kb, 0);
    std::vector<std::unique_ptr<LoopbackClient>> clients;
    for (int i = 0; i < kConnections; ++i) {
      clients.push_back(std::make_unique<LoopbackClient>(server->localAddress().port()));
      ASSERT_TRUE(clients.back()->connected());
      ASSERT_TRUE(clients.back()->write(request));
    }
    // Every byte read, and parsed in the same turn of the event thread.
    ASSERT_TRUE(eventually([&] { return received->total == kConnections * request.size(); }));
    waitForDeferredWork();
    const long grown_kb = addressSpaceKb() - before_kb;
    // A megabyte each would be far more than the bound; a reservation of the
    // declared length, or of 64 MiB of it, is thousands of times that.
    EXPECT_LT(grown_kb, kConnections * 1024) << "address space grew by " << grown_kb << " kB";
  }
}

// A server for one connection that reads the first request, then (told to)
// writes a large answer to it before it reads anything more, then reads the
// second request and answers it briefly. Its receive buffer is small, so a
// client that sent a large second request meanwhile has most of it waiting in
// its own output while the first answer comes.
class ReadsAfterAnswering {
 public:
  explicit ReadsAfterAnswering(size_t first_answer_size) : answer_size_(first_answer_size) {
    listener_ = vantu::testing::listenOnLoopback(&port_, 64 * 1024);
    thread_ = std::thread([this] { serve(); });
  }
  ~ReadsAfterAnswering() {
    go = true;
    thread_.join();
    close(listener_);
  }
  uint16_t port() const { return port_; }

  std::atomic<bool> first_read{false};  // the first request was read
  std::atomic<bool> go{false};          // the first answer may go

 private:
  bool readRequests(int connection, relay::HttpRequestParser* parser,
                    std::vector<HttpRequestPtr>* requests, size_t count) {
    char buffer[65536];
    while (requests->size() < count) {
      const ssize_t n = recv(connection, buffer, sizeof(buffer), 0);
      if (n <= 0) return false;
      if (!parser->parse(std::string(buffer, n), requests)) return false;
    }
    return true;
  }

  static std::string answer(const HttpRequestPtr& request, size_t size) {
    const std::string body = textMessage(std::string(size, 'a'));
    return "HTTP/1.1 200 OK\r\nRpc-Id: " + request->headers["Rpc-Id"] +
           "\r\nRpc-Failed: 0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
  }

  static bool sendAll(int connection, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<size_t>(n);
    }
    return true;
  }

  void serve() {
    const int connection = accept(listener_, nullptr, nullptr);
    // A client that stops reading fails the test instead of hanging it.
    timeval guard{20, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &guard, sizeof(guard));
    relay::HttpRequestParser parser;
    std::vector<HttpRequestPtr> requests;
    first_read = readRequests(connection, &parser, &requests, 1);
    eventually([this] { return go.load(); });
    if (first_read && sendAll(connection, answer(requests[0], answer_size_))) {
      if (readRequests(connection, &parser, &requests, 2)) {
        sendAll(connection, answer(requests[1], 2));
      }
    }
    char buffer[4096];  // until the client closes
    while (recv(connection, buffer, sizeof(buffer), 0) > 0) {
    }
    close(connection);
  }

  const size_t answer_size_;
  int listener_;
  uint16_t port_;
  std::thread thread_;
};

TEST(LargeMessageTest, ChannelReadsAnswersWhileItsOwnOutputWaits) {
  // The channel's output is far over its mark (a 16 MiB request the server
  // will not read yet) when an 8 MiB answer comes. The server reads on only
  // once that answer is out, so a channel that held back its reading while
  // its output waited would stall both for good.
  ReadsAfterAnswering server(size_t{8} << 20);
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  relaytest::TestService_Stub stub(channel.get());
  relaytest::Text first_request, first_reply, second_request, second_reply;
  first_request.set_text("first");
  RPC first, second;
  stub.Echo(&first, &first_request, &first_reply, nullptr);
  ASSERT_TRUE(eventually([&] { return server.first_read.load(); }));
  second_request.set_text(letters(size_t{16} << 20, 1));
  stub.Echo(&second, &second_request, &second_reply, nullptr);
  // The second request is in the channel's output before the answer starts.
  waitForDeferredWork();
  server.go = true;
  ASSERT_TRUE(first.timedWaitRelative(Duration::seconds(30)));
  ASSERT_FALSE(first.Failed()) << first.ErrorText();
  EXPECT_EQ(size_t{8} << 20, first_reply.text().size());
  ASSERT_TRUE(second.timedWaitRelative(Duration::seconds(30)));
  ASSERT_FALSE(second.Failed()) << second.ErrorText();
  EXPECT_EQ("aa", second_reply.text());
}

std::string call(const std::string& method, const std::string& id, const std::string& body) {
  return vantu::testing::rpcRequest("relaytest.TestService", method, id, body);
}

std::string headerValue(const std::string& head, const std::string& name) {
  const std::string key = "\r\n" + name + ": ";
  const size_t at = head.find(key);
  if (at == std::string::npos) return std::string();
  const size_t from = at + key.size();
  return head.substr(from, head.find("\r\n", from) - from);
}

// A server of relaytest.TestService that counts what it read.
struct CountingServer {
  CountingServer(bool strict, uint64_t max_body_bytes) {
    HttpServerOptions options;
    if (strict) options = HttpServerOptions::hardened();
    options.max_body_bytes = max_body_bytes;
    server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16, options);
    if (!server) return;
    server->registerRPCService(service);
    server->setObserver(received);
  }
  // Writes `bytes` and waits until the server has read them, so that each
  // piece arrives in a read of its own.
  bool writePiece(LoopbackClient* client, const std::string& bytes) {
    if (!client->write(bytes)) return false;
    sent += bytes.size();
    return eventually([&] { return received->total == sent; });
  }

  std::shared_ptr<TestServiceImpl> service = std::make_shared<TestServiceImpl>();
  std::shared_ptr<ReceivedBytes> received = std::make_shared<ReceivedBytes>();
  std::shared_ptr<HttpServer> server;
  size_t sent = 0;
};

void expectAnswer(LoopbackClient* client, std::string* pending, const std::string& id,
                  const std::string& body) {
  SCOPED_TRACE("call " + id);
  std::string head;
  const std::string answer = readAnswerBody(client, pending, &head);
  EXPECT_EQ(id, headerValue(head, "Rpc-Id"));
  EXPECT_EQ("0", headerValue(head, "Rpc-Failed"));
  EXPECT_EQ(body.size(), answer.size());
  EXPECT_TRUE(answer == body);
}

TEST(LargeMessageTest, BodiesSplitAnywhereAcrossReadsDecodeByteForByte) {
  // Two pipelined calls, each body about 300 kB, delivered in reads cut at
  // the awkward places: inside the blank line that ends a head, right after
  // it, one byte at a time into the body, and with the end of one body and
  // the head of the next in one read. Bytes are read where the socket put
  // them; any byte kept by reference instead of copied, dropped or taken
  // twice changes an answer.
  const std::string first_body = textMessage(letters(300000, 1));
  const std::string second_body = textMessage(letters(299999, 2));
  const std::string first = call("Echo", "41", first_body);
  const std::string second = call("Echo", "-7", second_body);
  const std::string stream = first + second;
  const size_t head_end = first.size() - first_body.size();
  const size_t body_end = first.size();
  struct Plan {
    const char* name;
    std::vector<size_t> cuts;  // offsets into the stream where a read ends
  };
  std::vector<Plan> plans = {
      {"in one read", {}},
      {"inside the blank line", {head_end - 3, head_end - 1, head_end}},
      {"a body byte with the head", {head_end + 1}},
      {"the end of a body with the next head", {body_end - 1, body_end + 40}},
      {"the next head cut inside its blank line",
       {body_end, stream.size() - second_body.size() - 2}},
  };
  Plan bytewise{"one byte at a time into the body, then in pieces", {head_end - 2}};
  for (size_t at = head_end - 1; at < head_end + 64; ++at) bytewise.cuts.push_back(at);
  for (size_t at = head_end + 1000; at < stream.size(); at += 7919) bytewise.cuts.push_back(at);
  plans.push_back(bytewise);
  for (bool strict : {false, true}) {
    SCOPED_TRACE(strict ? "strict reader" : "default reader");
    for (const Plan& plan : plans) {
      SCOPED_TRACE(plan.name);
      CountingServer counting(strict, uint64_t{32} << 20);
      ASSERT_TRUE(counting.server);
      LoopbackClient client(counting.server->localAddress().port());
      size_t from = 0;
      std::vector<size_t> cuts = plan.cuts;
      cuts.push_back(stream.size());
      for (size_t cut : cuts) {
        ASSERT_TRUE(counting.writePiece(&client, stream.substr(from, cut - from)));
        from = cut;
      }
      std::string pending;
      expectAnswer(&client, &pending, "41", first_body);
      expectAnswer(&client, &pending, "-7", second_body);
      EXPECT_EQ(2, counting.service->calls.load());
    }
  }
}

TEST(LargeMessageTest, BodyLimitStillRefusesAfterBodiesReadInPieces) {
  // A call just under the limit arrives in pieces and is answered; the next
  // request goes over the limit and is answered 413, and the connection
  // closes: by its Content-Length with either reader, and by the sizes of
  // its chunks with the strict reader (the default one reads no chunks).
  constexpr uint64_t kLimit = uint64_t{1} << 20;
  const std::string body = textMessage(letters(kLimit - 100, 3));
  ASSERT_LE(body.size(), kLimit);
  const std::string under = call("Echo", "5", body);
  const std::string chunk(600000, 'c');
  const std::string chunk_size = "927c0";  // 600000 in hex
  struct Case {
    const char* name;
    bool strict;
    std::vector<std::string> over;  // the request over the limit, in pieces
  };
  const std::string by_length =
      "POST /upload HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(kLimit + 1) +
      "\r\n\r\n";
  const Case cases[] = {
      {"default reader, Content-Length", false, {by_length}},
      {"strict reader, Content-Length", true, {by_length}},
      {"strict reader, chunks",
       true,
       {"POST /upload HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: chunked\r\n\r\n",
        chunk_size + "\r\n" + chunk.substr(0, 1000), chunk.substr(1000) + "\r\n",
        chunk_size + "\r\n"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    CountingServer counting(test.strict, kLimit);
    ASSERT_TRUE(counting.server);
    LoopbackClient client(counting.server->localAddress().port());
    for (size_t from = 0; from < under.size(); from += 65536) {
      ASSERT_TRUE(counting.writePiece(&client, under.substr(from, 65536)));
    }
    std::string pending;
    expectAnswer(&client, &pending, "5", body);
    for (const std::string& piece : test.over) ASSERT_TRUE(client.write(piece));
    std::string head;
    readAnswerBody(&client, &pending, &head);
    EXPECT_EQ(0u, head.find("HTTP/1.1 413 ")) << head;
    EXPECT_EQ("close", headerValue(head, "Connection"));
    client.readToEnd();
    EXPECT_TRUE(client.peerClosed());
  }
}

TEST(LargeMessageTest, BytesParsedWhereTheyLieAreCopiedBeforeTheirBufferIsReused) {
  // A reader given bytes where they lie (the socket's read buffer, reused
  // for the next read) must keep nothing that points into them: each piece
  // is handed over in one buffer that is overwritten after the call, and the
  // messages must come out as from the whole stream at once.
  const std::string request_body = letters(5000, 4);
  const std::string requests =
      "POST /a HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(request_body.size()) +
      "\r\n\r\n" + request_body + "GET /b?x=1 HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string responses =
      "HTTP/1.1 200 OK\r\nRpc-Id: 3\r\nContent-Length: " + std::to_string(request_body.size()) +
      "\r\n\r\n" + request_body + "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
  // Hands `text` over in pieces of `piece` bytes, each in `buffer`,
  // overwritten after the call.
  auto feed = [](auto* parser, const std::string& text, size_t piece, auto* out) {
    std::vector<char> buffer(piece);
    for (size_t from = 0; from < text.size(); from += piece) {
      const size_t size = std::min(piece, text.size() - from);
      std::memcpy(buffer.data(), text.data() + from, size);
      ASSERT_TRUE(parser->parse(buffer.data(), size, out));
      std::fill(buffer.begin(), buffer.end(), '\r');
    }
  };
  for (size_t piece : {1, 2, 3, 17, 1460, 4096, 100000}) {
    SCOPED_TRACE("pieces of " + std::to_string(piece));
    HttpRequestParser request_parser;
    std::vector<HttpRequestPtr> got_requests;
    feed(&request_parser, requests, piece, &got_requests);
    ASSERT_EQ(2u, got_requests.size());
    EXPECT_EQ("/a", got_requests[0]->uri);
    EXPECT_TRUE(got_requests[0]->body == request_body);
    EXPECT_EQ("h", got_requests[0]->headers["Host"]);
    EXPECT_EQ("/b?x=1", got_requests[1]->uri);
    EXPECT_EQ("http://h/b?x=1", got_requests[1]->url.spec());
    HttpResponseParser response_parser;
    std::vector<HttpResponsePtr> got_responses;
    feed(&response_parser, responses, piece, &got_responses);
    ASSERT_EQ(2u, got_responses.size());
    EXPECT_EQ("3", got_responses[0]->headers["Rpc-Id"]);
    EXPECT_TRUE(got_responses[0]->body == request_body);
    EXPECT_TRUE(got_responses[1]->body.empty());
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
