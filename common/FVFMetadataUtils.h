#pragma once

#include "platform/Error.h"
#include "platform/PropertyList.h"
#include "platform/URL.h"
#include "platform/Value.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// Keys of an item's remote metadata, beside the resource keys of platform/ResourceValues.h. Each holds data.
inline constexpr char FVDocumentIdentifierKey[] = "FVDocumentIdentifierKey";
inline constexpr char FVVersionIdentifierKey[] = "FVVersionIdentifierKey";
inline constexpr char FVDocumentIdentifierHintKey[] = "FVDocumentIdentifierHintKey";
inline constexpr char FVUnderlyingDirectoryDocumentIdentifierKey[] = "FVUnderlyingDirectoryDocumentIdentifierKey";
inline constexpr char FVFilePreviewDocumentIdentifierKey[] = "FVFilePreviewDocumentIdentifierKey";
inline constexpr char FVFileThumbnailDocumentIdentifierKey[] = "FVFileThumbnailDocumentIdentifierKey";
// The generation of the file from which the thumbnail was made.
inline constexpr char FVFileThumbnailedGenerationKey[] = "FVFileThumbnailedGenerationKey";

// The date attributes of a file that setTimespecForFD knows.
enum class FVCommonAttribute : std::uint32_t {
  CreationTime = 0x200,
  ModificationTime = 0x400,
  ChangeTime = 0x800,
  AccessTime = 0x1000,
  AddedTime = 0x10000000,
};

// Metadata in headers and on local files. No state; thread-safe.
class FVFMetadataUtils {
 public:
  // Sets what can be set of a remote metadata dictionary on a local file: the content modification date, to the
  // microsecond, on the file opened without following a last symbolic link. Keys that the file system computes or does
  // not keep, and those of our own, are passed over. The error is in POSIXErrorDomain.
  static Result<void> setMetadataOnURL(const URL& url, const Dictionary& keyedValues);
  // One date attribute of an open file. Errors: POSIXErrorDomain with the errno, ENOTSUP for a date that this system
  // lets nobody set.
  static Result<void> setTimespecForFD(int descriptor, FVCommonAttribute commonattr, const timespec& time);
  // The four entries that a directory's contents file keeps of a child, those that are there.
  static Dictionary metadataForDirectoryContentsFile(const Dictionary& metadata);

  // A metadata dictionary as the header's text: a property list in base64. Absent when it cannot be serialised.
  static std::optional<std::string> headerFromMetadata(const Dictionary& metadata, PropertyListFormat format);
  // The dictionary of a header's text; absent when it is no base64 of a property list dictionary.
  static std::optional<Dictionary> metadataFromHeader(std::string_view header);
};

}  // namespace florvane
