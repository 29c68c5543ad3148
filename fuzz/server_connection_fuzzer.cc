// A whole server connection: the input goes over loopback to a real server
// (split into writes at fuzzer-chosen points), and what comes back must be a
// well-formed stream of responses, one per request when the input is clean.
// Nothing may crash, hang or leak, whatever the bytes.
#include <cstring>

#include "common/event_thread.h"
#include "common/logging.h"
#include "fuzz/parser_oracle.h"
#include "relay/http_server.h"
#include "relay/strict_framing.h"
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

// The hardened server's limits: small, so that inputs reach them.
vantu::relay::HttpServerOptions hardenedOptions() {
  vantu::relay::HttpServerOptions options = vantu::relay::HttpServerOptions::hardened();
  options.max_header_bytes = 2048;
  options.max_body_bytes = 512;
  return options;
}

// A server with the default options, or a hardened one.
uint16_t serverPort(bool hardened) {
  fuzz::quietLogs();
  auto make = [](const vantu::relay::HttpServerOptions& options) {
    auto* s = new std::shared_ptr<vantu::relay::HttpServer>(
        vantu::relay::HttpServer::create(vantu::SocketAddress("127.0.0.1", 0), 64, options));
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
  };
  static std::shared_ptr<vantu::relay::HttpServer>* plain = make(vantu::relay::HttpServerOptions());
  static std::shared_ptr<vantu::relay::HttpServer>* strict = make(hardenedOptions());
  return (*(hardened ? strict : plain))->localAddress().port();
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

// The server's bytes, escaped, for the log of a failing input.
void dumpOutput(const std::string& output) {
  std::string shown;
  for (unsigned char c : output) {
    if (c == '\n') {
      shown += "\\n\n";
    } else if (c == '\r') {
      shown += "\\r";
    } else if (c < 0x20 || c >= 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      shown += escaped;
    } else {
      shown += static_cast<char>(c);
    }
  }
  fprintf(stderr, "the server wrote %zu bytes:\n%s\n", output.size(), shown.c_str());
}

// The value of the head's Content-Length, or -1 when it has none.
long contentLengthOf(const std::string& head) {
  static const char kName[] = "\r\ncontent-length:";
  for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
    if (strncasecmp(head.c_str() + at, kName, sizeof(kName) - 1) == 0) {
      return strtol(head.c_str() + at + sizeof(kName) - 1, nullptr, 10);
    }
  }
  return -1;
}

// Reads the server's answers to `requests`. The answer to a HEAD request is its
// head alone, though the head announces the length a GET would have had; the
// response parser cannot know which request an answer is for, so that body is
// supplied here, byte for byte as announced. Fed one byte at a time, so that the
// end of each head is seen as it arrives.
bool parseAnswers(const std::string& output, const std::vector<HttpRequestPtr>& requests,
                  std::vector<HttpResponsePtr>* all) {
  vantu::relay::HttpResponseParser parser;
  size_t message_start = 0;
  size_t final_answers = 0;
  for (size_t i = 0; i < output.size(); ++i) {
    const size_t before = all->size();
    if (!parser.parse(output.data() + i, 1, all)) return false;
    if (all->size() != before) {
      for (size_t j = before; j < all->size(); ++j) {
        if ((*all)[j]->status_code != 100) ++final_answers;
      }
      message_start = i + 1;
      continue;
    }
    const bool head_ended = i + 1 - message_start >= 4 && output.compare(i - 3, 4, "\r\n\r\n") == 0;
    if (!head_ended || final_answers >= requests.size() ||
        requests[final_answers]->method != vantu::relay::kHttpHead) {
      continue;
    }
    const long length = contentLengthOf(output.substr(message_start, i + 1 - message_start));
    if (length <= 0) return false;  // a HEAD answer's head that did not end its message
    const std::string body(static_cast<size_t>(length), 'x');
    if (!parser.parse(body, all) || all->size() != before + 1) return false;
    ++final_answers;
    message_start = i + 1;
  }
  return true;
}

}  // namespace

// The hardened server reads strictly: one answer per request it delivers,
// and after a fault exactly one more (the refusal with the reader's status),
// then the end of the connection. Interim 100 Continue answers aside.
void checkHardened(const fuzz::FramedInput& framed) {
  const std::string output = exchange(serverPort(true), framed.pieces);
  const vantu::relay::HttpServerOptions options = hardenedOptions();
  vantu::relay::RequestLimits limits;
  limits.max_header_bytes = options.max_header_bytes;
  limits.max_body_bytes = options.max_body_bytes;
  vantu::relay::StrictRequestParser reader(limits);
  std::vector<HttpRequestPtr> requests;
  const bool clean = reader.parse(framed.stream, &requests);

  std::vector<HttpResponsePtr> all;
  if (!parseAnswers(output, requests, &all)) {
    dumpOutput(output);
    fuzz::fail("the hardened server wrote bad HTTP");
  }
  std::vector<HttpResponsePtr> answers;
  for (const HttpResponsePtr& response : all) {
    if (response->status_code != 100) answers.push_back(response);
  }
  if (answers.size() != requests.size() + (clean ? 0 : 1)) {
    fuzz::fail("hardened: one answer per request, and one refusal after a fault");
  }
  if (!clean && answers.back()->status_code != reader.errorStatus()) {
    fuzz::fail("hardened: the refusal's status is the reader's");
  }
  for (const HttpResponsePtr& answer : answers) {
    if (answer->headers.count("Date") == 0) fuzz::fail("hardened: every answer is dated");
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fuzz::FramedInput framed = fuzz::unframe(data, size);
  const std::string& input = framed.stream;
  checkHardened(framed);
  const std::string output = exchange(serverPort(false), framed.pieces);

  // What the server should have understood, read by a parser of our own.
  vantu::relay::HttpRequestParser requests_parser;
  std::vector<HttpRequestPtr> requests;
  const bool clean = requests_parser.parse(input, &requests);

  vantu::relay::HttpResponseParser responses_parser;
  std::vector<HttpResponsePtr> responses;
  if (!responses_parser.parse(output, &responses)) {
    dumpOutput(output);
    fuzz::fail("the server wrote bad HTTP");
  }
  if (clean && responses.size() != requests.size()) fuzz::fail("one answer per request");
  if (!clean && responses.size() < requests.size() + 1) fuzz::fail("answers and a 400");
  for (size_t i = 0; i < responses.size(); ++i) {
    const int code = responses[i]->status_code;
    if (code != 200 && code != 404 && code != 400) fuzz::fail("unexpected status");
  }
  return 0;
}
