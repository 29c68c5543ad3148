// RPC over HTTP end to end: our channel and raw clients against a real server
// on loopback, and our channel against a scripted server.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <thread>

#include "common/event_thread.h"
#include "common/logging.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/event_thread_blocker.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

// In plain builds this program counts heap blocks, so that a test can assert
// what LeakSanitizer checks in sanitizer builds: that a finished call leaves
// nothing it allocated behind. Blocks allocated by a thread inside a
// TrackAllocations scope are remembered until freed, on whatever thread.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HSL_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HSL_SANITIZED_BUILD 1
#endif
#endif

namespace {

std::atomic_flag tracked_lock = ATOMIC_FLAG_INIT;
std::atomic<int> tracked_live{0};
thread_local bool tracking = false;

class TrackedLock {
 public:
  TrackedLock() {
    while (tracked_lock.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~TrackedLock() { tracked_lock.clear(std::memory_order_release); }
};

// Remembers the blocks this thread allocates while it exists.
class TrackAllocations {
 public:
  TrackAllocations() { tracking = true; }
  ~TrackAllocations() { tracking = false; }
  TrackAllocations(const TrackAllocations&) = delete;
  TrackAllocations& operator=(const TrackAllocations&) = delete;
};

// Tracked blocks not freed yet.
int trackedLive() {
  TrackedLock lock;
  return tracked_live.load(std::memory_order_relaxed);
}

}  // namespace

#ifndef HSL_SANITIZED_BUILD
namespace {

constexpr int kTrackedSlots = 4096;
void* tracked[kTrackedSlots];  // live tracked blocks; null slots are free

void track(void* block) {
  TrackedLock lock;
  for (void*& slot : tracked) {
    if (slot == nullptr) {
      slot = block;
      tracked_live.fetch_add(1, std::memory_order_relaxed);
      return;
    }
  }
  std::abort();  // more live blocks than a test here makes
}

void untrack(void* block) {
  if (tracked_live.load(std::memory_order_relaxed) == 0) return;
  TrackedLock lock;
  for (void*& slot : tracked) {
    if (slot == block) {
      slot = nullptr;
      tracked_live.fetch_sub(1, std::memory_order_relaxed);
      return;
    }
  }
}

}  // namespace

void* operator new(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  if (tracking) track(block);
  return block;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  untrack(block);
  std::free(block);
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

using relaytest::Number;
using relaytest::Text;
using vantu::testing::EventThreadBlocker;
using vantu::testing::LoopbackClient;
using vantu::testing::TestServiceImpl;
using vantu::testing::textMessage;

const google::protobuf::MethodDescriptor* method(const char* name) {
  return relaytest::TestService::descriptor()->FindMethodByName(name);
}

// Records which done closures ran, in order, and what each saw of its
// controller when it ran. A caller that gives a done closure learns of
// completion there, not from the controller: the channel completes the
// controller first and then runs the closure.
class Completions {
 public:
  class Done : public google::protobuf::Closure {
   public:
    Done(int tag, Completions* completions, const RPC* controller)
        : tag_(tag), completions_(completions), controller_(controller) {}
    void Run() override {
      std::string seen;
      if (controller_ != nullptr) {
        seen = controller_->Failed() ? "failed: " + controller_->ErrorText() : "not failed";
      }
      completions_->record(tag_, seen);
    }

   private:
    int tag_;
    Completions* completions_;
    const RPC* controller_;
  };

  // `controller`, if given, is looked at when the closure runs.
  std::unique_ptr<Done> newDone(int tag, const RPC* controller = nullptr) {
    return std::make_unique<Done>(tag, this, controller);
  }

  // The tags so far, once at least `count` closures have run (the wait is a
  // guard against a hang, not an assertion).
  std::vector<int> waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    ran_.wait_for(lock, std::chrono::seconds(30), [&] { return order_.size() >= count; });
    return order_;
  }
  // The tags so far, without waiting.
  std::vector<int> ran() {
    std::lock_guard<std::mutex> lock(mutex_);
    return order_;
  }
  // What each closure saw of its controller, in the order they ran.
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }

