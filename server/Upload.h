#pragma once

#include "platform/FileSystem.h"

#include <string>
#include <utility>

namespace florvane {

// The temporary file that receives an upload's bytes, in the file system of its destination and never listed. Removed
// when this goes without having been stored. Belongs to one thread at a time.
class Upload {
 public:
  Upload(Upload&& other) noexcept = default;
  Upload& operator=(Upload&& other) noexcept;
  ~Upload();
  // Open for writing, at offset 0.
  int descriptor() const { return file_.get(); }

 private:
  friend class UploadFolder;
  Upload(FileDescriptor folder, FileDescriptor file, std::string name)
      : folder_(std::move(folder)), file_(std::move(file)), name_(std::move(name)) {}
  void discard();

  FileDescriptor folder_;
  FileDescriptor file_;
  std::string name_;
};

}  // namespace florvane
