#include "tools/Commands.h"
#include "tools/RemoteTree.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr std::size_t kCopyBytes = 1024 * 1024;

Result<void> copyBytes(int from, int to, const std::string& fromPath, const std::string& toPath) {
  std::vector<std::uint8_t> buffer(kCopyBytes);
  while (true) {
    ssize_t count = ::read(from, buffer.data(), buffer.size());
    if (count == 0) return {};
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failure(Error::fileRead(errno, fromPath));
    auto written = writeAll(to, {buffer.data(), static_cast<std::size_t>(count)}, toPath);
    if (!written) return written;
  }
}

Result<void> copyFile(const std::string& path, int to, const std::string& toPath) {
  FileDescriptor from(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!from.valid()) return Failure(Error::fileRead(errno, path));
  return copyBytes(from.get(), to, path, toPath);
}

// Puts a downloaded file in its place: a temporary beside it, by link where the file systems are one, and a rename, so
// that whatever stood there is whole until the new file is.
Result<void> placeFile(const std::string& downloaded, const std::string& destination, std::optional<Date> modified) {
  std::string folder = std::filesystem::path(destination).parent_path();
  auto temporary = makeTemporaryFile(folder.empty() ? "." : folder, ".florvane-get-");
  if (!temporary) return Failure(temporary.error());
  auto& [file, path] = *temporary;
  auto placed =
      ::rename(downloaded.c_str(), path.c_str()) == 0 ? Result<void>() : copyFile(downloaded, file.get(), path);
  FileDescriptor written(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (placed && !written.valid()) placed = Failure(Error::fileWrite(errno, path));
  mode_t mask = umask(0);
  umask(mask);
  if (placed && fchmod(written.get(), 0666 & ~mask) != 0) placed = Failure(Error::fileWrite(errno, path));
  if (placed && modified) placed = setContentModificationDate(written.get(), *modified);
  if (placed && ::rename(path.c_str(), destination.c_str()) != 0)
    placed = Failure(Error::fileWrite(errno, destination));
  if (!placed) (void)removeItem(path);
  return placed;
}

}  // namespace

ExitStatus catFile(const Output& output, const std::string& text) {
  ItemReference reference = ItemReference::parse(text);
  auto tree = RemoteTree::open(reference.account, output.options());
  if (!tree) return output.fail(tree.error());
  auto item = tree->item(reference.path);
  if (!item) return output.fail(item.error());
  auto done = tree->read(*item, reference.text(),
                         [](const std::string& path) { return copyFile(path, STDOUT_FILENO, "standard output"); });
  return done ? ExitStatus::Done : output.fail(done.error());
}

ExitStatus getFile(const Output& output, const GetOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = RemoteTree::open(reference.account, output.options());
  if (!tree) return output.fail(tree.error());
  auto item = tree->item(reference.path);
  if (!item) return output.fail(item.error());
  std::filesystem::path destination = options.local.value_or(item->name);
  std::error_code ignored;
  if (std::filesystem::is_directory(destination, ignored)) destination /= item->name;
  auto modified = item->metadata.date(ResourceContentModificationDateKey);
  auto done = tree->read(*item, reference.text(), [destination, modified](const std::string& path) {
    return placeFile(path, destination, modified);
  });
  if (!done) return output.fail(done.error());
  if (output.options().json) output.object({{"path", destination.string()}});
  output.note("Fetched " + printable(reference.text()) + " to " + printable(destination));
  return ExitStatus::Done;
}

}  // namespace florvane::tools
