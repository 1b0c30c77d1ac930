#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/URL.h"

namespace florvane {

// Signatures of files' contents, for file systems without a generation counter. Keeps no state. Thread-safe.
class FVFSignatureManager {
 public:
  // The one of the process.
  static FVFSignatureManager& sharedInstance();

  // 21 bytes, equal for equal contents: the signature scheme (1) and the first 20 bytes of the contents' SHA-256. Reads
  // the whole file, in pieces. An error has the system's number as code in POSIXErrorDomain and the URL's text under
  // "url".
  Result<Data> signatureOfFileAtURL(const URL& url) const;

 private:
  FVFSignatureManager() = default;
};

}  // namespace florvane
