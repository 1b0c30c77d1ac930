#pragma once

#include "platform/Data.h"
#include "platform/URL.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// The first components of every request's path, and the commands that follow them.
inline constexpr char DURequestPrefix[] = "fv";
inline constexpr char DURequestVersion1[] = "v1";
inline constexpr char DURequestCurrentVersion[] = "v1";
inline constexpr char DURequestContentsOfRootDirectoryCommand[] = "root";
inline constexpr char DURequestContentsOfDirectoryCommand[] = "ls";
inline constexpr char DURequestContentsOfFileCommand[] = "cat";
inline constexpr char DURequestWriteFileCommand[] = "write";
inline constexpr char DURequestReplaceFileCommand[] = "replace";
inline constexpr char DURequestWatchCommand[] = "watch";

// Names of query items. Identifiers travel as lower-case hexadecimal.
inline constexpr char FVQueryKeyDocumentIdentifier[] = "d";
inline constexpr char FVQueryKeyVersionIdentifier[] = "v";
inline constexpr char FVQueryKeyParentDocumentIdentifier[] = "D";
inline constexpr char FVQueryKeyParentVersionIdentifier[] = "V";
inline constexpr char FVQueryKeySharepointDocumentIdentifier[] = "s";
inline constexpr char FVQueryKeyName[] = "n";

// Header fields.
inline constexpr char DUHeaderETagKey[] = "ETag";
inline constexpr char DUHeaderIfNoneMatchKey[] = "If-None-Match";
inline constexpr char DUHeaderMetadataKey[] = "X-Quorl-Florvane-Metadata";
inline constexpr char DUHeaderTransferTypeKey[] = "X-Quorl-Florvane-Transfer-Type";
inline constexpr char DUHeaderParentVersionIdentifierKey[] = "X-Quorl-Florvane-Parent-Version-Identifier";
inline constexpr char DUHeaderRequestIDKey[] = "X-Quorl-Florvane-Request";
inline constexpr char DUHeaderVersionKey[] = "X-Quorl-Florvane-Version";
inline constexpr char DCHeaderDeviceIDKey[] = "DCHeaderDeviceIDKey";  // the field's name is this very text

// Builds the relative URI and the query items of every request, and takes them apart again for the side that answers.
// No state; thread-safe. Absent identifiers leave their item out; empty ones travel as empty values. `queryItems` may
// be null.
class FVFRequestUtils {
 public:
  using QueryItems = std::vector<URLQueryItem>;
  using Identifier = std::optional<Data>;

  static std::string URIForContentsOfVirtualRootDirectory();
  static std::string URIForContentsOfDirectoryWithDocumentIdentifier(const Identifier& documentIdentifier,
                                                                     const Identifier& sharepointDocumentIdentifier,
                                                                     QueryItems* queryItems = nullptr);
  static std::string URIForContentsOfFileWithDocumentIdentifier(const Identifier& documentIdentifier,
                                                                const Identifier& sharepointDocumentIdentifier,
                                                                QueryItems* queryItems = nullptr);
  static std::string URIForWatchWithSharepointDocumentIdentifier(const Identifier& sharepointDocumentIdentifier,
                                                                 QueryItems* queryItems = nullptr);
  static std::string URIForReplaceFileWithDocumentIdentifier(const Identifier& documentIdentifier,
                                                             const Identifier& versionIdentifier,
                                                             const Identifier& parentDocumentIdentifier,
                                                             const Identifier& parentVersionIdentifier,
                                                             const Identifier& sharepointDocumentIdentifier,
                                                             QueryItems* queryItems = nullptr);
  // The name is percent-encoded here already; the query's own encoding comes on top, and the other side decodes twice.
  static std::string URIForWriteFileWithName(std::string_view name, const Identifier& parentDocumentIdentifier,
                                             const Identifier& parentVersionIdentifier,
                                             const Identifier& sharepointDocumentIdentifier,
                                             QueryItems* queryItems = nullptr);

  // The first item of exactly that name; absent when there is none, it has no value, or the value is no hexadecimal.
  static Identifier documentIdentifierFromURIQueryItems(const QueryItems& queryItems);
  static Identifier versionIdentifierFromURIQueryItems(const QueryItems& queryItems);
  static Identifier parentDocumentIdentifierFromURIQueryItems(const QueryItems& queryItems);
  static Identifier parentVersionIdentifierFromURIQueryItems(const QueryItems& queryItems);
  static Identifier sharepointDocumentIdentifierFromURIQueryItems(const QueryItems& queryItems);
  static std::optional<std::string> nameFromURIQueryItems(const QueryItems& queryItems);

  // Components of an absolute path, with the leading "/" as component 0; absent beyond their end.
  static std::vector<std::string> URIComponentsFromPath(std::string_view path);
  static std::optional<std::string> versionFromURIComponents(const std::vector<std::string>& components);
  static std::optional<std::string> commandFromURIComponents(const std::vector<std::string>& components);
  static Identifier documentIdentifierFromContentsOfDirectoryURIComponents(const std::vector<std::string>& components);
  static Identifier documentIdentifierFromContentsOfFileURIComponents(const std::vector<std::string>& components);
  static Identifier documentIdentifierFromReplaceFileURIComponents(const std::vector<std::string>& components);
  static std::optional<std::string> nameFromWriteFileURIComponents(const std::vector<std::string>& components);
  static Identifier parentDocumentIdentifierFromWriteFileURIComponents(const std::vector<std::string>& components);
};

}  // namespace florvane
