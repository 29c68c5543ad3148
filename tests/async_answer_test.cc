// Async answers whose response the connection's read hands over to them: the
// bytes of each answer are its own handler's, whenever and wherever its done
// runs, and an answer dispatched by anything other than a read keeps its
// response alive on its own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "relay/http_server.h"
#include "relay/http_server_observer.h"
#include "tests/loopback_client.h"

namespace vantu {
namespace relay {
namespace {

using vantu::testing::LoopbackClient;

std::string answerOf(const std::string& text) {
  return "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: " +
         std::to_string(text.size()) + "\r\nContent-Type: text/plain\r\n\r\n" + text;
}

void setText(const HttpResponsePtr& response, const std::string& text) {
  response->setContentType("text/plain");
  response->content.assign(text.begin(), text.end());
}

// Waits, for at most 30 s, until `condition` holds.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Threads that run dones, last given first: the thread of the k-th done of a
// batch waits until every later one has run. Any thread.
class ReverseRunner {
 public:
  ~ReverseRunner() { joinAll(); }

  // A new batch of `count` dones.
  void expect(int count) {
    joinAll();
    given_ = 0;
    turn_ = count - 1;
  }
  // Event thread (the handlers').
  void run(std::function<void()> done) {
    const int index = given_++;
    MutexLock lock(mutex_);
    threads_.emplace_back([this, index, done] {
      if (!eventually([&] { return turn_.load() == index; })) return;
      done();
      turn_ = index - 1;
    });
  }
  void joinAll() {
    std::vector<std::thread> threads;
    {
      MutexLock lock(mutex_);
      threads.swap(threads_);
    }
    for (std::thread& thread : threads) thread.join();
  }

 private:
  std::atomic<int> given_{0};
  std::atomic<int> turn_{-1};
  Mutex mutex_;
  std::vector<std::thread> threads_ VANTU_GUARDED_BY(mutex_);
};

// Each answer's text is its request's path. 'n': done inside the handler; 'd':
// on the event thread once the handler returned; 't': on a thread of its own,
// the batch's last first; 'p': a plain handler. A batch is pipelined in one
// write, batch after batch on one keep-alive connection, so that async answers
// are owed alone (the lone answer, whose response the read hands over), behind
// others, and before others.
TEST(AsyncAnswerTest, PipelinedAnswersComeOutInRequestOrderWhereverTheirDonesRun) {
  std::shared_ptr<HttpServer> server = HttpServer::create(SocketAddress("127.0.0.1", 0), 16);
  ASSERT_TRUE(server);
  ReverseRunner runner;
  const auto text = [](const HttpRequestPtr& request, const HttpResponsePtr& response) {
    setText(response, request->url.path());
  };
  server->registerAsyncHandler(
      "/n/.*", [text](const HttpRequestPtr& request, const HttpResponsePtr& response,
                      std::function<void()> done) {
        text(request, response);
        done();
      });
  server->registerAsyncHandler(
      "/d/.*", [text](const HttpRequestPtr& request, const HttpResponsePtr& response,
                      std::function<void()> done) {
        text(request, response);
        defer(done);
      });
  server->registerAsyncHandler(
      "/t/.*", [text, &runner](const HttpRequestPtr& request, const HttpResponsePtr& response,
                               std::function<void()> done) {
        text(request, response);
        runner.run(std::move(done));
      });
  server->registerHandler("/p/.*", text);

  const char* const kBatches[] = {"t",   "d",    "n",    "tt",    "ttt", "tdn", "ntd",    "dtp",
                                  "ptt", "tpnt", "dddd", "tnpdt", "t",   "d",   "tptptp", "nnnt"};
  LoopbackClient client(server->localAddress().port());
  int request_number = 0;
  for (const std::string batch : kBatches) {
    SCOPED_TRACE(batch);
    int threads = 0;
    for (const char kind : batch) threads += kind == 't';
    runner.expect(threads);
    std::string requests;
    std::string expected;
    for (const char kind : batch) {
      const std::string path = std::string("/") + kind + "/" + std::to_string(request_number++);
      requests += "GET " + path + " HTTP/1.1\r\nHost: test\r\n\r\n";
      expected += answerOf(path);
    }
    ASSERT_TRUE(client.write(requests));
    EXPECT_EQ(expected, client.read(expected.size()));
    runner.joinAll();
  }
  EXPECT_FALSE(client.waitReadable(50)) << "an answer was written twice";
  server.reset();
  waitForDeferredWork();
}

// Tells what the server answered, with which status.
class StatusRecorder : public HttpServerObserver {
 public:
  void requestAnswered(const std::string& pattern, int status, Duration) override {
    MutexLock lock(mutex_);
    answered_.push_back(pattern + " " + std::to_string(status));
  }
  std::vector<std::string> answered() {
    MutexLock lock(mutex_);
    return answered_;
  }

 private:
  Mutex mutex_;
  std::vector<std::string> answered_ VANTU_GUARDED_BY(mutex_);
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
  EXPECT_EQ(std::vector<std::string>{"/later 202"}, recorder->answered());
  impl.reset();
  waitForDeferredWork();
}

}  // namespace
}  // namespace relay
}  // namespace vantu
