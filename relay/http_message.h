#ifndef RELAY_HTTP_MESSAGE_H_
#define RELAY_HTTP_MESSAGE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "relay/peer_info.h"
#include "url/gurl.h"

namespace vantu {
namespace relay {

// Request methods; the values index the method name table.
enum HttpMethod : int {
  kHttpOptions = 0,
  kHttpGet = 1,
  kHttpHead = 2,
  kHttpPost = 3,
  kHttpPut = 4,
  kHttpDelete = 5,
  kHttpTrace = 6,
  kHttpUnknown = 7,
};

// The name of `method` ("GET", ...); "" for kHttpUnknown and any value outside
// the table. Never null.
const char* httpMethodToName(HttpMethod method);

// The method whose name is exactly `name` (case-sensitive, no trimming);
// kHttpUnknown when none is.
HttpMethod httpMethodFromName(const std::string& name);

// What requests and responses share: the headers, the announced body length and
// the received body. A plain data holder, used by one thread at a time.
class HttpMessage {
 public:
  HttpMessage() = default;
  virtual ~HttpMessage() = default;

  // Header name to value. Names are compared byte by byte, case-sensitively; a
  // name has one value (the last one stored wins); iteration is in byte order,
  // which is the order responses are written in.
  std::map<std::string, std::string> headers;
  // The "Content-Length" the parser read; 0 without one.
  uint32_t content_length = 0;
  // The body bytes exactly as received.
  std::string body;
};

// The query components of a request: unescaped key to unescaped value, one
// entry for each key/value pair of the url's query, equal keys in query order.
// It behaves as the std::multimap it holds, but the pairs are split from the
// query only when first looked at, so that a request whose handler never asks
// pays nothing for them (the map nodes of a 16 MB query of "a=b&" pairs would
// take some 400 MB). Several threads may read it at once, as they may a map.
class QueryComponents {
 public:
  using Map = std::multimap<std::string, std::string>;
  using key_type = Map::key_type;
  using mapped_type = Map::mapped_type;
  using value_type = Map::value_type;
  using size_type = Map::size_type;
  using iterator = Map::iterator;
  using const_iterator = Map::const_iterator;

  QueryComponents() = default;
  // A copy has the pairs split.
  QueryComponents(const QueryComponents& other) : map_(other.map()) {}
  QueryComponents& operator=(const QueryComponents& other) {
    if (this != &other) {
      Map pairs = other.map();
      clear();
      map_.swap(pairs);
    }
    return *this;
  }
  // Moving takes the pairs as they are, split or not.
  QueryComponents(QueryComponents&& other) noexcept { *this = std::move(other); }
  QueryComponents& operator=(QueryComponents&& other) noexcept {
    if (this != &other) {
      map_ = std::move(other.map_);
      source_ = std::move(other.source_);
      query_ = other.query_;
      pending_.store(other.pending_.load(std::memory_order_acquire), std::memory_order_relaxed);
      other.clear();
    }
    return *this;
  }

  // Replaces the components with those of `url`'s query (none when it has no
  // "?"), to be split when first looked at.
  void assignFrom(const GURL& url);

  // The components as a map, split now if they were not yet.
  const Map& map() const;
  Map& map();
  operator const Map&() const { return map(); }  // NOLINT: a drop-in for the map

  const_iterator begin() const { return map().begin(); }
  const_iterator end() const { return map().end(); }
  iterator begin() { return map().begin(); }
  iterator end() { return map().end(); }
  const_iterator cbegin() const { return map().cbegin(); }
  const_iterator cend() const { return map().cend(); }
  bool empty() const { return map().empty(); }
  size_type size() const { return map().size(); }
  size_type count(const std::string& key) const { return map().count(key); }
  const_iterator find(const std::string& key) const { return map().find(key); }
  iterator find(const std::string& key) { return map().find(key); }
  const_iterator lower_bound(const std::string& key) const { return map().lower_bound(key); }
  const_iterator upper_bound(const std::string& key) const { return map().upper_bound(key); }
  std::pair<const_iterator, const_iterator> equal_range(const std::string& key) const {
    return map().equal_range(key);
  }
  std::pair<iterator, iterator> equal_range(const std::string& key) {
    return map().equal_range(key);
  }
  template <typename... Args>
  iterator emplace(Args&&... args) {
    return map().emplace(std::forward<Args>(args)...);
  }
  iterator insert(const value_type& value) { return map().insert(value); }
  iterator erase(const_iterator position) { return map().erase(position); }
  size_type erase(const std::string& key) { return map().erase(key); }
  void clear() {
    source_.reset();
    pending_.store(false, std::memory_order_relaxed);
    map_.clear();
  }

  // How many pairs were split so far (0 while none was looked at); does not
  // split them.
  size_type splitCount() const {
    return pending_.load(std::memory_order_acquire) ? 0 : map_.size();
  }

  bool operator==(const QueryComponents& other) const { return map() == other.map(); }
  bool operator!=(const QueryComponents& other) const { return !(*this == other); }

 private:
  // Reading is safe from several threads at once, as it is for a map: the
  // first look splits under a lock, later ones see `pending_` false.
  void split() const;

  mutable Map map_;
  // The text whose query is still to be split; null once it was.
  mutable std::shared_ptr<const std::string> source_;
  mutable url_parse::Component query_;
  mutable std::atomic<bool> pending_{false};
};

// A request as the parser produced it.
class HttpRequest : public HttpMessage {
 public:
  HttpRequest() = default;

