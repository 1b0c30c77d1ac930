#include "tools/CachedTree.h"

#include "Client/Client/DCBackgroundSessionIdentifier.h"

#include <algorithm>
#include <thread>

namespace florvane::tools {

namespace {

constexpr Duration kUnlimited = std::chrono::hours(24 * 365);
// What the cache itself may take to answer when the time for the server is over.
constexpr Duration kCachePatience = std::chrono::seconds(1);
constexpr std::int64_t kNoSuchItem = 11, kMistmatchedType = 6;

// Handlers run on a queue of their own: nothing here runs a main queue.
void prepare(DCDocumentManager& manager) {
  static const auto queue = SerialQueue::create("florvane");
  manager.setCompletionHandlerQueue(queue);
}

constexpr Duration kProgressInterval = std::chrono::milliseconds(100);

// Nobody is told what a drop box holds.
bool isDropBox(const CachedTree::Item& folder) {
  return folder.attributes.boolean(ResourceIsWritableKey).value_or(false) &&
         !folder.attributes.boolean(ResourceIsReadableKey).value_or(true);
}

// A directory that was never listed has no count.
bool isListed(const CachedTree::Item& folder) {
  return folder.isDirectory() && (isDropBox(folder) || folder.attributes.contains(DCFileDirectoryItemsCountKey));
}

CommandFailure isADirectory(const std::string& what) {
  return {ExitStatus::Failed, what + ": Is a directory.", std::nullopt};
}

}  // namespace

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

std::string parentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

ItemReference ItemReference::parse(const std::string& text) {
  std::size_t colon = text.find(':');
  ItemReference reference{text.substr(0, colon), ""};
  if (colon == std::string::npos) return reference;
  for (const auto& component : splitPath(text.substr(colon + 1))) {
    reference.path += (reference.path.empty() ? "" : "/") + component;
  }
  return reference;
}

bool CachedTree::Item::isDirectory() const {
  return isRoot || attributes.string(ResourceFileResourceTypeKey) == ResourceTypeDirectory;
}

CommandResult<CachedTree> CachedTree::open(const std::string& accountName, const CommonOptions& options,
                                           Freshness freshness) {
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
  CachedTree tree(DCService::serviceWithAccount(*account), options.timeout.value_or(kUnlimited), freshness);
  if (auto newer = DCDatabase::databaseForService(tree.service())->newerVersionError()) return fail(*newer);
  return tree;
}

CachedTree::CachedTree(std::shared_ptr<DCService> service, Duration timeout, Freshness freshness)
    : service_(std::move(service)), freshness_(freshness), deadline_(std::chrono::steady_clock::now() + timeout) {
  DCDocumentManager::setPurposeIdentifier(kPurposeIdentifier);
  manager_ = DCDocumentManager::documentManagerForService(service_);
  prepare(*manager_);
}

std::string CachedTree::server() const {
  URL url = service_->url();
  return bracketedHost(url.host()) + ":" + std::to_string(url.effectivePort());
}

void CachedTree::tellWhetherCached(const Output& output) const {
  if (offline_) output.note("florvane: " + offline_->sentence + " This is what was known before.");
}

CommandFailure CachedTree::failure(const Error& error, const std::string& path) const {
  if (pc_isDCErrorWithCode(error, kNoSuchItem) || pc_isDCErrorWithCode(error, kMistmatchedType)) {
    return noSuchItem(path);
  }
  return failureForError(error, server(), path);
}

// What the cache does not know may well be there.
CommandFailure CachedTree::noSuchItem(const std::string& path) const {
  if (offline_) return *offline_;
  return {ExitStatus::NoSuchItem, path + ": No such item.", std::nullopt};
}

// Absent when time is over.
template <typename T>
std::optional<T> CachedTree::wait(std::future<T>& answer) const {
  auto end = offline_ ? std::max(deadline_, std::chrono::steady_clock::now() + kCachePatience) : deadline_;
  while ((progress_ || partialFile_) && fetching_ && std::chrono::steady_clock::now() + kProgressInterval < end) {
    if (answer.wait_for(kProgressInterval) == std::future_status::ready) return answer.get();
    tellProgress();
  }
  if (answer.wait_until(end) == std::future_status::timeout) return std::nullopt;
  return answer.get();
}

void CachedTree::tellProgress() const {
  const auto request = manager_->downloadTaskForItemAtPath(fetching_->first);
  if (request && progress_) progress_(request->totalBytesReceived(), fetching_->second);
  auto partial = request && partialFile_ ? request->partialFileURL() : std::nullopt;
  if (partial) partialFile_(partial->path(), fetching_->second);
}

CommandResult<void> CachedTree::refresh(const std::string& path) {
  if (offline_) return {};
  for (int attempt = 1;; ++attempt) {
    auto promise = std::make_shared<std::promise<OptionalError>>();
    auto future = promise->get_future();
    manager_->refreshItemAtPath(path, [promise](const OptionalError& error) { promise->set_value(error); });
    auto answered = wait(future);
    auto error = answered ? *answered : Error(URLErrorDomain, URLErrorTimedOut);
    if (!error) return {};
    if (attempt == 1 && error->is(URLErrorDomain, 401)) continue;
    auto failed = failure(*error, path);
    if (failed.status != ExitStatus::Offline || freshness_ == Freshness::Required) return tl::unexpected(failed);
    offline_ = failed;
    return {};
  }
}

CommandResult<void> CachedTree::reach() {
  if (auto refreshed = refresh(""); !refreshed) return refreshed;
  return offline_ ? CommandResult<void>(tl::unexpected(*offline_)) : CommandResult<void>();
}

// Each folder's listing says whether the next one is still there, and is still the same.
CommandResult<void> CachedTree::refreshFoldersAbove(const std::string& path) {
  std::string folder;
  if (auto refreshed = refresh(folder); !refreshed) return refreshed;
  auto components = splitPath(path);
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    folder += (folder.empty() ? "" : "/") + components[i];
    auto described = describe(folder);
    if (!described && described.error().status == ExitStatus::NoSuchItem) return tl::unexpected(noSuchItem(path));
    if (!described) return tl::unexpected(described.error());
    if (!described->item.isDirectory()) return tl::unexpected(noSuchItem(path));
    if (auto refreshed = refresh(folder); !refreshed) return refreshed;
  }
  return {};
}

