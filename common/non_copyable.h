#ifndef COMMON_NON_COPYABLE_H_
#define COMMON_NON_COPYABLE_H_

namespace vantu {

// Base for classes that are neither copied nor moved.
class NonCopyable {
 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;

 public:
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;
};

}  // namespace vantu

#endif  // COMMON_NON_COPYABLE_H_
