#pragma once

#include "platform/FileSystem.h"
#include "platform/URL.h"

#include <optional>
#include <utility>

namespace florvane {

// The file that an upload's answer was stored in: removed when this goes.
class DCUploadAnswer {
 public:
  explicit DCUploadAnswer(std::optional<URL> url) : url_(std::move(url)) {}
  ~DCUploadAnswer() {
    if (url_) (void)removeItem(url_->path());
  }
  DCUploadAnswer(const DCUploadAnswer&) = delete;
  DCUploadAnswer& operator=(const DCUploadAnswer&) = delete;

 private:
  const std::optional<URL> url_;
};

}  // namespace florvane
