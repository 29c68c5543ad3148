#include "relay/strict_framing.h"

#include <arpa/inet.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstring>
#include <limits>

#include "common/memory_policy.h"
#include "relay/head_assembler.h"
#include "relay/http_line_match.h"
#include "relay/message_pool.h"

namespace vantu {
namespace relay {
namespace {

// Byte classes, one table lookup per byte.
enum ByteClass : uint8_t {
  kTokenByte = 1,   // tchar
  kFieldByte = 2,   // field-vchar, SP or HTAB: what a field value may hold
  kTargetByte = 4,  // visible ASCII: what a request-target may hold
  kHostByte = 8,    // unreserved and sub-delims: what a reg-name may hold besides "%"
  kHexByte = 16,
  kQdtextByte = 32,  // what a quoted-string holds unescaped
};

constexpr bool isAlpha(int c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isDigit(int c) { return c >= '0' && c <= '9'; }
constexpr bool isIn(int c, const char* set) {
  for (; *set != '\0'; ++set) {
    if (*set == c) return true;
  }
  return false;
}

struct ByteTable {
  uint8_t classes[256];
  constexpr ByteTable() : classes() {
    for (int c = 0; c < 256; ++c) {
      uint8_t bits = 0;
      if (isAlpha(c) || isDigit(c) || isIn(c, "!#$%&'*+-.^_`|~")) bits |= kTokenByte;
      if (c == '\t' || (c >= 0x20 && c != 0x7f)) bits |= kFieldByte;
      if (c > 0x20 && c < 0x7f) bits |= kTargetByte;
      if (isAlpha(c) || isDigit(c) || isIn(c, "-._~!$&'()*+,;=")) bits |= kHostByte;
      if (isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) bits |= kHexByte;
      if (c == '\t' || c == ' ' || c == 0x21 || (c >= 0x23 && c <= 0x5b) ||
          (c >= 0x5d && c <= 0x7e) || c >= 0x80) {
        bits |= kQdtextByte;
      }
      classes[c] = bits;
    }
  }
};

constexpr ByteTable kBytes;

inline bool is(char c, ByteClass what) { return kBytes.classes[static_cast<uint8_t>(c)] & what; }

// True when every byte of [data, data + length) is of the class.
bool all(const char* data, size_t length, ByteClass what) {
  for (size_t i = 0; i < length; ++i) {
    if (!is(data[i], what)) return false;
  }
  return true;
}

// Eight bytes at a time for the long runs (values, targets): a word whose
// bytes are all plain visible ASCII passes with a few operations.
constexpr uint64_t kOnes = 0x0101010101010101ULL;
constexpr uint64_t kHighBits = 0x8080808080808080ULL;

inline uint64_t load64(const char* p) {
  uint64_t word;
  memcpy(&word, p, sizeof(word));
  return word;
}

// Non-zero when some byte of the word is below n (n at most 128).
inline uint64_t anyBelow(uint64_t word, uint8_t n) {
  return (word - kOnes * n) & ~word & kHighBits;
}

// Non-zero when some byte of the word is c.
inline uint64_t anyEqual(uint64_t word, uint8_t c) { return anyBelow(word ^ (kOnes * c), 1); }

// A field value: visible ASCII, blanks and bytes above 127; no other control.
bool validFieldValue(const char* data, size_t length) {
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    const uint64_t word = load64(data + i);
    // Tabs are controls too: a word with one is looked at byte by byte.
    if ((anyBelow(word, 0x20) | anyEqual(word, 0x7f)) != 0 && !all(data + i, 8, kFieldByte)) {
      return false;
    }
  }
  return all(data + i, length - i, kFieldByte);
}

// Non-zero when some byte of the word is not visible ASCII.
inline uint64_t anyInvisible(uint64_t word) {
  return anyBelow(word, 0x21) | anyEqual(word, 0x7f) | (word & kHighBits);
}

// A request-target: visible ASCII only. At least eight bytes after the target
// may be read (the rest of its request line): a tail shorter than a word is
// checked as one, its bytes beyond the target ignored. They can only mark
// bytes above them, never the target's own, as anyBelow's borrows run upwards.
bool validTargetFollowed(const char* data, size_t length) {
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    if (anyInvisible(load64(data + i)) != 0) return false;
  }
  const size_t tail = length - i;
  if (tail == 0) return true;
  const uint64_t mine = ~0ULL >> (64 - 8 * tail);
  return (anyInvisible(load64(data + i)) & mine) == 0;
}

// The first byte c in [data, data + length), or null: memchr's answer,
// sixteen bytes at a time inline where SSE2 is there. The lines of a head are
// short, and a call to memchr costs more than scanning them.
inline const char* findByte(const char* data, size_t length, char c) {
  const char* p = data;
  const char* const end = data + length;
#if defined(__SSE2__)
  const __m128i wanted = _mm_set1_epi8(c);
  for (; end - p >= 16; p += 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const int found = _mm_movemask_epi8(_mm_cmpeq_epi8(block, wanted));
    if (found != 0) return p + __builtin_ctz(found);
  }
#endif
  for (; p < end; ++p) {
    if (*p == c) return p;
  }
  return nullptr;
}

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

inline int hexValue(char c) {
  if (c <= '9') return c - '0';
  return (c | 0x20) - 'a' + 10;
}

// Compares with a lower-case literal, ignoring the case of `data`.
bool equalsLower(const char* data, size_t length, const char* lower) {
  const size_t lower_length = strlen(lower);
  if (length != lower_length) return false;
  for (size_t i = 0; i < length; ++i) {
    char c = data[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
    if (c != lower[i]) return false;
  }
  return true;
}

// Calls visit(element, length) for each element of a comma-separated list,
// blanks around it removed and empty elements skipped; stops and returns false
// as soon as visit does.
template <typename Visit>
bool forEachListElement(const char* data, size_t length, Visit visit) {
  const char* const end = data + length;
  while (data < end) {
    const char* comma = static_cast<const char*>(memchr(data, ',', end - data));
    const char* element_end = comma != nullptr ? comma : end;
    const char* first = data;
    const char* last = element_end;
    while (first < last && isBlank(*first)) ++first;
    while (last > first && isBlank(last[-1])) --last;
    if (first < last && !visit(first, static_cast<size_t>(last - first))) return false;
    data = comma != nullptr ? comma + 1 : end;
  }
  return true;
}

// Skips *p over blanks (BWS) and returns it.
inline const char* skipBlanks(const char* p, const char* end) {
  while (p < end && isBlank(*p)) ++p;
  return p;
}

// token / quoted-string at *p; moves *p past it.
bool skipTokenOrQuoted(const char** p, const char* end) {
  const char* q = *p;
  if (q < end && *q == '"') {
    for (++q; q < end; ++q) {
      if (*q == '"') {
        *p = q + 1;
        return true;
      }
      if (*q == '\\') {
        ++q;
        if (q == end || !(is(*q, kFieldByte))) return false;
      } else if (!is(*q, kQdtextByte)) {
        return false;
      }
    }
    return false;
  }
  const char* start = q;
  while (q < end && is(*q, kTokenByte)) ++q;
  *p = q;
  return q > start;
}

// *( BWS ";" BWS name [ BWS "=" BWS value ] ): chunk extensions, and the
// parameters of a transfer coding (which use OWS, the same blanks). Nothing may
// follow.
bool validParameters(const char* p, const char* end) {
  for (;;) {
    if (p == end) return true;
    p = skipBlanks(p, end);
    if (p == end || *p != ';') return false;  // blanks only before a ";"
    p = skipBlanks(p + 1, end);
    const char* name = p;
    while (p < end && is(*p, kTokenByte)) ++p;
    if (p == name) return false;
    const char* after_name = skipBlanks(p, end);
    if (after_name < end && *after_name == '=') {
      p = skipBlanks(after_name + 1, end);
      if (!skipTokenOrQuoted(&p, end)) return false;
    }
  }
}

// uri-host [ ":" port ], or empty. The host is an IP literal in brackets or a
// reg-name (which an IPv4 address is too); the port has at most the value
// 65535. No userinfo, path, query or fragment.
bool validHost(const char* data, size_t length) {
  if (length == 0) return true;
  const char* p = data;
  const char* const end = data + length;
  if (*p == '[') {
    const char* close = static_cast<const char*>(memchr(p, ']', length));
    if (close == nullptr) return false;
    const char* inside = p + 1;
    const size_t inside_length = close - inside;
    if (inside_length > 0 && (*inside == 'v' || *inside == 'V')) {
      // IPvFuture: "v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )
      const char* q = inside + 1;
      while (q < close && is(*q, kHexByte)) ++q;
      if (q == inside + 1 || q == close || *q != '.' || q + 1 == close) return false;
      for (++q; q < close; ++q) {
        if (!is(*q, kHostByte) && *q != ':') return false;
      }
    } else {
      char text[INET6_ADDRSTRLEN];
      if (inside_length == 0 || inside_length >= sizeof(text)) return false;
      memcpy(text, inside, inside_length);
      text[inside_length] = '\0';
      in6_addr address;
      if (inet_pton(AF_INET6, text, &address) != 1) return false;
    }
    p = close + 1;
  } else {
    const char* start = p;
    for (;;) {
      while (p < end && is(*p, kHostByte)) ++p;
      if (p == end || *p != '%') break;
      if (end - p < 3 || !is(p[1], kHexByte) || !is(p[2], kHexByte)) return false;
      p += 3;
    }
    // Stopped at the end, at the port's ":" or at a byte no host holds,
    // which the check after the host refuses.
    if (p == start) return false;  // a port without a host
  }
  if (p == end) return true;
  if (*p != ':') return false;
  uint32_t port = 0;
  for (++p; p < end; ++p) {
    if (!isDigit(*p)) return false;
    port = port * 10 + (*p - '0');
    if (port > 65535) return false;
  }
  return true;
}

// The longest Host value a reader remembers as valid.
constexpr size_t kLongestRememberedHost = 64;

// The chunked body may not be larger than content_length can say.
constexpr uint64_t kLargestBody = std::numeric_limits<uint32_t>::max();

}  // namespace

struct StrictRequestParser::Progress {
  Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // As a new request's, keeping small buffers (a spent parser's, given back).
  void clear() {
    head.clearLine();
    head.startHead();
    body_remaining = 0;
    request.reset();
    memory_policy::clearKeepingSmall(&transfer_encoding);
    host = nullptr;
    host_line = false;
    declared_length = 0;
    content_length_count = 0;
    host_count = 0;
    has_transfer_encoding = false;
    chunked = false;
    connection_close = false;
    connection_keep_alive = false;
    expect_continue = false;
  }