CommandResult<CachedTree::Listing> CachedTree::describe(const std::string& path) {
  struct Answer {
    DCDocumentManager::State state;
    std::optional<Dictionary> attributes;
    OptionalError error;
  };
  auto promise = std::make_shared<std::promise<Answer>>();
  auto future = promise->get_future();
  manager_->attributesOfItemAtPath(
      path, [promise](DCDocumentManager::State state, const std::optional<Dictionary>& attributes,
                      const OptionalError& error) { promise->set_value({state, attributes, error}); });
  auto answer = wait(future);
  if (!answer) return tl::unexpected(failure(Error(URLErrorDomain, URLErrorTimedOut), path));
  if (answer->error) return tl::unexpected(failure(*answer->error, path));
  if (!answer->attributes) return tl::unexpected(noSuchItem(path));
  Listing listing;
  listing.item.attributes = *answer->attributes;
  listing.item.isRoot = path.empty();
  listing.item.name = path.empty() ? "" : splitPath(path).back();
  listing.state = offline_ && answer->state == DCDocumentManagerFreshnessStateFresh
                      ? DCDocumentManagerFreshnessStateStale
                      : answer->state;
  return listing;
}

CommandResult<CachedTree::Listing> CachedTree::contents(const Listing& directory, const std::string& path) {
  struct Answer {
    DCDocumentManager::State state;
    std::optional<Array> contents;
    OptionalError error;
  };
  auto promise = std::make_shared<std::promise<Answer>>();
  auto future = promise->get_future();
  manager_->contentsOfDirectoryAtPath(
      path, [promise](DCDocumentManager::State state, const std::optional<Array>& contents,
                      const OptionalError& error) { promise->set_value({state, contents, error}); });
  auto answer = wait(future);
  if (!answer) return tl::unexpected(failure(Error(URLErrorDomain, URLErrorTimedOut), path));
  if (answer->error) return tl::unexpected(failure(*answer->error, path));
  if (answer->state == DCDocumentManagerFreshnessStateUnknown && offline_) return tl::unexpected(*offline_);
  Listing listing = directory;
  listing.state = offline_ ? DCDocumentManagerFreshnessStateStale : answer->state;
  const Array entries = answer->contents.value_or(Array());
  listing.children.reserve(entries.size());
  for (const Value& each : entries) {
    auto attributes = each.asDictionary();
    auto name = attributes ? attributes->string(ResourceNameKey) : std::nullopt;
    if (name) listing.children.push_back({*name, *attributes, false});
  }
  return listing;
}

