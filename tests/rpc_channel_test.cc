// RPC over HTTP end to end: our channel and raw clients against a real server
// on loopback, and our channel against a scripted server.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "common/closure.h"
#include "common/event_thread.h"
#include "common/logging.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/event_thread_blocker.h"
#include "tests/log_capture.h"
#include "tests/loopback_client.h"
#include "tests/scripted_server.h"
#include "tests/test_service.h"
#include "tests/waiting.h"

// In plain builds this program counts the heap blocks allocated inside a
// TrackAllocations scope until they are freed (on any thread): what
// LeakSanitizer checks in sanitizer builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HSL_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HSL_SANITIZED_BUILD 1
#endif
#endif

namespace {

std::atomic<int> tracked_live{0};
thread_local bool tracking = false;

struct TrackAllocations {
  TrackAllocations() { tracking = true; }
  ~TrackAllocations() { tracking = false; }
};

}  // namespace

#ifndef HSL_SANITIZED_BUILD
// A header on each block says whether it was tracked; it keeps the alignment.
constexpr std::size_t kHeader = alignof(std::max_align_t);

void* operator new(std::size_t size) {
  char* block = static_cast<char*>(std::malloc(size + kHeader));
  if (block == nullptr) throw std::bad_alloc();
  *reinterpret_cast<bool*>(block) = tracking;
  if (tracking) ++tracked_live;
  return block + kHeader;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  char* start = static_cast<char*>(block) - kHeader;
  if (*reinterpret_cast<bool*>(start)) --tracked_live;
  std::free(start);
}
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }
#endif

namespace vantu {
namespace relay {

// Lets a test start a channel's ids anywhere: they wrap only after 2^32 calls.
class RPCChannelTestPeer {
 public:
  static void setNextId(RPCChannel* channel, uint32_t id) {
    RPCChannel::RPCHandler::Calls& calls = *channel->handler_->calls_;
    MutexLock lock(calls.mutex);
    calls.next_id = id - 1;
  }
};

namespace {

using relaytest::Text;
using vantu::testing::EventThreadBlocker;
using vantu::testing::LoopbackClient;
using vantu::testing::ScriptedServer;
using vantu::testing::testMethod;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

// Which done closures ran, in order, and what each saw of its controller, if
// given ("1 failed: Canceled"): the channel must complete the controller first.
class Completions {
 public:
  std::unique_ptr<google::protobuf::Closure> newDone(int tag, const RPC* controller = nullptr) {
    return std::unique_ptr<google::protobuf::Closure>(newClosure(
        [this, tag, controller] {
          std::string entry = std::to_string(tag);
          if (controller != nullptr) {
            entry += controller->Failed() ? " failed: " + controller->ErrorText() : " ok";
          }
          entries_.add(entry);
        },
        false));
  }

  std::vector<std::string> waitFor(size_t count = 0) { return entries_.all(count); }

 private:
  vantu::testing::Collected<std::string> entries_;
};

using Entries = std::vector<std::string>;

// Counts its failures: a completion after the call was over shows in plain
// builds too.
class CountingRPC : public RPC {
 public:
  void SetFailed(const std::string& reason) override {
    ++failures;
    RPC::SetFailed(reason);
  }
  std::atomic<int> failures{0};
};

// A guard against a hang, not a timing check.
::testing::AssertionResult completes(RPC& rpc) {
  if (rpc.timedWaitRelative(Duration::seconds(30))) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "the call was not completed";
}

// The channel's deletion queues its handler's: wait twice.
void waitForChannelTeardown() {
  waitForDeferredWork();
  waitForDeferredWork();
}

class RpcChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_ = std::make_shared<TestServiceImpl>();
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 128);
    ASSERT_TRUE(server_);
    server_->registerRPCService(service_);
    port_ = server_->localAddress().port();
    channel_ = newChannel();
    ASSERT_TRUE(channel_);
  }
  void TearDown() override {
    channel_.reset();
    server_.reset();
    waitForChannelTeardown();
  }

  RPCChannelPtr newChannel() { return RPCChannel::create(SocketAddress("127.0.0.1", port_)); }

  std::string echo(const std::string& text) {
    RPC rpc;
    Text request, response;
    request.set_text(text);
    channel_->CallMethod(testMethod("Echo"), &rpc, &request, &response, nullptr);
    rpc.wait();
    return rpc.Failed() ? "failed: " + rpc.ErrorText() : response.text();
  }

