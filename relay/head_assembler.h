#ifndef RELAY_HEAD_ASSEMBLER_H_
#define RELAY_HEAD_ASSEMBLER_H_

#include <cstddef>
#include <limits>
#include <string>

#include "common/memory_policy.h"
#include "relay/message_pool.h"

namespace vantu {
namespace relay {

// What the two request readers (HttpMessageParser, under the server's default
// reader, and StrictRequestParser) do alike while they read a head:
// - keep the bytes of a line that arrives in pieces, in the reader's own line
//   buffer, and count the lines of a head against the head's byte budget, so
//   that an endless line is refused once it passes the budget rather than
//   when it ends;
// - look up this thread's message pool once per chunk (Scope), for the
//   messages and header nodes made meanwhile;
// - store header fields in pooled nodes, over the fields a pooled request
//   kept from its last use;
// - make a long request-target the request's uri by taking the line buffer it
//   lies in, instead of copying it.
// Where a line ends, and how its end counts against the budget, stay each
// reader's own rules.
//
// Owned by its reader, as a member; used on the reader's thread only.
class HeadAssembler {
 public:
  // `line`: the reader's buffer for the unfinished line, which outlives this
  // object.
  explicit HeadAssembler(std::string* line) : line_(line) {}
  HeadAssembler(const HeadAssembler&) = delete;
  HeadAssembler& operator=(const HeadAssembler&) = delete;

  // The budget: the bytes the lines of one head may take; 0, the default,
  // means no limit.
  void setBudget(size_t bytes) { budget_ = bytes; }
  // A new head, or another block of lines with a budget of its own, begins.
  void startHead() { used_ = 0; }
  // A line of the head is complete: `bytes` as its reader counts them.
  void countLine(size_t bytes) { used_ += bytes; }
  // Whether a line of `bytes`, beyond the lines counted so far, stays within
  // the budget.
  bool fits(size_t bytes) const {
    return budget_ == 0 || (used_ <= budget_ && bytes <= budget_ - used_);
  }
  // How many more bytes the unfinished line may take within the budget.
  size_t room() const {
    if (budget_ == 0) return std::numeric_limits<size_t>::max();
    const size_t taken = used_ + line_->size();
    return taken < budget_ ? budget_ - taken : 0;
  }

  // Keeps [data, data + size) as more of the unfinished line.
  void keep(const char* data, size_t size) { line_->append(data, size); }
  // Completes the unfinished line with [data, data + *size) and returns where
  // the whole line lies, its size in *size: in place when nothing of it was
  // kept, else in the line buffer.
  const char* complete(const char* data, size_t* size) {
    if (line_->empty()) return data;
    line_->append(data, *size);
    *size = line_->size();
    return line_->data();
  }
  // Done with the line: the buffer is emptied, and freed if it grew large.
  void clearLine() { memory_policy::clearKeepingSmall(line_); }

  // This thread's message pool while a chunk is read: one look-up per chunk,
  // not one per message and header.
  class Scope {
   public:
    explicit Scope(HeadAssembler* head) : head_(head) { head_->pool_ = message_pool::threadPool(); }
    ~Scope() { head_->pool_ = nullptr; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    HeadAssembler* const head_;
  };
  message_pool::Pool* pool() const { return pool_ != nullptr ? pool_ : message_pool::threadPool(); }

  // The header fields of a request from message_pool::newRequestToFill:
  // startFields when the request is made, storeHeader for each field, and
  // finishFields when its head ends, before the request leaves the reader.
  // (Other messages start empty and need neither.)
  void startFields(message_pool::Headers* headers) { refill_.start(pool(), headers); }
  void finishFields(message_pool::Headers* headers) { refill_.finish(pool(), headers); }
  // Whether `field`, of the headers being filled, is an old one that
  // finishFields will take out unless a stored field replaces it first.
  bool isOldField(message_pool::Headers::const_iterator field) const {
    return refill_.isOld(field);
  }
  // Stores `value` under `name` in *headers, the last value of a name
  // winning, and returns where it is stored.
  // Within a Scope a new node comes from the pool; outside one, it is new.
  message_pool::Headers::iterator storeHeader(message_pool::Headers* headers, const char* name,
                                              size_t name_length, const char* value,
                                              size_t value_length) {
    return refill_.store(pool_, headers, name, name_length, value, value_length);
  }

  // Sets *target to the `length` bytes at `begin` of `line`, a line this
  // reader is handling. When the line lies in the line buffer and that buffer
  // would be freed rather than kept anyway, the buffer itself becomes *target
  // (and the line buffer is left empty): a long target that arrived in pieces
  // then costs its size once, not twice.
  void takeTarget(const char* line, size_t begin, size_t length, std::string* target) {
    if (line == line_->data() && line_->capacity() > memory_policy::kLargestKeptString) {
      takeLineBuffer(begin, length, target);
    } else {
      // Not assign(): its general replace checks for overlap, which a line
      // and a request's own uri never have.
      target->clear();
      target->append(line + begin, length);
    }
  }

 private:
  void takeLineBuffer(size_t begin, size_t length, std::string* target);

  // Constant after construction.
  std::string* const line_;

  size_t budget_ = 0;
  // The bytes of the current head's completed lines.
  size_t used_ = 0;
  // Set while a Scope lives.
  message_pool::Pool* pool_ = nullptr;
  message_pool::HeaderRefill refill_;
};

}  // namespace relay
}  // namespace vantu

#endif  // RELAY_HEAD_ASSEMBLER_H_
