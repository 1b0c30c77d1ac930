#pragma once

#include "platform/FileSystem.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace florvane {

// Hears of changes in a watched directory, with the watcher's lock held: it notes them and returns.
class DirectoryChangeSink {
 public:
  virtual ~DirectoryChangeSink() = default;
  // The entry of that name is new, gone or different.
  virtual void entryChanged(std::string_view name) = 0;
  // The directory itself is renamed, moved or has other attributes; its entries are as they were.
  virtual void directoryChanged() = 0;
  // Changes were missed, or none will be heard of any more.
  virtual void changesMissed() = 0;
};

// Changes in directories, from inotify. Its thread passes them on as they come; drain() passes on at once all that
// happened before the call. Thread-safe.
class DirectoryWatcher {
 public:
  // Of one watched directory; ends the watching when it goes. The watcher outlives it.
  class Watch {
   public:
    ~Watch();
    // False once the kernel has dropped the watch, as it does when the directory is removed.
    bool active() const;

   private:
    friend class DirectoryWatcher;
    Watch(DirectoryWatcher& watcher, int number, std::size_t target)
        : watcher_(watcher), number_(number), target_(target) {}
    DirectoryWatcher& watcher_;
    const int number_;
    const std::size_t target_;
  };

  DirectoryWatcher();
  ~DirectoryWatcher();
  DirectoryWatcher(const DirectoryWatcher&) = delete;
  DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

  // Watches an open directory (O_PATH will do) for a sink. Null when the system allows no more watches.
  std::unique_ptr<Watch> watch(int directory, std::weak_ptr<DirectoryChangeSink> sink);
  // Watches it for the directory above: names that come and go are a change of the entry `name` there.
  std::unique_ptr<Watch> watchChild(int directory, std::weak_ptr<DirectoryChangeSink> parent, std::string name);
  void drain();

 private:
  struct Target {
    std::size_t number;
    std::weak_ptr<DirectoryChangeSink> sink;
    std::string nameInParent;  // empty when the sink is the directory itself
  };
  std::unique_ptr<Watch> add(int directory, Target target);
  void remove(int number, std::size_t target);
  // Sinks that were told are handed out, so that the last reference to one never goes under the lock.
  using Told = std::vector<std::shared_ptr<DirectoryChangeSink>>;
  void dispatch(int number, unsigned mask, std::string_view name, Told& told);
  void run();

  FileDescriptor inotify_;
  FileDescriptor stop_;
  const bool works_;
  std::mutex mutex_;  // guards the rest, and reading from inotify
  std::unordered_map<int, std::vector<Target>> targets_;
  std::size_t nextTarget_ = 0;
  std::thread thread_;
};

}  // namespace florvane