  std::string rawCall(const std::string& headers, const std::string& body) {
    LoopbackClient client(port_);
    EXPECT_TRUE(client.connected());
    client.write("POST /anything HTTP/1.1\r\nHost: x\r\n" + headers +
                 "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    client.shutdownWrite();
    return client.readToEnd();
  }

  std::shared_ptr<TestServiceImpl> service_;
  std::shared_ptr<HttpServer> server_;
  RPCChannelPtr channel_;
  uint16_t port_ = 0;
};

TEST_F(RpcChannelTest, WireFormOfAnswers) {
  const std::string service = "Rpc-Service: relaytest.TestService\r\n";
  const std::string json = "Content-Type: application/json\r\n";
  const std::string json_body = "{\"text\":\"hi\"}";
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 13\r\n"
      "Content-Type: application/json\r\nRpc-Failed: 0\r\nRpc-Id: 7\r\n\r\n" +
          json_body,
      rawCall(service + "Rpc-Method: Echo\r\nRpc-Id: 7\r\n" + json, json_body));

  struct Case {
    std::string headers;
    std::string body;
    const char* error;
  } cases[] = {
      {"Rpc-Service: relaytest.Nope\r\nRpc-Method: Echo\r\n", "", "Service not found."},
      {"Rpc-Service: TestService\r\nRpc-Method: Echo\r\n", "", "Service not found."},
      {service + "Rpc-Method: Nope\r\n", "", "Method not found."},
      {service + "Rpc-Method: Echo\r\n", "\xff\xff", "Can't parse request."},
      {service + "Rpc-Method: Square\r\n", "", "Can't parse request."},
      {service + "Rpc-Method: Echo\r\n" + json, "{\"nofield\":1}", "Can't parse request."},
      {service + "Rpc-Method: Echo\r\nContent-Type: application/json; charset=utf-8\r\n", json_body,
       "Can't parse request."},
      {service + "Rpc-Method: Fail\r\n" + json, "{\"text\":\"a\\r\\nInjected: yes\"}",
       "a  Injected: yes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.headers);
    EXPECT_EQ(std::string("HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
                          "Rpc-Error: ") +
                  c.error + "\r\nRpc-Failed: 1\r\nRpc-Id: 3\r\n\r\n",
              rawCall(c.headers + "Rpc-Id: 3\r\n", c.body));
  }
  // Failures write the id as "%d" too: 4294967295 is read as -1 and stays -1.
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
      "Rpc-Error: Service not found.\r\nRpc-Failed: 1\r\nRpc-Id: -1\r\n\r\n",
      rawCall("Rpc-Service: relaytest.Nope\r\nRpc-Id: 4294967295\r\n", ""));
  // Header names are case-sensitive: this is a plain request, and no URL
  // handler matches it.
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n",
            rawCall("rpc-service: relaytest.TestService\r\nrpc-method: Echo\r\n", ""));
}

TEST_F(RpcChannelTest, CanceledCallsAreNeitherSentNorAnsweredLateAndTeardownCancelsInIdOrder) {
  // Canceled before its deferred write runs: completed on this thread, done
  // included, and never sent.
  RPC before, after;
  Text request, response;
  Completions completions;
  auto done = completions.newDone(9, &before);
  {
    EventThreadBlocker blocker;
    channel_->CallMethod(testMethod("Echo"), &before, &request, &response, done.get());
    before.StartCancel();
    EXPECT_EQ(Entries{"9 failed: Canceled"}, completions.waitFor());
  }
  // Canceled once sent: its late answer is ignored.
  request.set_text("late");
  channel_->CallMethod(testMethod("Hold"), &after, &request, &response, nullptr);
  ASSERT_TRUE(service_->waitHeld(1));
  after.StartCancel();
  service_->complete(0);
  EXPECT_EQ("next", echo("next"));  // the late answer has arrived before this one
  EXPECT_EQ("", response.text());
  EXPECT_EQ("Canceled", after.ErrorText());
  EXPECT_EQ(2, service_->calls.load());  // the held call and "next"

  // Held calls outlive the server (the connection keeps its shared state until
  // our side closes; the service's late completions then find nothing to
  // answer and free their records, which LeakSanitizer checks), and the
  // channel's destruction cancels them in id order.
  constexpr int kCalls = 3;
  RPC rpcs[kCalls];
  Text requests[kCalls], responses[kCalls];
  std::vector<std::unique_ptr<google::protobuf::Closure>> dones;
  for (int i = 0; i < kCalls; ++i) {
    dones.push_back(completions.newDone(i, &rpcs[i]));
    channel_->CallMethod(testMethod("Hold"), &rpcs[i], &requests[i], &responses[i],
                         dones.back().get());
  }
  ASSERT_TRUE(service_->waitHeld(kCalls + 1));
  server_.reset();
  waitForDeferredWork();
  channel_.reset();
  waitForChannelTeardown();
  EXPECT_EQ((Entries{"9 failed: Canceled", "0 failed: Canceled", "1 failed: Canceled",
                     "2 failed: Canceled"}),
            completions.waitFor());
  service_->complete(1);
}

