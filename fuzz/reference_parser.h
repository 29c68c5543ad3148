#ifndef FUZZ_REFERENCE_PARSER_H_
#define FUZZ_REFERENCE_PARSER_H_

// A second, deliberately plain HTTP/1.x message reader that shares no code with
// relay/http_request_parser: PCRE for the three line patterns, and framing
// written straight from the rules, one byte at a time, with no search, no
// buffer reuse and no caching. It is slow and obvious on purpose, so that the
// fuzzers can hold the real parser to it message by message and verdict by
// verdict, also after a rejected chunk.
//
// The URL layer (GURL, url_parse::ExtractQueryKeyValue) and ParseUInt32 are the
// platform both readers stand on and are used as they are; unescaping is
// written again here.

#include <pcrecpp.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/string_util.h"
#include "url/gurl.h"
#include "url/url_parse.h"

namespace fuzz {

// One message as the reference reads it. The field names are those of
// vantu::relay::HttpRequest and HttpResponse, so that one description covers
// both readers.
struct ReferenceMessage {
  std::map<std::string, std::string> headers;
  uint32_t content_length = 0;
  std::string body;
  // Requests.
  GURL url;
  int method = 7;
  std::multimap<std::string, std::string> query_components;
  std::string uri;
  int minor_version = 1;
  // Responses.
  int status_code = 200;
  std::string status_string;
};

// Percent and plus decoding of one query key or value: "+" is a blank, "%"
// and two hex digits one byte, anything else itself; the result ends at the
// first NUL, decoded or not.
inline std::string referenceUnescape(const std::string& text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  for (size_t i = 0; i < text.size() && text[i] != '\0';) {
    if (text[i] == '+') {
      out += ' ';
      i += 1;
    } else if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
               hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 3;
    } else {
      out += text[i];
      i += 1;
    }
  }
  const size_t nul = out.find('\0');
  if (nul != std::string::npos) out.resize(nul);
  return out;
}

class ReferenceParser {
 public:
  enum Kind { kRequests, kResponses };
  explicit ReferenceParser(Kind kind) : kind_(kind) {}

  // One chunk: appends the messages it completes and returns false at the
  // first rejected line, dropping the rest of the chunk.
  bool feed(const std::string& chunk, std::vector<ReferenceMessage>* done) {
    if (!message_) message_.reset(newMessage());
    size_t i = 0;
    // A CR that ended the previous chunk owns an LF that opens this one.
    if (skip_line_feed_ && i < chunk.size()) {
      skip_line_feed_ = false;
      if (chunk[i] == '\n') ++i;
    }
    for (;;) {
      if (state_ == 2) {
        while (i < chunk.size() && message_->body.size() < message_->content_length) {
          message_->body += chunk[i++];
        }
        if (message_->body.size() < message_->content_length) return true;
        done->push_back(*message_);
        state_ = 0;
        message_.reset(newMessage());
        line_.clear();
      }
      if (i == chunk.size()) return true;
      const char c = chunk[i++];
      if (c != '\r' && c != '\n') {
        line_ += c;
        continue;
      }
      if (c == '\r') {
        if (i == chunk.size()) {
          skip_line_feed_ = true;
        } else if (chunk[i] == '\n') {
          ++i;
        }
      }
      std::string line;
      line.swap(line_);
      if (!takeLine(line)) return false;
    }
  }

  // What the parser holds between chunks.
  int state() const { return state_; }
  const ReferenceMessage* inProgress() const { return message_.get(); }

 private:
  ReferenceMessage* newMessage() const {
    auto* message = new ReferenceMessage;
    if (kind_ == kResponses) message->headers["Connection"] = "keep-alive";
    return message;
  }

  bool takeLine(const std::string& line) {
    if (state_ == 0) return kind_ == kRequests ? requestLine(line) : statusLine(line);
    if (state_ == 1) return headerLine(line);
    return false;
  }

  bool requestLine(const std::string& line) {
    static const pcrecpp::RE kPattern("([A-Z]*) ([^ ]*) HTTP/1.[0-1]");
    static const char* const kMethods[] = {"OPTIONS", "GET",    "HEAD", "POST",
                                           "PUT",     "DELETE", "TRACE"};
    std::string method;
    std::string target;
    if (!kPattern.FullMatch(line, &method, &target)) return false;
    message_->uri = target;
    message_->minor_version = line[line.size() - 1] - '0';
    message_->method = 7;
    for (int m = 0; m < 7; ++m) {
      if (method == kMethods[m]) message_->method = m;
    }
    if (message_->method == 7) return false;
    state_ = 1;
    return true;
  }

  bool statusLine(const std::string& line) {
    static const pcrecpp::RE kPattern("HTTP/1.[0-9] ([0-9]*) (.*)");
    int code;
    std::string reason;
    if (!kPattern.FullMatch(line, &code, &reason)) return false;
    message_->status_code = code;
    message_->status_string = reason;
    state_ = 1;
    return true;
  }

  bool headerLine(const std::string& line) {
    static const pcrecpp::RE kPattern("([^:]*): (.*)");
    if (line.empty()) {
      if (kind_ == kRequests) endOfRequestHead();
      state_ = 2;
      return true;
    }
    std::string name;
    std::string value;
    if (!kPattern.FullMatch(line, &name, &value)) return false;
    message_->headers[name] = value;
    if (name == "Content-Length") return vantu::ParseUInt32(value, &message_->content_length);
    return true;
  }

  void endOfRequestHead() {
    ReferenceMessage& request = *message_;
    request.url = GURL(request.uri);
    if (!request.url.is_valid())
      request.url = GURL("http://" + request.headers["Host"] + request.uri);
    if (!request.url.has_query()) return;
    const std::string& spec = request.url.possibly_invalid_spec();
    url_parse::Component query = request.url.parsed_for_possibly_invalid_spec().query;
    url_parse::Component key;
    url_parse::Component value;
    while (url_parse::ExtractQueryKeyValue(spec.data(), &query, &key, &value)) {
      auto text = [&spec](const url_parse::Component& part) {
        return part.len > 0 ? spec.substr(part.begin, part.len) : std::string();
      };
      request.query_components.emplace(referenceUnescape(text(key)),
                                       referenceUnescape(text(value)));
    }
  }

  const Kind kind_;
  int state_ = 0;
  std::string line_;
  bool skip_line_feed_ = false;
  std::unique_ptr<ReferenceMessage> message_;
};

}  // namespace fuzz

#endif  // FUZZ_REFERENCE_PARSER_H_
