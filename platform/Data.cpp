#include "platform/Data.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace florvane {

Ref<ByteBlock> ByteBlock::make(const void* bytes, std::size_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
  void* memory = std::malloc(sizeof(ByteBlock) + size);
  if (!memory) throw std::bad_alloc();
  auto* block = new (memory) ByteBlock(static_cast<std::uint32_t>(size));
  if (size) std::memcpy(reinterpret_cast<std::uint8_t*>(block + 1), bytes, size);
  return Ref<ByteBlock>::adopt(block);
}

void ByteBlock::destroy(ByteBlock* block) noexcept {
  block->~ByteBlock();
  std::free(block);
}

DataBuilder::~DataBuilder() { std::free(memory_); }

void DataBuilder::reserve(std::size_t capacity) {
  if (capacity <= capacity_) return;
  if (capacity > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
  void* memory = std::realloc(memory_, sizeof(ByteBlock) + capacity);
  if (!memory) throw std::bad_alloc();
  memory_ = memory;
  capacity_ = capacity;
}

std::uint8_t* DataBuilder::extend(std::size_t count) {
  constexpr std::size_t largest = std::numeric_limits<std::uint32_t>::max();
  if (count > largest - size_) throw std::bad_alloc();
  if (size_ + count > capacity_) reserve(std::min(largest, std::max(size_ + count, 2 * capacity_)));
  std::uint8_t* end = static_cast<std::uint8_t*>(memory_) + sizeof(ByteBlock) + size_;
  size_ += count;
  return end;
}

void DataBuilder::append(std::string_view bytes) {
  if (!bytes.empty()) std::memcpy(extend(bytes.size()), bytes.data(), bytes.size());
}

Data DataBuilder::finish() {
  if (size_ == 0) return {};
  // Gives unused room back; a block that cannot shrink serves as it is.
  void* memory = std::realloc(memory_, sizeof(ByteBlock) + size_);
  auto* block = new (memory ? memory : memory_) ByteBlock(static_cast<std::uint32_t>(size_));
  memory_ = nullptr;
  size_ = capacity_ = 0;
  return Data(Ref<ByteBlock>::adopt(block));
}

Data Data::subdata(std::size_t offset, std::size_t length) const {
  if (offset >= size()) return {};
  return Data(bytes() + offset, std::min(length, size() - offset));
}

std::string Data::description() const { return "<" + std::to_string(size()) + " bytes>"; }

std::strong_ordering operator<=>(const Data& a, const Data& b) noexcept { return a.view() <=> b.view(); }

}  // namespace florvane