// Drops `channel` and returns once it is destroyed, holding the event thread
// while its handler's destruction is still queued: the handler is expired but
// not destroyed.
std::unique_ptr<EventThreadBlocker> dropChannelAndHoldBeforeHandlerDies(RPCChannelPtr channel) {
  std::unique_ptr<EventThreadBlocker> blocker;
  {
    EventThreadBlocker hold;
    channel.reset();  // queued behind `hold`, and this blocker behind it
    blocker = std::make_unique<EventThreadBlocker>(EventThreadBlocker::kQueueOnly);
  }
  blocker->waitUntilHeld();
  return blocker;
}

TEST_F(RpcChannelTest, CancelWhileTheChannelIsTornDownStillCompletesTheCall) {
  // A timed wait or cancel in that gap completes the call then and there, and
  // the handler's destructor leaves it alone: a caller may free its controller
  // once the timed wait returned false (AddressSanitizer sees a later write).
  struct Case {
    const char* name;
    bool timed_wait;
    bool with_done;
    bool free_early;
  } cases[] = {{"timed wait, done closure", true, true, false},
               {"timed wait, no done closure", true, false, false},
               {"timed wait, controller freed at once", true, false, true},
               {"StartCancel, done closure", false, true, false}};
  int held = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RPCChannelPtr channel = newChannel();
    ASSERT_TRUE(channel);
    auto rpc = std::make_unique<CountingRPC>();
    Text request, response;
    Completions completions;
    auto done = completions.newDone(1, rpc.get());
    channel->CallMethod(testMethod("Hold"), rpc.get(), &request, &response,
                        c.with_done ? done.get() : nullptr);
    ASSERT_TRUE(service_->waitHeld(++held));
    auto blocker = dropChannelAndHoldBeforeHandlerDies(std::move(channel));
    if (c.timed_wait) {
      EXPECT_FALSE(rpc->timedWaitRelative(Duration::milliseconds(0)));
    } else {
      rpc->StartCancel();
    }
    EXPECT_TRUE(rpc->IsCanceled());
    EXPECT_EQ("Canceled", rpc->ErrorText());
    const Entries expected = c.with_done ? Entries{"1 failed: Canceled"} : Entries{};
    EXPECT_EQ(expected, completions.waitFor());
    if (c.free_early) rpc.reset();
    blocker.reset();
    waitForChannelTeardown();
    if (rpc) {
      EXPECT_EQ(1, rpc->failures.load());
    }
    EXPECT_EQ(expected, completions.waitFor());
  }
}

TEST_F(RpcChannelTest, FinishedCallsLeaveNothingAllocatedBehind) {
#ifdef HSL_SANITIZED_BUILD
  GTEST_SKIP() << "LeakSanitizer checks this in sanitizer builds";
#endif
  // What CallMethod and a cancel allocate on the caller's thread (the cancel
  // closure, the table entry, the deferred write) is freed on every way a call
  // ends. Only the second run counts: buffers kept for reuse (the event queue)
  // have grown by then.
  enum Way { kCanceledBeforeItIsWritten, kCanceledAfterItIsWritten, kAnswered };
  for (Way way : {kCanceledBeforeItIsWritten, kCanceledAfterItIsWritten, kAnswered}) {
    SCOPED_TRACE(way);
    for (int round = 0; round < 2; ++round) {
      RPC rpc;
      Text request, response;
      {
        std::unique_ptr<EventThreadBlocker> blocker;
        if (way == kCanceledBeforeItIsWritten) blocker = std::make_unique<EventThreadBlocker>();
        TrackAllocations track;
        channel_->CallMethod(testMethod(way == kCanceledAfterItIsWritten ? "Hold" : "Echo"), &rpc,
                             &request, &response, nullptr);
        if (blocker) rpc.StartCancel();
      }
      if (way == kCanceledAfterItIsWritten) {
        waitForDeferredWork();
        TrackAllocations track;
        rpc.StartCancel();
      }
      ASSERT_TRUE(completes(rpc));
      waitForChannelTeardown();
      if (round == 1) {
        EXPECT_EQ(0, tracked_live.load());
      }
    }
  }
  // Completed by the channel's destruction.
  RPC rpc;
  Text request, response;
  {
    TrackAllocations track;
    channel_->CallMethod(testMethod("Hold"), &rpc, &request, &response, nullptr);
  }
  channel_.reset();
  waitForChannelTeardown();
  EXPECT_EQ("Canceled", rpc.ErrorText());
  EXPECT_EQ(0, tracked_live.load());
}

