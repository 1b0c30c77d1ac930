#pragma once

#include "platform/Error.h"

#include <optional>
#include <string>
#include <utility>

namespace florvane {

// A file in the container's temporary directory that is to take another one's place, removed when it did not.
// Swept by name when a process was killed. Errors as in platform/FileSystem.h. For one thread at a time.
class DCTemporaryFile {
 public:
  // The very same file under another name; a copy, not synced, where the file system cannot link. Made where it can be
  // renamed to the target.
  static Result<DCTemporaryFile> linkedTo(const std::string& source, const std::string& target);
  // A copy with the source's date, not synced. An error (EBUSY as underlying one) when the source is
  // being written, however often it is tried.
  static Result<DCTemporaryFile> copyOf(const std::string& source, const std::string& target);

  DCTemporaryFile(DCTemporaryFile&& other) noexcept : path_(std::exchange(other.path_, {})), isLink_(other.isLink_) {}
  DCTemporaryFile& operator=(DCTemporaryFile&&) = delete;
  ~DCTemporaryFile();

  const std::string& path() const { return path_; }
  // Whether it is another name of its source.
  bool isLink() const { return isLink_; }
  // Puts its bytes on stable storage.
  Result<void> sync() const;
  // Renames it over the target.
  Result<void> moveTo(const std::string& target);

 private:
  explicit DCTemporaryFile(std::string path, bool isLink = false) : path_(std::move(path)), isLink_(isLink) {}
  static Result<DCTemporaryFile> copied(const std::string& source, const std::string& folder);
  std::string path_;
  bool isLink_ = false;
};

}  // namespace florvane