CommandResult<CachedTree::Listing> CachedTree::item(const std::string& path) {
  if (auto refreshed = refreshFoldersAbove(path); !refreshed) return tl::unexpected(refreshed.error());
  auto described = describe(path);
  // A directory's own listing names its present version.
  if (!described || path.empty() || !described->item.isDirectory()) return described;
  if (auto refreshed = refresh(path); !refreshed) return tl::unexpected(refreshed.error());
  return describe(path);
}

CommandResult<CachedTree::Listing> CachedTree::list(const std::string& path) {
  auto described = item(path);
  if (!described || described->item.isDirectory()) return described ? contents(*described, path) : described;
  described->children = {described->item};
  return described;
}

CommandResult<CachedTree::Item> CachedTree::folder(const std::string& path) {
  if (auto found = folders_.find(path); found != folders_.end()) return found->second;
  auto described = describe(path);
  if (!described || !isListed(described->item)) {
    const std::string parent = parentOf(path);
    if (!path.empty()) {
      if (auto above = folder(parent); !above) {
        return tl::unexpected(above.error().status == ExitStatus::NoSuchItem ? noSuchItem(path) : above.error());
      }
      described = describe(path);
      if (!described && described.error().status == ExitStatus::NoSuchItem) {
        if (auto refreshed = refresh(parent); !refreshed) return tl::unexpected(refreshed.error());
        described = describe(path);
      }
    }
    if (described && described->item.isDirectory() && !isListed(described->item)) {
      if (auto refreshed = refresh(path); !refreshed) return tl::unexpected(refreshed.error());
      described = describe(path);
    }
  }
  if (!described) return tl::unexpected(described.error());
  if (!described->item.isDirectory()) {
    return tl::unexpected(CommandFailure{ExitStatus::Failed, path + ": Not a folder.", std::nullopt});
  }
  if (offline_ && !isListed(described->item)) return tl::unexpected(*offline_);
  return folders_.emplace(path, described->item).first->second;
}

std::optional<CachedTree::Item> CachedTree::known(const std::string& path) {
  auto described = describe(path);
  return described ? std::optional(described->item) : std::nullopt;
}

CommandResult<CachedTree::File> CachedTree::file(const ItemReference& reference) {
  const std::string& path = reference.path;
  auto described = item(path);
  if (!described) return tl::unexpected(described.error());
  if (described->item.isDirectory()) return tl::unexpected(isADirectory(reference.text()));
  fetching_ = {path, described->item.attributes.integer(ResourceFileSizeKey).value_or(0)};
  if (auto refreshed = refresh(path); !refreshed) return tl::unexpected(refreshed.error());
  if (offline_) {
    // Asked for on a thread of its own: a request that got no answer may still keep the service's queue.
    auto promise = std::make_shared<std::promise<std::string>>();
    auto future = promise->get_future();
    std::thread([manager = manager_, path, promise] {
      auto url = manager->fileURLOfItemAtPath(path);
      promise->set_value(url ? url->path() : "");
    }).detach();
    auto localPath = wait(future);
    if (!localPath || !fileExists(*localPath)) return tl::unexpected(*offline_);
    return File{described->item, *localPath};
  }
  struct Answer {
    std::optional<URL> url;
    OptionalError error;
  };
  auto promise = std::make_shared<std::promise<Answer>>();
  auto future = promise->get_future();
  manager_->contentsOfFileAtPath(path, [promise](DCDocumentManager::State, const std::optional<URL>& url,
                                                 const OptionalError& error) { promise->set_value({url, error}); });
  auto answer = wait(future);
  if (!answer) return tl::unexpected(failure(Error(URLErrorDomain, URLErrorTimedOut), path));
  if (answer->error) return tl::unexpected(failure(*answer->error, path));
  if (!answer->url) return tl::unexpected(failure(Error(URLErrorDomain, URLErrorNetworkConnectionLost), path));
  if (auto latest = describe(path)) described = latest;
  return File{described->item, answer->url->path()};
}

}  // namespace florvane::tools
