#include "server/ThumbnailMaker.h"

#include "server/PictureHeader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include <gd.h>
#include <gd_errors.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr int kLongestSide = 256;  // points
constexpr std::uint64_t kMaximumSourceBytes = 64U << 20;
constexpr std::uint64_t kMaximumSourcePoints = 50'000'000;        // 200 MB once decoded
constexpr std::uint32_t kMaximumSourceSide = 30'000;              // points
constexpr std::size_t kMaximumHeldBytes = std::size_t{32} << 20;  // of pictures made

constexpr std::array<std::string_view, 6> kTypes = {"image/png",  "image/jpeg", "image/gif",
                                                    "image/webp", "image/bmp",  "image/x-ms-bmp"};

using Picture = std::unique_ptr<gdImage, decltype(&gdImageDestroy)>;

tl::unexpected<StoreError> noPicture() {
  return tl::unexpected(StoreError{StoreStatus::NotFound, "There is no thumbnail of this file."});
}

Picture decode(PictureKind kind, std::vector<std::uint8_t>& bytes) {
  const int size = static_cast<int>(bytes.size());
  switch (kind) {
    case PictureKind::PNG:
      return {gdImageCreateFromPngPtr(size, bytes.data()), gdImageDestroy};
    case PictureKind::JPEG:
      return {gdImageCreateFromJpegPtrEx(size, bytes.data(), 1), gdImageDestroy};
    case PictureKind::GIF:
      return {gdImageCreateFromGifPtr(size, bytes.data()), gdImageDestroy};
    case PictureKind::WebP:
      return {gdImageCreateFromWebpPtr(size, bytes.data()), gdImageDestroy};
    case PictureKind::BMP:
      return {gdImageCreateFromBmpPtr(size, bytes.data()), gdImageDestroy};
  }
  return {nullptr, gdImageDestroy};
}

std::optional<Data> shrink(const gdImage& source) {
  const int longest = std::max(source.sx, source.sy);
  const auto scaled = [&](int side) {
    return longest <= kLongestSide ? side : std::max(1, static_cast<int>(std::int64_t{side} * kLongestSide / longest));
  };
  const Picture small(gdImageCreateTrueColor(scaled(source.sx), scaled(source.sy)), gdImageDestroy);
  if (!small) return std::nullopt;
  gdImageAlphaBlending(small.get(), 0);
  gdImageSaveAlpha(small.get(), 1);
  gdImageCopyResampled(small.get(), const_cast<gdImage*>(&source), 0, 0, 0, 0, small->sx, small->sy, source.sx,
                       source.sy);
  int size = 0;
  const std::unique_ptr<void, decltype(&gdFree)> png(gdImagePngPtr(small.get(), &size), gdFree);
  if (!png || size <= 0) return std::nullopt;
  return Data(png.get(), static_cast<std::size_t>(size));
}

std::optional<std::vector<std::uint8_t>> readAll(int descriptor, std::uint64_t size) {
  std::vector<std::uint8_t> bytes(size);
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t count = ::pread(descriptor, bytes.data() + filled, bytes.size() - filled, static_cast<off_t>(filled));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    filled += static_cast<std::size_t>(count);
  }
  return bytes;
}

void ignoreDecoderMessage(int /*priority*/, const char* /*format*/, va_list /*arguments*/) {}

}  // namespace

bool ThumbnailMaker::handles(std::string_view type, std::uint64_t size) {
  return size > 0 && size <= kMaximumSourceBytes && std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

StoreResult<Data> ThumbnailMaker::thumbnail(const DocumentIdentifier& file, const VersionDigest& version,
                                            int descriptor, std::uint64_t size) {
  if (size == 0 || size > kMaximumSourceBytes) return noPicture();
  const std::lock_guard lock(mutex_);
  const auto found = made_.find(file);
  if (found != made_.end() && found->second.version == version) {
    uses_.splice(uses_.begin(), uses_, found->second.use);
    return found->second.picture;
  }
  auto bytes = readAll(descriptor, size);
  const auto header = bytes ? PictureHeader::read(*bytes) : std::nullopt;
  if (!header || header->width == 0 || header->height == 0 || header->width > kMaximumSourceSide ||
      header->height > kMaximumSourceSide || std::uint64_t{header->width} * header->height > kMaximumSourcePoints) {
    return noPicture();
  }
  gdSetErrorMethod(ignoreDecoderMessage);
  const Picture source = decode(header->kind, *bytes);
  const auto picture = source ? shrink(*source) : std::nullopt;
  if (!picture) return noPicture();
  keep(file, version, *picture);
  return *picture;
}

void ThumbnailMaker::keep(const DocumentIdentifier& file, const VersionDigest& version, const Data& picture) {
  const auto drop = [&](std::unordered_map<DocumentIdentifier, Made, DocumentIdentifierHash>::iterator made) {
    bytesHeld_ -= made->second.picture.size();
    uses_.erase(made->second.use);
    made_.erase(made);
  };
  if (const auto old = made_.find(file); old != made_.end()) drop(old);
  uses_.push_front(file);
  made_.emplace(file, Made{version, picture, uses_.begin()});
  bytesHeld_ += picture.size();
  while (bytesHeld_ > kMaximumHeldBytes && made_.size() > 1) drop(made_.find(uses_.back()));
}

}  // namespace florvane