 private:
  void record(int tag, const std::string& seen) {
    std::lock_guard<std::mutex> lock(mutex_);
    order_.push_back(tag);
    seen_.push_back(seen);
    ran_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable ran_;
  std::vector<int> order_;
  std::vector<std::string> seen_;
};

// Counts how often the channel fails it, so that a completion that comes after
// the caller was told the call is over shows in a plain build too.
class CountingRPC : public RPC {
 public:
  void SetFailed(const std::string& reason) override {
    ++failures;
    RPC::SetFailed(reason);
  }
  std::atomic<int> failures{0};
};

class RpcChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_ = std::make_shared<TestServiceImpl>();
    server_ = HttpServer::create(SocketAddress("127.0.0.1", 0), 128);
    ASSERT_TRUE(server_);
    server_->registerRPCService(service_);
    port_ = server_->localAddress().port();
    channel_ = RPCChannel::create(SocketAddress("127.0.0.1", port_));
    ASSERT_TRUE(channel_);
  }
  void TearDown() override {
    channel_.reset();
    server_.reset();
    // The channel's handler is deleted by a deletion the channel's own
    // deletion queues: wait twice.
    waitForDeferredWork();
    waitForDeferredWork();
  }

  // One echo call through the channel, waited on.
  std::string echo(const std::string& text) {
    RPC rpc;
    Text request, response;
    request.set_text(text);
    channel_->CallMethod(method("Echo"), &rpc, &request, &response, nullptr);
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

TEST_F(RpcChannelTest, BinaryCallsThroughTheChannel) {
  EXPECT_EQ("hello", echo("hello"));
  EXPECT_EQ("", echo(""));
  EXPECT_EQ(std::string(100000, 'x'), echo(std::string(100000, 'x')));

  RPC rpc;
  Number request, response;
  request.set_value(12);
  channel_->CallMethod(method("Square"), &rpc, &request, &response, nullptr);
  rpc.wait();
  EXPECT_FALSE(rpc.Failed());
  EXPECT_EQ(144, response.value());
}

TEST_F(RpcChannelTest, WireFormOfAnswers) {
  // JSON in, JSON out, exact header block.
  const std::string json_body = "{\"text\":\"hi\"}";
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 13\r\n"
      "Content-Type: application/json\r\nRpc-Failed: 0\r\nRpc-Id: 7\r\n\r\n" +
          json_body,
      rawCall("Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\nRpc-Id: 7\r\n"
              "Content-Type: application/json\r\n",
              json_body));
  // Binary, id -1 echoed as -1, no id as 0.
  EXPECT_EQ(
      "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 4\r\n"
      "Rpc-Failed: 0\r\nRpc-Id: -1\r\n\r\n" +
          textMessage("ab"),
      rawCall("Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\nRpc-Id: -1\r\n",
              textMessage("ab")));

  struct Case {
    const char* headers;
    std::string body;
    const char* error;
  } cases[] = {
      {"Rpc-Service: relaytest.Nope\r\nRpc-Method: Echo\r\n", "", "Service not found."},
      {"Rpc-Service: TestService\r\nRpc-Method: Echo\r\n", "", "Service not found."},
      {"Rpc-Service: \r\n", "", "Service not found."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Nope\r\n", "", "Method not found."},
      {"Rpc-Service: relaytest.TestService\r\n", "", "Method not found."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\n", "\xff\xff",
       "Can't parse request."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Square\r\n", "", "Can't parse request."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\nContent-Type: "
       "application/json\r\n",
       "{not json", "Can't parse request."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\nContent-Type: "
       "application/json\r\n",
       "{\"nofield\":1}", "Can't parse request."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Echo\r\n"
       "Content-Type: application/json; charset=utf-8\r\n",
       "{\"text\":\"hi\"}", "Can't parse request."},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Fail\r\nContent-Type: "
       "application/json\r\n",
       "{\"text\":\"no luck\"}", "no luck"},
      {"Rpc-Service: relaytest.TestService\r\nRpc-Method: Fail\r\nContent-Type: "
       "application/json\r\n",
       "{\"text\":\"a\\r\\nInjected: yes\"}", "a  Injected: yes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.headers);
    EXPECT_EQ(std::string("HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
                          "Rpc-Error: ") +
                  c.error + "\r\nRpc-Failed: 1\r\nRpc-Id: 3\r\n\r\n",
              rawCall(std::string(c.headers) + "Rpc-Id: 3\r\n", c.body));
  }
  // Failures write the id as "%d" too: -1, and 4294967295 read as -1, stay -1.
  for (const char* id : {"-1", "4294967295"}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(
        "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
        "Rpc-Error: Service not found.\r\nRpc-Failed: 1\r\nRpc-Id: -1\r\n\r\n",
        rawCall("Rpc-Service: relaytest.Nope\r\nRpc-Id: " + std::string(id) + "\r\n", ""));
  }
  // Header names are case-sensitive: this is a plain request, and no URL
  // handler matches it.
  EXPECT_EQ("HTTP/1.1 404 Not Found\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n",
            rawCall("rpc-service: relaytest.TestService\r\nrpc-method: Echo\r\n", ""));
}

TEST_F(RpcChannelTest, FailuresReachTheCaller) {
  RPC rpc;
  Text request, response;
  request.set_text("it broke");
  response.set_text("untouched");
  channel_->CallMethod(method("Fail"), &rpc, &request, &response, nullptr);
  rpc.wait();
  EXPECT_TRUE(rpc.Failed());
  EXPECT_EQ("it broke", rpc.ErrorText());
  EXPECT_EQ("untouched", response.text());
}

TEST_F(RpcChannelTest, CallsCompletingInReverseOrderEachGetTheirReply) {
  RPC first, second;
  Text request1, request2, response1, response2;
  request1.set_text("one");
  request2.set_text("two");
  Completions completions;
  auto done1 = completions.newDone(1), done2 = completions.newDone(2);
  channel_->CallMethod(method("Hold"), &first, &request1, &response1, done1.get());
  channel_->CallMethod(method("Hold"), &second, &request2, &response2, done2.get());
  ASSERT_TRUE(service_->waitHeld(2));
  service_->complete(1);  // from this thread, not the event thread
  EXPECT_EQ(std::vector<int>{2}, completions.waitFor(1));
  EXPECT_EQ("two", response2.text());
  EXPECT_EQ("", response1.text());
  service_->complete(0);
  EXPECT_EQ((std::vector<int>{2, 1}), completions.waitFor(2));
  EXPECT_EQ("one", response1.text());
  EXPECT_FALSE(first.Failed());
}

TEST_F(RpcChannelTest, CancelBeforeTheRequestIsWrittenSendsNothing) {
  // Hold the event thread so that the deferred write cannot run yet.
  std::mutex gate;
  gate.lock();
  defer([&gate] { std::lock_guard<std::mutex> wait(gate); });
  RPC rpc;
  Text request, response;
  request.set_text("never");
  Completions completions;
  auto done = completions.newDone(1, &rpc);
  channel_->CallMethod(method("Echo"), &rpc, &request, &response, done.get());
  rpc.StartCancel();  // completes the call on this thread, done included
  EXPECT_EQ(std::vector<int>{1}, completions.ran());
  gate.unlock();
  EXPECT_TRUE(rpc.Failed());
  EXPECT_TRUE(rpc.IsCanceled());
  EXPECT_EQ("Canceled", rpc.ErrorText());
  // The controller was failed before the done closure ran.
  EXPECT_EQ(std::vector<std::string>{"failed: Canceled"}, completions.seen());
  // A later call on the same connection is answered; the canceled one never
  // reached the service.
  EXPECT_EQ("after", echo("after"));
  EXPECT_EQ(1, service_->calls.load());
}

TEST_F(RpcChannelTest, CancelAfterTheRequestIsWrittenIgnoresTheLateAnswer) {
  RPC rpc;
  Text request, response;
  request.set_text("late");
  channel_->CallMethod(method("Hold"), &rpc, &request, &response, nullptr);
  ASSERT_TRUE(service_->waitHeld(1));
  rpc.StartCancel();
  EXPECT_EQ("Canceled", rpc.ErrorText());
  service_->complete(0);
  EXPECT_EQ("next", echo("next"));  // the late answer has arrived before this one
  EXPECT_EQ("", response.text());
  EXPECT_EQ("Canceled", rpc.ErrorText());
}

TEST_F(RpcChannelTest, TimedWaitThatExpiresCancels) {
  RPC rpc;
  Text request, response;
  channel_->CallMethod(method("Hold"), &rpc, &request, &response, nullptr);
  EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(20)));
  EXPECT_TRUE(rpc.Failed());
  EXPECT_TRUE(rpc.IsCanceled());
  EXPECT_EQ("Canceled", rpc.ErrorText());
  ASSERT_TRUE(service_->waitHeld(1));
  service_->complete(0);
  // A controller that is canceled and not reset carries no further call: it
  // is neither sent nor completed, and its done closure never runs.
  Completions completions;
  auto done = completions.newDone(1);
  request.set_text("dropped");
  channel_->CallMethod(method("Echo"), &rpc, &request, &response, done.get());
  EXPECT_EQ("between", echo("between"));  // written after anything the dropped call could
  EXPECT_EQ(2, service_->calls.load());   // the held call and "between"
  EXPECT_EQ(std::vector<int>{}, completions.ran());
  EXPECT_EQ("", response.text());
  rpc.Reset();
  request.set_text("reused");
  channel_->CallMethod(method("Echo"), &rpc, &request, &response, nullptr);
  EXPECT_TRUE(rpc.timedWaitRelative(Duration::seconds(60)));
  EXPECT_EQ("reused", response.text());
}

