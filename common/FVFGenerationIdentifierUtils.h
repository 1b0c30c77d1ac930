#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/URL.h"

#include <optional>

namespace florvane {

// Short byte strings that tell whether a local file was rewritten since they were last taken; compared byte for byte
// and only for equality. Absent results mean that nothing is known: the file counts as changed. Thread-safe.
class FVFGenerationIdentifierUtils {
 public:
  // The file system's generation identifier of the item, 12 bytes, read afresh; absent where the file system has none.
  // One look at the file's attributes. An error when these cannot be read (QuilbarErrorDomain).
  static Result<std::optional<Data>> generationIdentifierForItemWithURL(const URL& url);
  // The generation identifier; where there is none, the signature of the contents (21 bytes), which reads the whole
  // file. An error when the attributes (QuilbarErrorDomain) or the contents (POSIXErrorDomain, the URL's text under
  // "url") cannot be read.
  static Result<std::optional<Data>> versionIdentifierForFileWithURL(const URL& url);
  // The same of a file that nobody else writes or dates, as one is that was just made under a name of its own.
  static Result<std::optional<Data>> versionIdentifierForOwnFileWithURL(const URL& url);
  // The generation identifier of the package's folder itself; never a signature.
  static Result<std::optional<Data>> versionIdentifierForPackageWithURL(const URL& url);

  // The rule for what a file system answers: the first 12 of 16 bytes, or all of 12, with a third 32-bit word that is
  // not zero; absent for anything else.
  static std::optional<Data> normalizedGenerationIdentifier(const std::optional<Data>& value);
  // What a file's version identifier is when the file system answered `value`.
  static Result<std::optional<Data>> versionIdentifier(const std::optional<Data>& value, const URL& url);
};

}  // namespace florvane
