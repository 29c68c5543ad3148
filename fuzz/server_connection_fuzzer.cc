// A whole server connection: the input goes over loopback to a real server
// (split into writes at fuzzer-chosen points), and what comes back must be a
// well-formed stream of responses, one per request when the input is clean.
// Nothing may crash, hang or leak, whatever the bytes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/event_thread.h"
#include "fuzz/parser_oracle.h"
#include "relay/http_server.h"
#include "test_services.pb.h"

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

std::string exchange(uint16_t port, const std::string& input, const std::vector<size_t>& cuts) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval guard{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    fuzz::fail("cannot connect");
  }
  size_t start = 0;
  std::vector<size_t> ends = cuts;
  ends.push_back(input.size());
  for (size_t end : ends) {
    end = std::min(std::max(end, start), input.size());
    if (end > start) send(fd, input.data() + start, end - start, MSG_NOSIGNAL);
    start = end;
  }
  shutdown(fd, SHUT_WR);
  std::string output;
  char buffer[65536];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof(buffer), 0)) > 0) output.append(buffer, n);
  if (n < 0) fuzz::fail("the server neither answered nor closed");
  close(fd);
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<size_t> cuts = fuzz::takeCuts(&data, &size);
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string output = exchange(serverPort(), input, cuts);

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
