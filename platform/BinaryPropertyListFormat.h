#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The layout that reader and writer of the binary form share: the magic, the objects one after the other, a table of
// their offsets, and a trailer. All numbers are big-endian. An object starts with a marker: its type in the high four
// bits; in the low four a count, 15 when the count follows as an integer object, or the binary logarithm of a width.
namespace florvane::bplist {

inline constexpr std::string_view kMagic = "bplist00";
inline constexpr std::size_t kTrailerSize = 32;

// Where the trailer's fields lie; what comes before them is unused.
inline constexpr std::size_t kOffsetWidthAt = 6;
inline constexpr std::size_t kReferenceWidthAt = 7;
inline constexpr std::size_t kObjectCountAt = 8;
inline constexpr std::size_t kTopObjectAt = 16;
inline constexpr std::size_t kOffsetTableAt = 24;

inline constexpr std::uint8_t kFalse = 0x08;
inline constexpr std::uint8_t kTrue = 0x09;
inline constexpr std::uint8_t kInteger = 0x10;
inline constexpr std::uint8_t kReal = 0x20;
inline constexpr std::uint8_t kDate = 0x33;
inline constexpr std::uint8_t kData = 0x40;
inline constexpr std::uint8_t kASCII = 0x50;
inline constexpr std::uint8_t kUTF16 = 0x60;
inline constexpr std::uint8_t kArray = 0xa0;
inline constexpr std::uint8_t kDictionary = 0xd0;
inline constexpr std::uint8_t kCountFollows = 0x0f;

// Dates are seconds since 2001-01-01T00:00:00Z.
inline constexpr std::int64_t kEpochSince1970 = 978'307'200;

inline std::uint64_t bigEndian(const std::uint8_t* bytes, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width; ++i) number = number << 8 | bytes[i];
  return number;
}

}  // namespace florvane::bplist
