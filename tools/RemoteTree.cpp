#include "tools/RemoteTree.h"

#include <atomic>
#include <future>

namespace florvane::tools {

namespace {

constexpr Duration kUnlimited = std::chrono::hours(24 * 365);

bool isLegalName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= 255 &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

CommandFailure noSuchItem(const std::string& what) {
  return {ExitStatus::NoSuchItem, what + ": No such item.", std::nullopt};
}

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> components;
  std::size_t begin = 0;
  while (begin < path.size()) {
    std::size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) components.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return components;
}

}  // namespace

ItemReference ItemReference::parse(const std::string& text) {
  std::size_t colon = text.find(':');
  ItemReference reference{text.substr(0, colon), ""};
  if (colon == std::string::npos) return reference;
  for (const auto& component : splitPath(text.substr(colon + 1))) {
    reference.path += (reference.path.empty() ? "" : "/") + component;
  }
  return reference;
}

bool RemoteTree::Item::isDirectory() const {
  return isRoot || metadata.string(ResourceFileResourceTypeKey) == ResourceTypeDirectory;
}

CommandResult<RemoteTree> RemoteTree::open(const std::string& accountName, const CommonOptions& options) {
  if (accountName.empty()) {
    return tl::unexpected(CommandFailure{
        ExitStatus::Usage, "An account's name is missing: NAME or NAME:PATH. See: florvane account list", {}});
  }
  auto fail = [](const Error& error) { return tl::unexpected(failureForError(error, "", "")); };
  auto store = AccountStore::shared();
  if (!store) return fail(store.error());
  auto account = (*store)->accountWithName(accountName);
  if (!account) return fail(account.error());
  if (!*account) {
    return tl::unexpected(CommandFailure{ExitStatus::NoSuchItem,
                                         "There is no account named \"" + accountName +
                                             "\". Add one with: florvane account add " + accountName +
                                             " HOST[:PORT] --user USER",
                                         std::nullopt});
  }
  return RemoteTree(DCService::serviceWithAccount(*account), options.timeout.value_or(kUnlimited));
}

RemoteTree::RemoteTree(std::shared_ptr<DCService> service, Duration timeout)
    : service_(std::move(service)),
      manager_(DCRemoteDocumentManager::remoteDocumentManagerForService(service_)),
      rootActivityInfo_(DCActivityInfo::activityInfoWithQueue(
          FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier()))),
      deadline_(std::chrono::steady_clock::now() + timeout) {}

std::string RemoteTree::server() const {
  URL url = service_->url();
  return bracketedHost(url.host()) + ":" + std::to_string(url.effectivePort());
}

RemoteTree::Item RemoteTree::rootItem() const {
  Item root;
  root.activityInfo = rootActivityInfo_;
  root.isRoot = true;
  return root;
}

CommandResult<void> RemoteTree::perform(const std::string& what, const Start& start, const Receive& receive) const {
  for (int attempt = 1;; ++attempt) {
    auto promise = std::make_shared<std::promise<std::optional<Error>>>();
    auto future = promise->get_future();
    auto isDecided = std::make_shared<std::atomic<bool>>(false);  // by the answer or by the time limit
    // The operation runs on the service's queue: it may wait there for a sign-in, and --timeout still holds here. What
    // the caller handed in is copied, since this function may have returned when an answer comes late.
    auto answered = [receive, promise = std::move(promise), isDecided](const FVFResponseContainer::Ptr& container,
                                                                       const std::optional<Error>& error) {
      if (isDecided->exchange(true)) return;
      Result<void> received;
      if (container && container->url()) {
        received = receive(*container);
        // The process may end before the session has cleaned up.
        (void)removeItem(container->url()->path());
      } else if (!error) {
        received = Failure(Error(URLErrorDomain, URLErrorCannotParseResponse, "The server's answer has no contents."));
      }
      promise->set_value(error || received ? error : std::optional(received.error()));
    };
    rootActivityInfo_->queue()->dispatchAsynchronousBlock([start, answered = std::move(answered)] { start(answered); });
    if (future.wait_until(deadline_) == std::future_status::timeout && !isDecided->exchange(true)) {
      return tl::unexpected(failureForError(Error(URLErrorDomain, URLErrorTimedOut), server(), what));
    }
    auto error = future.get();
    if (!error) return {};
    if (attempt > 1 || !error->is(URLErrorDomain, 401)) return tl::unexpected(failureForError(*error, server(), what));
  }
}