TEST_F(RpcChannelTest, DestroyingTheChannelCancelsPendingCallsInIdOrder) {
  constexpr int kCalls = 5;
  RPC rpcs[kCalls];
  Text requests[kCalls], responses[kCalls];
  Completions completions;
  std::vector<std::unique_ptr<Completions::Done>> dones;
  for (int i = 0; i < kCalls; ++i) {
    dones.push_back(completions.newDone(i, &rpcs[i]));
    channel_->CallMethod(method("Hold"), &rpcs[i], &requests[i], &responses[i], dones.back().get());
  }
  ASSERT_TRUE(service_->waitHeld(kCalls));
  channel_.reset();
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), completions.waitFor(kCalls));
  waitForDeferredWork();
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), completions.ran());  // each exactly once
  // Each controller was failed before its done closure ran.
  EXPECT_EQ(std::vector<std::string>(kCalls, "failed: Canceled"), completions.seen());
}

// Drops the last reference to `channel` and returns, holding the event thread,
// once the channel has been destroyed, which lets go of its handler, while the
// handler's own destruction is still queued behind the returned blocker. In
// between, the handler is expired but not destroyed.
std::unique_ptr<EventThreadBlocker> dropChannelAndHoldBeforeHandlerDies(RPCChannelPtr channel) {
  std::unique_ptr<EventThreadBlocker> blocker;
  {
    EventThreadBlocker hold;
    channel.reset();  // the channel's deletion is queued behind `hold`...
    // ...and this blocker behind it, before the channel's destructor can queue
    // the handler's deletion.
    blocker = std::make_unique<EventThreadBlocker>(EventThreadBlocker::kQueueOnly);
  }
  blocker->waitUntilHeld();
  return blocker;
}

