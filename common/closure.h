#ifndef COMMON_CLOSURE_H_
#define COMMON_CLOSURE_H_

#include <google/protobuf/stubs/callback.h>

#include <type_traits>
#include <utility>

namespace vantu {
namespace relay {

// A google::protobuf::Closure that runs a callable, in practice a WeakFunction,
// so that a protobuf completion or cancellation callback does nothing once its
// target is gone.
//
// One-shot (`self_deleting_` true): Run() deletes the closure after the call,
// whether or not the call was made, so a closure whose owner died first never
// leaks; it must be run at most once, and whoever holds it and never runs it
// deletes it. Permanent (`self_deleting_` false): it survives Run(), may be run
// again, and its holder deletes it. If the call throws, Run() does not delete.
//
// Run() may be called from any thread, as safely as `F` may be.
template <typename F>
class Closure : public google::protobuf::Closure {
 public:
  Closure(F function, bool self_deleting)
      : function_(std::move(function)), self_deleting_(self_deleting) {}
  ~Closure() override = default;
  Closure(const Closure&) = delete;
  Closure& operator=(const Closure&) = delete;

  void Run() override {
    // Read before the call: once a kept closure's function has run, its owner
    // may delete it (the function may be what tells the owner it is done).
    const bool self_deleting = self_deleting_;
    function_();
    if (self_deleting) delete this;
  }

 private:
  F function_;
  const bool self_deleting_;
};

// Makes a Closure on the heap; the caller gets ownership as described above.
template <typename F>
Closure<std::decay_t<F>>* newClosure(F&& function, bool self_deleting) {
  return new Closure<std::decay_t<F>>(std::forward<F>(function), self_deleting);
}

}  // namespace relay
}  // namespace vantu

#endif  // COMMON_CLOSURE_H_
