#include "relay/connection_registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

// Connections of one server's shared state, with no socket behind them: what
// they answer goes nowhere, what they do is seen through the server's handler
// and observer.
class RegistryTest : public ::testing::Test {
 protected:
  class Refusals : public HttpServerObserver {
   public:
    void requestRefused(int status, bool) override { statuses_.add(status); }
    // The statuses refused once `count` were, or what there is after 30 s.
    std::vector<int> waitFor(size_t count) { return statuses_.all(count); }

   private:
    vantu::testing::Collected<int> statuses_;
  };

  void make(const HttpServerOptions& options) {
    runOnEventThreadAndWait([&] {
      impl_ = HttpServerImpl::create();
      impl_->configure(options);
      impl_->setObserver(refusals_);
      impl_->registerHandler("/.*",
                             [this](const HttpRequestPtr&, const HttpResponsePtr&) { ++served_; });
      for (int i = 0; i < 3; ++i) {
        connections_.push_back(std::make_shared<HttpConnectionHandler>(impl_));
        impl_->connections().add(connections_.back().get());
      }
    });
  }

  void TearDown() override {
    runOnEventThreadAndWait([&] {
      for (auto& connection : connections_) impl_->connections().remove(connection.get());
      connections_.clear();
      impl_.reset();
    });
    waitForDeferredWork();
  }

  // Feeds `bytes` to every connection, on the event thread.
  void feedAll(const std::string& bytes) {
    runOnEventThreadAndWait([&] {
      for (auto& connection : connections_) {
        std::string data = bytes;
        connection->notifyIncomingData(&data);
      }
    });
  }

  std::shared_ptr<HttpServerImpl> impl_;
  std::vector<std::shared_ptr<HttpConnectionHandler>> connections_;
  std::shared_ptr<Refusals> refusals_ = std::make_shared<Refusals>();
  std::atomic<int> served_{0};
};

TEST_F(RegistryTest, DrainReachesEveryConnection) {
  make(HttpServerOptions());
  feedAll("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(3, served_.load());
  runOnEventThreadAndWait([&] { impl_->connections().startDrain(); });
  // Drained connections read nothing more as a request.
  feedAll("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(3, served_.load());
}

TEST_F(RegistryTest, SweepsUntilEveryDeadlineIsFound) {
  HttpServerOptions options;
  options.header_timeout = Duration::milliseconds(60);
  make(options);
  // The first sweep comes before the heads run out: only sweeping again finds
  // them.
  feedAll("GET / HT");
  EXPECT_EQ(std::vector<int>(3, 408), refusals_->waitFor(3));
}

}  // namespace
}  // namespace relay
}  // namespace vantu
