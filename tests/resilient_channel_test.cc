// Channels made with options, over loopback: default options behave as the
// plain channel; with resilient ones no call waits for ever, lost connections
// are made again, and calls spread over servers.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "common/closure.h"
#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/scripted_server.h"
#include "tests/test_certs.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using relaytest::Text;
using vantu::testing::ScriptedServer;
using vantu::testing::testMethod;
using vantu::testing::TestServiceImpl;

// The channel, what it owns, then its connections: three turns.
void destroy(RPCChannelPtr& channel) {
  channel.reset();
  for (int i = 0; i < 3; ++i) waitForDeferredWork();
}

// What calls' done closures saw ("ok: text" or "failed: error"), by tag.
class Outcomes {
 public:
  struct Call {
    RPC rpc;
    Text request;
    Text response;
    std::unique_ptr<google::protobuf::Closure> done;
  };

  Call* start(RPCChannel* channel, const char* name, const std::string& text,
              const std::string& tag, Time deadline = Time()) {
    auto call = std::make_unique<Call>();
    Call* raw = call.get();
    raw->request.set_text(text);
    raw->done.reset(newClosure([this, raw, tag] { record(tag, raw); }, false));
    if (deadline != Time()) raw->rpc.setDeadline(deadline);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(std::move(call));
    }
    channel->CallMethod(testMethod(name), &raw->rpc, &raw->request, &raw->response,
                        raw->done.get());
    return raw;
  }

  // Once `count` calls completed (bounded against a hang only).
  std::map<std::string, std::string> waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return outcomes_.size() >= count; });
    return outcomes_;
  }

 private:
  void record(const std::string& tag, Call* call) {
    std::string outcome =
        call->rpc.Failed() ? "failed: " + call->rpc.ErrorText() : "ok: " + call->response.text();
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(0u, outcomes_.count(tag)) << tag << " completed twice";
    outcomes_[tag] = outcome;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Call>> calls_;
  std::map<std::string, std::string> outcomes_;
};

using Server = vantu::testing::TestServer<>;

// A port on loopback where nothing listens.
uint16_t closedPort() { return Server().port(); }

Time in(Duration duration) { return Time::now() + duration; }

RPCChannelOptions resilientFor(Duration default_timeout) {
  RPCChannelOptions options = RPCChannelOptions::resilient();
  options.default_timeout = default_timeout;
  return options;
}

TEST(ResilientChannelTest, DefaultOptionsBehaveAsTheSpecifiedChannel) {
  // create(address) and create(address, {}): the same bytes, the same ends.
  struct Run {
    std::string received;
    std::map<std::string, std::string> outcomes;
  };
  auto run = [](bool with_options) {
    // Calls 2 and 1 answered out of order, a failure, an unparsable body, and
    // the server's end with call 5 unanswered (pending until the channel goes).
    ScriptedServer server(
        {"",
         "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: 2\r\n\r\n"
         "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 0\r\nRpc-Id: 1\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 1\r\nRpc-Error: no\r\n"
         "Rpc-Id: {id}\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nRpc-Id: {id}\r\n\r\n\xff\xff", ""},
        true);
    const SocketAddress address("127.0.0.1", server.port());
    RPCChannelPtr channel = with_options ? RPCChannel::create(address, RPCChannelOptions())
                                         : RPCChannel::create(address);
    EXPECT_TRUE(channel);
    Outcomes outcomes;
    outcomes.start(channel.get(), "Echo", "a", "1");
    outcomes.start(channel.get(), "Echo", "b", "2");
    outcomes.waitFor(2);
    outcomes.start(channel.get(), "Fail", "c", "3");
    outcomes.waitFor(3);
    outcomes.start(channel.get(), "Echo", "d", "4");
    outcomes.waitFor(4);
    outcomes.start(channel.get(), "Echo", "e", "5");
    server.join();
    waitForDeferredWork();
    EXPECT_EQ(4u, outcomes.waitFor(0).size());
    destroy(channel);
    return Run{server.bytes, outcomes.waitFor(5)};
  };
  const Run specified = run(false);
  const Run with_options = run(true);
  EXPECT_EQ(specified.received, with_options.received);
  EXPECT_EQ(specified.outcomes, with_options.outcomes);
  EXPECT_EQ((std::map<std::string, std::string>{{"1", "ok: "},
                                                {"2", "ok: "},
                                                {"3", "failed: no"},
                                                {"4", "failed: Can't parse response."},
                                                {"5", "failed: Canceled"}}),
            with_options.outcomes);
}

