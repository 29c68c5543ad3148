#ifndef COMMON_TIME_H_
#define COMMON_TIME_H_

#include <cstdint>

namespace vantu {

// A length of time in microseconds (64 bits, signed).
class Duration {
 public:
  constexpr Duration() = default;
  static constexpr Duration microseconds(int64_t us) { return Duration(us); }
  static constexpr Duration milliseconds(int64_t ms) { return Duration(ms * 1000); }
  static constexpr Duration seconds(int64_t s) { return Duration(s * 1000000); }

  constexpr int64_t toMicroseconds() const { return us_; }
  constexpr int64_t toMilliseconds() const { return us_ / 1000; }

  constexpr Duration operator+(Duration other) const { return Duration(us_ + other.us_); }
  constexpr Duration operator-(Duration other) const { return Duration(us_ - other.us_); }
  constexpr bool operator<(Duration other) const { return us_ < other.us_; }
  constexpr bool operator<=(Duration other) const { return us_ <= other.us_; }
  constexpr bool operator>(Duration other) const { return us_ > other.us_; }
  constexpr bool operator>=(Duration other) const { return us_ >= other.us_; }
  constexpr bool operator==(Duration other) const { return us_ == other.us_; }
  constexpr bool operator!=(Duration other) const { return us_ != other.us_; }

 private:
  constexpr explicit Duration(int64_t us) : us_(us) {}
  int64_t us_ = 0;
};

// A point on the monotonic clock, in microseconds since an arbitrary origin
// (64 bits, unsigned). Adding a Duration adds the two 64-bit values.
class Time {
 public:
  constexpr Time() = default;
  static Time now();
  static constexpr Time fromMicroseconds(uint64_t us) { return Time(us); }

  constexpr uint64_t toMicroseconds() const { return us_; }

  constexpr Time operator+(Duration d) const {
    return Time(us_ + static_cast<uint64_t>(d.toMicroseconds()));
  }
  constexpr Duration operator-(Time other) const {
    return Duration::microseconds(static_cast<int64_t>(us_ - other.us_));
  }
  constexpr bool operator<(Time other) const { return us_ < other.us_; }
  constexpr bool operator<=(Time other) const { return us_ <= other.us_; }
  constexpr bool operator>(Time other) const { return us_ > other.us_; }
  constexpr bool operator>=(Time other) const { return us_ >= other.us_; }
  constexpr bool operator==(Time other) const { return us_ == other.us_; }
  constexpr bool operator!=(Time other) const { return us_ != other.us_; }

 private:
  constexpr explicit Time(uint64_t us) : us_(us) {}
  uint64_t us_ = 0;
};

}  // namespace vantu

#endif  // COMMON_TIME_H_
