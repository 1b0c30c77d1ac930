#include "tools/CachedTree.h"
#include "tools/Commands.h"
#include "tools/FollowingCopy.h"
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

constexpr char kTemporaryPrefix[] = ".florvane-get-";

using NamedFile = std::pair<FileDescriptor, std::string>;

// What was copied meanwhile gets its name now; else it is copied.
Result<NamedFile> temporaryCopy(const std::string& cached, const std::string& folder, FollowingCopy* following) {
  FileDescriptor copy = following ? following->finish(cached) : FileDescriptor();
  if (copy.valid()) {
    std::string path = folder + "/" + kTemporaryPrefix + makeUUID();
    const std::string unnamed = "/proc/self/fd/" + std::to_string(copy.get());
    if (linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      return NamedFile(std::move(copy), std::move(path));
    }
  }
  auto made = makeTemporaryFile(folder, kTemporaryPrefix);
  if (!made) return made;
  if (auto copied = copyFile(cached, made->first.get(), made->second); !copied) {
    (void)removeItem(made->second);
    return Failure(copied.error());
  }
  return made;
}

// Puts a copy of a file in its place: under a temporary name beside it, and then a rename, so that whatever stood there
// is whole until the new file is, also if power fails. What stood there keeps its mode.
Result<void> replaceFile(const std::string& cached, const std::string& destination, std::optional<Date> modified,
                         std::optional<mode_t> presentMode, FollowingCopy* following) {
  auto temporary = temporaryCopy(cached, folderOf(destination), following);
  if (!temporary) return Failure(temporary.error());
  auto& [file, path] = *temporary;
  Result<void> placed;
  mode_t mask = umask(0);
  umask(mask);
  if (fchmod(file.get(), presentMode.value_or(0666 & ~mask)) != 0) {
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
Result<void> placeFile(const std::string& cached, const std::string& destination, std::optional<Date> modified,
                       FollowingCopy* following) {
  struct stat present{};
  if (::stat(destination.c_str(), &present) != 0) {
    return replaceFile(cached, destination, modified, std::nullopt, following);
  }
  if (S_ISREG(present.st_mode)) {
    return replaceFile(cached, realPath(destination).value_or(destination), modified, present.st_mode & 0777,
                       following);
  }
  auto device = openFile(destination, O_WRONLY | O_NOCTTY);
  return device ? copyFile(cached, device->get(), destination) : Failure(device.error());
}

std::filesystem::path destinationFor(const GetOptions& options, const std::string& name) {
  std::filesystem::path destination = options.local.value_or(name);
  std::error_code ignored;
  if (std::filesystem::is_directory(destination, ignored)) destination /= name;
  return destination;
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
  const auto components = splitPath(reference.path);
  const std::filesystem::path expected = destinationFor(options, components.empty() ? "" : components.back());
  std::optional<FollowingCopy> following;
  if (std::error_code ignored; !std::filesystem::is_other(expected, ignored)) {
    following.emplace(folderOf(realPath(expected).value_or(expected)));
    tree->setPartialFile([&](const std::string& path, std::int64_t size) { following->follow(path, size); });
  }
  auto file = tree->file(reference);
  bar.clear();
  if (!file) return output.fail(file.error());
  tree->tellWhetherCached(output);
  const std::filesystem::path destination = destinationFor(options, file->item.name);
  auto modified = file->item.attributes.date(ResourceContentModificationDateKey);
  auto done = placeFile(file->localPath, destination, modified, following ? &*following : nullptr);
  if (!done) return output.fail(failureForError(done.error(), tree->server(), reference.text()));
  if (output.options().json) output.object({{"path", destination.string()}});
  output.note("Fetched " + reference.text() + " to " + destination.string());
  return ExitStatus::Done;
}

}  // namespace florvane::tools
