#pragma once

#include "platform/RefCounted.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// One shared, immutable run of bytes; what Data and string values point to. Header and bytes are one allocation.
class ByteBlock : public RefCounted {
 public:
  static Ref<ByteBlock> make(const void* bytes, std::size_t size);
  static void destroy(ByteBlock* block) noexcept;
  std::size_t size() const noexcept { return size_; }
  const std::uint8_t* bytes() const noexcept { return reinterpret_cast<const std::uint8_t*>(this + 1); }

 private:
  friend class DataBuilder;
  explicit ByteBlock(std::uint32_t size) : size_(size) {}
  std::uint32_t size_;
};

// An immutable byte string of at most 4 GiB, cheap to copy and safe to share between threads. The empty value is a
// value; "no data" is std::optional<Data>.
class Data {
 public:
  Data() = default;
  Data(const void* bytes, std::size_t size) : block_(size ? ByteBlock::make(bytes, size) : Ref<ByteBlock>()) {}
  explicit Data(std::span<const std::uint8_t> bytes) : Data(bytes.data(), bytes.size()) {}
  explicit Data(Ref<ByteBlock> block) : block_(std::move(block)) {}
  static Data fromString(std::string_view text) { return Data(text.data(), text.size()); }

  const std::uint8_t* bytes() const noexcept { return block_ ? block_->bytes() : nullptr; }
  std::size_t size() const noexcept { return block_ ? block_->size() : 0; }
  bool empty() const noexcept { return size() == 0; }
  const std::uint8_t* begin() const noexcept { return bytes(); }
  const std::uint8_t* end() const noexcept { return bytes() + size(); }
  std::uint8_t operator[](std::size_t index) const noexcept { return bytes()[index]; }
  std::span<const std::uint8_t> span() const noexcept { return {bytes(), size()}; }
  // The bytes as text; valid while this value lives.
  std::string_view view() const noexcept { return {reinterpret_cast<const char*>(bytes()), size()}; }
  // Bytes from offset on, at most length of them; empty where the range lies outside.
  Data subdata(std::size_t offset, std::size_t length = SIZE_MAX) const;
  // "<12 bytes>": for messages that must stay short.
  std::string description() const;

  friend bool operator==(const Data& a, const Data& b) noexcept { return a.view() == b.view(); }
  friend std::strong_ordering operator<=>(const Data& a, const Data& b) noexcept;

 private:
  friend class Value;
  Ref<ByteBlock> block_;
};

// Bytes being put together in place, so that the finished Data needs no copy. More than 4 GiB throw std::bad_alloc.
class DataBuilder {
 public:
  DataBuilder() = default;
  ~DataBuilder();
  DataBuilder(const DataBuilder&) = delete;
  DataBuilder& operator=(const DataBuilder&) = delete;

  std::size_t size() const noexcept { return size_; }
  void reserve(std::size_t capacity);
  // Room for that many more bytes, for the caller to fill; valid until the next change.
  std::uint8_t* extend(std::size_t count);
  void append(std::string_view bytes);
  void append(std::uint8_t byte) { *extend(1) = byte; }
  // Takes the bytes out; the builder is empty again.
  Data finish();

 private:
  void* memory_ = nullptr;  // room for a ByteBlock, then the bytes
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

struct DataHash {
  std::size_t operator()(const Data& data) const noexcept { return std::hash<std::string_view>()(data.view()); }
};

}  // namespace florvane
