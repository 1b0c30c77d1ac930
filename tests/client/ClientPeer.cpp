// A client process of the container (named by the environment), driven line by line: each line of standard input is a
// JSON object with "op", each line of standard output its answer.
//   client_peer PORT SECONDS [BUNDLE]    signs in to that port of the loopback; its clock stands still, ahead of the
//                                        machine's by so much, or goes with the machine's, for "live"
//   {"op": "list", "path", "sync"}      {"state", "items": [{"name", "type", "size", "modified"}], "error"}
//   {"op": "stat", "path"}              {"state", "error"}
//   {"op": "read", "path"}              {"state", "file": local path or null, "error"}
//   {"op": "settle", "path"}            everything below, refreshed: {"directories", "files", "errors"}
//   {"op": "watch" | "unwatch", "path"} {}
//   {"op": "calls"}                     what delegates were told since the last time: {"calls"}
//   {"op": "known"}                     what the database holds: {"paths": {path: identifier}, "assertions"}
//   {"op": "advance", "seconds"}        {}
//   {"op": "write", "path", "source"}   {"error"}
//   {"op": "restart"}                   starts the uploads that are due again: {}
//   {"op": "uploads"}                   those that are due: {"uploads": [{"path", "error", "task"}]}
//   {"op": "pending"}                   whether there are any: {"any"}
//   {"op": "events"}                    takes what it missed: {"ended": [tasks, in order]} when that is all
//   {"op": "rebuild"}                   {"error"}
//   {"op": "unsent"}                    files whose bytes the server does not have: {"paths"}
//   {"op": "logged", "text"}            how many messages hold that text: {"count"}
//   {"op": "quit"}                      ends as a program does that returns from its main function
//   {"op": "upload", "path"}            sends what was given up: {"error"}
//   {"op": "refresh", "path"}           {"error"}
//   {"op": "batch", "of": [...]}        {"answers": [...]}, each with "began" and "ended", in microseconds of the
//                                       machine's clock
//   {"op": "usage"}                     what the process holds: {"kibibytes", "threads": {name: count},
//                                       "descriptors": {kind: count}}
// A file's answer has "version", of the text of a VersionText, null where there is no file and -1 where it is torn,
// "confirmed", when the file was last downloaded, and "listed", when the folder it is in was before it was asked for.

#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/Florvane.h"
#include "common/PUAdditions.h"
#include "tests/client/VersionText.h"
#include "tests/support/ManualClock.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>

namespace {

using namespace florvane;
using nlohmann::json;

json describe(const std::optional<Error>& error) {
  return error ? json{{"domain", error->domain()}, {"code", error->code()}, {"text", error->localizedDescription()}}
               : json(nullptr);
}

json describe(const Dictionary& item) {
  json described = {{"name", item.string(ResourceNameKey).value_or("")},
                    {"type", item.string(ResourceFileResourceTypeKey).value_or("")}};
  if (auto size = item.integer(ResourceFileSizeKey)) described["size"] = *size;
  if (auto date = item.date(ResourceContentModificationDateKey)) {
    described["modified"] = date->microsecondsSince1970();
  }
  return described;
}

class Delegate : public DCDocumentManagerDelegate {
 public:
  void didUpdateContentsOfDirectoryAtPath(Manager, const std::string& path, const Array&) override {
    note("contents of directory", path);
  }
  void didUpdateAttributesOfItemAtPath(Manager, const std::string& path, const Dictionary&) override {
    note("attributes", path);
  }
  void didUpdateContentsOfFileAtPath(Manager, const std::string& path) override { note("contents", path); }
  void didUpdateThumbnailOfFileAtPath(Manager, const std::string& path, const URL&) override {
    note("thumbnail", path);
  }
  void didFailToUpdateItemAtPath(Manager, const std::string& path, const Error& error) override {
    note("failure " + error.localizedDescription(), path);
  }
  json take() {
    std::lock_guard lock(mutex_);
    return std::exchange(calls_, json::array());
  }

 private:
  void note(const std::string& what, const std::string& path) {
    std::lock_guard lock(mutex_);
    calls_.push_back({what, path});
  }
  std::mutex mutex_;  // guards calls_
  json calls_ = json::array();
};

// In use, since what the heap has given back stays with the process in pieces, more or less of it by chance.
json usage() {
  json descriptors = json::object();
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(each, error);
    int domain = 0;
    socklen_t size = sizeof(domain);
    getsockopt(std::stoi(each.path().filename()), SOL_SOCKET, SO_DOMAIN, &domain, &size);
    const std::string name = target.filename();
    std::string kind = domain == AF_INET ? "connection" : name.substr(0, name.find(":["));
    descriptors[kind] = descriptors.value(kind, 0) + 1;
  }
  json threads = json::object();
  for (const auto& each : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name = test::readText(each.path() / "comm");
    name.pop_back();
    threads[name] = threads.value(name, 0) + 1;
  }
  const auto heap = mallinfo2();
  return {{"kibibytes", (heap.uordblks + heap.hblkhd) / 1024}, {"descriptors", descriptors}, {"threads", threads}};
}

