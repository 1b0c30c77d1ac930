#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace florvane {

enum class PictureKind { PNG, JPEG, GIF, WebP, BMP };

// What a picture file says of itself, read before anything is decoded.
struct PictureHeader {
  PictureKind kind;
  std::uint32_t width = 0;   // points
  std::uint32_t height = 0;  // points

  // Absent when the bytes do not begin as a picture of these kinds, or do not say how large it is.
  static std::optional<PictureHeader> read(std::span<const std::uint8_t> bytes);
};

}  // namespace florvane
