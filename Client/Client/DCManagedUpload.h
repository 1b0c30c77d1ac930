#pragma once

#include "platform/Date.h"
#include "platform/ManagedObject.h"
#include "platform/URL.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// One sending of a file as the server would store it: by size (bytes) and content modification date its entry in a
// listing is recognised when the answer was lost. The generation is that of the contents that were sent: whether those
// are still the file's is a question for it alone, since the record's own becomes that of newer ones at their write.
struct DCUploadAttempt {
  std::int64_t size = 0;
  Date date;
  Data generationIdentifier = {};
  bool operator==(const DCUploadAttempt&) const = default;
};

// A background transfer as a record names it.
struct DCUploadTask {
  std::int64_t taskIdentifier = 0;
  std::string sessionIdentifier = {};
  bool operator==(const DCUploadTask&) const = default;
};

// Entity "Upload": a file whose contents are still to reach the server. Saves that touch one are on stable storage when
// they return, but for those of nothing but a transfer's progress. Any thread.
class DCManagedUpload : public ManagedObject {
 public:
  enum Attribute : std::size_t {
    Path,
    FileURL,
    CreationDate,
    TaskIdentifier,
    SessionIdentifier,
    TransferState,
    TotalBytesExpectedToSend,
    TotalBytesSent,
    ErrorText,
    NumberOfRetries,
    GenerationIdentifier,
    Cancelled,
    // Since version 2 of the store.
    BaseVersionIdentifier,
    Attempts,
    ConflictingVersionIdentifier,
    ConflictingFileURL
  };
  static std::vector<ManagedAttribute> attributes();

  // Where a stable copy of the contents of that generation lies while it is sent: a file of the temporary directory.
  // Its name is the base64 form of path, "-" and the generation in hexadecimal, with "_" for "/", which a name cannot
  // hold; where that is longer than a name may be, the SHA-256 of the same text in hexadecimal. Absent when an argument
  // or the temporary directory is.
  static std::optional<URL> temporaryUploadFileURLForItemAtPath(const std::optional<std::string>& path,
                                                                const std::optional<Data>& generationIdentifier);

  // All attributes that have a value, by their names in the store, and the way back: absent ones are cleared.
  Dictionary dictionaryRepresentation() const;
  void setValuesFromDictionary(const Dictionary& dictionary);

  // Ready for another attempt: no task, session, state or progress. A failure before counts as a retry, unless its text
  // contains "401".
  void resetAndIncrementNumberOfRetries();
  // Only the task's identifiers are left, so that the task can be recognised and stopped.
  void markAsCancelled();
  // Failures are ignored.
  void removeTemporaryUploadFileIfNecessary() const;

  // The relative path.
  std::optional<std::string> path() const;
  void setPath(const std::optional<std::string>& path);
  // The file-system path of the file to send.
  std::optional<std::string> fileURL() const;
  void setFileURL(const std::optional<std::string>& fileURL);
  // When the record was made.
  std::optional<Date> date() const;
  void setDate(const std::optional<Date>& date);
  // Of the background transfer's task.
  std::optional<std::int64_t> taskIdentifier() const;
  void setTaskIdentifier(const std::optional<std::int64_t>& taskIdentifier);
  std::optional<std::string> sessionIdentifier() const;
  void setSessionIdentifier(const std::optional<std::string>& sessionIdentifier);
  // Both of these; absent while nothing is on its way.
  std::optional<DCUploadTask> task() const;
  // Of the transfer; its values are the upload manager's.
  std::optional<std::int64_t> state() const;
  void setState(const std::optional<std::int64_t>& state);
  // Bytes.
  std::optional<std::int64_t> totalBytesExpectedToSend() const;
  void setTotalBytesExpectedToSend(const std::optional<std::int64_t>& totalBytesExpectedToSend);
  std::optional<std::int64_t> totalBytesSent() const;
  void setTotalBytesSent(const std::optional<std::int64_t>& totalBytesSent);
  // The text of the last failure.
  std::optional<std::string> error() const;
  void setError(const std::optional<std::string>& error);
  // Absent stands for 0.
  std::optional<std::int64_t> numberOfRetries() const;
  void setNumberOfRetries(const std::optional<std::int64_t>& numberOfRetries);
  // Of the file when the upload was registered.
  std::optional<Data> generationIdentifier() const;
  void setGenerationIdentifier(const std::optional<Data>& generationIdentifier);
  bool cancelled() const;
  void setCancelled(bool cancelled);
  // The server's version that the contents were written over; absent for a new file.
  std::optional<Data> baseVersionIdentifier() const;
  void setBaseVersionIdentifier(const std::optional<Data>& baseVersionIdentifier);
  // What was sent under this name and may have been stored although no answer came, the latest last; at most 16.
  std::vector<DCUploadAttempt> attempts() const;
  void addAttempt(const DCUploadAttempt& attempt);
  // The generation of the contents that the latest attempt sent; the record's own while nothing was sent.
  std::optional<Data> sentGenerationIdentifier() const;
  void removeAttempts();
  // The server holds what somebody else stored, of this version: nothing is sent until somebody decides. Empty data
  // where the server's entry has no version.
  std::optional<Data> conflictingVersionIdentifier() const;
  void setConflictingVersionIdentifier(const std::optional<Data>& conflictingVersionIdentifier);
  bool isConflict() const { return conflictingVersionIdentifier().has_value(); }
  // A local copy of what somebody else stored; absent while there is none.
  std::optional<URL> conflictingVersionURL() const;
  void setConflictingVersionURL(const std::optional<URL>& url);
  // The contents go on top of what the conflict is with. Nothing happens without one.
  void resolveConflict();
};

}  // namespace florvane
