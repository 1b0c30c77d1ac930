#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace florvane {

// Base of the shared blocks behind Data, Value, Array and Dictionary. The count is atomic, so blocks may be shared
// between threads once built; their contents must not change while more than one reference exists.
class RefCounted {
 public:
  void retain() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  // False when the last reference has gone already and the block is about to be destroyed.
  bool tryRetain() const noexcept {
    std::uint32_t count = references_.load(std::memory_order_relaxed);
    while (count != 0) {
      if (references_.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
    }
    return false;
  }
  // True when the last reference went.
  bool release() const noexcept { return references_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
  bool isShared() const noexcept { return references_.load(std::memory_order_acquire) != 1; }

 protected:
  RefCounted() = default;
  ~RefCounted() = default;
  RefCounted(const RefCounted&) noexcept {}
  RefCounted& operator=(const RefCounted&) = delete;

 private:
  mutable std::atomic<std::uint32_t> references_{1};
};

// A reference to a T that has a static void destroy(T*).
template <typename T>
class Ref {
 public:
  Ref() = default;
  static Ref adopt(T* block) noexcept {
    Ref ref;
    ref.block_ = block;
    return ref;
  }
  static Ref share(T* block) noexcept {
    if (block) block->retain();
    return adopt(block);
  }
  Ref(const Ref& other) noexcept : block_(other.block_) {
    if (block_) block_->retain();
  }
  Ref(Ref&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~Ref() {
    if (block_ && block_->release()) T::destroy(block_);
  }
  T* get() const noexcept { return block_; }
  T* operator->() const noexcept { return block_; }
  T& operator*() const noexcept { return *block_; }
  explicit operator bool() const noexcept { return block_ != nullptr; }
  T* leak() noexcept { return std::exchange(block_, nullptr); }

 private:
  T* block_ = nullptr;
};

}  // namespace florvane
