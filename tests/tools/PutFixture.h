#pragma once

#include "platform/FileSystem.h"
#include "platform/NotificationCenter.h"
#include "tests/tools/CommandLineFixture.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace florvane::test {

// Hears of files that take their place in a folder, or begin to be written there, from its making on.
class Arrivals {
 public:
  explicit Arrivals(const std::string& folder) : descriptor_(inotify_init1(IN_CLOEXEC)) {
    inotify_add_watch(descriptor_.get(), folder.c_str(), IN_MOVED_TO | IN_CREATE);
  }
  // The name of the next one; empty when none comes within a minute.
  std::string next() {
    pollfd polled{descriptor_.get(), POLLIN, 0};
    if (names_.empty() && poll(&polled, 1, 60'000) == 1) {
      alignas(inotify_event) std::array<char, 8192> buffer;
      const ssize_t count = read(descriptor_.get(), buffer.data(), buffer.size());
      for (ssize_t at = 0; at < count;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        names_.emplace_back(event->name);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    if (names_.empty()) return "";
    std::string name = names_.front();
    names_.erase(names_.begin());
    return name;
  }
  bool waitFor(const std::string& name) {
    std::string heard = next();
    while (!heard.empty() && heard != name) heard = next();
    return heard == name;
  }

 private:
  FileDescriptor descriptor_;
  std::vector<std::string> names_;
};

// The program with the agent that it starts. What goes on without a visit is heard of by the container's notifications.
class PutFixture : public CommandLineFixture {
 protected:
  void TearDown() override {
    if (auto agent = agentProcess()) kill(*agent, SIGKILL);
    // Nobody is started any more; who was is waited for.
    std::error_code ignored;
    for (const auto& each : std::filesystem::directory_iterator(container + "/Resume", ignored)) {
      EXPECT_TRUE(FileLock::acquire(each.path(), true));
    }
    CommandLineFixture::TearDown();
  }

  std::optional<pid_t> agentProcess() const {
    const FileDescriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = container + "/Transfers/agent.socket";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return {};
    return credentials.pid;
  }

  // One object for each upload that is pending.
  std::vector<nlohmann::json> uploads() const {
    std::vector<nlohmann::json> all;
    const std::string printed = output({"--json", "uploads"});
    for (std::size_t at = 0; at < printed.size();) {
      const std::size_t end = printed.find('\n', at);
      all.push_back(nlohmann::json::parse(printed.substr(at, end - at), nullptr, false));
      at = end + 1;
    }
    return all;
  }
  // Until the records say so, with nobody but the program's own processes at work.
  bool becomesTrue(const std::function<bool()>& condition) const {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t changes = 0;
    NotificationCenter center(container + "/Notifications");
    auto heard = [&](const Notification&) {
      std::lock_guard lock(mutex);
      ++changes;
      changed.notify_all();
    };
    auto added = center.addObserver("FlorvaneDidAddOrRemoveUploadsNotification", heard);
    auto failed = center.addObserver("FlorvaneUploadDidFailNotification", heard);
    for (std::size_t seen = 0;;) {
      if (condition()) return true;
      std::unique_lock lock(mutex);
      if (!changed.wait_for(lock, std::chrono::minutes(1), [&] { return changes > seen; })) return condition();
      seen = changes;
    }
  }
  std::string put(const std::string& text, const std::string& place, std::vector<std::string> options = {}) const {
    writeText(folder.file("source"), text);
    options.insert(options.end(), {"put", folder.file("source"), place});
    return output(options);
  }
};

}  // namespace florvane::test
