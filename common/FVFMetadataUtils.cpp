#include "common/FVFMetadataUtils.h"

#include "common/FVFDictionaryUtils.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <array>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

namespace florvane {

Result<void> FVFMetadataUtils::setMetadataOnURL(const URL& url, const Dictionary& keyedValues) {
  FileDescriptor file(open(url.path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file.valid()) {
    int failure = errno;
    std::perror("open");
    return Failure(Error::posix(failure, url.path()));
  }
  // Of the dates in the dictionary, this system lets only the one of the contents be set: attribute changes are dated
  // by the kernel, and neither creation nor addition to a directory can be written. Everything else is computed.
  if (auto date = keyedValues.date(ResourceContentModificationDateKey)) {
    return setTimespecForFD(file.get(), FVCommonAttribute::ModificationTime, date->toTimespec());
  }
  return {};
}

Result<void> FVFMetadataUtils::setTimespecForFD(int descriptor, FVCommonAttribute commonattr, const timespec& time) {
  std::array<timespec, 2> times{};  // access, modification
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_nsec = UTIME_OMIT;
  switch (commonattr) {
    case FVCommonAttribute::AccessTime:
      times[0] = time;
      break;
    case FVCommonAttribute::ModificationTime:
      times[1] = time;
      break;
    default:
      return Failure(Error::posix(ENOTSUP));
  }
  if (futimens(descriptor, times.data()) != 0) return Failure(Error::posix(errno));
  return {};
}

Dictionary FVFMetadataUtils::metadataForDirectoryContentsFile(const Dictionary& metadata) {
  return fv_dictionaryForKeys(metadata, {ResourceAddedToDirectoryDateKey, ResourceContentModificationDateKey,
                                         ResourceCreationDateKey, FVDocumentIdentifierKey});
}

std::optional<std::string> FVFMetadataUtils::headerFromMetadata(const Dictionary& metadata, PropertyListFormat format) {
  auto bytes = writePropertyList(metadata, format);
  return bytes ? std::optional(base64Encode(*bytes)) : std::nullopt;
}

std::optional<Dictionary> FVFMetadataUtils::metadataFromHeader(std::string_view header) {
  auto bytes = base64Decode(header);
  if (!bytes) return std::nullopt;
  auto list = readPropertyList(*bytes);
  return list ? list->asDictionary() : std::nullopt;
}

}  // namespace florvane
