#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServerRequest.h"
#include "Client/Client/DCUploadOutcome.h"

namespace florvane {

namespace {

// A save of a record waits for the disk; a fast transfer reports more often than anybody looks.
constexpr Duration kProgressIsSavedEvery = std::chrono::milliseconds(250);

}  // namespace

void DCServerRequest::updateUploadProgress(const URLSessionTask& task, std::int64_t totalBytesSent,
                                           std::int64_t totalBytesExpectedToSend) {
  const MonotonicTime now = service_->clock().monotonicNow();
  if (lastProgressTime_ && totalBytesSent < totalBytesExpectedToSend &&
      now - *lastProgressTime_ < kProgressIsSavedEvery) {
    return;
  }
  lastProgressTime_ = now;
  auto database = DCDatabase::databaseForService(service_);
  auto upload = database->uploadForTaskIdentifier(static_cast<std::int64_t>(task.taskIdentifier()),
                                                  session_->configuration().identifier);
  DCLogDebug("Will update state and progress for upload: %@", upload ? upload->path() : std::nullopt);
  if (!upload || !upload->path()) return;
  const auto state = static_cast<std::int64_t>(task.state());
  DCLogDebug("Setting upload state %ld, bytesSent: %lld and bytesExpectedToSend %lld for path: %@",
             static_cast<long>(state), static_cast<long long>(totalBytesSent),
             static_cast<long long>(totalBytesExpectedToSend), upload->path());
  upload->setState(state);
  upload->setTotalBytesSent(totalBytesSent);
  upload->setTotalBytesExpectedToSend(totalBytesExpectedToSend);
  upload->setError({});
  (void)database->save();  // logged when it fails
}

void DCServerRequest::updateUploadCompletion(const URLSessionTask& task, const std::optional<Error>& error) {
  auto database = DCDatabase::databaseForService(service_);
  auto upload = database->uploadForTaskIdentifier(static_cast<std::int64_t>(task.taskIdentifier()),
                                                  session_->configuration().identifier);
  DCLogDebug("Will update state and progress for upload: %@", upload ? upload->path() : std::nullopt);
  if (!upload || !upload->path()) return;
  const auto state = static_cast<std::int64_t>(task.state());
  DCLogDebug("Setting upload state %ld, error: %@", static_cast<long>(state), error);
  upload->setState(state);
  upload->setTotalBytesSent({});
  upload->setTotalBytesExpectedToSend({});
  upload->setError(error ? std::optional(DCUploadOutcome::textOfError(*error)) : std::nullopt);
  (void)database->save();  // logged when it fails
}

}  // namespace florvane