TEST_F(RpcChannelTest, CancelWhileTheChannelIsTornDownStillCompletesTheCall) {
  // A timed wait or cancel after the channel let go of its handler and before
  // the handler is destroyed must complete the call then and there, and the
  // handler's destructor must leave it alone afterwards.
  struct Case {
    const char* name;
    bool timed_wait;
    bool with_done;
  } cases[] = {{"timed wait, done closure", true, true},
               {"timed wait, no done closure", true, false},
               {"StartCancel, done closure", false, true}};
  int held = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", port_));
    ASSERT_TRUE(channel);
    CountingRPC rpc;
    Text request, response;
    Completions completions;
    auto done = completions.newDone(1, &rpc);
    channel->CallMethod(method("Hold"), &rpc, &request, &response,
                        c.with_done ? done.get() : nullptr);
    ASSERT_TRUE(service_->waitHeld(++held));
    auto blocker = dropChannelAndHoldBeforeHandlerDies(std::move(channel));
    if (c.timed_wait) {
      EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(0)));
    } else {
      rpc.StartCancel();
    }
    EXPECT_TRUE(rpc.Failed());
    EXPECT_TRUE(rpc.IsCanceled());
    EXPECT_EQ("Canceled", rpc.ErrorText());
    EXPECT_EQ(1, rpc.failures.load());
    EXPECT_EQ(c.with_done ? std::vector<int>{1} : std::vector<int>{}, completions.ran());
    blocker.reset();
    waitForDeferredWork();
    EXPECT_EQ(1, rpc.failures.load());  // the handler's destructor did not touch it again
    EXPECT_EQ(c.with_done ? std::vector<int>{1} : std::vector<int>{}, completions.ran());
    if (c.with_done) {
      EXPECT_EQ(std::vector<std::string>{"failed: Canceled"}, completions.seen());
    }
  }

  // A caller may free its controller as soon as the timed wait has returned
  // false; AddressSanitizer reports any later write to it.
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", port_));
  ASSERT_TRUE(channel);
  auto rpc = std::make_unique<RPC>();
  Text request, response;
  channel->CallMethod(method("Hold"), rpc.get(), &request, &response, nullptr);
  ASSERT_TRUE(service_->waitHeld(++held));
  {
    auto blocker = dropChannelAndHoldBeforeHandlerDies(std::move(channel));
    EXPECT_FALSE(rpc->timedWaitRelative(Duration::milliseconds(0)));
    EXPECT_EQ("Canceled", rpc->ErrorText());
    rpc.reset();
  }
  waitForDeferredWork();
  waitForDeferredWork();
}

