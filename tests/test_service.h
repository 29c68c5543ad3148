#ifndef TESTS_TEST_SERVICE_H_
#define TESTS_TEST_SERVICE_H_

// relaytest.TestService as the tests serve it, and the raw bytes of a call as
// a client writes them.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/mutex.h"
#include "common/time.h"
#include "relay/http_server.h"
#include "test_services.pb.h"

namespace vantu {
namespace testing {

// The server's open connections, counted on the event thread.
inline size_t openConnections(const std::shared_ptr<relay::HttpServer>& server) {
  size_t open = 0;
  runOnEventThreadAndWait([&] { open = server->openConnections(); });
  return open;
}

// Echo answers with the prefix before the request's text, Fail fails with the
// text, Square and Length answer; Hold keeps the call until the test completes
// it. Every call counts in `calls`. Any thread.
class TestServiceImpl : public relaytest::TestService {
 public:
  explicit TestServiceImpl(std::string prefix = "") : prefix_(std::move(prefix)) {}
  TestServiceImpl(const TestServiceImpl&) = delete;
  TestServiceImpl& operator=(const TestServiceImpl&) = delete;

  // Completes what is still held: with the server usually gone by then, this
  // proves that such late completions free their records.
  ~TestServiceImpl() override {
    while (release()) {
    }
  }

  // relaytest::TestService
  void Echo(google::protobuf::RpcController*, const relaytest::Text* request,
            relaytest::Text* response, google::protobuf::Closure* done) override {
    ++calls;
    response->set_text(prefix_ + request->text());
    done->Run();
  }
  void Hold(google::protobuf::RpcController*, const relaytest::Text* request,
            relaytest::Text* response, google::protobuf::Closure* done) override {
    ++calls;
    MutexLock lock(mutex_);
    held_.push_back({request, response, done, false});
    held_changed_.notifyAll();
  }
  void Fail(google::protobuf::RpcController* controller, const relaytest::Text* request,
            relaytest::Text*, google::protobuf::Closure* done) override {
    ++calls;
    controller->SetFailed(request->text());
    done->Run();
  }
  void Square(google::protobuf::RpcController*, const relaytest::Number* request,
              relaytest::Number* response, google::protobuf::Closure* done) override {
    ++calls;
    response->set_value(request->value() * request->value());
    done->Run();
  }
  void Length(google::protobuf::RpcController*, const relaytest::Text* request,
              relaytest::Number* response, google::protobuf::Closure* done) override {
    ++calls;
    response->set_value(static_cast<int>(request->text().size()));
    done->Run();
  }

  // Waits until `count` Hold calls arrived in all, completed or not; false
  // after 30 s (a guard against a hang, not a timing check).
  bool waitHeld(size_t count) {
    const Time deadline = Time::now() + Duration::seconds(30);
    MutexLock lock(mutex_);
    while (held_.size() < count) {
      if (!held_changed_.timedWaitAbsolute(mutex_, deadline) && held_.size() < count) return false;
    }
    return true;
  }

  // Completes the index-th Hold call to arrive, echoing its text, here.
  void complete(size_t index) {
    Held held;
    {
      MutexLock lock(mutex_);
      ASSERT_LT(index, held_.size());
      ASSERT_FALSE(held_[index].completed) << "held call " << index << " completed twice";
      held_[index].completed = true;
      held = held_[index];
    }
    held.response->set_text(held.request->text());
    held.done->Run();
  }

  // Completes the oldest held call not completed yet; false if there is none.
  bool release() {
    size_t index = 0;
    {
      MutexLock lock(mutex_);
      while (index < held_.size() && held_[index].completed) ++index;
      if (index == held_.size()) return false;
    }
    complete(index);
    return true;
  }

  std::atomic<int> calls{0};

 private:
  struct Held {
    const relaytest::Text* request;
    relaytest::Text* response;
    google::protobuf::Closure* done;
    bool completed;
  };

  const std::string prefix_;
  Mutex mutex_;
  ConditionVariable held_changed_;
  std::vector<Held> held_ VANTU_GUARDED_BY(mutex_);
};

// A method of relaytest.TestService by name.
inline const google::protobuf::MethodDescriptor* testMethod(const char* name) {
  return relaytest::TestService::descriptor()->FindMethodByName(name);
}

// An HttpServer on loopback (`port` 0 for any) serving a new `Service`; it
// waits for the server's deferred teardown when it goes.
template <class Service = TestServiceImpl>
struct TestServer {
  explicit TestServer(uint16_t port = 0,
                      const relay::HttpServerOptions& options = relay::HttpServerOptions())
      : service(std::make_shared<Service>()),
        server(relay::HttpServer::create(SocketAddress("127.0.0.1", port), 128, options)) {
    if (server) server->registerRPCService(service);
  }
  ~TestServer() {
    server.reset();
    waitForDeferredWork();
  }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  uint16_t port() const { return server->localAddress().port(); }
  std::string target() const { return "127.0.0.1:" + std::to_string(port()); }
  // Ends every connection at once, as a crash would, and stops listening.
  void kill() {
    server->drain(Duration());
    server.reset();
    waitForDeferredWork();
  }

  std::shared_ptr<Service> service;
  std::shared_ptr<relay::HttpServer> server;
};

// relaytest.Text with `text`, serialized.
inline std::string textMessage(const std::string& text) {
  relaytest::Text message;
  message.set_text(text);
  return message.SerializeAsString();
}

// A call as a client writes it: binary unless `json`.
inline std::string rpcRequest(const std::string& service, const std::string& method,
                              const std::string& id, const std::string& body, bool json = false) {
  std::string request = "POST / HTTP/1.1\r\nHost: test\r\nRpc-Service: " + service +
                        "\r\nRpc-Method: " + method + "\r\nRpc-Id: " + id + "\r\n";
  if (json) request += "Content-Type: application/json\r\n";
  return request + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_TEST_SERVICE_H_
