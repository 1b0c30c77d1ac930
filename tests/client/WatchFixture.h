#pragma once

#include "Client/Client/Florvane.h"
#include "tests/support/ManualClock.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"
#include "tests/support/TestServer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace florvane::test {

// A delegate that keeps what it is told: "contents Files", "file Files/notes", "attributes ...", "failed ...".
class RecordingDelegate : public DCDocumentManagerDelegate {
 public:
  void didUpdateContentsOfDirectoryAtPath(Manager, const std::string& path, const Array& contents) override {
    std::lock_guard lock(mutex_);
    contents_[path] = contents;
    add("contents " + path);
  }
  void didUpdateAttributesOfItemAtPath(Manager, const std::string& path, const Dictionary&) override {
    std::lock_guard lock(mutex_);
    add("attributes " + path);
  }
  void didUpdateContentsOfFileAtPath(Manager, const std::string& path) override {
    std::lock_guard lock(mutex_);
    add("file " + path);
  }
  void didFailToUpdateItemAtPath(Manager, const std::string& path, const Error& error) override {
    std::lock_guard lock(mutex_);
    add("failed " + path + " " + error.domain());
  }

  // Returns when the words have been told, since the last forget(); false after the patience of a test.
  bool hears(const std::string& words) {
    return waitUntil([&] { return std::find(told_.begin(), told_.end(), words) != told_.end(); });
  }
  // The same for a listing, the last of some path, that satisfies the condition.
  bool sees(const std::function<bool(const Array& contents)>& condition) {
    return waitUntil([&] {
      return std::any_of(contents_.begin(), contents_.end(), [&](const auto& each) { return condition(each.second); });
    });
  }
  bool heard(const std::string& words) const {
    std::lock_guard lock(mutex_);
    return std::find(told_.begin(), told_.end(), words) != told_.end();
  }
  void forget() {
    std::lock_guard lock(mutex_);
    told_.clear();
    contents_.clear();
  }

 private:
  bool waitUntil(const std::function<bool()>& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), condition);
  }
  void add(const std::string& words) {
    told_.push_back(words);
    changed_.notify_all();
  }
  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::vector<std::string> told_;
  std::map<std::string, Array> contents_;  // by path
};

// Until something comes true that nobody announces; ctest's limit ends a wait in vain.
inline void untilTrue(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::yield();
}

inline std::size_t sizeOfEntryNamed(const Array& contents, const std::string& name) {
  for (const Value& each : contents) {
    auto entry = each.asDictionary();
    if (entry && entry->string(ResourceNameKey) == name) {
      return static_cast<std::size_t>(entry->integer(ResourceFileSizeKey).value_or(0));
    }
  }
  return std::string::npos;
}

// An application with an account at a server of its own, on a clock that stands still unless the test moves it.
class WatchFixture : public testing::Test {
 protected:
  WatchFixture() {
    writeText(server.files() + "/notes", "1");
    dc_log_set_level(dc_log_default_category(), DCLogLevelDebug);
  }

  // Where the account's server is.
  virtual std::uint16_t port() const { return server.port(); }
  // Made on first use, so that a test can arrange the container before.
  const DCDocumentManager::Ptr& manager() {
    if (!manager_) {
      DCDocumentManager::setPurposeIdentifier("test");
      manager_ = DCDocumentManager::documentManagerForService(service());
      manager_->setCompletionHandlerQueue(queue);
    }
    return manager_;
  }
  const std::shared_ptr<DCService>& service() {
    if (!service_) {
      Account account;
      account.name = "office";
      account.userName = TestServer::user;
      account.hostName = "127.0.0.1";
      account.dataClassPortNumber = port();
      auto added = (*AccountStore::shared())->add(account, Secret(TestServer::password));
      if (!added) throw std::runtime_error(added.error().description());
      service_ = DCService::serviceWithAccount(*added, clock);
    }
    return service_;
  }
  std::shared_ptr<DCDatabase> database() { return DCDatabase::databaseForService(service()); }

