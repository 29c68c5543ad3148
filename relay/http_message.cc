#include "relay/http_message.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "common/string_util.h"
#include "relay/answer_head.h"
#include "relay/message_pool.h"
#include "relay/url_escape.h"
#include "url/url_parse.h"

namespace vantu {
namespace relay {
namespace {

// Indexed by HttpMethod; the null entry ends the table.
const char* const kMethodNames[] = {"OPTIONS", "GET",    "HEAD",  "POST",
                                    "PUT",     "DELETE", "TRACE", nullptr};

struct StatusEntry {
  int code;
  const char* phrase;
};

// Sorted by code for the bisecting lookup.
const StatusEntry kStatusTable[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Time-out"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Large"},
    {415, "Unsupported Media Type"},
    {416, "Requested range not satisfiable"},
    {417, "Expectation Failed"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Time-out"},
    {505, "HTTP Version not supported"},
};

}  // namespace

const char* httpMethodToName(HttpMethod method) {
  // Unsigned, so that negative values fall outside the table too.
  if (static_cast<unsigned>(method) > static_cast<unsigned>(kHttpTrace)) return "";
  return kMethodNames[method];
}

HttpMethod httpMethodFromName(const std::string& name) {
  for (int i = 0; kMethodNames[i] != nullptr; ++i) {
    // The first byte rules out most entries without a full comparison.
    if (!name.empty() && name[0] == kMethodNames[i][0] && name == kMethodNames[i]) {
      return static_cast<HttpMethod>(i);
    }
  }
  return kHttpUnknown;
}

void QueryComponents::assignFrom(const GURL& url) {
  clear();
  if (!url.has_query()) return;
  source_ = url.shared_spec();
  query_ = url.parsed_for_possibly_invalid_spec().query;
  pending_.store(true, std::memory_order_relaxed);
}

const QueryComponents::Map& QueryComponents::map() const {
  if (pending_.load(std::memory_order_acquire)) split();
  return map_;
}

QueryComponents::Map& QueryComponents::map() {
  if (pending_.load(std::memory_order_acquire)) split();
  return map_;
}

void QueryComponents::split() const {
  // Splitting is rare (the first look at a request's query), so one lock
  // serves every request.
  static std::mutex split_mutex;
  std::lock_guard<std::mutex> lock(split_mutex);
  if (!pending_.load(std::memory_order_relaxed)) return;
  const std::string& spec = *source_;
  url_parse::Component query = query_;
  url_parse::Component key;
  url_parse::Component value;
  while (url_parse::ExtractQueryKeyValue(spec.data(), &query, &key, &value)) {
    std::string key_text = key.len > 0 ? spec.substr(key.begin, key.len) : std::string();
    std::string value_text = value.len > 0 ? spec.substr(value.begin, value.len) : std::string();
    urlUnescape(&key_text);
    urlUnescape(&value_text);
    // Pairs arrive in query order, so equal keys land after their elders.
    map_.emplace(std::move(key_text), std::move(value_text));
  }
  source_.reset();
  pending_.store(false, std::memory_order_release);
}

size_t HttpRequest::numQueryComponent(const std::string& name) const {
  return query_components.count(name);
}

bool HttpRequest::hasQueryComponent(const std::string& name) const {
  return numQueryComponent(name) != 0;
}

std::string HttpRequest::getStringQueryComponent(const std::string& name, int index) const {
  if (index < 0) return std::string();
  auto range = query_components.equal_range(name);
  for (auto it = range.first; it != range.second; ++it, --index) {
    if (index == 0) return it->second;
  }
  return std::string();
}

int HttpRequest::getIntQueryComponent(const std::string& name, int index) const {
  int value = 0;
  ParseInt(getStringQueryComponent(name, index), &value);  // a rejected text leaves 0
  return value;
}

void HttpRequest::getStringQueryComponents(const std::string& name,
                                           std::vector<std::string>* values) const {
  auto range = query_components.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) values->push_back(it->second);
}

HttpResponse::HttpResponse() { setHeader("Connection", "keep-alive"); }

const char* HttpResponse::getStatusString(StatusCode code) {
  if (code == kOk) return "OK";  // nearly every answer's
  const StatusEntry* end = kStatusTable + sizeof(kStatusTable) / sizeof(kStatusTable[0]);
  const StatusEntry* entry =
      std::lower_bound(kStatusTable, end, static_cast<int>(code),
                       [](const StatusEntry& e, int wanted) { return e.code < wanted; });
  return (entry != end && entry->code == code) ? entry->phrase : "";
}

void HttpResponse::setHeader(const std::string& name, const std::string& value) {
  message_pool::setHeader(message_pool::threadPool(), &headers, headers.end(), name.data(),
                          name.size(), value.data(), value.size());
}

void HttpResponse::setHeaderF(const std::string& name, const char* format, ...) {
  // Short values (ids, lengths) are formatted on the stack.
  char small[64];
  va_list args;
  va_start(args, format);
  const int length = vsnprintf(small, sizeof(small), format, args);
  va_end(args);
  if (length >= 0 && static_cast<size_t>(length) < sizeof(small)) {
    message_pool::setHeader(message_pool::threadPool(), &headers, headers.end(), name.data(),
                            name.size(), small, strnlen(small, length));  // up to the first NUL
    return;
  }
  va_start(args, format);
  std::string value = stringVPrintf(format, args);
  va_end(args);
  value.resize(strnlen(value.data(), value.size()));  // up to the first NUL
  setHeader(name, value);
}

void HttpResponse::setContentType(const std::string& type) {
  static const char kContentType[] = "Content-Type";
  message_pool::setHeader(message_pool::threadPool(), &headers, headers.end(), kContentType,
                          sizeof(kContentType) - 1, type.data(), type.size());
}

void HttpResponse::setTextHtml() { setContentType("text/html"); }

void HttpResponse::outputHeader(std::string* out) {
  // The head is written from the response as it is; outputHeader also
  // leaves the phrase and the length stored in it.
  if (status_string.empty()) status_string = getStatusString(status_code);
  char length[16];
  const char* length_end =
      std::to_chars(length, length + sizeof(length), static_cast<int>(content.size())).ptr;
  static const char kContentLength[] = "Content-Length";
  message_pool::setHeader(message_pool::threadPool(), &headers, headers.end(), kContentLength,
                          sizeof(kContentLength) - 1, length, length_end - length);
  writeAnswerHead(this, nullptr, out);
}

}  // namespace relay
}  // namespace vantu