// Stands still, or follows the machine's clock: its date to the microsecond, since other processes compare theirs with
// it, its timers by ticks.
class PeerClock : public test::ManualClock {
 public:
  PeerClock(bool isLive, std::chrono::seconds ahead) : ManualClock(Clock::system().now() + ahead), isLive_(isLive) {
    if (isLive_) std::thread([this] { tick(); }).detach();
  }
  Date now() const override { return isLive_ ? Clock::system().now() + Duration(leapt_.load()) : ManualClock::now(); }
  void leap(Duration time) {
    leapt_ += time.count();
    move(time);
  }

 private:
  [[noreturn]] void tick() {
    for (auto last = Clock::system().now();;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const auto now = Clock::system().now();
      move(now - std::exchange(last, now));
    }
  }
  void move(Duration time) {
    std::lock_guard lock(mutex_);
    advance(time);
  }

  const bool isLive_;
  std::atomic<Duration::rep> leapt_ = 0;
  std::mutex mutex_;  // who moves it, one at a time
};

class Peer {
 public:
  Peer(std::uint16_t port, const std::string& clock)
      : isLive_(clock == "live"),
        log_(isLive_ ? &showAssertion : nullptr),
        clock_(isLive_, std::chrono::seconds(isLive_ ? 0 : std::stoi(clock))) {
    DCDocumentManager::setPurposeIdentifier("peer " + std::to_string(getpid()));
    service_ = DCService::serviceWithAccount(account(port), clock_);
    manager_ = DCDocumentManager::documentManagerForService(service_);
    answers_ = SerialQueue::create("answers");
    manager_->setCompletionHandlerQueue(answers_);
  }

