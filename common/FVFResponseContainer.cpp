#include "common/FVFResponseContainer.h"

#include "common/FVFDictionaryUtils.h"
#include "platform/Format.h"
#include "platform/ResourceValues.h"
#include "platform/SystemLog.h"

#include <limits>

namespace florvane {

namespace {

constexpr int kErrorPriority = 3;

void checkMetadata(const char* function, const std::optional<Dictionary>& metadata) {
  if (!metadata || metadata->contains(ResourceNameKey)) return;
  SystemLogMessage message;
  message.level = kErrorPriority;
  message.text = format("%s metadata missing %@ %@", function, ResourceNameKey,
                        FVFDictionaryUtils::stringFromCollection(*metadata));
  SystemLog::shared().write(message);
}

bool holdsArchivableValuesOnly(const Dictionary& dictionary) {
  for (const auto& [key, value] : dictionary) {
    if (value.isNull() || value.kind() == Value::Kind::Array) return false;
    if (value.kind() == Value::Kind::Dictionary && !holdsArchivableValuesOnly(*value.asDictionary())) return false;
  }
  return true;
}

}  // namespace

FVFResponseContainer::FVFResponseContainer(std::optional<URL> url, std::uint32_t transferType,
                                           std::optional<Dictionary> metadata)
    : url_(std::move(url)), transferType_(transferType), metadata_(std::move(metadata)) {
  checkMetadata("-[FVFResponseContainer initWithURL:transferType:metadata:]", metadata_);
}

FVFResponseContainer::FVFResponseContainer(std::shared_ptr<const FileDescriptor> fileHandle, std::optional<URL> url,
                                           std::uint32_t transferType, std::optional<Dictionary> metadata)
    : fileHandle_(std::move(fileHandle)),
      url_(std::move(url)),
      transferType_(transferType),
      metadata_(std::move(metadata)) {
  checkMetadata("-[FVFResponseContainer initWithFileHandle:url:transferType:metadata:]", metadata_);
}

FVFResponseContainer::Ptr FVFResponseContainer::containerWithURL(std::optional<URL> url, std::uint32_t transferType,
                                                                 std::optional<Dictionary> metadata) {
  return std::make_shared<const FVFResponseContainer>(std::move(url), transferType, std::move(metadata));
}

FVFResponseContainer::Ptr FVFResponseContainer::containerWithFileHandle(
    std::shared_ptr<const FileDescriptor> fileHandle, std::optional<URL> url, std::uint32_t transferType,
    std::optional<Dictionary> metadata) {
  return std::make_shared<const FVFResponseContainer>(std::move(fileHandle), std::move(url), transferType,
                                                      std::move(metadata));
}

Dictionary FVFResponseContainer::archive() const {
  checkMetadata("-[FVFResponseContainer encodeWithCoder:]", metadata_);
  Dictionary archive;
  if (url_) archive.set("url", url_->absoluteString());
  if (fileHandle_) archive.set("fileHandle", fileHandle_->get());
  archive.set("transferType", transferType_);
  if (metadata_) archive.set("metadata", *metadata_);
  return archive;
}

FVFResponseContainer::Ptr FVFResponseContainer::containerWithArchive(const Dictionary& archive,
                                                                     std::shared_ptr<const FileDescriptor> fileHandle) {
  std::optional<URL> url;
  if (auto text = archive.string("url")) {
    url = URL::fromString(*text);
    if (!url) return nullptr;
  }
  auto transferType = archive.integer("transferType");
  if (!transferType || *transferType < 0 || *transferType > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  auto metadata = archive.dictionary("metadata");
  if (archive.contains("metadata") && (!metadata || !holdsArchivableValuesOnly(*metadata))) return nullptr;
  return containerWithFileHandle(std::move(fileHandle), std::move(url), static_cast<std::uint32_t>(*transferType),
                                 std::move(metadata));
}

std::string FVFResponseContainer::description() const {
  return format("<%@ url='%@', fileHandle=%@, type=%u, metadata=%p>", baseDescription("FVFResponseContainer", this),
                url_, fileHandle_, transferType_, metadata_ ? &*metadata_ : nullptr);
}

std::string FVFResponseContainer::debugDescription() const {
  return format("<%@ url='%@', fileHandle=%@, type=%u, metadata=%@>", baseDescription("FVFResponseContainer", this),
                url_, fileHandle_, transferType_,
                metadata_ ? std::optional(FVFDictionaryUtils::stringFromCollection(*metadata_)) : std::nullopt);
}

}  // namespace florvane