TEST_F(RpcChannelTest, FinishedCallsLeaveNothingAllocatedBehind) {
#ifdef HSL_SANITIZED_BUILD
  GTEST_SKIP() << "LeakSanitizer checks this in sanitizer builds";
#endif
  // Whatever CallMethod and a cancel allocate on the caller's thread (the
  // cancel closure, the table entry, the deferred write) is freed once the call
  // is over, on every way it ends. Each way runs twice and only the second run
  // counts, so that buffers that keep their size for reuse (the event queue)
  // have reached it.
  struct Way {
    const char* name;
    std::function<void(RPC*, Text*, Text*)> run;
  };
  const Way ways[] = {
      {"canceled before it is written",
       [this](RPC* rpc, Text* request, Text* response) {
         EventThreadBlocker blocker;
         TrackAllocations track;
         channel_->CallMethod(method("Echo"), rpc, request, response, nullptr);
         rpc->StartCancel();
       }},
      {"canceled after it is written",
       [this](RPC* rpc, Text* request, Text* response) {
         {
           TrackAllocations track;
           channel_->CallMethod(method("Hold"), rpc, request, response, nullptr);
         }
         waitForDeferredWork();
         TrackAllocations track;
         rpc->StartCancel();
       }},
      {"answered",
       [this](RPC* rpc, Text* request, Text* response) {
         {
           TrackAllocations track;
           channel_->CallMethod(method("Echo"), rpc, request, response, nullptr);
         }
         rpc->wait();
       }},
  };
  for (const Way& way : ways) {
    SCOPED_TRACE(way.name);
    for (int round = 0; round < 2; ++round) {
      RPC rpc;
      Text request, response;
      way.run(&rpc, &request, &response);
      waitForDeferredWork();
      waitForDeferredWork();
      EXPECT_TRUE(rpc.timedWaitAbsolute(Time::fromMicroseconds(0)));
      if (round == 1) {
        EXPECT_EQ(0, trackedLive());
      }
    }
  }
  // Completed by the channel's destruction.
  RPC rpc;
  Text request, response;
  {
    TrackAllocations track;
    channel_->CallMethod(method("Hold"), &rpc, &request, &response, nullptr);
  }
  channel_.reset();
  waitForDeferredWork();
  waitForDeferredWork();
  EXPECT_EQ("Canceled", rpc.ErrorText());
  EXPECT_EQ(0, trackedLive());
}

