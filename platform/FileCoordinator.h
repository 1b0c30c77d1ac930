#pragma once

#include "platform/Error.h"
#include "platform/FilePresenter.h"
#include "platform/URL.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace florvane {

enum class FileCoordinatorReadingOptions : std::uint8_t {
  None,
  // The accessor gets a copy of the file, in the folder "tmp" beside the lock file and with the file's dates, which it
  // may move away; what it leaves is removed.
  ForUploading,
};

enum class FileCoordinatorWritingOptions : std::uint8_t {
  None,
  // These three keep everybody out of what is below the item, too.
  ForMoving,
  ForDeleting,
  ForReplacing,
};

// Access to files that several processes and threads of a container work on: readers share an item, a writer has it
// alone, and presenters with other purpose identifiers hear of what was written. Only those who coordinate are kept
// apart. An accessor runs in the calling thread while the item is held, and everything is given back when it ends or
// throws, or when the process dies. An access inside another one of the same thread runs in place where the outer one
// holds the item already; ask for two items at once rather than for one inside the other, since only then nobody else
// who wants both can wait for us while we wait for him. Without a timeout an access waits as long as it takes.
// Thread-safe.
//
// Errors: POSIXErrorDomain ETIMEDOUT; EDEADLK for writing what the same thread is reading; what the lock file or the
// copy cannot be made for, as in FileSystem.h. The accessor has not run then.
class FileCoordinator {
 public:
  using Timeout = std::optional<std::chrono::milliseconds>;
  using Accessor = std::function<void(const URL& url)>;
  using PairAccessor = std::function<void(const URL& url, const URL& newURL)>;

  // In the process's container. An empty purpose identifier throws InvalidArgumentException.
  explicit FileCoordinator(std::string purposeIdentifier);
  // With a folder of the lock file, and presenters to tell.
  FileCoordinator(std::string purposeIdentifier, const std::string& folder, FilePresenters& presenters);

  Result<void> coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                          const Accessor& accessor, Timeout timeout = {}) const;
  Result<void> coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                          const Accessor& accessor, Timeout timeout = {}) const;
  // Both at once, for moves: presenters hear of a move when the item is at the new place afterwards and no longer at
  // the old one.
  Result<void> coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options, const URL& newURL,
                                          FileCoordinatorWritingOptions newOptions, const PairAccessor& accessor,
                                          Timeout timeout = {}) const;

  const std::string& purposeIdentifier() const { return purposeIdentifier_; }

 private:
  Result<std::string> folder() const;
  void post(ItemChange::Kind kind, const std::string& path, const std::string& newPath = {}) const;

  std::string purposeIdentifier_;
  std::optional<std::string> folder_;  // absent: the container
  FilePresenters& presenters_;
};

}  // namespace florvane