  json perform(const json& request) {
    const std::string op = request.at("op");
    const std::string path = request.value("path", "");
    asked_.insert({path, path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/'))});
    if (op == "batch") return batch(request.at("of"));
    if (op == "usage") return usage();
    if (op == "refresh") return refresh(path);
    if (op == "upload") return upload(path);
    if (op == "list") return list(path, request.value("sync", false));
    if (op == "stat") return stat(path);
    if (op == "read") return read(path);
    if (op == "settle") return settle(path);
    if (op == "calls") {
      // What was queued for delegates before this comes before the answer.
      answers_->sync([] {});
      return {{"calls", delegate_->take()}};
    }
    if (op == "known") return known();
    if (op == "write") return write(path, request.at("source"));
    if (op == "uploads") return uploads();
    if (op == "pending") return {{"any", manager_->hasPendingUploads()}};
    if (op == "events") return events();
    if (op == "rebuild") return rebuild();
    if (op == "unsent") return unsent();
    if (op == "logged") return logged(request.at("text"));
    if (op == "quit") std::exit(0);
    if (op == "restart") manager_->restartUploads();
    if (op == "watch") manager_->setDelegate(delegate_, answers_, path);
    if (op == "unwatch") manager_->removeDelegateForFilterPath(path);
    if (op == "advance") clock_.leap(std::chrono::seconds(request.at("seconds").get<int>()));
    return json::object();
  }

 private:
  // A live one's log is shown at once, since it may be killed, and not kept.
  static bool showAssertion(const SystemLogMessage& message) {
    const bool isAssertion = message.text.find("failed assertion") != std::string::npos;
    if (isAssertion) std::fprintf(stderr, "%s\n", message.text.c_str());
    return false;
  }

  static Account account(std::uint16_t port) {
    auto store = AccountStore::shared();
    if (!store) throw std::runtime_error(store.error().description());
    auto known = (*store)->accountWithName("office");
    if (known && *known) return **known;
    Account account;
    account.name = "office";
    account.userName = "ada";
    account.hostName = "127.0.0.1";
    account.dataClassPortNumber = port;
    auto added = (*store)->add(account, Secret("Notes by the Translator: G"));
    // Another one may have been faster.
    known = (*store)->accountWithName("office");
    if (known && *known) return **known;
    if (!added) throw std::runtime_error(added.error().description());
    return *added;
  }

  // Calls the operation with a handler and waits for what it makes of its arguments.
  template <typename Start>
  static json wait(Start&& start) {
    auto promise = std::make_shared<std::promise<json>>();
    auto answer = promise->get_future();
    start(promise);
    return answer.get();
  }

  json batch(const json& requests) {
    json answers = json::array();
    for (const json& request : requests) {
      const std::int64_t began = Clock::system().now().microsecondsSince1970();
      answers.push_back(perform(request));
      answers.back()["began"] = began;
      answers.back()["ended"] = Clock::system().now().microsecondsSince1970();
    }
    return {{"answers", answers}};
  }

  json refresh(const std::string& path) {
    return wait([&](const auto& promise) {
      manager_->refreshItemAtPath(
          path, [promise](const std::optional<Error>& error) { promise->set_value({{"error", describe(error)}}); });
    });
  }

  json dateOfDownload(const std::string& path) {
    const auto item = DCCachedItemManager::itemAtRelativePath(DCRelativePath::relativePathWithString(path, service_));
    const auto date = item ? item->lastDownloadDate() : std::nullopt;
    return date ? json(date->microsecondsSince1970()) : json(nullptr);
  }

  json list(const std::string& path, bool sync) {
    return wait([&](const auto& promise) {
      if (sync) manager_->_synchronousNextContentsOfDirectory();
      manager_->contentsOfDirectoryAtPath(
          path, [promise](DCDocumentManagerFreshnessState state, const std::optional<Array>& contents,
                          const std::optional<Error>& error) {
            json items = json::array();
            for (const Value& each : contents.value_or(Array())) items.push_back(describe(*each.asDictionary()));
            promise->set_value({{"state", std::int64_t{state}}, {"items", items}, {"error", describe(error)}});
          });
    });
  }

  json stat(const std::string& path) {
    return wait([&](const auto& promise) {
      manager_->attributesOfItemAtPath(
          path, [promise](DCDocumentManagerFreshnessState state, const std::optional<Dictionary>& attributes,
                          const std::optional<Error>& error) {
            promise->set_value({{"state", std::int64_t{state}},
                                {"item", attributes ? describe(*attributes) : json(nullptr)},
                                {"error", describe(error)}});
          });
    });
  }

  json read(const std::string& path) {
    const json listed = isLive_ ? dateOfDownload(path.substr(0, path.rfind('/'))) : json(nullptr);
    json answer = wait([&](const auto& promise) {
      manager_->contentsOfFileAtPath(path, [promise](DCDocumentManagerFreshnessState state,
                                                     const std::optional<URL>& url, const std::optional<Error>& error) {
        promise->set_value({{"state", std::int64_t{state}},
                            {"file", url ? json(url->path()) : json(nullptr)},
                            {"error", describe(error)}});
      });
    });
    if (!isLive_) return answer;
    answer["listed"] = listed;
    // What the bytes are is asked for afterwards, so that they are no older than what was confirmed by then.
    answer["confirmed"] = dateOfDownload(path);
    auto bytes = answer["file"].is_string() ? readFile(answer["file"]) : Result<Data>(Failure(Error::posix(ENOENT)));
    answer["version"] = bytes ? json(test::versionOfText(std::string(bytes->view())).value_or(-1)) : json(nullptr);
    return answer;
  }

  json write(const std::string& path, const std::string& source) {
    return wait([&](const auto& promise) {
      manager_->writeToFileAtPath(path, URL::fileURL(source),
                                  [promise](const std::optional<URL>&, const std::optional<Error>& error) {
                                    promise->set_value({{"error", describe(error)}});
                                  });
    });
  }

  json upload(const std::string& path) {
    return wait([&](const auto& promise) {
      manager_->startUploadingItemAtPath(path, [promise](const std::optional<URL>&, const std::optional<Error>& error) {
        promise->set_value({{"error", describe(error)}});
      });
    });
  }

  json uploads() {
    return wait([&](const auto& promise) {
      manager_->allPendingUploadsWithCompletionHandler(
          [promise](const std::vector<std::shared_ptr<DCManagedUpload>>& all) {
            json uploads = json::array();
            for (const auto& upload : all) {
              uploads.push_back({{"path", upload->path().value_or("")},
                                 {"error", upload->error().value_or("")},
                                 {"task", upload->taskIdentifier().value_or(0)}});
            }
            promise->set_value({{"uploads", uploads}});
          });
    });
  }

  json events() {
    static constexpr std::string_view kEnded = "Handling completion of background upload for task: ";
    dc_log_set_level(dc_log_default_category(), DCLogLevelInfo);
    auto finished = std::make_shared<std::promise<void>>();
    manager_->handleEventsForBackgroundURLSession(DCBackgroundSessionIdentifier(*service_, DCMainBundleIdentifier()),
                                                  [finished] { finished->set_value(); });
    finished->get_future().wait();
    DCLogError("%s", "events are finished");
    (void)log_.waitFor("events are finished");
    json ended = json::array();
    for (const auto& message : log_.messages()) {
      if (message.text.starts_with(kEnded)) ended.push_back(std::stoull(message.text.substr(kEnded.size())));
    }
    return {{"ended", ended}};
  }

  json rebuild() {
    return wait([&](const auto& promise) {
      manager_->rebuildDatabaseWithCompletionHandler(
          [this, promise] { promise->set_value({{"error", describe(manager_->rebuildError())}}); });
    });
  }

  json unsent() {
    json paths = json::array();
    for (const auto& file : DCUnsentFiles::unsentFilesOfService(service_, *DCDatabase::databaseForService(service_))) {
      paths.push_back(file.relativePath);
    }
    return {{"paths", paths}};
  }

  json logged(const std::string& text) {
    const std::string mark = "mark " + std::to_string(++marks_);
    DCLogError("%s", mark);
    (void)log_.waitFor(mark);
    std::size_t count = 0;
    for (const auto& message : log_.messages()) count += message.text.find(text) != std::string::npos ? 1 : 0;
    return {{"count", count}};
  }

  // A listing that is under way shows the folder as it was when it was asked for.
  void waitForDownloads() {
    auto queue =
        FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier());
    auto downloads = DCDownloadManager::downloadManagerForService(service_);
    queue->dispatchSynchronousBlock([] {});  // what was asked for has started
    for (const std::string& path : std::exchange(asked_, {})) {
      while (downloads->downloadTaskForItemAtPath(path)) std::this_thread::yield();
    }
    queue->dispatchSynchronousBlock([] {});  // and was taken in
  }

  // Top down, each directory long enough after its parent that it has to be asked for.
  json settle(const std::string& path) {
    waitForDownloads();
    json directories = json::object(), files = json::object(), errors = json::array();
    std::vector<std::string> open{path};
    while (!open.empty()) {
      const std::string directory = open.back();
      open.pop_back();
      // Where others live by the same clock it is not moved.
      if (!isLive_) clock_.leap(std::chrono::seconds(11));
      const json refreshed = isLive_ ? refresh(directory) : json{{"error", nullptr}};
      const json listing = list(directory, !isLive_);
      if (!refreshed["error"].is_null()) errors.push_back({directory, refreshed["error"]});
      if (!listing["error"].is_null()) errors.push_back({directory, listing["error"]});
      directories[directory] = listing;
      for (const json& item : listing["items"]) {
        const std::string child =
            directory.empty() ? item["name"].get<std::string>() : directory + "/" + item["name"].get<std::string>();
        if (item["type"] == ResourceTypeDirectory) {
          open.push_back(child);
        } else {
          const json answer = read(child);
          if (!answer["error"].is_null()) errors.push_back({child, answer["error"]});
          files[child] = answer;
        }
      }
    }
    return {{"directories", directories}, {"files", files}, {"errors", errors}};
  }

  json known() {
    json paths = json::object();
    auto database = DCDatabase::databaseForService(service_);
    if (auto root = database->documentIdentifierForPath("")) paths[""] = pu_hex(*root);
    for (const auto& [path, identifier] : database->documentIdentifiersForPathsBelow("")) {
      paths[path] = pu_hex(identifier);
    }
    json assertions = json::array();
    for (const auto& message : log_.messages()) {
      if (message.text.find("failed assertion") != std::string::npos) assertions.push_back(message.text);
    }
    return {{"service", service_->uniqueIdentifier()}, {"paths", paths}, {"assertions", assertions}};
  }

  const bool isLive_;
  test::RecordingSystemLog log_;
  int marks_ = 0;
  PeerClock clock_;
  std::shared_ptr<DCService> service_;
  DCDocumentManager::Ptr manager_;
  std::shared_ptr<SerialQueue> answers_;
  std::set<std::string> asked_;  // paths, and those above, whose downloads may be under way
  std::shared_ptr<Delegate> delegate_ = std::make_shared<Delegate>();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) return 2;
  try {
    if (argc == 4) DCSetMainBundleIdentifier(argv[3]);
    // Never taken down: work of its may still run when the input ends.
    auto& peer = *new Peer(static_cast<std::uint16_t>(std::stoi(argv[1])), argv[2]);
    std::cout << json::object() << std::endl;
    for (std::string line; std::getline(std::cin, line);) std::cout << peer.perform(json::parse(line)) << std::endl;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "client_peer: %s\n", exception.what());
    return 1;
  }
  (void)std::fflush(nullptr);
  std::_Exit(0);
}
