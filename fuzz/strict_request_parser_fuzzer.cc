// Strict request reader: the input fed whole, byte by byte and cut where its
// own bytes say gives the same requests and the same verdict, with and without
// limits; a spent reader delivers nothing; every request delivered is whole and
// within the limits. Nothing crashes, hangs or leaks.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "relay/strict_framing.h"

namespace {

using vantu::relay::HttpRequest;
using vantu::relay::HttpRequestPtr;
using vantu::relay::HttpResponse;
using vantu::relay::RequestLimits;
using vantu::relay::StrictRequestParser;

void fail(const char* what) {
  fprintf(stderr, "oracle violated: %s\n", what);
  abort();
}

std::string describe(const HttpRequest& r) {
  std::ostringstream out;
  out << r.method << '|' << r.uri << '|' << r.minor_version << '|' << r.url.possibly_invalid_spec()
      << '|' << r.url.is_valid() << '|' << r.content_length << '|' << r.body;
  for (const auto& h : r.headers) out << "|H" << h.first << ':' << h.second;
  for (const auto& q : r.query_components) out << "|Q" << q.first << '=' << q.second;
  return out.str();
}

struct Outcome {
  std::vector<std::string> requests;
  bool ok = true;
  int status = 0;
  bool closing = false;
  bool operator==(const Outcome& o) const {
    return requests == o.requests && ok == o.ok && status == o.status && closing == o.closing;
  }
};

// Feeds every chunk, also after the parser is spent, which must then add
// nothing and keep its verdict.
Outcome feed(const std::vector<std::string>& chunks, const RequestLimits& limits) {
  StrictRequestParser parser(limits);
  Outcome outcome;
  std::vector<HttpRequestPtr> requests;
  for (const std::string& chunk : chunks) {
    const bool spent = !outcome.ok || parser.closing();
    const size_t before = requests.size();
    const bool ok = parser.parse(chunk, &requests);
    if (spent && (requests.size() != before || ok != outcome.ok)) fail("a spent parser went on");
    outcome.ok = outcome.ok && ok;
  }
  for (const auto& request : requests) {
    const HttpRequest& r = *request;
    if (r.body.size() != r.content_length) fail("body and content_length differ");
    if (r.minor_version != 0 && r.minor_version != 1) fail("version other than 1.0 or 1.1");
    if (r.method == vantu::relay::kHttpUnknown) fail("unknown method delivered");
    if (limits.max_body_bytes != 0 && r.body.size() > limits.max_body_bytes) {
      fail("body over the limit");
    }
    outcome.requests.push_back(describe(r));
  }
  if (!outcome.ok) {
    outcome.status = parser.errorStatus();
    switch (outcome.status) {
      case HttpResponse::kBadRequest:
      case HttpResponse::kRequestEntityTooLarge:
      case HttpResponse::kRequestUriTooLarge:
      case HttpResponse::kNotImplemented:
      case HttpResponse::kHttpVersionNotSupported:
        break;
      default:
        fail("unexpected error status");
    }
    if (parser.headInProgress() || parser.bodyInProgress()) fail("a failed parser in progress");
  }
  outcome.closing = parser.closing();
  if (outcome.closing && !outcome.ok) fail("closing and failed");
  return outcome;
}

uint64_t hashOf(const std::string& input) {
  uint64_t hash = 1469598103934665603ULL;
  for (unsigned char c : input) hash = (hash ^ c) * 1099511628211ULL;
  return hash;
}

void check(const std::string& input, const RequestLimits& limits, uint64_t hash) {
  const Outcome whole = feed({input}, limits);

  std::vector<std::string> bytes;
  bytes.reserve(input.size());
  for (char c : input) bytes.emplace_back(1, c);
  if (!(feed(bytes, limits) == whole)) fail("byte by byte differs from whole");

  // Cuts after the bytes that the input's own hash picks out, so that the
  // fuzzer reaches cuts at CRs, LFs, blanks and chunk sizes by mutating them.
  std::vector<std::string> pieces(1);
  const unsigned modulus = 2 + hash % 11;
  const unsigned char salt = static_cast<unsigned char>(hash >> 8);
  for (char c : input) {
    pieces.back().push_back(c);
    if ((static_cast<unsigned char>(c) ^ salt) % modulus == 0) pieces.emplace_back();
  }
  if (!(feed(pieces, limits) == whole)) fail("split feed differs from whole");

  // The whole input twice over one parser: the second copy starts where the
  // first left off, as on a connection.
  StrictRequestParser parser(limits);
  std::vector<HttpRequestPtr> requests;
  const bool first = parser.parse(input, &requests);
  if (requests.size() != whole.requests.size() || first != whole.ok) fail("not deterministic");
  const bool spent = !first || parser.closing();
  const bool second = parser.parse(input, &requests);
  if (spent && (requests.size() != whole.requests.size() || second != first)) {
    fail("a spent parser went on");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const uint64_t hash = hashOf(input);
  check(input, RequestLimits(), hash);
  // Limits from the input's hash: small enough that the fuzzer meets them.
  RequestLimits limits;
  if (hash & 1) limits.max_header_bytes = 8 + (hash >> 16) % 256;
  if (hash & 2) limits.max_body_bytes = (hash >> 32) % 64;
  if (limits.max_header_bytes != 0 || limits.max_body_bytes != 0) check(input, limits, hash);
  return 0;
}
