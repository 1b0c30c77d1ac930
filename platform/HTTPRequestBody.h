#pragma once

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/FileSystem.h"
#include "platform/URL.h"

#include <cstdint>
#include <span>
#include <string>

namespace florvane {

// The bytes that a request sends: data in memory, or a file's contents, whose size is fixed when it is opened.
class HTTPRequestBody {
 public:
  explicit HTTPRequestBody(Data data) : data_(std::move(data)), size_(data_.size()) {}
  // Errors in URLErrorDomain: URLErrorFileDoesNotExist also for what is no regular file,
  // URLErrorNoPermissionsToReadFile also for any other failure to open it; each with the errno as underlying error.
  static Result<HTTPRequestBody> openFile(const std::string& path);

  std::uint64_t size() const { return size_; }
  // The next bytes, 0 at the end. Error: QuilbarErrorDomain's for reading, and for a file that is shorter by now.
  Result<std::size_t> read(std::span<char> buffer);

 private:
  HTTPRequestBody(FileDescriptor file, std::string path, std::uint64_t size)
      : file_(std::move(file)), path_(std::move(path)), size_(size) {}
  void forgetWhatWasRead();

  Data data_;
  FileDescriptor file_;
  std::string path_;
  std::uint64_t size_ = 0;
  std::uint64_t offset_ = 0;
  std::uint64_t forgotten_ = 0;  // up to there
};

}  // namespace florvane
