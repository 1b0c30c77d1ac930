#include "server/PictureHeader.h"

#include <string_view>

namespace florvane {

namespace {

using Bytes = std::span<const std::uint8_t>;

bool holds(Bytes bytes, std::size_t offset, std::string_view text) {
  if (bytes.size() < offset + text.size()) return false;
  return std::string_view(reinterpret_cast<const char*>(bytes.data()) + offset, text.size()) == text;
}

std::uint32_t big(Bytes bytes, std::size_t offset, int count) {
  std::uint32_t number = 0;
  for (int i = 0; i < count; ++i) number = number << 8 | bytes[offset + static_cast<std::size_t>(i)];
  return number;
}

std::uint32_t little(Bytes bytes, std::size_t offset, int count) {
  std::uint32_t number = 0;
  for (int i = count; i-- > 0;) number = number << 8 | bytes[offset + static_cast<std::size_t>(i)];
  return number;
}

// The first frame header among the segments.
std::optional<PictureHeader> readJPEG(Bytes bytes) {
  for (std::size_t offset = 2; offset + 9 <= bytes.size();) {
    if (bytes[offset] != 0xFF) return std::nullopt;
    const std::uint8_t marker = bytes[offset + 1];
    if (marker == 0xFF) {  // a fill byte
      ++offset;
      continue;
    }
    const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (frame) return PictureHeader{PictureKind::JPEG, big(bytes, offset + 7, 2), big(bytes, offset + 5, 2)};
    const std::uint32_t length = big(bytes, offset + 2, 2);
    if (length < 2) return std::nullopt;
    offset += 2 + length;
  }
  return std::nullopt;
}

std::optional<PictureHeader> readWebP(Bytes bytes) {
  if (bytes.size() < 30) return std::nullopt;
  if (holds(bytes, 12, "VP8X")) {
    return PictureHeader{PictureKind::WebP, little(bytes, 24, 3) + 1, little(bytes, 27, 3) + 1};
  }
  if (holds(bytes, 12, "VP8L")) {
    const std::uint32_t packed = little(bytes, 21, 4);
    return PictureHeader{PictureKind::WebP, (packed & 0x3FFF) + 1, (packed >> 14 & 0x3FFF) + 1};
  }
  if (!holds(bytes, 12, "VP8 ")) return std::nullopt;
  return PictureHeader{PictureKind::WebP, little(bytes, 26, 2) & 0x3FFF, little(bytes, 28, 2) & 0x3FFF};
}

}  // namespace

std::optional<PictureHeader> PictureHeader::read(Bytes bytes) {
  if (holds(bytes, 0, "\x89PNG\r\n\x1a\n") && bytes.size() >= 24) {
    return PictureHeader{PictureKind::PNG, big(bytes, 16, 4), big(bytes, 20, 4)};
  }
  if (holds(bytes, 0, "\xFF\xD8")) return readJPEG(bytes);
  if ((holds(bytes, 0, "GIF87a") || holds(bytes, 0, "GIF89a")) && bytes.size() >= 10) {
    return PictureHeader{PictureKind::GIF, little(bytes, 6, 2), little(bytes, 8, 2)};
  }
  if (holds(bytes, 0, "RIFF") && holds(bytes, 8, "WEBP")) return readWebP(bytes);
  if (holds(bytes, 0, "BM") && bytes.size() >= 26) {
    const std::uint32_t headerSize = little(bytes, 14, 4);
    if (headerSize == 12) return PictureHeader{PictureKind::BMP, little(bytes, 18, 2), little(bytes, 20, 2)};
    const auto height = static_cast<std::int32_t>(little(bytes, 22, 4));
    // A negative height says only that the rows go down.
    const std::uint32_t rows =
        height < 0 ? 0U - static_cast<std::uint32_t>(height) : static_cast<std::uint32_t>(height);
    return PictureHeader{PictureKind::BMP, little(bytes, 18, 4), rows};
  }
  return std::nullopt;
}

}  // namespace florvane