TEST(ResilientChannelTest, AnAnswerThatSaysCloseOrGarbageEndsTheUseOfItsConnection) {
  // After an answer that asks to close, nothing more is written on the
  // connection, and the channel closes it once it owes nothing.
  ScriptedServer server(
      {"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\n"});
  RPCChannelOptions options = resilientFor(Duration::milliseconds(500));
  RPCChannelPtr channel = RPCChannel::create("127.0.0.1:" + std::to_string(server.port()), options);
  ASSERT_TRUE(channel);
  Outcomes outcomes;
  outcomes.start(channel.get(), "Echo", "", "1");
  EXPECT_EQ("ok: ", outcomes.waitFor(1)["1"]);
  outcomes.start(channel.get(), "Echo", "", "2");
  server.join();  // the channel closed its side
  EXPECT_TRUE(server.saw_end);
  EXPECT_EQ(1u, server.received);
  EXPECT_EQ("", server.after_script);
  // The second call went out on a new connection, which this server never
  // takes up (the kernel completes it all the same).
  EXPECT_EQ("failed: " + RPCChannel::kErrorDeadlineExceeded, outcomes.waitFor(2)["2"]);
  destroy(channel);

  // Garbage after an answer: nothing after it can be matched to a call, so the
  // connection ends, and the call written to it fails.
  ScriptedServer breaking(
      {"", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: 1\r\n\r\ngarbage\r\n\r\n"});
  channel = RPCChannel::create("127.0.0.1:" + std::to_string(breaking.port()),
                               resilientFor(Duration::seconds(30)));
  ASSERT_TRUE(channel);
  Outcomes broken;
  broken.start(channel.get(), "Echo", "", "1");
  broken.start(channel.get(), "Echo", "", "2");
  EXPECT_EQ((std::map<std::string, std::string>{
                {"1", "ok: "}, {"2", "failed: " + RPCChannel::kErrorConnectionLost}}),
            broken.waitFor(2));
  destroy(channel);
}

TEST(ResilientChannelTest, EachWayACallFailsHasItsOwnText) {
  const uint16_t closed = closedPort();
  const std::string nowhere = "127.0.0.1:" + std::to_string(closed);
  using Results = std::map<std::string, std::string>;
  {
    SCOPED_TRACE("no server before the deadline; past max_pending");
    RPCChannelOptions options = resilientFor(Duration::milliseconds(200));
    options.max_pending = 1;
    RPCChannelPtr channel = RPCChannel::create(nowhere, options);
    ASSERT_TRUE(channel);
    Outcomes outcomes;
    outcomes.start(channel.get(), "Echo", "", "waits");
    outcomes.start(channel.get(), "Echo", "", "refused");
    EXPECT_EQ((Results{{"refused", "failed: Too many pending calls."}}), outcomes.waitFor(1));
    EXPECT_EQ("failed: No server reachable before the deadline.", outcomes.waitFor(2)["waits"]);
  }
  Server up;
  ASSERT_TRUE(up.server);
  RPCChannelPtr channel = RPCChannel::create(up.target(), resilientFor(Duration()));
  ASSERT_TRUE(channel);
  Outcomes outcomes;
  outcomes.start(channel.get(), "Hold", "", "deadline", in(Duration::milliseconds(200)));
  EXPECT_EQ("failed: Deadline exceeded.", outcomes.waitFor(1)["deadline"]);
  // Written, then the server goes away: the untimed wait ends.
  Outcomes::Call* lost = outcomes.start(channel.get(), "Hold", "", "lost");
  ASSERT_TRUE(up.service->waitHeld(2));
  up.kill();
  lost->rpc.wait();
  EXPECT_EQ("failed: " + RPCChannel::kErrorConnectionLost, outcomes.waitFor(2)["lost"]);
  // Waiting for a server when the channel goes.
  outcomes.start(channel.get(), "Echo", "", "destroyed");
  destroy(channel);
  EXPECT_EQ("failed: Canceled", outcomes.waitFor(3)["destroyed"]);
}

TEST(ResilientChannelTest, CallsWaitForAServerAndTheChannelOutlivesItsRestarts) {
  const uint16_t port = closedPort();
  RPCChannelPtr channel =
      RPCChannel::create("127.0.0.1:" + std::to_string(port), resilientFor(Duration::seconds(30)));
  ASSERT_TRUE(channel);
  Outcomes outcomes;
  outcomes.start(channel.get(), "Echo", "before", "before");
  size_t completed = 0;
  for (int restart = 0; restart < 2; ++restart) {
    SCOPED_TRACE(restart);
    Server server(port);
    ASSERT_TRUE(server.server);
    // Calls made while it was away go out once it is back, and so do new ones.
    const std::string tag = "during " + std::to_string(restart);
    outcomes.start(channel.get(), "Echo", tag, tag);
    completed += restart == 0 ? 2 : 1;
    EXPECT_EQ("ok: " + tag, outcomes.waitFor(completed)[tag]);
    // A call held when the server goes tells when the channel has seen it go.
    const std::string held = "held " + std::to_string(restart);
    outcomes.start(channel.get(), "Hold", "", held);
    ASSERT_TRUE(server.service->waitHeld(1));
    server.kill();
    EXPECT_EQ("failed: " + RPCChannel::kErrorConnectionLost, outcomes.waitFor(++completed)[held]);
  }
  EXPECT_EQ("ok: before", outcomes.waitFor(completed)["before"]);
}

TEST(ResilientChannelTest, CallsGoToTheServerWithTheFewestOutstanding) {
  std::vector<std::unique_ptr<Server>> servers;
  std::string target;
  for (int i = 0; i < 3; ++i) {
    servers.push_back(std::make_unique<Server>());
    ASSERT_TRUE(servers.back()->server);
    target += (i ? "," : "") + servers.back()->target();
  }
  RPCChannelPtr channel = RPCChannel::create(target, resilientFor(Duration::seconds(30)));
  ASSERT_TRUE(channel);
  // Until every connection is up: equally idle servers are taken in turn.
  Outcomes warm_up;
  auto everyoneCalled = [&] {
    for (auto& server : servers) {
      if (server->service->calls.load() == 0) return false;
    }
    return true;
  };
  for (size_t i = 0; i < 1000 && !everyoneCalled(); ++i) {
    warm_up.start(channel.get(), "Echo", "", std::to_string(i));
    warm_up.waitFor(i + 1);
  }
  ASSERT_TRUE(everyoneCalled());
  // Held calls stay outstanding: nine of them spread three by three.
  Outcomes held;
  for (int i = 0; i < 9; ++i) held.start(channel.get(), "Hold", "", std::to_string(i));
  for (auto& server : servers) EXPECT_TRUE(server->service->waitHeld(3));
  for (auto& server : servers) {
    for (int i = 0; i < 3; ++i) server->service->release();
  }
  EXPECT_EQ(9u, held.waitFor(9).size());
  for (auto& server : servers) EXPECT_FALSE(server->service->release()) << "a fourth call";
}

// A TLS server for one connection that, after the handshake and the first
// bytes of a request, writes a record no session key made (as a broken or
// hostile middlebox would), then waits for the client to close.
class ForgedRecordAfterHandshake {
 public:
  ForgedRecordAfterHandshake() {
    // Made first: the maker's end (SIGCHLD) would cut the accept short.
    vantu::testing::testCertDir();
    listener_ = vantu::testing::listenOnLoopback(&port_);
    setTimeout(listener_);
    thread_ = std::thread([this] { serve(); });
  }
  ~ForgedRecordAfterHandshake() {
    thread_.join();
    close(listener_);
  }
  uint16_t port() const { return port_; }

 private:
  static void setTimeout(int fd) {
    timeval guard{30, 0};  // against a hang only
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  }
  void serve() {
    const int fd = accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    setTimeout(fd);
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_use_certificate_chain_file(context, vantu::testing::cert("server.pem").c_str());
    SSL_CTX_use_PrivateKey_file(context, vantu::testing::cert("server-key.pem").c_str(),
                                SSL_FILETYPE_PEM);
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    char buffer[4096];
    if (SSL_accept(ssl) == 1 && SSL_read(ssl, buffer, sizeof(buffer)) > 0) {
      // A whole application-data record (a record cut short would be waited
      // for, then taken as the end): the client can only fail to authenticate it.
      std::string forged("\x17\x03\x03\x00\x20", 5);
      forged.append(32, 'x');
      ::send(fd, forged.data(), forged.size(), MSG_NOSIGNAL);
      while (recv(fd, buffer, sizeof(buffer), 0) > 0) {
      }
    }
    SSL_free(ssl);
    SSL_CTX_free(context);
    close(fd);
  }

  int listener_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
};

TEST(ResilientChannelTest, ATlsStreamThatBreaksFailsTheCallsOnItWithTheReason) {
  // Even without reconnect (where a lost connection leaves its calls pending):
  // a connection TLS broke will never answer them.
  for (const bool reconnect : {false, true}) {
    SCOPED_TRACE(reconnect ? "reconnect" : "no reconnect");
    ForgedRecordAfterHandshake server;
    RPCChannelOptions options;
    options.reconnect = reconnect;
    options.tls.enabled = true;
    options.tls.ca_file = vantu::testing::cert("ca.pem");
    const std::string address = "127.0.0.1:" + std::to_string(server.port());
    RPCChannelPtr channel = RPCChannel::create(address, options);
    ASSERT_TRUE(channel);
    Outcomes outcomes;
    outcomes.start(channel.get(), "Echo", "", "1");
    const std::string outcome = outcomes.waitFor(1)["1"];
    const std::string expected = "failed: " + address + ": TLS read failed: ";
    EXPECT_EQ(expected, outcome.substr(0, expected.size())) << outcome;
    destroy(channel);
  }
}

TEST(ResilientChannelTest, ADnsTargetFollowsTheAnswerOfItsResolver) {
  Server first, second;
  ASSERT_TRUE(first.server && second.server);
  // Shared with the resolver, whose last call may come after the test.
  struct Answer {
    std::mutex mutex;
    uint16_t port;
    bool wrong_question = false;
  };
  auto answer = std::make_shared<Answer>();
  answer->port = first.port();
  RPCChannelOptions options = resilientFor(Duration::seconds(30));
  options.resolve_interval = Duration::milliseconds(20);
  options.resolver = [answer](const std::string& host, uint16_t port, std::string*) {
    std::lock_guard<std::mutex> lock(answer->mutex);
    if (host != "service.test" || port != 1 || isEventThread()) answer->wrong_question = true;
    return std::vector<SocketAddress>{SocketAddress("127.0.0.1", answer->port)};
  };
  RPCChannelPtr channel = RPCChannel::create("dns:///service.test:1", options);
  ASSERT_TRUE(channel);
  Outcomes outcomes;
  int issued = 0;
  // Calls until the server the answer names takes one. Bounded by time, not
  // by calls: how many calls fit in one resolve interval depends on the machine.
  auto callUntil = [&](Server& server) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (server.service->calls.load() == 0 && std::chrono::steady_clock::now() < give_up) {
      outcomes.start(channel.get(), "Echo", "", std::to_string(issued++));
      outcomes.waitFor(issued);
    }
    return server.service->calls.load() > 0;
  };
  ASSERT_TRUE(callUntil(first));
  {
    std::lock_guard<std::mutex> lock(answer->mutex);
    answer->port = second.port();
  }
  ASSERT_TRUE(callUntil(second));
  // The server that left the answer gets nothing more.
  const int before = first.service->calls.load();
  for (int i = 0; i < 20; ++i) {
    outcomes.start(channel.get(), "Echo", "", std::to_string(issued++));
  }
  outcomes.waitFor(issued);
  EXPECT_EQ(before, first.service->calls.load());
  for (const auto& entry : outcomes.waitFor(issued)) EXPECT_EQ("ok: ", entry.second);
  destroy(channel);
  std::lock_guard<std::mutex> lock(answer->mutex);
  EXPECT_FALSE(answer->wrong_question) << "asked on the event thread, or for another name";
}

TEST(ResilientChannelTest, DeadlinesAndCancelsRaceAnswersFromManyThreads) {
  // Held calls end by their deadline (on the event thread) or a cancel (on the
  // calling thread) while echoes are answered.
  Server up;
  ASSERT_TRUE(up.server);
  RPCChannelPtr channel = RPCChannel::create(up.target(), resilientFor(Duration::seconds(30)));
  ASSERT_TRUE(channel);
  constexpr int kThreads = 4, kCallsPerThread = 90;
  std::atomic<int> good{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        RPC rpc;
        Text request, response;
        request.set_text(std::to_string(t) + "/" + std::to_string(i));
        if (i % 3 == 0) rpc.setDeadline(in(Duration::milliseconds(1)));
        channel->CallMethod(testMethod(i % 3 == 2 ? "Echo" : "Hold"), &rpc, &request, &response,
                            nullptr);
        if (i % 3 == 0) {
          rpc.wait();
          const std::string text = rpc.ErrorText();
          EXPECT_TRUE(text == RPCChannel::kErrorDeadlineExceeded ||
                      text == RPCChannel::kErrorUnreachable)
              << text;
        } else if (i % 3 == 1) {
          rpc.StartCancel();
          rpc.wait();
          EXPECT_EQ("Canceled", rpc.ErrorText());
        } else if (rpc.wait(), !rpc.Failed() && response.text() == request.text()) {
          ++good;
        }
      }
    });
  }
  for (auto& thread : callers) thread.join();
  EXPECT_EQ(kThreads * kCallsPerThread / 3, good.load());
  destroy(channel);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
