#include "server/Upload.h"

#include <unistd.h>

namespace florvane {

Upload& Upload::operator=(Upload&& other) noexcept {
  if (this != &other) {
    discard();
    folder_ = std::move(other.folder_);
    file_ = std::move(other.file_);
    name_ = std::move(other.name_);
  }
  return *this;
}

Upload::~Upload() { discard(); }

void Upload::discard() {
  if (folder_.valid()) ::unlinkat(folder_.get(), name_.c_str(), 0);
  folder_.close();
  file_.close();
}

}  // namespace florvane