TEST_F(RpcChannelTest, DoneClosureMayIssueTheNextCall) {
  // Each done closure issues the next call from inside the completion.
  struct Chain : google::protobuf::Closure {
    RPCChannel* channel;
    RPC rpc, finished;
    Text request, response;
    int remaining = 3;
    void next() {
      rpc.Reset();
      channel->CallMethod(testMethod("Echo"), &rpc, &request, &response, this);
    }
    void Run() override {
      if (rpc.Failed() || --remaining == 0) return finished.setDone();
      next();
    }
  } chain;
  chain.channel = channel_.get();
  chain.next();
  ASSERT_TRUE(completes(chain.finished));
  EXPECT_FALSE(chain.rpc.Failed());
  EXPECT_EQ(0, chain.remaining);
}

TEST_F(RpcChannelTest, CallsCancelsAndCompletionsFromSeveralThreads) {
  // Answers completed on many threads at once never interleave.
  constexpr int kCalls = 64;
  RPC rpcs[kCalls];
  Text requests[kCalls], responses[kCalls];
  for (int i = 0; i < kCalls; ++i) {
    requests[i].set_text(std::string(1000 + i * 37, static_cast<char>('a' + i % 26)));
    channel_->CallMethod(testMethod("Hold"), &rpcs[i], &requests[i], &responses[i], nullptr);
  }
  ASSERT_TRUE(service_->waitHeld(kCalls));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = t; i < kCalls; i += 4) service_->complete(i);
    });
  }
  for (auto& thread : threads) thread.join();
  for (int i = 0; i < kCalls; ++i) {
    rpcs[i].wait();
    EXPECT_EQ(requests[i].text(), responses[i].text()) << rpcs[i].ErrorText();
  }
  // Calls from several threads, half of them held and canceled from there.
  constexpr int kThreads = 4, kCallsPerThread = 50;
  std::atomic<int> good{0};
  threads.clear();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t, &good] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        RPC rpc;
        Text request, response;
        request.set_text(std::to_string(t) + "/" + std::to_string(i));
        channel_->CallMethod(testMethod(i % 2 ? "Echo" : "Hold"), &rpc, &request, &response,
                             nullptr);
        if (i % 2 == 0) {
          EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(1)));
          EXPECT_EQ("Canceled", rpc.ErrorText());
        } else if (rpc.wait(), !rpc.Failed() && response.text() == request.text()) {
          ++good;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kCallsPerThread / 2, good.load());
}

