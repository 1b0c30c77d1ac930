#include "platform/FilePresenter.h"

#include "platform/FileSystem.h"
#include "platform/SoftAssertion.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

namespace florvane {

namespace {

constexpr char kSource[] = "platform/FilePresenter";
constexpr char kNotificationName[] = "quorl.florvane.coordination";
constexpr char kPathKey[] = "Path";
constexpr char kNewPathKey[] = "NewPath";
constexpr char kKindKey[] = "Kind";
constexpr char kPurposeKey[] = "PurposeIdentifier";

constexpr std::string_view kChanged = "changed";
constexpr std::string_view kMoved = "moved";
constexpr std::string_view kWillBeDeleted = "deleted";

std::string_view kindName(ItemChange::Kind kind) {
  switch (kind) {
    case ItemChange::Kind::Moved:
      return kMoved;
    case ItemChange::Kind::WillBeDeleted:
      return kWillBeDeleted;
    default:
      return kChanged;
  }
}

// Absent when it is none of ours; a kind that we do not know is a change of some sort.
std::optional<ItemChange> decode(const Dictionary& userInfo) {
  auto path = userInfo.string(kPathKey);
  auto kind = userInfo.string(kKindKey);
  auto purpose = userInfo.string(kPurposeKey);
  if (!path || !kind || !purpose) return std::nullopt;
  ItemChange change{ItemChange::Kind::Changed, *path, userInfo.string(kNewPathKey).value_or(""), *purpose};
  if (kind == kMoved && !change.newPath.empty()) change.kind = ItemChange::Kind::Moved;
  if (kind == kWillBeDeleted) change.kind = ItemChange::Kind::WillBeDeleted;
  return change;
}

bool isAtOrBelow(std::string_view path, std::string_view folder) { return path == folder || isPathBelow(path, folder); }

void tellOfMove(FilePresenter& presenter, const std::string& presented, const ItemChange& change) {
  URL oldURL = URL::fileURL(change.path);
  URL newURL = URL::fileURL(change.newPath);
  bool arrives = isPathBelow(change.newPath, presented);
  if (isAtOrBelow(presented, change.path)) {
    presenter.presentedItemDidMoveToURL(URL::fileURL(change.newPath + presented.substr(change.path.size())));
  } else if (presented == change.newPath) {
    presenter.presentedItemDidChange();
  } else if (isPathBelow(change.path, presented)) {
    if (arrives) {
      presenter.presentedSubitemDidMoveAtURL(oldURL, newURL);
    } else {
      presenter.presentedSubitemDidChangeAtURL(oldURL);
    }
  } else if (arrives) {
    presenter.presentedSubitemDidChangeAtURL(newURL);
  }
}

void tell(FilePresenter& presenter, const ItemChange& change) {
  auto url = presenter.presentedItemURL();
  if (!url) return;
  std::string presented = resolvedItemPath(url->path());
  switch (change.kind) {
    case ItemChange::Kind::Moved:
      tellOfMove(presenter, presented, change);
      return;
    case ItemChange::Kind::WillBeDeleted:
      if (isAtOrBelow(presented, change.path)) {
        presenter.presentedItemWillBeDeleted();
      } else if (isPathBelow(change.path, presented)) {
        presenter.presentedSubitemWillBeDeletedAtURL(URL::fileURL(change.path));
      }
      return;
    case ItemChange::Kind::Changed:
      if (presented == change.path) {
        presenter.presentedItemDidChange();
      } else if (isPathBelow(change.path, presented)) {
        presenter.presentedSubitemDidChangeAtURL(URL::fileURL(change.path));
      }
  }
}

}  // namespace

std::string resolvedItemPath(const std::string& path) {
  std::error_code failure;
  std::filesystem::path given = std::filesystem::absolute(path, failure).lexically_normal();
  if (!given.has_filename()) given = given.parent_path();  // "/a/" is "/a"
  if (failure || given == given.root_path()) return given.string();
  // Up to the first folder that is there; no name above it is a link to anywhere.
  std::filesystem::path missing = given.filename(), folder = given.parent_path();
  while (!fileExists(folder.string()) && folder != given.root_path()) {
    missing = folder.filename() / missing;
    folder = folder.parent_path();
  }
  auto resolved = realPath(folder.string());
  return resolved ? (std::filesystem::path(*resolved) / missing).string() : given.string();
}

bool isPathBelow(std::string_view path, std::string_view folder) {
  if (folder == "/") return path.size() > 1;
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

struct FilePresenters::State {
  struct Registration {
    std::weak_ptr<FilePresenter> presenter;
    std::string purposeIdentifier;
  };

  // Presenters that live, but for those of the purpose identifier; forgets the others.
  std::vector<std::shared_ptr<FilePresenter>> livingBut(const std::string* purposeIdentifier) {
    std::vector<std::shared_ptr<FilePresenter>> living;
    std::lock_guard lock(mutex);
    std::erase_if(registrations, [](const Registration& entry) { return entry.presenter.expired(); });
    for (const auto& entry : registrations) {
      if (purposeIdentifier && entry.purposeIdentifier == *purposeIdentifier) continue;
      if (auto presenter = entry.presenter.lock()) living.push_back(std::move(presenter));
    }
    return living;
  }

  void receive(const Notification& notification) {
    auto change = decode(notification.userInfo);
    if (!change && !notification.missedSome) return;
    for (auto& presenter : livingBut(notification.missedSome ? nullptr : &change->purposeIdentifier)) {
      auto queue = presenter->presentedItemOperationQueue();
      if (!queue) {
        reportSoftAssertion(kSource, __LINE__, "presentedItemOperationQueue");
        continue;
      }
      queue->async([presenter = std::weak_ptr(presenter), change, missed = notification.missedSome] {
        auto living = presenter.lock();
        if (!living) return;
        if (missed) {
          living->presentedItemDidChange();
        } else {
          tell(*living, *change);
        }
      });
    }
  }

  std::mutex mutex;  // guards the list
  std::vector<Registration> registrations;
};

FilePresenters::FilePresenters(NotificationCenter& center)
    : center_(center),
      state_(std::make_shared<State>()),
      observation_(center.addObserver(
          kNotificationName, [state = state_](const Notification& notification) { state->receive(notification); })) {}

FilePresenters::~FilePresenters() = default;

FilePresenters& FilePresenters::shared() {
  // Never destroyed, as the centre.
  static FilePresenters& presenters = *new FilePresenters(NotificationCenter::shared());
  return presenters;
}

void FilePresenters::addFilePresenter(const std::shared_ptr<FilePresenter>& presenter, std::string purposeIdentifier) {
  std::lock_guard lock(state_->mutex);
  state_->registrations.push_back({presenter, std::move(purposeIdentifier)});
}

void FilePresenters::removeFilePresenter(const std::shared_ptr<FilePresenter>& presenter) {
  std::lock_guard lock(state_->mutex);
  std::erase_if(state_->registrations, [&](const State::Registration& entry) {
    return !entry.presenter.owner_before(presenter) && !presenter.owner_before(entry.presenter);
  });
}

void FilePresenters::post(const ItemChange& change) {
  Dictionary userInfo = {
      {kPathKey, change.path}, {kKindKey, kindName(change.kind)}, {kPurposeKey, change.purposeIdentifier}};
  if (!change.newPath.empty()) userInfo.set(kNewPathKey, change.newPath);
  center_.post(kNotificationName, std::nullopt, userInfo);
}

}  // namespace florvane
