#pragma once

#include "platform/Error.h"
#include "platform/Value.h"

#include <memory>
#include <optional>
#include <string>

namespace florvane {

class DCManagedUpload;

// What the end of an upload says. No state; thread-safe.
class DCUploadOutcome {
 public:
  // For the record: the error's description, else its domain and code.
  static std::string textOfError(const Error& error);
  // The connection failed, which is no refusal: the server may have stored what was sent, or not.
  static bool isLostReply(const Error& error);
  // The record's last attempt was refused and no other is due: it waits for somebody to try again.
  static bool hasGivenUp(const DCManagedUpload& upload);
  // Whether the entry of a listing is what the upload stored last, or at any attempt. False without either.
  static bool isEntryOfLastAttempt(const std::optional<Dictionary>& entry,
                                   const std::shared_ptr<DCManagedUpload>& upload);
  static bool isEntryOfAnyAttempt(const std::optional<Dictionary>& entry,
                                  const std::shared_ptr<DCManagedUpload>& upload);
};

}  // namespace florvane