  // The unfinished line of the previous chunks, CR included.
  std::string line;
  // Counts each block (head, trailers, chunk-size line) against
  // max_header_bytes, a line's bytes with its CR LF.
  HeadAssembler head{&line};
  // Content-Length: body bytes still missing; chunked: data bytes left in the
  // current chunk.
  uint64_t body_remaining = 0;
  // The request in progress; null until its request line is read.
  HttpRequestPtr request;

  // What the head of the request in progress said about its framing.
  std::string transfer_encoding;  // every Transfer-Encoding value, joined by ","
  // The Host value, where it is stored in the request's headers (whose nodes
  // stay put until the head ends); null without one.
  const std::string* host = nullptr;
  // The field line at hand is a Host line.
  bool host_line = false;
  // The last Host value found valid here. A connection's requests, and a
  // server's connections, mostly name the same host: comparing the bytes
  // costs a fraction of checking them. Kept while the Progress is pooled.
  std::string valid_host;
  uint64_t declared_length = 0;  // the Content-Length value, saturated
  int content_length_count = 0;
  int host_count = 0;
  bool has_transfer_encoding = false;
  bool chunked = false;
  bool connection_close = false;
  bool connection_keep_alive = false;
  bool expect_continue = false;
};

// The Progress objects given back on one thread, for the next request read
// there. Few are needed at once: one per connection whose request is being
// read in this turn of the loop, or that stopped in the middle of one. Each
// thread has its own (progressPool()).
class StrictProgressPool {
 public:
  using Progress = StrictRequestParser::Progress;
  StrictProgressPool() = default;
  StrictProgressPool(const StrictProgressPool&) = delete;
  StrictProgressPool& operator=(const StrictProgressPool&) = delete;
  ~StrictProgressPool() {
    for (size_t i = 0; i < count_; ++i) delete items_[i];
  }
  Progress* take() { return count_ > 0 ? items_[--count_] : new Progress; }
  void giveBack(Progress* progress) {
    if (count_ == kCapacity) {
      delete progress;
    } else {
      items_[count_++] = progress;
    }
  }

