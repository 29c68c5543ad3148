#ifndef COMMON_WEAK_FUNCTION_H_
#define COMMON_WEAK_FUNCTION_H_

#include <memory>
#include <type_traits>
#include <utility>

namespace vantu {

// A bound call that runs only while the object it is meant for is alive.
//
// `F` is the call, usually a std::bind of a member function to the raw object
// pointer; `owner_` is a weak reference to that same object. Calling locks the
// weak reference for the duration of the call, so an owner released on another
// thread meanwhile is either kept alive until the call returns or seen as gone;
// a call whose owner is gone does nothing and reports nothing. For a non-void
// `R`, a call that could not be made returns a value-initialised `R`.
//
// A value type: copies share the owner weakly and copy the bound arguments.
// May be called from any thread, as safely as `F` itself may.
template <typename F, typename R = void>
class WeakFunction {
 public:
  WeakFunction(std::weak_ptr<void> owner, F function)
      : owner_(std::move(owner)), function_(std::move(function)) {}

  R operator()() {
    std::shared_ptr<void> strong = owner_.lock();
    if (!strong) return R();
    return function_();
  }

  R operator()() const {
    std::shared_ptr<void> strong = owner_.lock();
    if (!strong) return R();
    return function_();
  }

 private:
  // Declared first, destroyed last: the bound call (and any shared pointers in
  // its arguments) goes before the weak reference.
  std::weak_ptr<void> owner_;
  F function_;
};

// makeWeakFunction(weak_this_, std::bind(&Foo::bar, this, 42)).
template <typename R = void, typename T, typename F>
WeakFunction<std::decay_t<F>, R> makeWeakFunction(const std::weak_ptr<T>& owner, F&& function) {
  return WeakFunction<std::decay_t<F>, R>(std::weak_ptr<void>(owner), std::forward<F>(function));
}

}  // namespace vantu

#endif  // COMMON_WEAK_FUNCTION_H_
