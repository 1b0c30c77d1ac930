// Times how long an edit in the server's folder takes to reach a delegate. bench/compare holds the figures against
// their limits. Prints one JSON object: milliseconds at the median, at the 99th percentile and at worst.
//   watch_timings CONTAINER ACCOUNT folder PATH FOLDER EDITS  one delegate for a directory: until it gets the listing
//                                                            that shows the edit
//   watch_timings CONTAINER ACCOUNT files PATH FOLDER EDITS   one delegate for each of its files: until the local copy
//                                                            of the edited one is the server's
//   watch_timings CONTAINER ACCOUNT burst PATH FOLDER EDITS   as many new files, made without a pause: from the last of
//                                                            them to the listing that shows them all
// PATH is the directory to clients, FOLDER the same on the server's disk. Edits cycle through the directory's files.

#include "Client/Client/Florvane.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace florvane;  // NOLINT(google-build-using-namespace): a small program
using Clocks = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "watch_timings: %s\n", what.c_str());
  std::_Exit(1);
}

void edit(const std::string& path, std::size_t size) {
  std::ofstream file(path, std::ios::trunc);
  if (!(file << std::string(size, 'x') << std::flush)) fail("cannot write " + path);
}

// Hears of one thing at a time: what the condition waits for.
class Listener : public DCDocumentManagerDelegate {
 public:
  using Condition = std::function<bool(const std::string& path, const Array* contents)>;

  void didUpdateContentsOfDirectoryAtPath(Manager /*manager*/, const std::string& path,
                                          const Array& contents) override {
    hear(path, &contents);
  }
  void didUpdateContentsOfFileAtPath(Manager /*manager*/, const std::string& path) override { hear(path, nullptr); }

  void expect(Condition condition) {
    const std::lock_guard lock(mutex_);
    condition_ = std::move(condition);
    heardAt_.reset();
  }
  // When it came true.
  Clocks::time_point wait() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(60), [this] { return heardAt_.has_value(); })) {
      fail("an edit was not heard of");
    }
    return *heardAt_;
  }

 private:
  void hear(const std::string& path, const Array* contents) {
    const Clocks::time_point now = Clocks::now();
    const std::lock_guard lock(mutex_);
    if (heardAt_ || !condition_ || !condition_(path, contents)) return;
    heardAt_ = now;
    changed_.notify_all();
  }

  std::mutex mutex_;  // guards the rest
  std::condition_variable changed_;
  Condition condition_;
  std::optional<Clocks::time_point> heardAt_;
};

class Timings {
 public:
  Timings(const std::string& accountName, std::string path, std::string folder)
      : path_(std::move(path)), folder_(std::move(folder)) {
    auto store = AccountStore::shared();
    if (!store) fail(store.error().description());
    auto account = (*store)->accountWithName(accountName);
    if (!account || !*account) fail("no account " + accountName);
    DCDocumentManager::setPurposeIdentifier("timings");
    manager_ = DCDocumentManager::documentManagerForService(DCService::serviceWithAccount(*account));
    manager_->setCompletionHandlerQueue(SerialQueue::create("answers"));
    list(path_);
    for (const auto& each : std::filesystem::directory_iterator(folder_)) names_.push_back(each.path().filename());
    std::sort(names_.begin(), names_.end());
    if (names_.empty()) fail("no files in " + folder_);
  }

  // Milliseconds from the beginning of each edit.
  std::vector<double> folder(std::size_t edits) {
    manager_->setDelegate(listener_, heard_, path_);
    return times(edits, [](const std::string& name, std::size_t size) -> Listener::Condition {
      return
          [=](const std::string& /*path*/, const Array* contents) { return contents && shows(*contents, name, size); };
    });
  }