  std::optional<Error> refresh(const std::string& path) {
    auto promise = std::make_shared<std::promise<std::optional<Error>>>();
    manager()->refreshItemAtPath(path, [promise](const std::optional<Error>& error) { promise->set_value(error); });
    return promise->get_future().get();
  }
  // Lists the root and a share, so that its items are known.
  void list(const std::vector<std::string>& paths = {"", "Files"}) {
    for (const auto& path : paths) ASSERT_FALSE(refresh(path)) << path;
  }
  std::shared_ptr<RecordingDelegate> watch(const std::string& path) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager()->setDelegate(delegate, queue, path);
    return delegate;
  }
  // A refreshed listing is not waited for: what the cache holds, and how well it is known to be current.
  std::pair<DCDocumentManagerFreshnessState, Array> cachedListing(const std::string& path) {
    std::promise<std::pair<DCDocumentManagerFreshnessState, Array>> promise;
    manager()->contentsOfDirectoryAtPath(path, [&](auto state, const auto& contents, const auto& error) {
      EXPECT_FALSE(error);
      promise.set_value({state, contents.value_or(Array())});
    });
    return promise.get_future().get();
  }
  DCRemoteDocumentManager& remoteManager() {
    return *DCRemoteDocumentManager::remoteDocumentManagerForService(service());
  }
  bool isFetching() { return remoteManager().isFetchingUpdates(); }
  // Until the server has been asked to tell of changes.
  void untilWaiting() {
    untilTrue([&] { return remoteManager().isWaitingForUpdates(); });
  }
  // Until the request has ended, as it does without a server; or the server has been asked.
  void untilEndedOrWaiting() {
    for (int i = 0; i < 2; ++i) {
      untilTrue([&] { return !isFetching() || remoteManager().isWaitingForUpdates(); });
      settle();
    }
  }
  // Log lines that begin so.
  std::size_t countOfLines(std::string_view beginning) const {
    const auto messages = log.messages();
    return static_cast<std::size_t>(std::count_if(messages.begin(), messages.end(),
                                                  [&](const auto& each) { return each.text.starts_with(beginning); }));
  }
  std::size_t watchRequests() const { return countOfLines("Will start bothload task with request"); }
  std::size_t downloadRequests() const { return countOfLines("Will start download task with request"); }
  // Everything that was submitted to the service's queue until now has run.
  void settle() {
    FVFQueueManager::sharedQueueManager()
        .queueForServiceWithUniqueIdentifier(service()->uniqueIdentifier())
        ->dispatchSynchronousBlock([] {});
  }
  // How often a watch has ended by itself and begun to wait for its time.
  std::size_t pauses() const {
    std::size_t count = 0;
    for (const auto& message : log.messages()) {
      count += message.text.find("Waiting to fetch updates again") != std::string::npos ? 1 : 0;
    }
    return count;
  }
  void untilPausesAre(std::size_t count) {
    untilTrue([&] { return pauses() >= count; });
    settle();
  }
  DCCachedFile::Ptr fileAt(const std::string& path) {
    return DCCachedItemManager::fileAtRelativePath(DCRelativePath::relativePathWithString(path, service()));
  }
  std::string documentRoot() { return DCFullPath::documentRootForService(service())->string(); }
  // Files below the container's "Recovered", by their names there.
  std::vector<std::string> recovered() const {
    std::vector<std::string> names;
    const std::string folder = container.file("Recovered");
    if (!std::filesystem::exists(folder)) return names;
    for (const auto& each : std::filesystem::recursive_directory_iterator(folder)) {
      if (each.is_regular_file()) names.push_back(each.path().lexically_relative(folder));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TestContainer container;
  RecordingSystemLog log;
  TestServer server;
  ManualClock& clock = makeClock();
  std::shared_ptr<SerialQueue> queue = SerialQueue::create("test");

 private:
  // Outlives what is kept for the life of the process.
  static ManualClock& makeClock() {
    static auto& clocks = *new std::vector<std::unique_ptr<ManualClock>>;
    return *clocks.emplace_back(std::make_unique<ManualClock>(Date::now()));
  }
  std::shared_ptr<DCService> service_;
  DCDocumentManager::Ptr manager_;
};

}  // namespace florvane::test
