// The caller's deadline on the server, from "Rpc-Timeout", and the calls whose
// caller gave up (deadline passed, connection ended) cancelled when asked to.
#include "relay/rpc_deadline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/closure.h"
#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "relay/rpc.h"
#include "test_services.pb.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using relaytest::Text;
using vantu::testing::LoopbackClient;
using vantu::testing::rpcRequest;
using vantu::testing::textMessage;

TEST(RpcDeadlineTest, TimeoutHeaderReadsAsPlainMilliseconds) {
  const Time now = Time::fromMicroseconds(1000000);
  struct Case {
    const char* value;
    int64_t ms;  // -1: no deadline
  } cases[] = {{"250", 250},     {"0", 0},           {"86400000", 86400000},
               {"86400001", -1}, {"", -1},           {"-5", -1},
               {"+5", -1},       {" 5", -1},         {"1.5", -1},
               {"5ms", -1},      {"9999999999", -1}, {"0x10", -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(c.ms < 0 ? Time() : now + Duration::milliseconds(c.ms),
              deadlineFromTimeout(c.value, now));
  }
}

// Hold keeps its call until cancelled (then fails it with "Canceled") or
// released; every call's deadline is noted. Any thread.
class CancellableService : public relaytest::TestService {
 public:
  void Echo(google::protobuf::RpcController* controller, const Text*, Text*,
            google::protobuf::Closure* done) override {
    note(controller);
    done->Run();
  }
  void Hold(google::protobuf::RpcController* controller, const Text*, Text*,
            google::protobuf::Closure* done) override {
    note(controller);
    // Registered before the call is published: once it is, the test may
    // complete it (and its controller go) at any moment.
    controller->NotifyOnCancel(newClosure(
        [this, controller] {
          EXPECT_TRUE(isEventThread());
          EXPECT_TRUE(controller->IsCanceled());
          cancel(controller);
        },
        true));
    MutexLock lock(mutex_);
    held_.push_back({controller, done});
    changed_.notifyAll();
  }
  void releaseAll() {
    std::vector<Held> held;
    {
      MutexLock lock(mutex_);
      held.swap(held_);
    }
    for (const Held& call : held) call.done->Run();
  }
  // Wait (bounded) until `count` calls are held now, or were cancelled in all.
  bool waitHeld(size_t count) {
    return waitUntil([&]() VANTU_NO_THREAD_SAFETY_ANALYSIS { return held_.size() >= count; });
  }
  bool waitCancelled(int count) {
    return waitUntil([&]() VANTU_NO_THREAD_SAFETY_ANALYSIS { return cancelled_ >= count; });
  }
  int cancelled() {
    MutexLock lock(mutex_);
    return cancelled_;
  }
  std::vector<Time> deadlines() {
    MutexLock lock(mutex_);
    return deadlines_;
  }

 private:
  struct Held {
    google::protobuf::RpcController* controller;
    google::protobuf::Closure* done;
  };
  template <class Done>
  bool waitUntil(Done done) {
    const Time deadline = Time::now() + Duration::seconds(30);
    MutexLock lock(mutex_);
    while (!done()) {
      if (!changed_.timedWaitAbsolute(mutex_, deadline)) return done();
    }
    return true;
  }
  void note(google::protobuf::RpcController* controller) {
    MutexLock lock(mutex_);
    deadlines_.push_back(static_cast<RPC*>(controller)->deadline());
  }
  void cancel(google::protobuf::RpcController* controller) {
    google::protobuf::Closure* done = nullptr;
    {
      MutexLock lock(mutex_);
      for (size_t i = 0; i < held_.size(); ++i) {
        if (held_[i].controller != controller) continue;
        done = held_[i].done;
        held_.erase(held_.begin() + i);
        break;
      }
      ++cancelled_;
      changed_.notifyAll();
    }
    if (done == nullptr) return;
    controller->SetFailed("Canceled");
    done->Run();
  }

  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<Held> held_ VANTU_GUARDED_BY(mutex_);
  std::vector<Time> deadlines_ VANTU_GUARDED_BY(mutex_);
  int cancelled_ VANTU_GUARDED_BY(mutex_) = 0;
};

// A server that cancels abandoned calls when `cancel_abandoned_calls`.
struct Server : vantu::testing::TestServer<CancellableService> {
  explicit Server(bool cancel_abandoned_calls)
      : TestServer(0, withCancel(cancel_abandoned_calls)) {}
  static HttpServerOptions withCancel(bool cancel) {
    HttpServerOptions options;
    options.cancel_abandoned_calls = cancel;
    return options;
  }
};

TEST(RpcDeadlineTest, TheServerSeesTheDeadlineTheCallerSent) {
  Server server(false);
  ASSERT_TRUE(server.server);
  RPCChannelPtr channel =
      RPCChannel::create(SocketAddress("127.0.0.1", server.port()), RPCChannelOptions::resilient());
  ASSERT_TRUE(channel);
  Text request, response;
  RPC with;
  const Time before = Time::now();
  with.setDeadline(before + Duration::seconds(5));
  channel->CallMethod(vantu::testing::testMethod("Echo"), &with, &request, &response, nullptr);
  with.wait();
  const Time after = Time::now();
  EXPECT_FALSE(with.Failed()) << with.ErrorText();
  // A raw call without the header has none.
  LoopbackClient client(server.port());
  client.write(rpcRequest("relaytest.TestService", "Echo", "1", textMessage("")));
  client.shutdownWrite();
  EXPECT_NE("", client.readToEnd());
  const std::vector<Time> deadlines = server.service->deadlines();
  ASSERT_EQ(2u, deadlines.size());
  // Sent as the time left, rounded up to a millisecond, counted from arrival.
  EXPECT_GE(deadlines[0], before + Duration::seconds(5));
  EXPECT_LE(deadlines[0], after + Duration::seconds(5) + Duration::milliseconds(1));
  EXPECT_EQ(Time(), deadlines[1]);
  channel.reset();
  waitForDeferredWork();
}

TEST(RpcDeadlineTest, CallsWhoseCallerGaveUpAreCancelledWhenTheServerAsks) {
  for (bool cancel : {true, false}) {
    SCOPED_TRACE(cancel ? "cancel_abandoned_calls" : "default options");
    Server server(cancel);
    ASSERT_TRUE(server.server);
    // The deadline the caller sent passes.
    LoopbackClient timed(server.port());
    std::string request = rpcRequest("relaytest.TestService", "Hold", "1", textMessage(""));
    request.insert(request.find("\r\n") + 2, "Rpc-Timeout: 50\r\n");
    timed.write(request);
    // The caller closes its connection, and ends its output.
    LoopbackClient closing(server.port()), half_closing(server.port());
    closing.write(rpcRequest("relaytest.TestService", "Hold", "2", textMessage("")));
    half_closing.write(rpcRequest("relaytest.TestService", "Hold", "3", textMessage("")));
    // A call nobody gave up on.
    LoopbackClient patient(server.port());
    patient.write(rpcRequest("relaytest.TestService", "Hold", "4", textMessage("")));
    ASSERT_TRUE(server.service->waitHeld(4));
    closing.close();
    half_closing.shutdownWrite();
    if (cancel) {
      EXPECT_TRUE(server.service->waitCancelled(3));
      // The cancelled call's answer still goes to a caller that can read it.
      const std::string cancelled =
          "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
          "Rpc-Error: Canceled\r\nRpc-Failed: 1\r\nRpc-Id: 1\r\n\r\n";
      EXPECT_EQ(cancelled, timed.read(cancelled.size()));
    }
    server.service->releaseAll();
    const std::string answered =
        "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 0\r\n"
        "Rpc-Failed: 0\r\nRpc-Id: 4\r\n\r\n";
    EXPECT_EQ(answered, patient.read(answered.size()));
    EXPECT_EQ(cancel ? 3 : 0, server.service->cancelled());
  }
}

}  // namespace
}  // namespace relay
}  // namespace vantu