TEST(RpcChannelClientTest, ReadsAnswersAsTheProtocolSays) {
  const std::string body = textMessage("body");
  const std::string length = std::to_string(body.size());
  ScriptedServer server({
      // 1: no Rpc-Failed and a good body: success.
      "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\nRpc-Id: {id}\r\n\r\n" + body,
      // 2: failed, with a body that is ignored; any status code.
      "HTTP/1.1 500 Whatever\r\nContent-Length: 3\r\nRpc-Failed: 1\r\n"
      "Rpc-Error: Service not found.\r\nRpc-Id: {id}\r\n\r\nxyz",
      // 3: an answer without Rpc-Id is ignored; then the real one, whose body
      // does not parse.
      "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
      "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nRpc-Failed: 0\r\nRpc-Id: {id}\r\n\r\n\xff\xff",
      // 4: id 4 written as 4294967300: the low 32 bits match; failed without a text.
      "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 7\r\nRpc-Id: 4294967300\r\n\r\n",
      // 5: a negative flag is a failure too.
      "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: -1\r\nRpc-Error: negative\r\n"
      "Rpc-Id: {id}\r\n\r\n",
      // 6: only the low 32 bits of the flag count: 4294967296 reads as 0, a
      // success. The same answer again is ignored: the call is no longer pending.
      "HTTP/1.1 200 OK\r\nContent-Length: " + length +
          "\r\nRpc-Failed: 4294967296\r\nRpc-Id: {id}\r\n\r\n" + body +
          "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Failed: 1\r\nRpc-Error: again\r\n"
          "Rpc-Id: {id}\r\n\r\n",
  });
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  Text request;
  RPC rpcs[6];
  Text responses[6];
  for (int i = 0; i < 6; ++i) {
    channel->CallMethod(testMethod("Echo"), &rpcs[i], &request, &responses[i], nullptr);
    ASSERT_TRUE(completes(rpcs[i])) << "call " << i + 1;
  }
  EXPECT_EQ("body", responses[0].text());
  EXPECT_EQ("Service not found.", rpcs[1].ErrorText());
  EXPECT_EQ("Can't parse response.", rpcs[2].ErrorText());
  EXPECT_TRUE(rpcs[3].Failed());
  EXPECT_EQ("", rpcs[3].ErrorText());
  EXPECT_EQ("negative", rpcs[4].ErrorText());
  EXPECT_EQ("body", responses[5].text());
  channel.reset();
  waitForChannelTeardown();
  for (int i : {0, 5}) EXPECT_FALSE(rpcs[i].Failed()) << "call " << i + 1;
}

TEST(RpcChannelClientTest, AnswersInTheServersOwnFormReachTheirCallsInStreamOrder) {
  // Forty answers in one write, in the form the library's server writes
  // (which the channel reads where it lies), in reverse id order, with an
  // unknown id among them: more than one turn of the event loop handles them,
  // and each call still gets its own answer, in the order they were sent.
  // Ids cross 2^31 (written as negative numbers) and wrap to 0.
  constexpr int kCalls = 40;
  constexpr uint32_t kFirstId = 4294967295u - 19;
  auto answer = [](uint32_t id, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: " +
           std::to_string(body.size()) +
           "\r\nRpc-Failed: 0\r\nRpc-Id: " + std::to_string(static_cast<int32_t>(id)) + "\r\n\r\n" +
           body;
  };
  std::vector<std::string> script(kCalls);
  Entries expected;
  for (int i = kCalls - 1; i >= 0; --i) {
    const uint32_t id = kFirstId + static_cast<uint32_t>(i);
    // Call 7's body does not parse; call 9's is empty, a message with nothing set.
    script[0] += answer(id, i == 7   ? "\xff\xff"
                            : i == 9 ? ""
                                     : textMessage("r" + std::to_string(i)));
    if (i == 20) script[0] += answer(999, textMessage("nobody's"));
    expected.push_back(std::to_string(i) + (i == 7 ? " failed: Can't parse response." : " ok"));
  }
  ScriptedServer server(script);
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  RPCChannelTestPeer::setNextId(channel.get(), kFirstId);
  Text request;
  RPC rpcs[kCalls];
  Text responses[kCalls];
  Completions completions;
  std::vector<std::unique_ptr<google::protobuf::Closure>> dones;
  for (int i = 0; i < kCalls; ++i) dones.push_back(completions.newDone(i, &rpcs[i]));
  // Issued on the event thread, so that every call is pending before the
  // first request is written and the server can answer them all at once.
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    for (int i = 0; i < kCalls; ++i) {
      channel->CallMethod(testMethod("Echo"), &rpcs[i], &request, &responses[i], dones[i].get());
    }
  }));
  EXPECT_EQ(expected, completions.waitFor(kCalls));
  for (int i = 0; i < kCalls; ++i) {
    if (i == 7) continue;
    EXPECT_EQ(i == 9 ? "" : "r" + std::to_string(i), responses[i].text()) << "call " << i;
  }
  channel.reset();
  waitForChannelTeardown();
  server.join();
}

