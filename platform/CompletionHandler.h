#pragma once

#include "platform/SoftAssertion.h"

#include <functional>
#include <utility>

namespace florvane {

// A completion handler that must be called exactly once: a second call and a handler dropped uncalled are reported as
// soft assertions. Moved, never copied. One made of an empty function stands for "no handler" and may be dropped.
template <typename... Args>
class CompletionHandler {
 public:
  CompletionHandler() = default;
  CompletionHandler(std::nullptr_t) {}
  template <typename F>
    requires(!std::is_same_v<std::decay_t<F>, CompletionHandler> && std::is_invocable_v<F&, Args...>)
  CompletionHandler(F&& function) : function_(std::forward<F>(function)) {}
  CompletionHandler(CompletionHandler&& other) noexcept : function_(std::exchange(other.function_, nullptr)) {}
  CompletionHandler& operator=(CompletionHandler&& other) noexcept {
    if (this != &other) {
      reportIfPending();
      function_ = std::exchange(other.function_, nullptr);
    }
    return *this;
  }
  CompletionHandler(const CompletionHandler&) = delete;
  CompletionHandler& operator=(const CompletionHandler&) = delete;
  ~CompletionHandler() { reportIfPending(); }

  explicit operator bool() const noexcept { return static_cast<bool>(function_); }
  // Calls and forgets the handler; a call without one is a soft assertion.
  void operator()(Args... args) {
    auto function = std::exchange(function_, nullptr);
    if (!function) {
      reportSoftAssertion("platform/CompletionHandler", __LINE__, "completion handler called once");
      return;
    }
    function(std::forward<Args>(args)...);
  }
  // Forgets the handler on purpose, uncalled.
  void abandon() noexcept { function_ = nullptr; }

 private:
  void reportIfPending() noexcept {
    if (function_) reportSoftAssertion("platform/CompletionHandler", __LINE__, "completion handler called");
  }
  std::function<void(Args...)> function_;
};

}  // namespace florvane