TEST_F(RpcChannelTest, ServerDestroyedWhileAServiceHoldsACall) {
  RPC rpc;
  Text request, response;
  request.set_text("orphan");
  channel_->CallMethod(method("Hold"), &rpc, &request, &response, nullptr);
  ASSERT_TRUE(service_->waitHeld(1));
  server_.reset();
  waitForDeferredWork();
  // The connection still holds the server's shared state; closing our side
  // lets it go. Then the completion finds nothing to answer and frees the
  // record (LeakSanitizer checks that).
  channel_.reset();
  waitForDeferredWork();
  waitForDeferredWork();
  EXPECT_EQ("Canceled", rpc.ErrorText());
  service_->complete(0);  // nothing left to answer; the record is freed
}

TEST_F(RpcChannelTest, DoneClosureMayIssueTheNextCall) {
  // Each done closure issues the next call on the same channel, from inside
  // the channel's completion.
  struct Chain : google::protobuf::Closure {
    RPCChannel* channel;
    RPC rpc;
    Text request, response;
    int remaining = 10;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    void next() {
      rpc.Reset();
      request.set_text(std::to_string(remaining));
      channel->CallMethod(method("Echo"), &rpc, &request, &response, this);
    }
    void Run() override {
      if (rpc.Failed() || --remaining == 0) {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        finished.notify_all();
        return;
      }
      next();
    }
  } chain;
  chain.channel = channel_.get();
  chain.next();
  std::unique_lock<std::mutex> lock(chain.mutex);
  ASSERT_TRUE(chain.finished.wait_for(lock, std::chrono::seconds(30), [&] { return chain.done; }));
  EXPECT_FALSE(chain.rpc.Failed());
  EXPECT_EQ(0, chain.remaining);
}

TEST_F(RpcChannelTest, CallsFromSeveralThreadsAndCompletionsFromSeveralThreads) {
  constexpr int kThreads = 4;
  constexpr int kCallsPerThread = 50;
  std::vector<std::thread> callers;
  std::atomic<int> good{0};
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([this, t, &good] {
      for (int i = 0; i < kCallsPerThread; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        RPC rpc;
        Text request, response;
        request.set_text(text);
        channel_->CallMethod(method(i % 2 ? "Echo" : "Hold"), &rpc, &request, &response, nullptr);
        if (i % 2 == 0) {
          // Nobody completes held calls: cancel half of them from here.
          EXPECT_FALSE(rpc.timedWaitRelative(Duration::milliseconds(1)));
          EXPECT_EQ("Canceled", rpc.ErrorText());
          continue;
        }
        rpc.wait();
        if (!rpc.Failed() && response.text() == text) ++good;
      }
    });
  }
  for (auto& thread : callers) thread.join();
  EXPECT_EQ(kThreads * kCallsPerThread / 2, good.load());
}

TEST_F(RpcChannelTest, AnswersCompletedOnManyThreadsNeverInterleave) {
  constexpr int kCalls = 64;
  RPC rpcs[kCalls];
  Text requests[kCalls], responses[kCalls];
  for (int i = 0; i < kCalls; ++i) {
    requests[i].set_text(std::string(1000 + i * 37, static_cast<char>('a' + i % 26)));
    channel_->CallMethod(method("Hold"), &rpcs[i], &requests[i], &responses[i], nullptr);
  }
  ASSERT_TRUE(service_->waitHeld(kCalls));
  std::vector<std::thread> completers;
  for (int t = 0; t < 4; ++t) {
    completers.emplace_back([this, t] {
      for (int i = t; i < kCalls; i += 4) service_->complete(i);
    });
  }
  for (auto& thread : completers) thread.join();
  for (int i = 0; i < kCalls; ++i) {
    rpcs[i].wait();
    ASSERT_FALSE(rpcs[i].Failed()) << rpcs[i].ErrorText();
    EXPECT_EQ(requests[i].text(), responses[i].text());
  }
}

// A server for one connection that answers the i-th request it parses with the
// i-th scripted answer; "{id}" in an answer stands for the request's Rpc-Id.
// After the last answer it can half-close (end its output); either way it
// reads on until the client closes. What it received is readable after join().
class ScriptedServer {
 public:
  enum End { kKeepOpen, kHalfCloseAfterScript };

  explicit ScriptedServer(std::vector<std::string> script, End end = kKeepOpen)
      : script_(std::move(script)), end_(end) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    listen(listener_, 1);
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedServer() {
    join();
    close(listener_);
  }
  // Waits until the client has closed the connection.
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  uint16_t port() const { return port_; }

