#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace florvane {

// A callable that is moved, never copied, so that it may own what it captures. Empty after a move.
template <typename Signature>
class UniqueFunction;

template <typename R, typename... Args>
class UniqueFunction<R(Args...)> {
 public:
  UniqueFunction() = default;
  UniqueFunction(std::nullptr_t) {}
  template <typename F>
    requires(!std::is_same_v<std::decay_t<F>, UniqueFunction> && std::is_invocable_r_v<R, F&, Args...>)
  UniqueFunction(F&& callable) : callable_(std::make_unique<Holder<std::decay_t<F>>>(std::forward<F>(callable))) {}

  explicit operator bool() const noexcept { return callable_ != nullptr; }
  R operator()(Args... args) { return callable_->call(std::forward<Args>(args)...); }

 private:
  struct Callable {
    virtual ~Callable() = default;
    virtual R call(Args... args) = 0;
  };
  template <typename F>
  struct Holder final : Callable {
    explicit Holder(F&& callable) : function(std::move(callable)) {}
    explicit Holder(const F& callable) : function(callable) {}
    R call(Args... args) override { return static_cast<R>(function(std::forward<Args>(args)...)); }
    F function;
  };
  std::unique_ptr<Callable> callable_;
};

using WorkItem = UniqueFunction<void()>;

}  // namespace florvane
