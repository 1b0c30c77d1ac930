#include "tools/Commands.h"
#include "tools/PendingUploads.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr char kStandardInput[] = "-";
constexpr std::int64_t kMistmatchedType = 6;

CommandFailure usage(const std::string& sentence) { return {ExitStatus::Usage, sentence, std::nullopt}; }

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

std::string nameOf(const std::string& local) {
  const std::filesystem::path path = std::filesystem::path(local).lexically_normal();
  return (path.has_filename() ? path.filename() : path.parent_path().filename()).string();
}

// What cannot be read twice, in a file that can; removed at the end.
class SpooledFile {
 public:
  static Result<SpooledFile> of(int descriptor, const std::string& what) {
    const auto folder = DUTemporaryDirectory();
    if (!folder) return Failure(Error::fileWrite(ENOENT, "tmp"));
    if (auto made = createDirectories(*folder, 0700); !made) return Failure(made.error());
    auto temporary = makeTemporaryFile(*folder, "put-");
    if (!temporary) return Failure(temporary.error());
    SpooledFile spooled(temporary->second);
    if (auto copied = copyContents(descriptor, temporary->first.get(), what, spooled.path_); !copied) {
      return Failure(copied.error());
    }
    return spooled;
  }
  SpooledFile(SpooledFile&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  SpooledFile& operator=(SpooledFile&&) = delete;
  ~SpooledFile() {
    if (!path_.empty()) (void)removeItem(path_);
  }
  const std::string& path() const { return path_; }

 private:
  explicit SpooledFile(std::string path) : path_(std::move(path)) {}
  std::string path_;
};

class Put {
 public:
  Put(const Output& output, CachedTree tree, std::string account)
      : output_(output), uploads_(std::move(tree), std::move(account)) {
    uploads_.attach();
  }

  // The sources onto a place of the server's.
  void run(const std::vector<std::string>& sources, const ItemReference& target, bool mustBeFolder) {
    const bool isOneFile = sources.size() == 1 && !mustBeFolder && !isFolder(sources.front());
    if (isOneFile && !parentOf(target.path).empty()) {
      if (!folder(parentOf(target.path))) return;
      const auto present = uploads_.tree().known(target.path);
      if (!present || !present->isDirectory()) {
        putFile(sources.front(), target.path);
        return;
      }
    }
    if (!folder(target.path)) return;
    for (const std::string& source : sources) {
      if (isFolder(source)) {
        putFolder(source, target.path);
      } else if (source == kStandardInput) {
        fail(usage("Standard input has no name. Give it one: put - " + target.text() + "/NAME"));
      } else {
        putFile(source, joined(target.path, nameOf(source)));
      }
    }
  }

  ExitStatus finish(bool wait) {
    if (wait && !written_.empty()) waitUntilSent();
    const bool goesOn = uploads_.leave(output_);
    if (goesOn && !wait && !written_.empty() && !output_.options().json) {
      output_.note(count() + " safe, and on the way. See: florvane uploads " + uploads_.account());
    }
    return status_;
  }

 private:
  static bool isFolder(const std::string& local) {
    std::error_code ignored;
    return local != kStandardInput && std::filesystem::is_directory(local, ignored);
  }

  std::string count() const {
    return std::to_string(written_.size()) + (written_.size() == 1 ? " file is" : " files are");
  }

  // The first failure decides, but a conflict is what somebody has to look after.
  void fail(const CommandFailure& failure) {
    const ExitStatus status = output_.fail(failure);
    if (status_ == ExitStatus::Done || status == ExitStatus::Conflict) status_ = status;
  }
  void fail(const Error& error, const std::string& what) {
    fail(failureForError(error, uploads_.tree().server(), what));
  }

  std::string text(const std::string& path) const { return ItemReference{uploads_.account(), path}.text(); }

  // Whether that is a folder to write into; says why not.
  bool folder(const std::string& path) {
    auto found = uploads_.tree().folder(path);
    if (!found) {
      CommandFailure failure = found.error();
      if (failure.status == ExitStatus::NoSuchItem) {
        failure.sentence =
            text(path) + ": There is no such folder on the server, and folders cannot be made from here.";
      }
      fail(failure);
      return false;
    }
    if (found->isRoot || !found->attributes.boolean(ResourceIsWritableKey).value_or(true)) {
      fail({ExitStatus::Failed, text(path) + ": Nothing may be written there.", std::nullopt});
      return false;
    }
    return true;
  }

