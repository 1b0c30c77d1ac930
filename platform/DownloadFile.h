#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace florvane {

// The file that a download is stored in, mode 0600 under a name of its own; removed when this goes, unless it was moved
// away by then. Bytes are gathered into large writes, the last of which is close()'s. Errors: URLErrorCannotWriteToFile
// with the file system's as underlying error.
class DownloadFile {
 public:
  // The system's temporary folder when the folder is empty.
  static Result<std::unique_ptr<DownloadFile>> create(const std::string& folder);
  ~DownloadFile();
  DownloadFile(const DownloadFile&) = delete;
  DownloadFile& operator=(const DownloadFile&) = delete;

  Result<void> append(std::span<const std::uint8_t> bytes);
  Result<void> close();
  const std::string& path() const { return path_; }

 private:
  DownloadFile(FileDescriptor file, std::string path) : file_(std::move(file)), path_(std::move(path)) {}
  Result<void> write(std::span<const std::uint8_t> bytes);
  FileDescriptor file_;
  std::string path_;
  std::vector<std::uint8_t> gathered_;
};

}  // namespace florvane
