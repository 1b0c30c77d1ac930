#include "platform/DownloadFile.h"

#include <filesystem>

#include <unistd.h>

namespace florvane {

namespace {

Error cannotWrite(const Error& cause, const std::string& path) {
  return Error(URLErrorDomain, URLErrorCannotWriteToFile,
               Dictionary{{LocalizedDescriptionKey, "The download cannot be stored: " + cause.localizedDescription()},
                          {FilePathErrorKey, path}})
      .withUnderlyingError(cause);
}

}  // namespace

Result<std::unique_ptr<DownloadFile>> DownloadFile::create(const std::string& folder) {
  std::error_code ignored;
  std::string place = folder.empty() ? std::filesystem::temp_directory_path(ignored).string() : folder;
  auto made = makeTemporaryFile(place, "download-");
  if (!made) return Failure(cannotWrite(made.error(), place));
  return std::unique_ptr<DownloadFile>(new DownloadFile(std::move(made->first), std::move(made->second)));
}

DownloadFile::~DownloadFile() { unlink(path_.c_str()); }

Result<void> DownloadFile::append(std::span<const std::uint8_t> bytes) {
  auto written = writeAll(file_.get(), bytes, path_);
  if (!written) return Failure(cannotWrite(written.error(), path_));
  return {};
}

}  // namespace florvane
