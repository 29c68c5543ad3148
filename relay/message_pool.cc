#include "relay/message_pool.h"

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "common/fast_thread_local.h"
#include "common/memory_policy.h"

namespace vantu {
namespace relay {
namespace message_pool {
namespace {

using memory_policy::clearKeepingSmall;
using memory_policy::kLargestKeptString;
// Bounds: what one thread keeps at most.
constexpr size_t kMaxMessages = memory_policy::kMaxPooledMessages;
constexpr size_t kMaxNodes = memory_policy::kMaxPooledHeaderNodes;
// The longest url a pooled request keeps for its next use.
constexpr size_t kLongestKeptUrl = 2048;

// Control blocks of the shared pointers adopt() makes: one size serves all.
constexpr size_t kBlockSize = 64;
constexpr size_t kMaxBlocks = 2 * kMaxMessages;

}  // namespace

class Pool {
 public:
  Pool() {
    requests.reserve(kMaxMessages);
    responses.reserve(kMaxMessages);
    nodes.reserve(kMaxNodes);
    blocks.reserve(kMaxBlocks);
  }
  ~Pool() {
    for (HttpRequest* request : requests) delete request;
    for (HttpResponse* response : responses) delete response;
    for (void* block : blocks) ::operator delete(block);
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  std::vector<HttpRequest*> requests;
  std::vector<HttpResponse*> responses;
  std::vector<Headers::node_type> nodes;
  std::vector<void*> blocks;
  // The header fields the pooled requests kept for their next use.
  size_t kept_fields = 0;
};

namespace {

// This thread's pool: made by the first message made here, freed when the
// thread ends. Plain pointers and flags, so that a message released while the
// thread's other thread-locals are being destroyed still finds out safely
// that there is no pool any more.
VANTU_FAST_THREAD_LOCAL Pool* tls_pool = nullptr;
VANTU_FAST_THREAD_LOCAL bool tls_ended = false;

struct PoolOwner {
  ~PoolOwner() {
    Pool* pool = tls_pool;
    tls_pool = nullptr;
    tls_ended = true;
    delete pool;
  }
};

// Allocates the control blocks of adopt()'s shared pointers from the pool of
// the thread at hand (a block may be freed on another thread than the one
// that took it: blocks are all alike).
template <typename T>
struct BlockAllocator {
  using value_type = T;
  BlockAllocator() = default;
  template <typename U>
  BlockAllocator(const BlockAllocator<U>&) {}  // NOLINT: rebinding
  T* allocate(size_t n) {
    const size_t size = n * sizeof(T);
    Pool* pool = tls_pool;
    if (size <= kBlockSize && pool != nullptr && !pool->blocks.empty()) {
      void* block = pool->blocks.back();
      pool->blocks.pop_back();
      return static_cast<T*>(block);
    }
    return static_cast<T*>(::operator new(size <= kBlockSize ? kBlockSize : size));
  }
  void deallocate(T* block, size_t n) {
    Pool* pool = tls_pool;
    if (n * sizeof(T) <= kBlockSize && pool != nullptr && pool->blocks.size() < kMaxBlocks) {
      pool->blocks.push_back(block);
      return;
    }
    ::operator delete(block);
  }
  template <typename U>
  bool operator==(const BlockAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const BlockAllocator<U>&) const {
    return false;
  }
};

// Assigns without the general replace's bookkeeping. A recycled node mostly gets the
// name it had (the last node given back is the first taken, and answers and
// requests repeat their fields), and a field the value it had: text of the
// same size is copied over in place. (It may be the very text: a field set
// to its own value.) Text of another size never aliases the string.
inline void assignBytes(std::string* text, const char* data, size_t size) {
  if (text->size() == size) {
    char* const to = &(*text)[0];
    // Names and values are mostly short: all bytes are loaded before any is
    // stored, as memmove would, without the call.
    if (size >= 8 && size <= 16) {
      uint64_t first, last;
      memcpy(&first, data, 8);
      memcpy(&last, data + size - 8, 8);
      memcpy(to, &first, 8);
      memcpy(to + size - 8, &last, 8);
    } else if (size >= 4 && size < 8) {
      uint32_t first, last;
      memcpy(&first, data, 4);
      memcpy(&last, data + size - 4, 4);
      memcpy(to, &first, 4);
      memcpy(to + size - 4, &last, 4);
    } else if (size != 0) {
      memmove(to, data, size);
    }
    return;
  }
  text->clear();
  text->append(data, size);
}

bool isSmall(const std::string& name, const std::string& value) {
  return name.capacity() <= kLargestKeptString && value.capacity() <= kLargestKeptString;
}

// Whether the pool may keep another header node, loose or in a pooled request.
bool hasRoomForNode(const Pool& pool) { return pool.nodes.size() + pool.kept_fields < kMaxNodes; }

// Keeps a node taken out of a map for a later field, when the pool has room
// (a null pool has none) and its strings are small.
void giveNode(Pool* pool, Headers::node_type node) {
  if (pool != nullptr && hasRoomForNode(*pool) && isSmall(node.key(), node.mapped())) {
    pool->nodes.push_back(std::move(node));
  }
}

// Moves the nodes of `headers` into the pool (as many as it keeps), leaving
// the map empty.
void recycleHeaders(Headers* headers, Pool* pool) {
  while (!headers->empty() && hasRoomForNode(*pool)) {
    giveNode(pool, headers->extract(headers->begin()));
  }
  headers->clear();
}

// Whether a released request keeps its header fields for a refill: few, small,
// and room for them within the pool's bound on nodes.
bool keepsFields(const Headers& headers, const Pool& pool) {
  if (headers.size() > memory_policy::kMaxRefilledHeaders ||
      pool.nodes.size() + pool.kept_fields + headers.size() > kMaxNodes) {
    return false;
  }
  for (const Headers::value_type& field : headers) {
    if (!isSmall(field.first, field.second)) return false;
  }
  return true;
}

// Brings a released request back to what its default constructor makes, but
// for its header fields, which releaseRequest decides on. Keep in step with
// HttpRequest's fields (a test compares the two).
void resetRequest(HttpRequest* request) {
  request->content_length = 0;
  clearKeepingSmall(&request->body);
  // A short url stays for newRequestToFill, whose reader sets it again: the
  // next request of a connection mostly has the same one, and keeping it
  // spares dropping and taking a share of its text. newRequest clears it.
  const std::shared_ptr<const std::string>& spec = request->url.shared_spec();
  if (spec != nullptr && spec->size() > kLongestKeptUrl) request->url = GURL();
  request->method = kHttpUnknown;
  request->query_components.clear();
  clearKeepingSmall(&request->uri);
  request->minor_version = 1;
  request->clearPeer();
}

// Likewise for responses, whose default has "Connection: keep-alive". The
// node of a Connection header, which nearly every answer has, stays for it.
void resetResponse(HttpResponse* response, Pool* pool) {
  static const std::string kConnectionName = "Connection";
  static const char kKeepAlive[] = "keep-alive";
  Headers& headers = response->headers;
  // Connection stays where it is, the rest go (names before it are rare:
  // "Cache-Control", "Access-Control-...").
  const bool keep_connection = !headers.empty() && headers.begin()->first == kConnectionName &&
                               isSmall(headers.begin()->first, headers.begin()->second);
  if (keep_connection) {
    for (auto it = std::next(headers.begin()); it != headers.end();) {
      if (hasRoomForNode(*pool)) {
        giveNode(pool, headers.extract(it++));
      } else {
        it = headers.erase(it);
      }
    }
  } else {
    recycleHeaders(&headers, pool);
  }
  response->content_length = 0;
  clearKeepingSmall(&response->body);
  if (response->content.capacity() > kLargestKeptString) {
    std::vector<char>().swap(response->content);
  } else {
    response->content.clear();
  }
  response->status_code = HttpResponse::kOk;
  clearKeepingSmall(&response->status_string);
  if (keep_connection) {
    assignBytes(&headers.begin()->second, kKeepAlive, sizeof(kKeepAlive) - 1);
  } else {
    setHeader(pool, &headers, headers.end(), kConnectionName.data(), kConnectionName.size(),
              kKeepAlive, sizeof(kKeepAlive) - 1);
  }
}

void releaseRequest(HttpRequest* request) {
  Pool* pool = tls_pool;
  if (pool == nullptr || pool->requests.size() >= kMaxMessages) {
    delete request;
    return;
  }
  resetRequest(request);
  if (keepsFields(request->headers, *pool)) {
    pool->kept_fields += request->headers.size();
  } else {
    recycleHeaders(&request->headers, pool);
  }
  pool->requests.push_back(request);
}

// The next pooled request, its old header fields still in it; null when none.
HttpRequest* takeRequest(Pool* pool) {
  if (pool == nullptr || pool->requests.empty()) return nullptr;
  HttpRequest* request = pool->requests.back();
  pool->requests.pop_back();
  pool->kept_fields -= request->headers.size();
  return request;
}

void releaseResponse(HttpResponse* response) {
  Pool* pool = tls_pool;
  if (pool == nullptr || pool->responses.size() >= kMaxMessages) {
    delete response;
    return;
  }
  resetResponse(response, pool);
  pool->responses.push_back(response);
}

}  // namespace

Pool* threadPool() {
  if (tls_pool == nullptr && !tls_ended) {
    thread_local PoolOwner owner;
    (void)owner;
    tls_pool = new Pool;
  }
  return tls_pool;
}

HttpRequest* newRequest(Pool* pool) {
  HttpRequest* request = takeRequest(pool);
  if (request == nullptr) return new HttpRequest;
  recycleHeaders(&request->headers, pool);
  request->url = GURL();
  return request;
}

HttpRequest* newRequestToFill(Pool* pool) {
  HttpRequest* request = takeRequest(pool);
  return request != nullptr ? request : new HttpRequest;
}

HttpResponse* newResponse(Pool* pool) {
  if (pool == nullptr || pool->responses.empty()) return new HttpResponse;
  HttpResponse* response = pool->responses.back();
  pool->responses.pop_back();
  return response;
}

HttpRequestPtr adopt(HttpRequest* request) {
  return HttpRequestPtr(request, &releaseRequest, BlockAllocator<HttpRequest>());
}

HttpResponsePtr adopt(HttpResponse* response) {
  return HttpResponsePtr(response, &releaseResponse, BlockAllocator<HttpResponse>());
}

Headers::iterator setHeader(Pool* pool, Headers* headers, Headers::const_iterator hint,
                            const char* name, size_t name_length, const char* value,
                            size_t value_length) {
  if (pool == nullptr || pool->nodes.empty()) {
    return headers->insert_or_assign(hint, std::string(name, name_length),
                                     std::string(value, value_length));
  }
  Headers::node_type node = std::move(pool->nodes.back());
  pool->nodes.pop_back();
  assignBytes(&node.key(), name, name_length);
  assignBytes(&node.mapped(), value, value_length);
  Headers::iterator stored = headers->insert(hint, std::move(node));
  // A node the map did not take is left in `node`, unmoved.
  if (node) {  // NOLINT(bugprone-use-after-move)
    // The name was there already: the last value wins, and the node goes back.
    assignBytes(&stored->second, value, value_length);
    pool->nodes.push_back(std::move(node));
  }
  return stored;
}

void HeaderRefill::start(Pool* pool, Headers* headers) {
  old_count_ = 0;
  for (auto it = headers->begin(); it != headers->end();) {
    if (old_count_ < memory_policy::kMaxRefilledHeaders) {
      old_[old_count_++] = it++;
    } else {
      giveNode(pool, headers->extract(it++));
    }
  }
}

Headers::iterator HeaderRefill::store(Pool* pool, Headers* headers, const char* name,
                                      size_t name_length, const char* value, size_t value_length) {
  for (size_t i = 0; i < old_count_; ++i) {
    const Headers::iterator field = old_[i];
    if (field->first.size() == name_length && memcmp(field->first.data(), name, name_length) == 0) {
      assignBytes(&field->second, value, value_length);
      old_[i] = old_[--old_count_];
      return field;
    }
  }
  // Names often arrive in ascending order: hinting at the end makes those
  // insertions a single comparison.
  return setHeader(pool, headers, headers->end(), name, name_length, value, value_length);
}

void HeaderRefill::finish(Pool* pool, Headers* headers) {
  for (size_t i = 0; i < old_count_; ++i) giveNode(pool, headers->extract(old_[i]));
  old_count_ = 0;
}

bool HeaderRefill::isOld(Headers::const_iterator field) const {
  for (size_t i = 0; i < old_count_; ++i) {
    if (old_[i] == field) return true;
  }
  return false;
}

}  // namespace message_pool
}  // namespace relay
}  // namespace vantu