CommandResult<RemoteTree::Listing> RemoteTree::listDirectory(const Item& directory, const std::string& what) const {
  auto listing = std::make_shared<Listing>();
  listing->directory = directory;
  auto receive = [listing](const FVFResponseContainer& container) -> Result<void> {
    auto bytes = readFile(container.url()->path());
    if (!bytes) return Failure(bytes.error());
    auto list = readPropertyList(*bytes);
    if (!list) return Failure(list.error());
    auto entries = list->asArray();
    if (!entries) return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError, "The listing is no list."));
    Item& parent = listing->directory;
    parent.metadata = container.metadata().value_or(Dictionary());
    listing->children.reserve(entries->size());
    for (const Value& entry : *entries) {
      auto metadata = entry.asDictionary();
      auto name = metadata ? metadata->string(ResourceNameKey) : std::nullopt;
      auto identifier = metadata ? metadata->data(FVDocumentIdentifierKey) : std::nullopt;
      if (!name || !isLegalName(*name) || !isValidUTF8(*name) || !identifier) {
        DCAssertionFailed("tools/RemoteTree", __LINE__, "childName");
        continue;
      }
      auto activityInfo = parent.isRoot
                              ? DCActivityInfo::activityInfoWithQueue(parent.activityInfo->queue(), identifier)
                              : parent.activityInfo;
      listing->children.push_back({*name, *metadata, activityInfo, false});
    }
    return {};
  };
  auto start = [manager = manager_, directory](DCRemoteCompletionHandler handler) {
    if (directory.isRoot) {
      manager->contentsOfRootDirectoryUnlessVersionIdentifier(std::nullopt, directory.activityInfo, std::move(handler));
    } else {
      manager->contentsOfDirectoryWithDocumentIdentifier(*directory.documentIdentifier(), std::nullopt,
                                                         directory.activityInfo, std::move(handler));
    }
  };
  if (auto performed = perform(what, start, receive); !performed) return tl::unexpected(performed.error());
  return std::move(*listing);
}

CommandResult<RemoteTree::Item> RemoteTree::item(const std::string& path) {
  Item current = rootItem();
  std::string walked;
  for (const auto& component : splitPath(path)) {
    if (!current.isDirectory()) return tl::unexpected(noSuchItem(path));
    auto listing = listDirectory(current, walked);
    if (!listing) return tl::unexpected(listing.error());
    auto& children = listing->children;
    auto child =
        std::find_if(children.begin(), children.end(), [&](const Item& each) { return each.name == component; });
    if (child == children.end()) return tl::unexpected(noSuchItem(path));
    current = std::move(*child);
    walked += (walked.empty() ? "" : "/") + component;
  }
  return current;
}

CommandResult<RemoteTree::Listing> RemoteTree::list(const std::string& path) {
  auto found = item(path);
  if (!found) return tl::unexpected(found.error());
  if (!found->isDirectory()) return Listing{*found, {}};
  return listDirectory(*found, path);
}

CommandResult<void> RemoteTree::read(const Item& file, const std::string& what,
                                     const std::function<Result<void>(const std::string& path)>& receive) {
  if (file.isDirectory()) {
    return tl::unexpected(CommandFailure{ExitStatus::Failed, what + ": Is a directory.", std::nullopt});
  }
  return perform(
      what,
      [manager = manager_, file](DCRemoteCompletionHandler handler) {
        manager->contentsOfFileWithDocumentIdentifier(*file.documentIdentifier(), std::nullopt, file.activityInfo,
                                                      std::move(handler));
      },
      [receive](const FVFResponseContainer& container) { return receive(container.url()->path()); });
}

}  // namespace florvane::tools
