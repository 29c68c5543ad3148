#include "relay/message_pool.h"

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

// Assigns without the general replace's overlap checks: reused strings are
// short and never alias what is copied in.
inline void assignBytes(std::string* text, const char* data, size_t size) {
  text->clear();
  text->append(data, size);
}

// Moves the nodes of `headers` into the pool (as many as it keeps), leaving
// the map empty.
void recycleHeaders(Headers* headers, Pool* pool) {
  while (!headers->empty() && pool->nodes.size() < kMaxNodes) {
    Headers::node_type node = headers->extract(headers->begin());
    if (node.key().capacity() <= kLargestKeptString &&
        node.mapped().capacity() <= kLargestKeptString) {
      pool->nodes.push_back(std::move(node));
    }
  }
  headers->clear();
}

// Brings a released request back to what its default constructor makes.
// Keep in step with HttpRequest's fields (a test compares the two).
void resetRequest(HttpRequest* request, Pool* pool) {
  recycleHeaders(&request->headers, pool);
  request->content_length = 0;
  clearKeepingSmall(&request->body);
  request->url = GURL();
  request->method = kHttpUnknown;
  request->query_components.clear();
  clearKeepingSmall(&request->uri);
  request->minor_version = 1;
  request->peer_info.reset();
}

// Likewise for responses, whose default has "Connection: keep-alive".
void resetResponse(HttpResponse* response, Pool* pool) {
  recycleHeaders(&response->headers, pool);
  response->content_length = 0;
  clearKeepingSmall(&response->body);
  if (response->content.capacity() > kLargestKeptString) {
    std::vector<char>().swap(response->content);
  } else {
    response->content.clear();
  }
  response->status_code = HttpResponse::kOk;
  clearKeepingSmall(&response->status_string);
  static const char kConnection[] = "Connection";
  static const char kKeepAlive[] = "keep-alive";
  setHeader(pool, &response->headers, response->headers.end(), kConnection, sizeof(kConnection) - 1,
            kKeepAlive, sizeof(kKeepAlive) - 1);
}

void releaseRequest(HttpRequest* request) {
  Pool* pool = tls_pool;
  if (pool == nullptr || pool->requests.size() >= kMaxMessages) {
    delete request;
    return;
  }
  resetRequest(request, pool);
  pool->requests.push_back(request);
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
  if (pool == nullptr || pool->requests.empty()) return new HttpRequest;
  HttpRequest* request = pool->requests.back();
  pool->requests.pop_back();
  return request;
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

}  // namespace message_pool
}  // namespace relay
}  // namespace vantu
