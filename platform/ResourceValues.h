#pragma once

#include "platform/Error.h"
#include "platform/Value.h"

#include <span>
#include <string>
#include <string_view>

namespace florvane {

// Keys of what is known of a file, here and on the wire.
inline constexpr char ResourceNameKey[] = "ResourceNameKey";                              // string
inline constexpr char ResourcePathKey[] = "ResourcePathKey";                              // string
inline constexpr char ResourceFileResourceTypeKey[] = "ResourceFileResourceTypeKey";      // one of the two below
inline constexpr char ResourceFileSizeKey[] = "ResourceFileSizeKey";                      // integer, bytes
inline constexpr char ResourceIsDirectoryKey[] = "ResourceIsDirectoryKey";                // boolean
inline constexpr char ResourceIsPackageKey[] = "ResourceIsPackageKey";                    // boolean
inline constexpr char ResourceIsReadableKey[] = "ResourceIsReadableKey";                  // boolean
inline constexpr char ResourceIsWritableKey[] = "ResourceIsWritableKey";                  // boolean
inline constexpr char ResourceIsHiddenKey[] = "ResourceIsHiddenKey";                      // boolean
inline constexpr char ResourceHasHiddenExtensionKey[] = "ResourceHasHiddenExtensionKey";  // boolean
inline constexpr char ResourceTypeIdentifierKey[] = "ResourceTypeIdentifierKey";          // string, a MIME type
inline constexpr char ResourceLocalizedTypeDescriptionKey[] = "ResourceLocalizedTypeDescriptionKey";    // string
inline constexpr char ResourceCreationDateKey[] = "ResourceCreationDateKey";                            // date
inline constexpr char ResourceContentModificationDateKey[] = "ResourceContentModificationDateKey";      // date
inline constexpr char ResourceAttributeModificationDateKey[] = "ResourceAttributeModificationDateKey";  // date
inline constexpr char ResourceAddedToDirectoryDateKey[] = "ResourceAddedToDirectoryDateKey";            // date

inline constexpr char ResourceTypeDirectory[] = "ResourceTypeDirectory";
inline constexpr char ResourceTypeRegular[] = "ResourceTypeRegular";

// The values of a file under the keys asked for (all when none are named), from statx; a key that the system has no
// value for is left out: the size but for regular files, the file type but for those and folders, the date of addition
// everywhere. The creation date is the earlier of the other two where the file system keeps none. A last symbolic link
// is not followed. Errors as in FileSystem.h. Thread-safe.
Result<Dictionary> resourceValues(const std::string& path, std::span<const std::string_view> keys = {});
// The MIME type for a name's extension from the shared MIME database; "application/octet-stream" when unknown.
std::string typeIdentifierForName(std::string_view name);
// What people call the type ("PNG image"); the type itself when the database has no words for it.
std::string localizedTypeDescription(std::string_view typeIdentifier);
// The one of these values that can be written here. Errors as in FileSystem.h.
Result<void> setContentModificationDate(int descriptor, Date date);

}  // namespace florvane