  // The number of query components named `name`.
  size_t numQueryComponent(const std::string& name) const;
  bool hasQueryComponent(const std::string& name) const;
  // The index-th value (in query order) of the components named `name`; "" when
  // the index is negative or there are not that many.
  std::string getStringQueryComponent(const std::string& name, int index) const;
  // getStringQueryComponent parsed as a decimal int; 0 when missing or not a number.
  int getIntQueryComponent(const std::string& name, int index) const;
  // Appends every value of `name`, in query order, to *values (which is not cleared).
  void getStringQueryComponents(const std::string& name, std::vector<std::string>* values) const;

  // The absolute URL: the request-target when that is one, else built from
  // "http://", the Host header and the request-target.
  GURL url;
  HttpMethod method = kHttpUnknown;
  // Unescaped query key to unescaped value, one entry per pair, in query order
  // for equal keys; split from the url's query when first looked at.
  QueryComponents query_components;
  // The request-target exactly as it stood in the request line.
  std::string uri;
  // The minor version of the request line's "HTTP/1.x": 0 or 1.
  int minor_version = 1;

  // Who sent the request: the peer's address, whether the connection is TLS
  // and the verified client certificate (see relay/peer_info.h). Valid as
  // long as the request, also after its connection closed; PeerInfo::unknown()
  // for a request the server did not read.
  const PeerInfo& peer() const;
  // The caller of a connection with a client certificate, shared by the
  // requests of that connection (or set by whoever makes a request by hand).
  // Null for a request read from any other connection, whose peer() is its
  // own copy of the address and TLS version: such a request shares nothing
  // with its connection, so reading one costs no reference counting.
  std::shared_ptr<const PeerInfo> peer_info;
  // Set by the server on the requests of a connection without a client
  // certificate: the peer's address and the TLS version (empty: plaintext),
  // copied into the request.
  void setPeer(const SocketAddress& address, const char* tls_version) {
    plain_peer_.address = address;
    plain_peer_.tls = *tls_version != '\0';
    if (plain_peer_.tls) {
      plain_peer_.tls_version = tls_version;
    } else {
      plain_peer_.tls_version.clear();
    }
    has_plain_peer_ = true;
  }
  void setPeerAddress(const SocketAddress& address) { setPeer(address, ""); }
  // As a new request: no peer known.
  void clearPeer() {
    peer_info.reset();
    has_plain_peer_ = false;
  }

 private:
  // What peer() describes for a request without a shared PeerInfo: its
  // address and TLS version.
  PeerInfo plain_peer_;
  bool has_plain_peer_ = false;
};

// A response: built by the server for each request, or filled by the client's
// response parser. Used by one thread at a time.
class HttpResponse : public HttpMessage {
 public:
  // Any int may be stored: the response parser keeps whatever code it reads.
  enum StatusCode : int {
    kContinue = 100,
    kSwitchingProtocols = 101,
    kOk = 200,
    kCreated = 201,
    kAccepted = 202,
    kNonAuthoritativeInformation = 203,
    kNoContent = 204,
    kResetContent = 205,
    kPartialContent = 206,
    kMultipleChoices = 300,
    kMovedPermanently = 301,
    kFound = 302,
    kSeeOther = 303,
    kNotModified = 304,
    kUseProxy = 305,
    kTemporaryRedirect = 307,
    kBadRequest = 400,
    kUnauthorized = 401,
    kPaymentRequired = 402,
    kForbidden = 403,
    kNotFound = 404,
    kMethodNotAllowed = 405,
    kNotAcceptable = 406,
    kProxyAuthenticationRequired = 407,
    kRequestTimeout = 408,
    kConflict = 409,
    kGone = 410,
    kLengthRequired = 411,
    kPreconditionFailed = 412,
    kRequestEntityTooLarge = 413,
    kRequestUriTooLarge = 414,
    kUnsupportedMediaType = 415,
    kRequestedRangeNotSatisfiable = 416,
    kExpectationFailed = 417,
    kInternalServerError = 500,
    kNotImplemented = 501,
    kBadGateway = 502,
    kServiceUnavailable = 503,
    kGatewayTimeout = 504,
    kHttpVersionNotSupported = 505,
  };

  // Status 200, no reason phrase yet, and "Connection: keep-alive".
  HttpResponse();

  // The reason phrase of `code`; "" for codes the table does not know. Never null.
  static const char* getStatusString(StatusCode code);

  // Stores `value` under `name`, replacing an earlier value of exactly that name.
  void setHeader(const std::string& name, const std::string& value);
  // setHeader with a printf-formatted value (taken up to its first NUL).
  void setHeaderF(const std::string& name, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  void setContentType(const std::string& type);
  void setTextHtml();

  // Replaces *out with the status line and the header block, ended by the blank
  // line. Fills status_string from the table when it is empty and sets
  // "Content-Length" to the size of content.
  void outputHeader(std::string* out);

  // The body bytes to send.
  std::vector<char> content;
  StatusCode status_code = kOk;
  // The reason phrase; empty means the table's.
  std::string status_string;
};

using HttpRequestPtr = std::shared_ptr<HttpRequest>;
using HttpResponsePtr = std::shared_ptr<HttpResponse>;

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HTTP_MESSAGE_H_
