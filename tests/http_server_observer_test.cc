// What a server tells its observer.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "tests/loopback_client.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using Outcome = HttpServerObserver::RpcOutcome;
using vantu::testing::rpcRequest;
using vantu::testing::TestServiceImpl;

class RecordingObserver : public HttpServerObserver {
 public:
  void connectionOpened() override { bump("opened"); }
  void connectionClosed() override { bump("closed"); }
  void bytesReceived(size_t bytes) override { add("received", bytes); }
  void bytesSent(size_t bytes) override { add("sent", bytes); }
  void requestAnswered(const std::string& pattern, int status, Duration) override {
    EXPECT_TRUE(isEventThread());
    bump("answered " + pattern + " " + std::to_string(status));
  }
  void rpcStarted(const std::string& service, const std::string& method) override {
    EXPECT_TRUE(isEventThread());
    bump("started " + service + "." + method);
  }
  void rpcFinished(const std::string& service, const std::string& method, Outcome outcome,
                   Duration) override {
    bump("rpc " + service + "." + method + " " + std::to_string(static_cast<int>(outcome)));
  }
  void requestRefused(int status, bool by_limit) override {
    bump("refused " + std::to_string(status) + (by_limit ? " limit" : ""));
  }
  std::map<std::string, size_t> counts() {
    MutexLock lock(mutex_);
    return counts_;
  }

 private:
  void bump(const std::string& what) { add(what, 1); }
  void add(const std::string& what, size_t n) {
    MutexLock lock(mutex_);
    counts_[what] += n;
  }
  Mutex mutex_;
  std::map<std::string, size_t> counts_;
};

// What began before the observer was set does not end in its counts: its
// gauges would otherwise go below zero.
TEST(HttpServerObserverTest, ObserverSetLateSeesOnlyWhatBeganAfter) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  auto service = std::make_shared<TestServiceImpl>();
  server->registerRPCService(service);
  auto client = std::make_unique<vantu::testing::LoopbackClient>(server->localAddress().port());
  client->write(rpcRequest("relaytest.TestService", "Hold", "1", ""));
  ASSERT_TRUE(service->waitHeld(1));
  auto observer = std::make_shared<RecordingObserver>();
  server->setObserver(observer);
  service->complete(0);
  client->read(1);
  client.reset();
  server.reset();
  waitForDeferredWork();
  std::map<std::string, size_t> counts = observer->counts();
  counts.erase("sent");
  EXPECT_TRUE(counts.empty()) << counts.begin()->first;
}

}  // namespace
}  // namespace relay
}  // namespace vantu
