// A whole server connection: the input goes over loopback to a real server
// (split into writes at fuzzer-chosen points), and what comes back must be a
// well-formed stream of responses, one per request when the input is clean.
// Nothing may crash, hang or leak, whatever the bytes.
#include <cstring>

#include "common/event_thread.h"
#include "common/logging.h"
#include "fuzz/parser_oracle.h"
#include "relay/http_server.h"
#include "test_services.pb.h"
#include "tests/loopback_client.h"

namespace {

using vantu::relay::HttpRequestPtr;
using vantu::relay::HttpResponsePtr;

// Answers every method at once.
class ImmediateService : public relaytest::TestService {
 public:
  void Echo(google::protobuf::RpcController*, const relaytest::Text* request,
            relaytest::Text* response, google::protobuf::Closure* done) override {
    response->set_text(request->text());
    done->Run();
  }
  void Hold(google::protobuf::RpcController* controller, const relaytest::Text* request,
            relaytest::Text* response, google::protobuf::Closure* done) override {
    Echo(controller, request, response, done);
  }
  void Fail(google::protobuf::RpcController* controller, const relaytest::Text* request,
            relaytest::Text*, google::protobuf::Closure* done) override {
    controller->SetFailed(request->text());
    done->Run();
  }
  void Square(google::protobuf::RpcController*, const relaytest::Number* request,
              relaytest::Number* response, google::protobuf::Closure* done) override {
    response->set_value(request->value() * request->value());
    done->Run();
  }
};

uint16_t serverPort() {
  fuzz::quietLogs();
  static std::shared_ptr<vantu::relay::HttpServer>* server = [] {
    auto* s = new std::shared_ptr<vantu::relay::HttpServer>(
        vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 64));
    if (!*s) fuzz::fail("cannot start the server");
    (*s)->registerHandler("/", [](const HttpRequestPtr&, const HttpResponsePtr& r) {
      r->setTextHtml();
      r->content.assign(3, 'x');
    });
    (*s)->registerHandler("/q.*", [](const HttpRequestPtr& request, const HttpResponsePtr& r) {
      std::string value = request->getStringQueryComponent("v", 0);
      r->content.assign(value.begin(), value.end());
      r->setHeader("X-Count", std::to_string(request->numQueryComponent("v")));
    });
    (*s)->registerRPCService(std::make_shared<ImmediateService>());
    return s;
  }();
  return (*server)->localAddress().port();
}

std::string exchange(uint16_t port, const std::vector<std::string>& pieces) {
  vantu::testing::LoopbackClient client(port);
  if (!client.connected()) {
    fprintf(stderr, "connect: %s\n", strerror(client.lastError()));
    fuzz::fail("cannot connect");
  }
  for (const std::string& piece : pieces) {
    if (!piece.empty()) client.write(piece);
  }
  client.shutdownWrite();
  std::string output = client.readToEnd();
  if (!client.peerClosed()) {
    fprintf(stderr, "read ended with %s after %zu bytes\n", strerror(client.lastError()),
            output.size());
    fuzz::fail("the server neither answered nor closed");
  }
  // A reset instead of an orderly close leaves no TIME_WAIT behind: tens of
  // thousands of exchanges would otherwise run out of loopback ports.
  client.abort();
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::FramedInput framed = fuzz::unframe(data, size);
  const std::string& input = framed.stream;
  const std::string output = exchange(serverPort(), framed.pieces);

  // What the server should have understood, read by a parser of our own.
  vantu::relay::HttpRequestParser requests_parser;
  std::vector<HttpRequestPtr> requests;
  const bool clean = requests_parser.parse(input, &requests);

  vantu::relay::HttpResponseParser responses_parser;
  std::vector<HttpResponsePtr> responses;
  if (!responses_parser.parse(output, &responses)) fuzz::fail("the server wrote bad HTTP");
  if (clean && responses.size() != requests.size()) fuzz::fail("one answer per request");
  if (!clean && responses.size() < requests.size() + 1) fuzz::fail("answers and a 400");
  for (size_t i = 0; i < responses.size(); ++i) {
    const int code = responses[i]->status_code;
    if (code != 200 && code != 404 && code != 400) fuzz::fail("unexpected status");
  }
  return 0;
}