 private:
  static constexpr size_t kCapacity = 32;
  Progress* items_[kCapacity];
  size_t count_ = 0;
};

namespace {

StrictProgressPool& progressPool() {
  static thread_local StrictProgressPool pool;
  return pool;
}

}  // namespace

StrictRequestParser::StrictRequestParser(const RequestLimits& limits, bool https)
    : limits_(limits), https_(https) {}

// Not given back to a pool: the thread that destroys a parser may be past
// its own pool's end.
StrictRequestParser::~StrictRequestParser() { delete progress_; }

void StrictRequestParser::borrowProgress() {
  progress_ = progressPool().take();
  progress_->head.setBudget(limits_.max_header_bytes);
}

void StrictRequestParser::returnProgressIfIdle() {
  switch (state_) {
    case State::kRequestLine:
      // Between requests, unless the next one has begun.
      if (!progress_->line.empty()) return;
      break;
    case State::kClosed:
    case State::kFailed:
      progress_->clear();
      break;
    default:
      return;
  }
  progressPool().giveBack(progress_);
  progress_ = nullptr;
}

bool StrictRequestParser::parse(const std::string& data, std::vector<HttpRequestPtr>* requests) {
  return parseBytes(data.data(), data.size(), requests);
}

bool StrictRequestParser::parseBytes(const char* data, size_t size,
                                     std::vector<HttpRequestPtr>* requests) {
  if (state_ == State::kFailed) return false;
  if (state_ == State::kClosed || size == 0) return true;
  if (progress_ == nullptr) borrowProgress();
  bool parsed;
  {
    HeadAssembler::Scope scope(&progress_->head);
    parsed = readChunk(data, data + size, requests);
  }
  if (parsed && progress_->expect_continue && bodyInProgress()) {
    progress_->expect_continue = false;
    continue_pending_ = true;
  }
  returnProgressIfIdle();
  return parsed;
}

bool StrictRequestParser::readChunk(const char* p, const char* const end,
                                    std::vector<HttpRequestPtr>* requests) {
  while (p < end) {
    switch (state_) {
      case State::kClosed:
        return true;
      case State::kFailed:
        return false;
      case State::kBody:
      case State::kChunkData: {
        const size_t take = static_cast<size_t>(
            std::min<uint64_t>(progress_->body_remaining, static_cast<size_t>(end - p)));
        appendBody(p, take);
        p += take;
        progress_->body_remaining -= take;
        if (progress_->body_remaining == 0) {
          if (state_ == State::kBody) {
            deliver(requests);
          } else {
            state_ = State::kChunkDataCr;
          }
        }
        break;
      }
      case State::kChunkDataCr:
        if (*p++ != '\r') return fail(HttpResponse::kBadRequest);
        state_ = State::kChunkDataLf;
        break;
      case State::kChunkDataLf:
        if (*p++ != '\n') return fail(HttpResponse::kBadRequest);
        state_ = State::kChunkSize;
        progress_->head.startHead();
        break;
      case State::kRequestLine:
      case State::kHeaders:
      case State::kChunkSize:
      case State::kTrailers:
        if (!takeLine(&p, end, requests)) return false;
        break;
    }
  }
  return true;
}

bool StrictRequestParser::takeLine(const char** data, const char* end,
                                   std::vector<HttpRequestPtr>* requests) {
  const char* p = *data;
  const size_t available = end - p;
  // How many more bytes this line may take, its LF included.
  const size_t room = progress_->head.room();
  const char* lf = findByte(p, std::min(available, room), '\n');
  if (lf == nullptr) {
    if (available > room) {
      return failByLimit(state_ == State::kRequestLine ? HttpResponse::kRequestUriTooLarge
                                                       : HttpResponse::kBadRequest);
    }
    progress_->head.keep(p, available);
    *data = end;
    return true;
  }
  *data = lf + 1;
  size_t length = lf - p;
  const char* line = progress_->head.complete(p, &length);
  progress_->head.countLine(length + 1);
  // Only CR LF ends a line; a CR anywhere else is refused by the checks of each
  // kind of line, none of which lets a control byte through.
  bool accepted = length > 0 && line[length - 1] == '\r' && processLine(line, length - 1, requests);
  progress_->head.clearLine();
  return accepted || fail(HttpResponse::kBadRequest);
}

bool StrictRequestParser::processLine(const char* line, size_t length,
                                      std::vector<HttpRequestPtr>* requests) {
  switch (state_) {
    case State::kRequestLine:
      if (length == 0) {  // an empty line before the request line
        progress_->head.startHead();
        return true;
      }
      return processRequestLine(line, length);
    case State::kHeaders:
      if (length == 0) return finishHead(requests);
      return processFieldLine(line, length, true);
    case State::kChunkSize:
      return processChunkSize(line, length);
    case State::kTrailers:
      if (length == 0) {
        deliver(requests);
        return true;
      }
      return processFieldLine(line, length, false);
    default:
      return false;
  }
}

bool StrictRequestParser::processRequestLine(const char* line, size_t length) {
  const char* const end = line + length;
  const char* method_end = findByte(line, length, ' ');
  if (method_end == nullptr || method_end == line) return fail(HttpResponse::kBadRequest);
  // A method the server knows is a token: only other names need the check.
  const HttpMethod method = httpMethodFromName(line, method_end - line);
  if (method == kHttpUnknown && !all(line, method_end - line, kTokenByte)) {
    return fail(HttpResponse::kBadRequest);
  }
  // The version is the line's last eight bytes, after a blank. A target holds
  // no blank, so in a line of the right form that blank is the first after
  // the target; a line of another form fails one check or the other, with
  // the same answer as when the target ends at its first blank.
  const char* target = method_end + 1;
  if (end - target < 10) return fail(HttpResponse::kBadRequest);
  const char* target_end = end - 9;
  if (*target_end != ' ' || !validTargetFollowed(target, target_end - target)) {
    return fail(HttpResponse::kBadRequest);
  }
  const char* version = target_end + 1;
  if (memcmp(version, "HTTP/", 5) != 0 || !isDigit(version[5]) || version[6] != '.' ||
      !isDigit(version[7])) {
    return fail(HttpResponse::kBadRequest);
  }
  if (version[5] != '1' || (version[7] != '0' && version[7] != '1')) {
    return fail(HttpResponse::kHttpVersionNotSupported);
  }
  if (method == kHttpUnknown) return fail(HttpResponse::kNotImplemented);

  // origin-form, absolute-form (a scheme and a colon), or "*" for OPTIONS.
  const size_t target_length = target_end - target;
  if (*target == '*') {
    if (target_length != 1 || method != kHttpOptions) return fail(HttpResponse::kBadRequest);
  } else if (*target != '/') {
    const char* q = target;
    if (!isAlpha(*q)) return fail(HttpResponse::kBadRequest);
    while (q < target_end && (isAlpha(*q) || isDigit(*q) || *q == '+' || *q == '-' || *q == '.')) {
      ++q;
    }
    if (q == target_end || *q != ':') return fail(HttpResponse::kBadRequest);
  }

  progress_->request = message_pool::adopt(message_pool::newRequestToFill(progress_->head.pool()));
  progress_->head.startFields(&progress_->request->headers);
  progress_->request->method = method;
  progress_->head.takeTarget(line, target - line, target_length, &progress_->request->uri);
  progress_->request->minor_version = version[7] - '0';
  state_ = State::kHeaders;
  return true;
}

bool StrictRequestParser::processFieldLine(const char* line, size_t length, bool store) {
  // A line starting with a blank is obs-fold, or whitespace before the first
  // field; both hide a line from readers that do not unfold.
  if (isBlank(*line)) return false;
  const char* colon = findByte(line, length, ':');
  if (colon == nullptr || colon == line) return false;
  const size_t name_length = colon - line;
  if (!all(line, name_length, kTokenByte)) return false;
  const char* end = line + length;
  const char* value = colon + 1;
  if (!validFieldValue(value, end - value)) return false;
  value = skipBlanks(value, end);
  while (end > value && isBlank(end[-1])) --end;
  const size_t value_length = end - value;
  if (!store) return true;
  if (!noteFramingField(line, name_length, value, value_length)) return false;
  const message_pool::Headers::iterator stored = progress_->head.storeHeader(
      &progress_->request->headers, line, name_length, value, value_length);
  if (progress_->host_line) {
    // Read where it is stored rather than copied: a second Host is refused.
    progress_->host = &stored->second;
    progress_->host_line = false;
  }
  return true;
}

bool StrictRequestParser::noteFramingField(const char* name, size_t name_length, const char* value,
                                           size_t value_length) {
  switch (name_length) {
    case 4:
      if (!equalsLower(name, name_length, "host")) return true;
      if (++progress_->host_count > 1 || !validHostRemembered(value, value_length)) return false;
      progress_->host_line = true;
      return true;
    case 6:
      if (!equalsLower(name, name_length, "expect")) return true;
      return forEachListElement(value, value_length, [this](const char* expectation, size_t n) {
        if (equalsLower(expectation, n, "100-continue")) progress_->expect_continue = true;
        return true;
      });
    case 10:
      if (!equalsLower(name, name_length, "connection")) return true;
      return forEachListElement(value, value_length, [this](const char* option, size_t length) {
        if (equalsLower(option, length, "close")) progress_->connection_close = true;
        if (equalsLower(option, length, "keep-alive")) progress_->connection_keep_alive = true;
        return true;
      });
    case 14: {
      if (!equalsLower(name, name_length, "content-length")) return true;
      // One Content-Length of digits only: a list ("5, 5"), a second line or
      // anything else is read differently by different parsers.
      if (++progress_->content_length_count > 1 || value_length == 0) return false;
      uint64_t length = 0;
      for (size_t i = 0; i < value_length; ++i) {
        if (!isDigit(value[i])) return false;
        // Saturates: any value past the largest body is answered 413 alike.
        if (length <= kLargestBody) length = length * 10 + (value[i] - '0');
      }
      progress_->declared_length = length;
      return true;
    }
    case 17:
      if (!equalsLower(name, name_length, "transfer-encoding")) return true;
      progress_->has_transfer_encoding = true;
      if (!progress_->transfer_encoding.empty()) progress_->transfer_encoding.push_back(',');
      progress_->transfer_encoding.append(value, value_length);
      return true;
    default:
      return true;
  }
}

bool StrictRequestParser::validHostRemembered(const char* value, size_t length) {
  std::string& known = progress_->valid_host;
  if (known.size() == length && memcmp(known.data(), value, length) == 0) return true;
  if (!validHost(value, length)) return false;
  // Only short names, so that what a pooled Progress keeps stays small.
  if (length <= kLongestRememberedHost) known.assign(value, length);
  return true;
}

bool StrictRequestParser::finishHead(std::vector<HttpRequestPtr>* requests) {
  progress_->head.finishFields(&progress_->request->headers);
  const bool http11 = progress_->request->minor_version == 1;
  if (http11 && progress_->host_count != 1) return fail(HttpResponse::kBadRequest);
  if (!http11) progress_->expect_continue = false;  // a 1.0 client does not wait for 100
  if (progress_->has_transfer_encoding) {
    if (progress_->content_length_count > 0 || !http11) return fail(HttpResponse::kBadRequest);
    bool chunked_seen = false;
    bool chunked_last = false;
    bool other_seen = false;
    bool well_formed =
        forEachListElement(progress_->transfer_encoding.data(), progress_->transfer_encoding.size(),
                           [&](const char* coding, size_t n) {
                             const char* end = coding + n;
                             const char* name_end = coding;
                             while (name_end < end && is(*name_end, kTokenByte)) ++name_end;
                             if (name_end == coding || !validParameters(name_end, end))
                               return false;
                             chunked_last = equalsLower(coding, name_end - coding, "chunked");
                             if (chunked_last) {
                               // chunked takes no parameters, and twice would be read as once by
                               // some and as twice by others.
                               if (chunked_seen || name_end != end) return false;
                               chunked_seen = true;
                             } else {
                               other_seen = true;
                             }
                             return true;
                           });
    // Unless chunked comes last, no reader can tell where the body ends.
    if (!well_formed || (chunked_seen && !chunked_last)) return fail(HttpResponse::kBadRequest);
    if (other_seen) return fail(HttpResponse::kNotImplemented);
    if (!chunked_seen) return fail(HttpResponse::kBadRequest);  // no coding at all
    progress_->chunked = true;
  }
  if (!resolveAbsoluteTarget(progress_->request.get())) {
    static const std::string* const kNoHost = new std::string;
    resolveUrlFromHost(progress_->request.get(),
                       progress_->host != nullptr ? *progress_->host : *kNoHost, https_);
  }
  if (progress_->chunked) {
    state_ = State::kChunkSize;
    progress_->head.startHead();
    return true;
  }
  if (progress_->content_length_count > 0) {
    if (progress_->declared_length > bodyCap())
      return failByLimit(HttpResponse::kRequestEntityTooLarge);
    progress_->request->content_length = static_cast<uint32_t>(progress_->declared_length);
    if (progress_->declared_length > 0) {
      state_ = State::kBody;
      progress_->body_remaining = progress_->declared_length;
      memory_policy::reserveBodyAhead(&progress_->request->body, progress_->declared_length);
      return true;
    }
  }
  deliver(requests);
  return true;
}

bool StrictRequestParser::processChunkSize(const char* line, size_t length) {
  const char* const end = line + length;
  const char* p = line;
  uint64_t size = 0;
  while (p < end && is(*p, kHexByte)) {
    if (size > (std::numeric_limits<uint64_t>::max() >> 4)) return false;
    size = size << 4 | hexValue(*p);
    ++p;
  }
  if (p == line || !validParameters(p, end)) return false;
  if (size > bodyCap() - progress_->request->body.size())
    return failByLimit(HttpResponse::kRequestEntityTooLarge);
  progress_->head.startHead();
  if (size == 0) {
    state_ = State::kTrailers;
  } else {
    state_ = State::kChunkData;
    progress_->body_remaining = size;
  }
  return true;
}

void StrictRequestParser::appendBody(const char* data, size_t length) {
  std::string& body = progress_->request->body;
  // A chunked body has no declared length: it grows as a string does.
  if (!progress_->chunked) memory_policy::growBodyFor(&body, length, progress_->declared_length);
  body.append(data, length);
}

void StrictRequestParser::deliver(std::vector<HttpRequestPtr>* requests) {
  if (progress_->chunked)
    progress_->request->content_length = static_cast<uint32_t>(progress_->request->body.size());
  const bool closing = progress_->connection_close || (progress_->request->minor_version == 0 &&
                                                       !progress_->connection_keep_alive);
  requests->push_back(std::move(progress_->request));
  progress_->request.reset();
  progress_->expect_continue = false;
  if (closing) {
    // Spent: the rest is cleared as the parser gives its Progress back.
    state_ = State::kClosed;
    return;
  }
  state_ = State::kRequestLine;
  progress_->head.startHead();
  progress_->body_remaining = 0;
  memory_policy::clearKeepingSmall(&progress_->transfer_encoding);
  progress_->host = nullptr;
  progress_->declared_length = 0;
  progress_->content_length_count = 0;
  progress_->host_count = 0;
  progress_->has_transfer_encoding = false;
  progress_->chunked = false;
  progress_->connection_close = false;
  progress_->connection_keep_alive = false;
}

bool StrictRequestParser::failByLimit(HttpResponse::StatusCode status) {
  if (state_ != State::kFailed) refused_by_limit_ = true;
  return fail(status);
}

bool StrictRequestParser::fail(HttpResponse::StatusCode status) {
  // The first fault decides the answer; the rest of the stream is never read.
  if (state_ != State::kFailed) {
    state_ = State::kFailed;
    error_status_ = status;
  }
  // What the request in progress held goes as the parser gives its Progress
  // back, at the end of this chunk.
  continue_pending_ = false;
  return false;
}

uint64_t StrictRequestParser::bodyCap() const {
  if (limits_.max_body_bytes == 0) return kLargestBody;
  return std::min<uint64_t>(limits_.max_body_bytes, kLargestBody);
}

HttpResponse::StatusCode StrictRequestParser::errorStatus() const { return error_status_; }

RequestReader::AnswerRules StrictRequestParser::answerRules() const {
  AnswerRules rules;
  rules.date = true;
  rules.head_without_content = true;
  return rules;
}

bool StrictRequestParser::closing() const { return state_ == State::kClosed; }

bool StrictRequestParser::headInProgress() const {
  if (state_ == State::kHeaders) return true;
  // A lone CR may still be the start of an empty line, which is skipped.
  return state_ == State::kRequestLine && progress_ != nullptr && !progress_->line.empty() &&
         progress_->line != "\r";
}

bool StrictRequestParser::bodyInProgress() const {
  switch (state_) {
    case State::kBody:
    case State::kChunkSize:
    case State::kChunkData:
    case State::kChunkDataCr:
    case State::kChunkDataLf:
    case State::kTrailers:
      return true;
    default:
      return false;
  }
}

bool StrictRequestParser::takeContinueRequest() {
  const bool pending = continue_pending_;
  continue_pending_ = false;
  return pending;
}

}  // namespace relay
}  // namespace vantu
