#include "relay/request_reader.h"

#include "relay/http_request_parser.h"
#include "relay/strict_framing.h"

namespace vantu {
namespace relay {
namespace {

// The default reader: HttpRequestParser as it is, under the limits a
// server's options may add. Owned and used as any RequestReader.
class DefaultRequestReader final : public RequestReader {
 public:
  DefaultRequestReader(const RequestLimits& limits, bool https) {
    parser_.setLimits(limits);
    parser_.setHttps(https);
  }

  // RequestReader
  bool parse(const std::string& data, std::vector<HttpRequestPtr>* requests) override {
    return parser_.parse(data, requests);
  }
  bool parseBytes(const char* data, size_t size, std::vector<HttpRequestPtr>* requests) override {
    return parser_.parse(data, size, requests);
  }
  HttpResponse::StatusCode errorStatus() const override { return parser_.errorStatus(); }
  // Only a limit spends the parser: a malformed line alone does not end the
  // connection.
  bool closesAfterError() const override { return parser_.spent(); }
  bool refusedByLimit() const override { return parser_.spent(); }
  bool closing() const override { return false; }
  bool takeContinueRequest() override { return false; }
  bool headInProgress() const override { return parser_.headInProgress(); }
  bool bodyInProgress() const override { return parser_.bodyInProgress(); }
  AnswerRules answerRules() const override { return AnswerRules(); }

 private:
  HttpRequestParser parser_;
};

}  // namespace

std::unique_ptr<RequestReader> newRequestReader(bool strict_framing, const RequestLimits& limits,
                                                bool https) {
  if (strict_framing) return std::make_unique<StrictRequestParser>(limits, https);
  return std::make_unique<DefaultRequestReader>(limits, https);
}

}  // namespace relay
}  // namespace vantu