  std::vector<HttpRequestPtr> received;  // the requests, in order
  std::string bytes;                     // every byte received
  std::string after_script;              // the bytes received after the last answer
  bool saw_end = false;                  // the client closed (rather than a guard time-out)

 private:
  void serve() {
    int connection = accept(listener_, nullptr, nullptr);
    timeval guard{30, 0};  // a client that never closes fails the test, not hangs it
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
    HttpRequestParser parser;
    size_t next = 0;
    char buffer[4096];
    for (;;) {
      ssize_t n = recv(connection, buffer, sizeof(buffer), 0);
      if (n <= 0) {
        saw_end = n == 0;
        break;
      }
      const std::string chunk(buffer, n);
      bytes += chunk;
      if (next == script_.size()) after_script += chunk;
      std::vector<HttpRequestPtr> requests;
      parser.parse(chunk, &requests);
      for (const HttpRequestPtr& request : requests) {
        received.push_back(request);
        if (next == script_.size()) continue;
        std::string answer = script_[next++];
        size_t at = answer.find("{id}");
        if (at != std::string::npos) answer.replace(at, 4, request->headers["Rpc-Id"]);
        ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
        if (next == script_.size() && end_ == kHalfCloseAfterScript) {
          ::shutdown(connection, SHUT_WR);
        }
      }
    }
    close(connection);
  }

  std::vector<std::string> script_;
  End end_;
  int listener_;
  uint16_t port_;
  std::thread thread_;
};

// Waits for a call with a generous guard, so that a call that is never
// completed fails the test instead of hanging it.
::testing::AssertionResult completes(RPC& rpc) {
  if (rpc.timedWaitRelative(Duration::seconds(30))) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "the call was not completed";
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
  request.set_text("q");
  constexpr int kCalls = 6;
  RPC rpcs[kCalls];
  Text responses[kCalls];
  Completions completions;
  std::vector<std::unique_ptr<Completions::Done>> dones;
  for (int i = 0; i < kCalls; ++i) {
    dones.push_back(completions.newDone(i, &rpcs[i]));
    channel->CallMethod(method("Echo"), &rpcs[i], &request, &responses[i], dones.back().get());
    ASSERT_TRUE(completes(rpcs[i])) << "call " << i + 1;
  }
  EXPECT_FALSE(rpcs[0].Failed());
  EXPECT_EQ("body", responses[0].text());
  EXPECT_TRUE(rpcs[1].Failed());
  EXPECT_EQ("Service not found.", rpcs[1].ErrorText());
  EXPECT_EQ("", responses[1].text());
  EXPECT_EQ("Can't parse response.", rpcs[2].ErrorText());
  EXPECT_TRUE(rpcs[3].Failed());
  EXPECT_EQ("", rpcs[3].ErrorText());
  EXPECT_EQ("negative", rpcs[4].ErrorText());
  EXPECT_FALSE(rpcs[5].Failed());
  EXPECT_EQ("body", responses[5].text());
  channel.reset();
  waitForDeferredWork();
  waitForDeferredWork();
  EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5}), completions.ran());  // each exactly once
  EXPECT_FALSE(rpcs[5].Failed());  // the repeated answer changed nothing
  server.join();
}