  // What lies in a folder goes into that folder of the server's, and its folders likewise where they exist.
  void putFolder(const std::string& local, const std::string& path) {
    std::error_code error;
    std::vector<std::filesystem::directory_entry> entries;
    for (std::filesystem::directory_iterator each(local, error), end; !error && each != end; each.increment(error)) {
      entries.push_back(*each);
    }
    if (error) fail(Error::fileRead(error.value(), local), local);
    std::sort(entries.begin(), entries.end());
    for (const auto& entry : entries) {
      const std::string below = joined(path, entry.path().filename().string());
      if (entry.is_directory(error) && !entry.is_symlink(error)) {
        if (folder(below)) putFolder(entry.path().string(), below);
      } else if (entry.is_regular_file(error)) {
        putFile(entry.path().string(), below);
      } else {
        // A link to a folder could lead round in circles, and a pipe never end.
        fail({ExitStatus::Failed, entry.path().string() + ": Neither a file nor a folder; left out.", std::nullopt});
      }
    }
  }

  void putFile(const std::string& local, const std::string& path) {
    if (!seen_.insert(path).second) {
      fail(usage(local + ": Another of the files goes to " + text(path) + " already."));
      return;
    }
    if (local == kStandardInput) {
      spool(STDIN_FILENO, "standard input", path);
      return;
    }
    struct stat status{};
    if (stat(local.c_str(), &status) != 0) {
      fail(Error::fileRead(errno, local), "");
      return;
    }
    if (S_ISREG(status.st_mode)) {
      write(std::filesystem::absolute(local).string(), local, path);
      return;
    }
    auto opened = openFile(local, O_RDONLY | O_NOCTTY);
    if (!opened) {
      fail(opened.error(), "");
      return;
    }
    spool(opened->get(), local, path);
  }

  void spool(int descriptor, const std::string& what, const std::string& path) {
    auto spooled = SpooledFile::of(descriptor, what);
    if (spooled) {
      write(spooled->path(), what, path);
    } else {
      fail(spooled.error(), what);
    }
  }

  void write(const std::string& source, const std::string& local, const std::string& path) {
    auto promise = std::make_shared<std::promise<std::optional<Error>>>();
    auto future = promise->get_future();
    uploads_.tree().manager()->writeToFileAtPath(
        path, URL::fileURL(source),
        [promise](const std::optional<URL>&, const std::optional<Error>& error) { promise->set_value(error); });
    const auto error = future.get();
    if (error && pc_isDCErrorWithCode(*error, kMistmatchedType)) {
      fail({ExitStatus::Failed, text(path) + ": A folder of that name is there.", error});
    } else if (error) {
      fail(*error, text(path));
    } else {
      written_.insert(path);
      if (output_.options().json) {
        output_.object({{"account", uploads_.account()}, {"path", path}, {"local", local}, {"state", "queued"}});
      }
    }
  }

  void waitUntilSent() {
    std::map<std::string, PendingUpload> ended;
    std::set<std::string> left = written_;
    (void)output_.flush();  // what is safe is known to who reads along
    auto look = [&] {
      std::vector<PendingUpload> pending;
      left.clear();
      ended.clear();
      for (auto& upload : uploads_.all()) {
        if (!written_.contains(upload.path)) continue;
        if (upload.isUnderWay()) left.insert(upload.path);
        if (!upload.isUnderWay()) ended.emplace(upload.path, upload);
        pending.push_back(std::move(upload));
      }
      return pending;
    };
    const bool isInTime = waitForUploads(output_, look, [&] { uploads_.restart(); });
    uploads_.settle();
    for (const std::string& path : written_) {
      if (auto found = ended.find(path); found != ended.end()) {
        fail(failureOfUpload(found->second, uploads_));
        continue;
      }
      if (left.contains(path)) continue;
      // A record also goes with what it stands for.
      if (auto failure = uploads_.failureOfEnded(path)) {
        fail(*failure);
      } else if (output_.options().json) {
        output_.object({{"account", uploads_.account()}, {"path", path}, {"state", "sent"}});
      }
    }
    if (!isInTime) fail(notSentInTime(left.size(), uploads_));
  }

  const Output& output_;
  PendingUploads uploads_;
  std::set<std::string> seen_, written_;
  ExitStatus status_ = ExitStatus::Done;
};

}  // namespace

ExitStatus putFiles(const Output& output, const PutOptions& options) {
  const std::string& last = options.arguments.back();
  const std::vector<std::string> sources(options.arguments.begin(), options.arguments.end() - 1);
  if (last.find(':') == std::string::npos) {
    return output.fail(usage("The last argument says where the files go, as NAME:PATH: " + last));
  }
  if (std::count(sources.begin(), sources.end(), kStandardInput) > 1) {
    return output.fail(usage("Standard input can be read only once."));
  }
  const ItemReference target = ItemReference::parse(last);
  if (target.path.empty()) {
    return output.fail(usage("Files go into a share, as NAME:SHARE/PATH. See: florvane ls " + target.account));
  }
  auto tree = CachedTree::open(target.account, output.options(), Freshness::Preferred);
  if (!tree) return output.fail(tree.error());
  Put put(output, std::move(*tree), target.account);
  put.run(sources, target, sources.size() > 1 || last.ends_with('/'));
  return put.finish(options.wait);
}

}  // namespace florvane::tools
