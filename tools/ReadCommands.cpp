#include "tools/CachedTree.h"
#include "tools/Commands.h"
#include "tools/ProgressBar.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <span>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr std::size_t kCopyBytes = std::size_t{3} * 512 * 1024;  // a multiple of 3, as pieces are written in base64 too

using Bytes = std::span<const std::uint8_t>;

// Hands on a file piece by piece, each of kCopyBytes except the last.
Result<void> readPieces(const std::string& path, const std::function<Result<void>(Bytes)>& receive) {
  auto file = openFile(path, O_RDONLY);
  if (!file) return Failure(file.error());
  std::vector<std::uint8_t> buffer(kCopyBytes);
  std::size_t filled = 0;
  while (true) {
    ssize_t count = ::read(file->get(), buffer.data() + filled, buffer.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failure(Error::fileRead(errno, path));
    filled += static_cast<std::size_t>(count);
    if (count > 0 && filled < buffer.size()) continue;
    if (auto received = receive({buffer.data(), filled}); !received) return received;
    if (count == 0) return {};
    filled = 0;
  }
}

Result<void> copyFile(const std::string& path, int to, const std::string& toPath) {
  auto file = openFile(path, O_RDONLY);
  return file ? copyContents(file->get(), to, path, toPath) : Failure(file.error());
}

// The file as the one object that a script expects, without holding it in memory.
Result<void> printAsObject(const std::string& path, const std::string& name) {
  auto print = [](std::string_view text) {
    return writeAll(STDOUT_FILENO, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
                    "standard output");
  };
  auto done = print("{\"name\":" + nlohmann::json(name).dump() + R"(,"encoding":"base64","contents":")");
  if (!done) return done;
  done = readPieces(path, [&](Bytes bytes) { return print(base64Encode(Data(bytes.data(), bytes.size()))); });
  return done ? print("\"}\n") : done;
}

// Puts a copy of a file in its place: under a temporary name beside it, and then a rename, so that whatever stood there
// is whole until the new file is, also if power fails. What stood there keeps its mode.
Result<void> replaceFile(const std::string& cached, const std::string& destination, std::optional<Date> modified,
                         std::optional<mode_t> presentMode) {
  std::string folder = std::filesystem::path(destination).parent_path();
  auto temporary = makeTemporaryFile(folder.empty() ? "." : folder, ".florvane-get-");
  if (!temporary) return Failure(temporary.error());
  auto& [file, path] = *temporary;
  auto placed = copyFile(cached, file.get(), path);
  mode_t mask = umask(0);
  umask(mask);
  if (placed && fchmod(file.get(), presentMode.value_or(0666 & ~mask)) != 0) {
    placed = Failure(Error::fileWrite(errno, path));
  }
  if (placed && modified) placed = setContentModificationDate(file.get(), *modified);
  if (placed && presentMode && fsync(file.get()) != 0) placed = Failure(Error::fileWrite(errno, path));
  if (placed && ::rename(path.c_str(), destination.c_str()) != 0)
    placed = Failure(Error::fileWrite(errno, destination));
  if (!placed) (void)removeItem(path);
  return placed;
}

// A symbolic link stays one, and a device or a pipe is written to.
Result<void> placeFile(const std::string& cached, const std::string& destination, std::optional<Date> modified) {
  struct stat present{};
  if (::stat(destination.c_str(), &present) != 0) return replaceFile(cached, destination, modified, std::nullopt);
  if (S_ISREG(present.st_mode)) {
    return replaceFile(cached, realPath(destination).value_or(destination), modified, present.st_mode & 0777);
  }
  auto device = openFile(destination, O_WRONLY | O_NOCTTY);
  return device ? copyFile(cached, device->get(), destination) : Failure(device.error());
}

}  // namespace

ExitStatus catFile(const Output& output, const ItemOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = CachedTree::open(reference.account, output.options(), options.freshness);
  if (!tree) return output.fail(tree.error());
  auto file = tree->file(reference);
  if (!file) return output.fail(file.error());
  tree->tellWhetherCached(output);
  auto done = output.options().json ? printAsObject(file->localPath, file->item.name)
                                    : copyFile(file->localPath, STDOUT_FILENO, "standard output");
  return done ? ExitStatus::Done : output.fail(failureForError(done.error(), tree->server(), reference.text()));
}

ExitStatus getFile(const Output& output, const GetOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = CachedTree::open(reference.account, output.options(), options.freshness);
  if (!tree) return output.fail(tree.error());
  ProgressBar bar(output);
  if (bar.isShown()) {
    tree->setProgress([&](std::int64_t received, std::int64_t total) { bar.show(reference.text(), received, total); });
  }
  auto file = tree->file(reference);
  bar.clear();
  if (!file) return output.fail(file.error());
  tree->tellWhetherCached(output);
  std::filesystem::path destination = options.local.value_or(file->item.name);
  std::error_code ignored;
  if (std::filesystem::is_directory(destination, ignored)) destination /= file->item.name;
  auto modified = file->item.attributes.date(ResourceContentModificationDateKey);
  auto done = placeFile(file->localPath, destination, modified);
  if (!done) return output.fail(failureForError(done.error(), tree->server(), reference.text()));
  if (output.options().json) output.object({{"path", destination.string()}});
  output.note("Fetched " + reference.text() + " to " + destination.string());
  return ExitStatus::Done;
}

}  // namespace florvane::tools