  std::vector<double> files(std::size_t edits) {
    std::vector<std::string> local;
    local.reserve(names_.size());
    for (const auto& name : names_) {
      manager_->setDelegate(listener_, heard_, path_ + "/" + name);
      auto url = manager_->fileURLOfItemAtPath(path_ + "/" + name);
      if (!url) fail(url.error().description());
      local.push_back(url->path());
    }
    return times(edits, [this, local](const std::string& name, std::size_t size) -> Listener::Condition {
      const auto place = std::lower_bound(names_.begin(), names_.end(), name) - names_.begin();
      return [=, path = path_ + "/" + name, file = local.at(static_cast<std::size_t>(place))](
                 const std::string& told, const Array* /*contents*/) {
        std::error_code failure;
        return told == path && std::filesystem::file_size(file, failure) == size;
      };
    });
  }

  std::vector<double> burst(std::size_t edits) {
    manager_->setDelegate(listener_, heard_, path_);
    listener_->expect([all = names_.size() + edits](const std::string& /*path*/, const Array* contents) {
      return contents && contents->size() == all;
    });
    for (std::size_t i = 0; i < edits; ++i) edit(folder_ + "/burst " + std::to_string(i), 1);
    const auto last = Clocks::now();
    return {std::chrono::duration<double, std::milli>(listener_->wait() - last).count()};
  }

 private:
  static bool shows(const Array& contents, const std::string& name, std::size_t size) {
    return std::any_of(contents.begin(), contents.end(), [&](const Value& each) {
      const auto entry = each.asDictionary();
      return entry && entry->string(ResourceNameKey) == name &&
             entry->integer(ResourceFileSizeKey) == static_cast<std::int64_t>(size);
    });
  }

  std::vector<double> times(std::size_t edits,
                            const std::function<Listener::Condition(const std::string&, std::size_t)>& condition) {
    std::vector<double> milliseconds;
    milliseconds.reserve(edits);
    // The first waits for the watch to begin, and is not counted.
    for (std::size_t i = 0; i <= edits; ++i) {
      const std::string& name = names_[i % names_.size()];
      const std::size_t size = 1000 + i;
      listener_->expect(condition(name, size));
      const auto begin = Clocks::now();
      edit(folder_ + "/" + name, size);
      const auto end = listener_->wait();
      if (i > 0) milliseconds.push_back(std::chrono::duration<double, std::milli>(end - begin).count());
    }
    return milliseconds;
  }

  void list(const std::string& path) {
    if (!path.empty()) {
      const auto slash = path.rfind('/');
      list(slash == std::string::npos ? std::string() : path.substr(0, slash));
    }
    std::promise<void> promise;
    manager_->refreshItemAtPath(path, [&](const std::optional<Error>& error) {
      if (error) fail(error->description());
      promise.set_value();
    });
    promise.get_future().get();
  }

  const std::string path_, folder_;
  std::vector<std::string> names_;
  DCDocumentManager::Ptr manager_;
  const std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  const std::shared_ptr<SerialQueue> heard_ = SerialQueue::create("heard");
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) fail("usage: watch_timings CONTAINER ACCOUNT folder|files|burst PATH FOLDER EDITS");
  Container::setDirectory(argv[1]);
  Timings timings(argv[2], argv[4], argv[5]);
  const std::string what = argv[3];
  const auto edits = static_cast<std::size_t>(std::atoll(argv[6]));
  std::vector<double> times = what == "folder"  ? timings.folder(edits)
                              : what == "files" ? timings.files(edits)
                                                : timings.burst(edits);
  if (times.empty()) fail("no edits");
  std::sort(times.begin(), times.end());
  const auto percentile = [&times](std::size_t percent) { return times[(times.size() - 1) * percent / 100]; };
  std::printf("{\"what\": \"%s\", \"edits\": %zu, \"median\": %.3f, \"p99\": %.3f, \"worst\": %.3f}\n", what.c_str(),
              edits, percentile(50), percentile(99), times.back());
  (void)std::fflush(nullptr);
  std::_Exit(0);
}
