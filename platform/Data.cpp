#include "platform/Data.h"

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

Data Data::subdata(std::size_t offset, std::size_t length) const {
  if (offset >= size()) return {};
  return Data(bytes() + offset, std::min(length, size() - offset));
}

std::string Data::description() const { return "<" + std::to_string(size()) + " bytes>"; }

std::strong_ordering operator<=>(const Data& a, const Data& b) noexcept { return a.view() <=> b.view(); }

}  // namespace florvane
