#include "platform/DownloadFile.h"

#include <algorithm>
#include <filesystem>

#include <unistd.h>

namespace florvane {

namespace {

constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

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

// The network brings at most 16 KiB at a time, and a file system takes large pieces at half the price.
Result<void> DownloadFile::append(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto piece = bytes.first(std::min(bytes.size(), kPieceBytes - gathered_.size()));
    gathered_.insert(gathered_.end(), piece.begin(), piece.end());
    bytes = bytes.subspan(piece.size());
    if (gathered_.size() < kPieceBytes) continue;
    if (auto written = write(gathered_); !written) return written;
    gathered_.clear();
  }
  return {};
}

Result<void> DownloadFile::close() {
  auto written = write(gathered_);
  std::vector<std::uint8_t>().swap(gathered_);
  file_.close();
  return written;
}

Result<void> DownloadFile::write(std::span<const std::uint8_t> bytes) {
  auto written = writeAll(file_.get(), bytes, path_);
  if (!written) return Failure(cannotWrite(written.error(), path_));
  return {};
}

}  // namespace florvane
