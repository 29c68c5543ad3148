// Large messages end to end, over loopback with a real server and a real
// channel: calls of megabytes, several in flight both ways, answered on the
// event thread and from another thread; and answers of many sizes pipelined
// on one connection and read by a plain socket. The large bodies travel by
// reference and are reserved from their Content-Length; what these tests
// watch is that every byte still arrives, once, in order, with the right call.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common/socket_address.h"
#include "common/time.h"
#include "loopback_client.h"
#include "relay/http_server.h"
#include "relay/http_server_options.h"
#include "relay/rpc.h"
#include "test_service.h"

namespace vantu {
namespace relay {
namespace {

using ::vantu::testing::LoopbackClient;
using ::vantu::testing::TestServiceImpl;

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
      {"default server, one 16 MiB call", false, size_t{16} << 20, 1, false},
      {"hardened, limit raised, one 16 MiB call", true, size_t{16} << 20, 1, false},
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
      if (test.from_another_thread) {
        stub.Hold(rpcs[i].get(), &requests[i], &replies[i], nullptr);
      } else {
        stub.Echo(rpcs[i].get(), &requests[i], &replies[i], nullptr);
      }
    }
    if (test.from_another_thread) {
      ASSERT_TRUE(service->waitHeld(test.in_flight));
      // Last first: the answers leave in the order they are completed.
      for (int i = test.in_flight; i-- > 0;) service->complete(i);
    }
    for (int i = 0; i < test.in_flight; ++i) {
      SCOPED_TRACE("call " + std::to_string(i));
      // A guard against a stall, not a timing check.
      ASSERT_TRUE(rpcs[i]->timedWaitRelative(Duration::seconds(60)));
      ASSERT_FALSE(rpcs[i]->Failed()) << rpcs[i]->ErrorText();
      EXPECT_EQ(test.size, replies[i].text().size());
      EXPECT_TRUE(replies[i].text() == requests[i].text());
    }
    channel.reset();
    server.reset();
  }
}

// Reads one answer: its head up to the blank line, then as many bytes as its
// Content-Length says. Empty when the connection ends first.
std::string readAnswerBody(LoopbackClient* client, std::string* pending) {
  size_t end;
  while ((end = pending->find("\r\n\r\n")) == std::string::npos) {
    std::string more = client->read(1);
    if (more.empty()) return std::string();
    pending->append(more);
  }
  const std::string head = pending->substr(0, end);
  pending->erase(0, end + 4);
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

}  // namespace
}  // namespace relay
}  // namespace vantu
