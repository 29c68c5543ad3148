#ifndef COMMON_MEMORY_POLICY_H_
#define COMMON_MEMORY_POLICY_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vantu {

// How much memory the server keeps for reuse once it is done with it, and when
// it hands freed memory back to the system: every bound in one place, by name.
//
// Keeping the memory of the last request for the next one is what makes the
// steady state of a connection cost no allocation; keeping too much is what
// would let one large request pin its memory for the life of a connection or
// of a thread. So small buffers and bounded numbers of objects are kept, and
// anything large is freed as soon as it is done with.
//
// Constants and stateless functions, usable from any thread; see
// releaseFreeMemory() for the one that has state.
namespace memory_policy {

// A string that is emptied for reuse (a line being assembled, a header name
// or value, a request's target or body) is freed instead once its capacity
// has passed this.
constexpr size_t kLargestKeptString = 4096;
// Each thread renders the heads of the answers it sends into one buffer it
// keeps; a buffer that grew past this (an answer with huge headers) is freed
// after use.
constexpr size_t kLargestKeptHeadBuffer = 65536;
// A connection gathers the answers to the requests of one read into one
// buffer of its thread, kept on the same terms as the head buffer; content
// larger than this goes to the socket by itself instead of being copied there
// first.
constexpr size_t kLargestGatheredContent = 16384;
// The list a connection collects the requests of one chunk in, emptied after
// each chunk: a burst of pipelined requests that grew it past this many
// entries frees it.
constexpr size_t kLargestKeptRequestList = 64;
// Likewise the list a parser collects the messages of one chunk in.
constexpr size_t kLargestKeptMessageList = 256;
// A thread's message pool keeps at most this many requests and as many
// responses, and this many header nodes.
constexpr size_t kMaxPooledMessages = 64;
constexpr size_t kMaxPooledHeaderNodes = 1024;
// A pooled request keeps the header fields of its last use, to be refilled by
// its next, when it had at most this many; the fields kept by all pooled
// requests count against kMaxPooledHeaderNodes.
constexpr size_t kMaxRefilledHeaders = 16;
// A thread's cache of RPC call records keeps at most this many.
constexpr size_t kMaxCachedCallRecords = 64;

// Empties `text`, keeping its capacity unless that has passed
// kLargestKeptString.
inline void clearKeepingSmall(std::string* text) {
  if (text->capacity() > kLargestKeptString) {
    std::string().swap(*text);
  } else {
    text->clear();
  }
}

// A body's buffer is given at most this much ahead of its bytes, on the word
// of its Content-Length alone: a peer that declares bodies it never sends
// holds this much per connection, not what it declared.
constexpr size_t kLargestBodyReservedAhead = size_t{64} * 1024;
// Once bytes arrive, the buffer grows to this many times what it then holds,
// or straight to the declared length once that is less than twice as much: a
// large body is allocated about three times on its way to its full size,
// re-copying a small part of itself, instead of doubling a dozen times; and
// what a peer makes the server hold stays within twice this multiple of what
// it sent.
constexpr size_t kBodyGrowthFactor = 16;

// Large bodies, and the messages decoded from them, are allocated and freed
// whole on every call. Left to its own thresholds, glibc puts such blocks at
// the top of a heap and gives them back to the system the moment they are all
// free (a trim above twice its adaptive mmap threshold), so the next call
// faults every page in again: about twice the cost of the call's own copies.
// Once a body of more than kLargeRequestBytes is declared, the process's
// thresholds are set, once, so that blocks up to kLargestHeapBlock come from
// the heap and up to kKeptHeapTop of free memory stays at its top between
// calls. What stays is bounded by that, and releaseFreeMemory() still gives
// it back after large requests.
constexpr size_t kLargestHeapBlock = size_t{32} << 20;
constexpr size_t kKeptHeapTop = size_t{64} << 20;
void keepLargeBuffers();

// Readies the empty `body` of a message whose Content-Length is `declared`
// (and sets the thresholds above when it is large).
void reserveBodyAhead(std::string* body, uint64_t declared);
// Makes room in `body` for `incoming` more bytes of a body declared `declared`
// bytes long, within the bounds above. Each growth allocates exactly what it
// asks for (a plain reserve may double instead).
void growBody(std::string* body, size_t needed, uint64_t declared);
inline void growBodyFor(std::string* body, size_t incoming, uint64_t declared) {
  if (body->size() + incoming > body->capacity()) growBody(body, body->size() + incoming, declared);
}

// A request is large when it was made of more than kLargeRequestBlocks small
// allocations (headers, split query pairs) or held more than
// kLargeRequestBytes (target and body). Once freed, such memory tends to stay
// with the allocator: a million headers leave as many small blocks, and after
// freeing one big block glibc raises its thresholds so that the next big ones
// come from, and stay in, the heap. Large requests are followed by
// releaseFreeMemory().
constexpr size_t kLargeRequestBlocks = 16384;
constexpr size_t kLargeRequestBytes = size_t{1} << 20;
inline bool isLargeRequest(size_t blocks, size_t bytes) {
  return blocks > kLargeRequestBlocks || bytes > kLargeRequestBytes;
}

// When trimming is due: at most once per kTrimInterval, since a trim walks the
// whole heap and a stream of large requests (big RPC payloads, say) would
// otherwise pay for it every time. Not thread-safe: its owner serialises.
class TrimSchedule {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::duration kTrimInterval = std::chrono::seconds(1);

  // True, and `now` remembered as the last trim, when no trim happened yet
  // or the last one is at least kTrimInterval before `now`.
  bool due(Clock::time_point now);

 private:
  bool trimmed_ = false;
  Clock::time_point last_;
};

// Gives the memory the allocator holds free back to the system (glibc's
// malloc_trim), at most once a second in the process. Any thread; calls that
// come too soon after the last trim do nothing.
void releaseFreeMemory();

}  // namespace memory_policy
}  // namespace vantu

#endif  // COMMON_MEMORY_POLICY_H_
