#pragma once

#include "platform/FileSystem.h"
#include "platform/URL.h"
#include "platform/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace florvane {

// How an answer's body is to be read; other values are carried along without meaning.
inline constexpr std::uint32_t FVFResponseContainerTransferTypeFull = 1;         // the item's complete contents
inline constexpr std::uint32_t FVFResponseContainerTransferTypeDropBoxFile = 4;  // accepted, contents not given back

// A successful answer: where its body lies, how to read it, and the item's remote metadata. Immutable, thread-safe.
class FVFResponseContainer {
 public:
  using Ptr = std::shared_ptr<const FVFResponseContainer>;

  // Metadata without a name is kept and reported to the system's log.
  FVFResponseContainer(std::optional<URL> url, std::uint32_t transferType, std::optional<Dictionary> metadata);
  FVFResponseContainer(std::shared_ptr<const FileDescriptor> fileHandle, std::optional<URL> url,
                       std::uint32_t transferType, std::optional<Dictionary> metadata);
  static Ptr containerWithURL(std::optional<URL> url, std::uint32_t transferType, std::optional<Dictionary> metadata);
  static Ptr containerWithFileHandle(std::shared_ptr<const FileDescriptor> fileHandle, std::optional<URL> url,
                                     std::uint32_t transferType, std::optional<Dictionary> metadata);

  const std::optional<URL>& url() const { return url_; }
  // Null unless made with one.
  const std::shared_ptr<const FileDescriptor>& fileHandle() const { return fileHandle_; }
  std::uint32_t transferType() const { return transferType_; }
  const std::optional<Dictionary>& metadata() const { return metadata_; }

  // A property list under the keys "url", "fileHandle", "transferType" and "metadata". A file handle is written as its
  // number; the descriptor itself must travel beside the archive.
  Dictionary archive() const;
  // Null when the archive is not of that form, or its metadata holds anything but data, dates, dictionaries, numbers
  // and strings.
  static Ptr containerWithArchive(const Dictionary& archive,
                                  std::shared_ptr<const FileDescriptor> fileHandle = nullptr);

  std::string description() const;
  std::string debugDescription() const;

 private:
  std::shared_ptr<const FileDescriptor> fileHandle_;
  std::optional<URL> url_;
  std::uint32_t transferType_;
  std::optional<Dictionary> metadata_;
};

}  // namespace florvane
