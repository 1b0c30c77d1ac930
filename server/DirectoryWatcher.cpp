#include "server/DirectoryWatcher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr unsigned kNamesChanged = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr unsigned kWanted = kNamesChanged | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                             IN_ONLYDIR | IN_EXCL_UNLINK;

}  // namespace

DirectoryWatcher::Watch::~Watch() { watcher_.remove(number_, target_); }

bool DirectoryWatcher::Watch::active() const {
  const std::lock_guard lock(watcher_.mutex_);
  return watcher_.targets_.contains(number_);
}

DirectoryWatcher::DirectoryWatcher()
    : inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      stop_(::eventfd(0, EFD_CLOEXEC)),
      works_(inotify_.valid() && stop_.valid()) {
  // Else nothing is ever watched, and directories are looked at again for each request.
  if (works_) thread_ = std::thread([this] { run(); });
}

DirectoryWatcher::~DirectoryWatcher() {
  if (!thread_.joinable()) return;
  ::eventfd_write(stop_.get(), 1);
  thread_.join();
}

std::unique_ptr<DirectoryWatcher::Watch> DirectoryWatcher::watch(int directory,
                                                                 std::weak_ptr<DirectoryChangeSink> sink) {
  return add(directory, {0, std::move(sink), {}});
}

std::unique_ptr<DirectoryWatcher::Watch> DirectoryWatcher::watchChild(int directory,
                                                                      std::weak_ptr<DirectoryChangeSink> parent,
                                                                      std::string name) {
  return add(directory, {0, std::move(parent), std::move(name)});
}

std::unique_ptr<DirectoryWatcher::Watch> DirectoryWatcher::add(int directory, Target target) {
  if (!works_) return nullptr;
  const std::string path = "/proc/self/fd/" + std::to_string(directory);
  const std::lock_guard lock(mutex_);
  const int number = ::inotify_add_watch(inotify_.get(), path.c_str(), kWanted);
  if (number < 0) return nullptr;
  target.number = nextTarget_++;
  std::unique_ptr<Watch> watch(new Watch(*this, number, target.number));
  targets_[number].push_back(std::move(target));
  return watch;
}

void DirectoryWatcher::remove(int number, std::size_t target) {
  const std::lock_guard lock(mutex_);
  const auto found = targets_.find(number);
  if (found == targets_.end()) return;
  std::erase_if(found->second, [&](const Target& candidate) { return candidate.number == target; });
  if (!found->second.empty()) return;
  targets_.erase(found);
  ::inotify_rm_watch(inotify_.get(), number);
}

void DirectoryWatcher::drain() {
  if (!works_) return;
  Told told;
  const std::lock_guard lock(mutex_);
  alignas(inotify_event) std::array<char, std::size_t{64} * 1024> buffer;
  for (;;) {
    const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(size);) {
      inotify_event event;
      std::memcpy(&event, buffer.data() + offset, sizeof(event));
      const char* const name = buffer.data() + offset + sizeof(event);
      dispatch(event.wd, event.mask, event.len > 0 ? std::string_view(name) : std::string_view(), told);
      offset += sizeof(event) + event.len;
    }
  }
}

void DirectoryWatcher::dispatch(int number, unsigned mask, std::string_view name, Told& told) {
  if ((mask & IN_Q_OVERFLOW) != 0) {
    for (const auto& [watched, targets] : targets_) {
      for (const Target& target : targets) {
        if (const auto& sink = told.emplace_back(target.sink.lock())) sink->changesMissed();
      }
    }
    return;
  }
  const auto found = targets_.find(number);
  if (found == targets_.end()) return;
  for (const Target& target : found->second) {
    const auto& sink = told.emplace_back(target.sink.lock());
    if (!sink) continue;
    if (!target.nameInParent.empty()) {
      if ((mask & (kNamesChanged | IN_IGNORED)) != 0) sink->entryChanged(target.nameInParent);
    } else if ((mask & IN_IGNORED) != 0) {
      sink->changesMissed();
    } else if (name.empty()) {
      sink->directoryChanged();
    } else {
      sink->entryChanged(name);
    }
  }
  if ((mask & IN_IGNORED) != 0) targets_.erase(found);
}

void DirectoryWatcher::run() {
  std::array<pollfd, 2> waiting{{{inotify_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
  for (;;) {
    if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) return;
    if (waiting[1].revents != 0) return;
    drain();
  }
}

}  // namespace florvane
