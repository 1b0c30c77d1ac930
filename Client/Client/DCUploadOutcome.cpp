#include "Client/Client/DCUploadOutcome.h"

#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "platform/Format.h"
#include "platform/ResourceValues.h"

#include <algorithm>

namespace florvane {

namespace {

bool isEntryOf(const Dictionary& entry, const DCUploadAttempt& attempt) {
  return entry.integer(ResourceFileSizeKey) == attempt.size &&
         entry.date(ResourceContentModificationDateKey) == attempt.date;
}

}  // namespace

std::string DCUploadOutcome::textOfError(const Error& error) {
  auto text = error.userInfo().string(LocalizedDescriptionKey);
  if (text && !text->empty()) return *text;
  return format("%@ - %ld", error.domain(), static_cast<long>(error.code()));
}

bool DCUploadOutcome::isLostReply(const Error& error) {
  return pc_isConnectionFailure(error) || error.is(URLErrorDomain, URLErrorCannotParseResponse);
}

bool DCUploadOutcome::hasGivenUp(const DCManagedUpload& upload) {
  if (upload.isConflict() || upload.task() || upload.numberOfRetries().value_or(0) < DCFileUploadMaxNumberOfRetries) {
    return false;
  }
  // Sent a last time, and a kill came before anybody knew its end.
  const bool isUndecided = !upload.error() && !upload.attempts().empty();
  return !isUndecided;
}

bool DCUploadOutcome::isEntryOfLastAttempt(const std::optional<Dictionary>& entry,
                                           const std::shared_ptr<DCManagedUpload>& upload) {
  if (!entry || !upload) return false;
  const auto attempts = upload->attempts();
  return !attempts.empty() && isEntryOf(*entry, attempts.back());
}

bool DCUploadOutcome::isEntryOfAnyAttempt(const std::optional<Dictionary>& entry,
                                          const std::shared_ptr<DCManagedUpload>& upload) {
  if (!entry || !upload) return false;
  const auto attempts = upload->attempts();
  return std::any_of(attempts.begin(), attempts.end(),
                     [&](const DCUploadAttempt& attempt) { return isEntryOf(*entry, attempt); });
}

}  // namespace florvane
