#ifndef URL_URL_CANON_H_
#define URL_URL_CANON_H_

#include <climits>
#include <cstdlib>
#include <cstring>

namespace url_canon {

// A growable output buffer that URL routines write into. Subclasses decide
// where the bytes live; this class only tracks how many are written and asks
// for more room through Resize(). The output is not NUL-terminated.
//
// Owned by whoever writes into it; not thread-safe (one thread at a time).
// Not copyable: subclasses may point buffer_ at storage inside themselves.
template <typename T>
class CanonOutputT {
 public:
  CanonOutputT() = default;
  CanonOutputT(const CanonOutputT&) = delete;
  CanonOutputT& operator=(const CanonOutputT&) = delete;
  virtual ~CanonOutputT() = default;

  // The elements written so far; valid until the next write or Resize().
  const T* data() const { return buffer_; }
  T* data() { return buffer_; }
  int length() const { return cur_len_; }
  int capacity() const { return buffer_len_; }

  // Forgets the written elements, keeping the storage.
  void clear() { cur_len_ = 0; }

  void push_back(T ch) {
    if (cur_len_ == buffer_len_) grow(1);
    buffer_[cur_len_++] = ch;
  }

  void Append(const T* str, int str_len) {
    if (str_len <= 0) return;
    if (str_len > buffer_len_ - cur_len_) grow(str_len);
    std::memcpy(buffer_ + cur_len_, str, sizeof(T) * str_len);
    cur_len_ += str_len;
  }

  // Changes the storage to hold `sz` elements, keeping the written ones that
  // fit; a negative size counts as 0.
  virtual void Resize(int sz) = 0;

 protected:
  // Makes room for `extra` more elements, at least doubling the storage so
  // that a run of appends costs linear time. The length is an int: a caller
  // asking for more than INT_MAX elements in total has broken this class's
  // contract, and there is no buffer to give it.
  void grow(int extra) {
    long long needed = static_cast<long long>(cur_len_) + extra;
    if (needed > INT_MAX) std::abort();
    long long doubled = 2LL * buffer_len_ + 16;
    long long target = needed > doubled ? needed : doubled;
    Resize(static_cast<int>(target > INT_MAX ? INT_MAX : target));
  }

  // Subclasses keep these in step in Resize().
  T* buffer_ = nullptr;
  int buffer_len_ = 0;
  int cur_len_ = 0;
};

// A CanonOutputT whose first `fixed_capacity` elements live inside the object,
// so short outputs need no heap allocation; longer ones move to the heap.
//
// Owned by its creator (typically a local variable); one thread at a time.
template <typename T, int fixed_capacity>
class RawCanonOutputT : public CanonOutputT<T> {
  static_assert(fixed_capacity > 0, "the inline buffer must hold something");

 public:
  RawCanonOutputT() {
    this->buffer_ = fixed_buffer_;
    this->buffer_len_ = fixed_capacity;
  }
  ~RawCanonOutputT() override {
    if (this->buffer_ != fixed_buffer_) delete[] this->buffer_;
  }

  // True while the output still lives in the inline buffer.
  bool usesFixedBuffer() const { return this->buffer_ == fixed_buffer_; }

  // CanonOutputT. Sizes up to fixed_capacity go back to the inline buffer.
  void Resize(int sz) override {
    if (sz < 0) sz = 0;
    if (sz < this->cur_len_) this->cur_len_ = sz;
    T* new_buffer = sz <= fixed_capacity ? fixed_buffer_ : new T[sz];
    if (new_buffer != this->buffer_) {
      if (this->cur_len_ > 0) std::memcpy(new_buffer, this->buffer_, sizeof(T) * this->cur_len_);
      if (this->buffer_ != fixed_buffer_) delete[] this->buffer_;
      this->buffer_ = new_buffer;
    }
    this->buffer_len_ = sz <= fixed_capacity ? fixed_capacity : sz;
  }

 private:
  T fixed_buffer_[fixed_capacity];
};

using CanonOutput = CanonOutputT<char>;
template <int fixed_capacity>
using RawCanonOutput = RawCanonOutputT<char, fixed_capacity>;

}  // namespace url_canon

#endif  // URL_URL_CANON_H_
