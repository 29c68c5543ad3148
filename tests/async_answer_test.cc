// An async answer dispatched by anything other than a connection's read keeps
// its response alive on its own.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "tests/waiting.h"

namespace vantu {
namespace relay {
namespace {

// Tells what the server answered, with which status.
class StatusRecorder : public HttpServerObserver {
 public:
  void requestAnswered(const std::string& pattern, int status, Duration) override {
    answered.add(pattern + " " + std::to_string(status));
  }
  vantu::testing::Collected<std::string> answered;
};

// An application that dispatches a request itself, with a response whose
// only other reference it drops before the done runs: the answer holds its
// own, and writes what the handler set.
TEST(AsyncAnswerTest, AnswerDispatchedOutsideAReadKeepsItsResponse) {
  std::shared_ptr<HttpServerImpl> impl = HttpServerImpl::create();
  auto recorder = std::make_shared<StatusRecorder>();
  impl->setObserver(recorder);
  std::function<void()> later;
  impl->registerAsyncHandler(
      "/later",
      [&later](const HttpRequestPtr&, const HttpResponsePtr& response, std::function<void()> done) {
        response->status_code = HttpResponse::kAccepted;
        later = std::move(done);
      });
  std::shared_ptr<HttpConnectionHandler> connection;
  ASSERT_TRUE(runOnEventThreadAndWait([&] {
    connection = std::make_shared<HttpConnectionHandler>(impl);
    auto request = std::make_shared<HttpRequest>();
    request->url = GURL("http://test/later");
    std::weak_ptr<HttpResponse> kept;
    {
      auto response = std::make_shared<HttpResponse>();
      kept = response;
      impl->callRequestHandler(request, response, connection);
    }
    ASSERT_TRUE(later);
    EXPECT_FALSE(kept.expired()) << "the answer owed did not keep its response";
    later();
    connection.reset();
  }));
  EXPECT_EQ(std::vector<std::string>{"/later 202"}, recorder->answered.all());
  impl.reset();
  waitForDeferredWork();
}

}  // namespace
}  // namespace relay
}  // namespace vantu
