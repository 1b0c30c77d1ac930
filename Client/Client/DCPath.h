#pragma once

#include "Client/Client/DCService.h"
#include "platform/Data.h"
#include "platform/URL.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// The path vocabulary shared with the server's side.
inline constexpr char FVRootDirectoryPath[] = "/Library/Server/Florvane/Sharepoints";
inline constexpr char FVMetadataDirectoryPath[] = "/Library/Server/Florvane/Data";
inline constexpr char FVNamespaceDirectory[] = ".florvane";
inline constexpr char FVCConfigurationurationsNamespace[] = "C";
inline constexpr char FVDirectoriesNamespace[] = "D";
inline constexpr char FVPackagesNamespace[] = "P";
inline constexpr char FVPreviewsNamespace[] = "V";
inline constexpr char FVThumbnailsNamespace[] = "T";
inline constexpr char DCPathAssetTypeThumbnail[] = "thumbnail";
inline constexpr char DCPathAssetTypePreview[] = "preview";
// The group whose container holds everything, and the application that the group belongs to.
inline constexpr char DCAppGroupIdentifier[] = "group.quorl.Florvane";
inline constexpr char DCFlorvaneBundleIdentifier[] = "quorl.Florvane";

// The two folders under which every service has one of its own: documents hold contents, metadata what is known about
// them. Set once a process, before first use, else to "File Provider Storage" and "Metadata" of the container.
// Thread-safe.

// Checks, cleans and stores both, and makes missing folders. True when both were there already. Throws
// InvalidArgumentException for a path that is not absolute or illegal, and when other paths are set already.
bool DUPathSetDirectoryPaths(const std::optional<std::string>& rootPath,
                             const std::optional<std::string>& metadataPath);
// Does nothing when a path is set. Throws as above, also when there is no container.
void DUPathSetDefaultDirectoryPaths();
// Absent before they are set.
std::optional<std::string> DUPathRootDirectoryPath();
std::optional<std::string> DUPathMetadataDirectoryPath();
// "tmp" beside the document folder, made when missing; absent before the folders are set.
std::optional<std::string> DUTemporaryDirectory();
// Sets the default paths unless some are set. Throws InvalidArgumentException when a path is missing after all.
void DUPathVerifyPathSetup();
// The character that begins at that byte; throws InvalidArgumentException beyond the end.
std::string DUPathCharacterFromString(std::string_view string, std::size_t index);
// Whether the string is the prefix or lies below it. A prefix that ends in "/" matches only itself, except "/".
bool DUPathStringHasPathPrefix(std::string_view string, std::string_view prefix);

// A path inside one service's tree as the server names it: components joined by "/", "" for the root. Immutable,
// thread-safe. Two are equal only when they are the same object; compare their strings.
class DCRelativePath {
 public:
  using Ptr = std::shared_ptr<const DCRelativePath>;
  using ServicePtr = std::shared_ptr<DCService>;

  // Throws InvalidArgumentException "Illegal path: %@". A missing service is a soft assertion.
  static Ptr relativePathWithString(std::string_view string, const ServicePtr& service);
  // One object per service.
  static Ptr rootForService(const ServicePtr& service);

  // Exactly one component more; throws for any other number.
  Ptr relativePathByAppendingPathComponent(std::string_view component) const;
  // One or more components more.
  Ptr relativePathByAppendingPath(std::string_view path) const;
  // The parent; null for the root.
  Ptr relativePathByDeletingLastPathComponent() const;
  // The path of the thumbnail of the item at this path. Any other asset type is a soft assertion.
  Ptr relativePathForAssetType(std::string_view assetType, const Data& underlyingItemDocumentIdentifier) const;
  // Not supported: a soft assertion, and null.
  Ptr metadataPath() const;

  const std::string& string() const;
  const ServicePtr& service() const;
  // "" for the root, as the last one.
  const std::string& firstPathComponent() const;
  std::string lastPathComponent() const;
  bool isRoot() const;
  std::string description() const;

 private:
  struct Private {};

 public:
  DCRelativePath(Private, std::string sanitizedString, ServicePtr service);

 private:
  Ptr appending(const std::string& sanitized) const;

  const std::string string_;
  const std::string firstPathComponent_;
  const ServicePtr service_;
};

// An absolute local path, symbolic links resolved. Immutable, thread-safe; equality as above.
class DCFullPath {
 public:
  using Ptr = std::shared_ptr<const DCFullPath>;
  using ServicePtr = std::shared_ptr<DCService>;

  // Both throw InvalidArgumentException "Illegal path: %@". A path of no service has none.
  static Ptr fullPathWithString(std::string_view string, const ServicePtr& service);
  static Ptr fullPathWithString(std::string_view string, const DCRelativePath::Ptr& relativePath);
  // A service's own folders; one object per service.
  static Ptr documentRootForService(const ServicePtr& service);
  static Ptr metadataRootForService(const ServicePtr& service);
  // Where an item's contents or metadata lie: a folder named by its identifier in hexadecimal, and in it a file of that
  // name. A missing identifier is a soft assertion; null then, and for a missing name.
  static Ptr fullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                            const DCRelativePath::Ptr& relativePath);
  static Ptr metadataFullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                                    const std::optional<std::string>& name, const ServicePtr& service);
  static Ptr _fullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                             const std::optional<std::string>& name, const ServicePtr& service);
  // Where a new file waits until the server has given it an identifier. Makes the folder; that it cannot be made is
  // logged. Throws InvalidArgumentException for an illegal name.
  static Ptr uploadFullPathWithParentRelativePath(const DCRelativePath::Ptr& parentRelativePath, std::string_view name);

  URL url() const;
  // Decoded from the path; absent when it is no item's.
  std::optional<Data> documentIdentifier() const;
  const std::string& string() const;
  // Null for a path that belongs to no service.
  const ServicePtr& service() const;
  std::string description() const;

 private:
  struct Private {};

 public:
  DCFullPath(Private, std::string sanitizedString, ServicePtr service);

 private:
  static Ptr _fullPathWithRoot(const Ptr& root, const std::optional<Data>& documentIdentifier,
                               const std::optional<std::string>& name, const ServicePtr& service);

  const std::string string_;
  const ServicePtr service_;
};

}  // namespace florvane