TEST(RpcChannelClientTest, WritesRequestsByteForByte) {
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\n";
  ScriptedServer server({answer, answer, answer, answer});
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  Text request;
  request.set_text("q");
  const std::string body = request.SerializeAsString();
  RPC rpcs[4];
  Text responses[4];
  channel->CallMethod(method("Echo"), &rpcs[0], &request, &responses[0], nullptr);
  // A call on a canceled controller takes no id and is never completed.
  RPC canceled;
  canceled.StartCancel();
  Completions completions;
  auto done = completions.newDone(9);
  channel->CallMethod(method("Echo"), &canceled, &request, &responses[0], done.get());
  channel->CallMethod(method("Echo"), &rpcs[1], &request, &responses[1], nullptr);
  // Ids from 2^31 on go out as negative numbers and are matched on the way
  // back; after 4294967295 comes 0.
  RPCChannelTestPeer::setNextId(channel.get(), 4294967295u);
  channel->CallMethod(method("Echo"), &rpcs[2], &request, &responses[2], nullptr);
  channel->CallMethod(method("Square"), &rpcs[3], &request, &responses[3], nullptr);
  // Answers come in order: once the last call is done, so are the others.
  ASSERT_TRUE(completes(rpcs[3]));
  for (RPC& rpc : rpcs) {
    EXPECT_TRUE(rpc.timedWaitAbsolute(Time::fromMicroseconds(0)));
    EXPECT_FALSE(rpc.Failed()) << rpc.ErrorText();
  }
  channel.reset();
  waitForDeferredWork();
  waitForDeferredWork();
  server.join();

  auto head = [&body](const char* id, const char* method) {
    return "POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nRpc-Id: " + id + "\r\nRpc-Service: relaytest.TestService\r\nRpc-Method: " + method +
           "\r\n\r\n" + body;
  };
  EXPECT_EQ(head("1", "Echo") + head("2", "Echo") + head("-1", "Echo") + head("0", "Square"),
            server.bytes);
  EXPECT_EQ(std::vector<int>{}, completions.ran());
  EXPECT_FALSE(canceled.Failed());
  EXPECT_EQ("", canceled.ErrorText());
  EXPECT_FALSE(canceled.timedWaitAbsolute(Time::fromMicroseconds(0)));  // never completed
}

TEST(RpcChannelClientTest, MalformedAnswerStreamEndsTheConnection) {
  // The good answer is handled, then the garbage after it ends the
  // connection: a later call is not written, and stays pending until the
  // channel goes.
  ScriptedServer server(
      {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\ngarbage\r\n\r\n"});
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  Text request, first_response, second_response;
  RPC first, second;
  channel->CallMethod(method("Echo"), &first, &request, &first_response, nullptr);
  ASSERT_TRUE(completes(first));
  EXPECT_FALSE(first.Failed());
  waitForDeferredWork();  // the shutdown follows the answer in the same callback
  Completions completions;
  auto done = completions.newDone(2, &second);
  channel->CallMethod(method("Echo"), &second, &request, &second_response, done.get());
  waitForDeferredWork();  // its write has been tried
  EXPECT_EQ(std::vector<int>{}, completions.ran());
  channel.reset();
  waitForDeferredWork();
  waitForDeferredWork();
  EXPECT_EQ(std::vector<std::string>{"failed: Canceled"}, completions.seen());
  server.join();
  EXPECT_TRUE(server.saw_end);
  EXPECT_EQ(1u, server.received.size());
  EXPECT_EQ("", server.after_script);
}

TEST(RpcChannelClientTest, PeerEndingItsOutputAfterACompleteAnswerGetsNothingBack) {
  // Nothing is left unparsed when the server ends its output, so the channel
  // has no complaint to send; the connection then closes by itself.
  ScriptedServer server({"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nRpc-Id: {id}\r\n\r\n"},
                        ScriptedServer::kHalfCloseAfterScript);
  RPCChannelPtr channel = RPCChannel::create(SocketAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(channel);
  Text request, response;
  RPC rpc;
  channel->CallMethod(method("Echo"), &rpc, &request, &response, nullptr);
  ASSERT_TRUE(completes(rpc));
  server.join();  // returns once the client closed, with the channel still alive
  EXPECT_TRUE(server.saw_end);
  EXPECT_EQ("", server.after_script);
  channel.reset();
  waitForDeferredWork();
  waitForDeferredWork();
}

TEST(RpcChannelCreateTest, NoServerGivesNullAndSaysSo) {
  // Bind a port, close it, and connect there: refused.
  auto server = HttpServer::create(SocketAddress("127.0.0.1", 0), 4);
  ASSERT_TRUE(server);
  const uint16_t port = server->localAddress().port();
  server.reset();
  waitForDeferredWork();
  std::mutex mutex;
  std::vector<LogRecord> records;
  setLogSink([&](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(mutex);
    if (record.logger == "rpc") records.push_back(record);
  });
  EXPECT_FALSE(RPCChannel::create(SocketAddress("127.0.0.1", port)));
  setLogSink(nullptr);
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