TEST(RpcChannelClientTest, WritesRequestsByteForByte) {
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\n";
  ScriptedServer server({answer, answer, answer, answer});
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  Text request;
  request.set_text("q");
  RPC rpcs[4];
  Text responses[4];
  channel->CallMethod(testMethod("Echo"), &rpcs[0], &request, &responses[0], nullptr);
  // A call on a canceled controller takes no id and is never completed.
  RPC canceled;
  canceled.StartCancel();
  Completions completions;
  auto done = completions.newDone(9);
  channel->CallMethod(testMethod("Echo"), &canceled, &request, &responses[0], done.get());
  channel->CallMethod(testMethod("Echo"), &rpcs[1], &request, &responses[1], nullptr);
  // Ids from 2^31 on go out as negative numbers and are matched on the way
  // back; after 4294967295 comes 0.
  RPCChannelTestPeer::setNextId(channel.get(), 4294967295u);
  channel->CallMethod(testMethod("Echo"), &rpcs[2], &request, &responses[2], nullptr);
  channel->CallMethod(testMethod("Square"), &rpcs[3], &request, &responses[3], nullptr);
  // Answers come in order: once the last call is done, so are the others.
  ASSERT_TRUE(completes(rpcs[3]));
  for (RPC& rpc : rpcs) {
    EXPECT_TRUE(rpc.timedWaitAbsolute(Time::fromMicroseconds(0)));
    EXPECT_FALSE(rpc.Failed()) << rpc.ErrorText();
  }
  channel.reset();
  waitForChannelTeardown();
  server.join();

  const std::string body = request.SerializeAsString();
  auto head = [&body](const char* id, const char* method) {
    return "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nRpc-Id: " + id + "\r\nRpc-Service: relaytest.TestService\r\nRpc-Method: " + method +
           "\r\n\r\n" + body;
  };
  EXPECT_EQ(head("1", "Echo") + head("2", "Echo") + head("-1", "Echo") + head("0", "Square"),
            server.bytes);
  EXPECT_EQ(Entries{}, completions.waitFor());
  EXPECT_FALSE(canceled.Failed());
  EXPECT_FALSE(canceled.timedWaitAbsolute(Time::fromMicroseconds(0)));  // never completed
}

TEST(RpcChannelClientTest, TheConnectionEndsOnGarbageOrOnThePeersEnd) {
  for (const bool garbage : {true, false}) {
    SCOPED_TRACE(garbage ? "garbage after the answer" : "the server ends its output");
    // Garbage ends the connection after the good answer: a later call is not
    // written, and stays pending until the channel goes. A server that ends
    // its output leaves nothing unparsed, so the channel has no complaint to
    // send, and closes by itself.
    ScriptedServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\n" +
                           std::string(garbage ? "garbage\r\n\r\n" : "")},
                          !garbage);
    RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
    ASSERT_TRUE(channel);
    Text request, response;
    RPC first, second;
    channel->CallMethod(testMethod("Echo"), &first, &request, &response, nullptr);
    ASSERT_TRUE(completes(first));
    Completions completions;
    if (garbage) {
      waitForDeferredWork();  // the shutdown follows the answer in the same callback
      auto done = completions.newDone(2, &second);
      channel->CallMethod(testMethod("Echo"), &second, &request, &response, done.get());
      waitForDeferredWork();  // its write has been tried
      EXPECT_EQ(Entries{}, completions.waitFor());
      channel.reset();
      waitForChannelTeardown();
      EXPECT_EQ(Entries{"2 failed: Canceled"}, completions.waitFor());
    }
    server.join();  // returns once the client closed
    EXPECT_TRUE(server.saw_end);
    EXPECT_EQ(1u, server.received);
    EXPECT_EQ("", server.after_script);
    channel.reset();
    waitForChannelTeardown();
  }
}

TEST(RpcChannelCreateTest, NoServerGivesNullAndSaysSo) {
  // Bind a port, close it, and connect there: refused.
  auto server = HttpServer::create(SocketAddress("127.0.0.1", 0), 4);
  ASSERT_TRUE(server);
  const uint16_t port = server->localAddress().port();
  server.reset();
  waitForDeferredWork();
  vantu::testing::LogCapture log("rpc", 2);
  EXPECT_FALSE(RPCChannel::create(SocketAddress("127.0.0.1", port)));
  const std::vector<LogRecord> records = log.take();
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(2, records[0].level);
  EXPECT_EQ("relay/rpc", records[0].file);
  EXPECT_EQ(381, records[0].line);
  EXPECT_EQ(
      "static vantu::relay::RPCChannelPtr vantu::relay::RPCChannel::create(const "
      "vantu::SocketAddress&)",
      records[0].function);
  EXPECT_EQ("Failed to create a TCP socket.", records[0].text);
}

}  // namespace
}  // namespace relay
}  // namespace vantu
