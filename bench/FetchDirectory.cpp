// Fetches every file of one directory through the remote document manager, as many at a time as asked: the program
// that bench/compare holds against others. Usage: fetch_directory CONTAINER ACCOUNT SHARE FILES_AT_A_TIME

#include "Client/Client/Florvane.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>

namespace {

using namespace florvane;  // NOLINT(google-build-using-namespace): a small program

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "fetch_directory: %s\n", what.c_str());
  std::exit(1);
}

// The entries of a listing's body.
Array entriesOf(const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
  if (error) fail(error->description());
  auto bytes = readFile(container->url()->path());
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
  auto entries = list ? list->asArray() : std::nullopt;
  return entries ? *entries : Array();
}

template <typename Start>
Array list(Start start) {
  std::promise<Array> promise;
  start([&](const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
    promise.set_value(entriesOf(container, error));
  });
  return promise.get_future().get();
}

class Fetching {
 public:
  Fetching(DCRemoteDocumentManager& manager, DCActivityInfo::Ptr activityInfo, std::size_t atOnce)
      : manager_(manager), activityInfo_(std::move(activityInfo)), atOnce_(atOnce) {}

  void fetch(const Data& documentIdentifier) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return inFlight_ < atOnce_; });
    ++inFlight_;
    lock.unlock();
    manager_.contentsOfFileWithDocumentIdentifier(
        documentIdentifier, std::nullopt, activityInfo_,
        [this](const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
          if (error || !container) fail(error ? error->description() : "not modified");
          std::lock_guard done(mutex_);
          --inFlight_;
          changed_.notify_all();
        });
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return inFlight_ == 0; });
  }

 private:
  DCRemoteDocumentManager& manager_;
  const DCActivityInfo::Ptr activityInfo_;
  const std::size_t atOnce_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t inFlight_ = 0;
};

void run(const std::string& accountName, const std::string& shareName, std::size_t atOnce) {
  auto store = AccountStore::shared();
  if (!store) fail(store.error().description());
  auto account = (*store)->accountWithName(accountName);
  if (!account || !*account) fail("no account " + accountName);
  auto service = DCService::serviceWithAccount(*account);
  auto manager = DCRemoteDocumentManager::remoteDocumentManagerForService(service);
  auto queue = FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service->uniqueIdentifier());
  auto rootInfo = DCActivityInfo::activityInfoWithQueue(queue);
  Array shares = list([&](auto handler) {
    manager->contentsOfRootDirectoryUnlessVersionIdentifier(std::nullopt, rootInfo, std::move(handler));
  });
  for (const Value& each : shares) {
    auto share = each.asDictionary();
    auto identifier = share ? share->data(FVDocumentIdentifierKey) : std::nullopt;
    if (!identifier || share->string(ResourceNameKey) != shareName) continue;
    auto info = DCActivityInfo::activityInfoWithQueue(queue, identifier);
    Array files = list([&](auto handler) {
      manager->contentsOfDirectoryWithDocumentIdentifier(*identifier, std::nullopt, info, std::move(handler));
    });
    Fetching fetching(*manager, info, atOnce);
    for (const Value& file : files) fetching.fetch(*file.asDictionary()->data(FVDocumentIdentifierKey));
    fetching.wait();
    std::printf("%zu files\n", files.size());
    return;
  }
  fail("no share " + shareName);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) fail("usage: fetch_directory CONTAINER ACCOUNT SHARE FILES_AT_A_TIME");
  Container::setDirectory(argv[1]);
  run(argv[2], argv[3], static_cast<std::size_t>(std::strtoul(argv[4], nullptr, 10)));
  return 0;
}
