#pragma once

#include "platform/Data.h"

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace florvane {

// A document's 16 bytes. The last bit tells a file's thumbnail from the file itself, so a thumbnail's identifier stays
// as long as its file's and needs no record.
struct DocumentIdentifier {
  std::array<std::uint8_t, 16> bytes{};

  static std::optional<DocumentIdentifier> fromData(const Data& data) { return fromBytes(data.bytes(), data.size()); }
  static std::optional<DocumentIdentifier> fromBytes(const void* bytes, std::size_t size) {
    DocumentIdentifier identifier;
    if (size != identifier.bytes.size()) return std::nullopt;
    std::memcpy(identifier.bytes.data(), bytes, size);
    return identifier;
  }
  Data data() const { return {bytes.data(), bytes.size()}; }

  bool isThumbnail() const { return (bytes.back() & 1) != 0; }
  DocumentIdentifier document() const { return withLastBit(0); }
  DocumentIdentifier thumbnail() const { return withLastBit(1); }

  friend auto operator<=>(const DocumentIdentifier&, const DocumentIdentifier&) = default;

 private:
  DocumentIdentifier withLastBit(std::uint8_t bit) const {
    DocumentIdentifier copy = *this;
    copy.bytes.back() = static_cast<std::uint8_t>((copy.bytes.back() & 0xFEU) | bit);
    return copy;
  }
};

// The bytes are random, so any eight of them are a hash.
struct DocumentIdentifierHash {
  std::size_t operator()(const DocumentIdentifier& identifier) const noexcept {
    std::size_t hash = 0;
    std::memcpy(&hash, identifier.bytes.data(), sizeof(hash));
    return hash;
  }
};

}  // namespace florvane
