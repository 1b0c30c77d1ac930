#include "tools/Commands.h"
#include "tools/RemoteTree.h"

#include <condition_variable>
#include <mutex>
#include <random>

namespace florvane::tools {

namespace {

constexpr Duration kFirstPause = std::chrono::seconds(1);
constexpr Duration kLongestPause = std::chrono::seconds(60);

// What wakes the watching loop: updates and ends of the accounts' watches.
struct Wakeup {
  std::mutex mutex;
  std::condition_variable condition;
  bool updated = false;
  std::optional<Error> ended;
};

// The version of an item at a path, absent when there is none.
using Version = std::optional<Data>;

// The watched paths of one account.
class AccountWatch {
 public:
  AccountWatch(RemoteTree tree, const std::shared_ptr<Wakeup>& wakeup) : tree_(std::move(tree)) {
    tree_.manager()->setWatchDidEndHandler([wakeup](const std::optional<Error>& error) {
      std::lock_guard lock(wakeup->mutex);
      wakeup->ended = error.value_or(Error(URLErrorDomain, URLErrorNetworkConnectionLost));
      wakeup->condition.notify_all();
    });
    onUpdate_ = [wakeup](const std::optional<Data>&, const std::optional<Data>&, const std::optional<Error>& error) {
      if (error) return;
      std::lock_guard lock(wakeup->mutex);
      wakeup->updated = true;
      wakeup->condition.notify_all();
    };
  }
  ~AccountWatch() {
    tree_.manager()->setWatchDidEndHandler(nullptr);
    tree_.manager()->finishFetchingUpdates();
  }
  AccountWatch(const AccountWatch&) = delete;
  AccountWatch& operator=(const AccountWatch&) = delete;

  void add(const ItemReference& reference) { paths_.emplace_back(reference, std::nullopt); }

  // Looks at every path and reports what differs from the look before; then watches what is there, and for a path where
  // nothing is, the closest folder above it.
  CommandResult<void> lookAndWatch(const std::function<void(const ItemReference&, const char* event)>& report) {
    tree_.manager()->finishFetchingUpdates();
    DCVersionIdentifiers watched;
    for (auto& [reference, known] : paths_) {
      auto version = look(reference.path, watched);
      if (!version) return tl::unexpected(version.error());
      if (hasLooked_ && known != *version) report(reference, !*version ? "removed" : !known ? "added" : "changed");
      known = *version;
    }
    hasLooked_ = true;
    auto anyShare = DCActivityInfo::activityInfoWithQueue(queue_, share_);
    tree_.manager()->startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers(watched, anyShare, onUpdate_);
    return {};
  }

 private:
  CommandResult<Version> look(const std::string& path, DCVersionIdentifiers& watched) {
    std::string existing = path;
    while (true) {
      // A directory's own answer names its present version; a file's is in its parent's listing.
      auto item = tree_.item(existing);
      if (item && item->isDirectory()) {
        auto listing = tree_.list(existing);
        item = listing ? CommandResult<RemoteTree::Item>(listing->directory) : tl::unexpected(listing.error());
      }
      if (item) {
        auto identifier = item->documentIdentifier();
        if (identifier) watched[*identifier] = item->versionIdentifier().value_or(Data());
        queue_ = item->activityInfo->queue();
        share_ = item->activityInfo->sharepointDocumentIdentifier();
        return existing == path ? item->versionIdentifier() : Version();
      }
      if (item.error().status != ExitStatus::NoSuchItem || existing.empty()) return tl::unexpected(item.error());
      std::size_t slash = existing.rfind('/');
      existing = slash == std::string::npos ? "" : existing.substr(0, slash);
    }
  }

  RemoteTree tree_;
  DCUpdatedVersionIdentifierHandler onUpdate_;
  std::vector<std::pair<ItemReference, Version>> paths_;
  std::shared_ptr<FVFDispatchQueue> queue_;
  std::optional<Data> share_;
  bool hasLooked_ = false;
};

// 1 s doubling to 60 s, up to a quarter shorter at random so that clients do not come back all at once.
class BackOff {
 public:
  Duration next() {
    Duration pause = pause_;
    pause_ = std::min(pause_ * 2, kLongestPause);
    std::uniform_int_distribution<Duration::rep> jitter(pause.count() * 3 / 4, pause.count());
    return Duration(jitter(random_));
  }
  void reset() { pause_ = kFirstPause; }

 private:
  Duration pause_ = kFirstPause;
  std::minstd_rand random_{std::random_device()()};
};

class Watching {
 public:
  Watching(const Output& output, std::optional<std::size_t> count) : output_(output), remaining_(count) {
    if (output.options().timeout) deadline_ = std::chrono::steady_clock::now() + *output.options().timeout;
  }

  CommandResult<void> add(const std::vector<std::string>& references) {
    for (const auto& text : references) {
      ItemReference reference = ItemReference::parse(text);
      auto& watch = accounts_[reference.account];
      if (!watch) {
        auto tree = RemoteTree::open(reference.account, output_.options());
        if (!tree) return tl::unexpected(tree.error());
        watch = std::make_unique<AccountWatch>(std::move(*tree), wakeup_);
      }
      watch->add(reference);
    }
    return {};
  }

  ExitStatus run() {
    bool isFirst = true;
    while (true) {
      auto failure = lookAndWatch();
      if (!output_.flush()) return ExitStatus::Failed;
      if (remaining_ == std::size_t{0}) return ExitStatus::Done;
      if (!isFirst && isOver()) return remaining_ ? ExitStatus::Failed : ExitStatus::Done;
      if (failure && (isFirst || failure->status == ExitStatus::SigningInFailed)) return output_.fail(*failure);
      if (failure) {
        output_.note("florvane: " + failure->sentence + " Trying again.");
      } else {
        if (isFirst) output_.note("Watching. Stop with Ctrl-C.");
        backOff_.reset();
      }
      isFirst = false;
      if (!wait(failure.has_value())) return remaining_ ? ExitStatus::Failed : ExitStatus::Done;
    }
  }

 private:
  bool isOver() const { return deadline_ && std::chrono::steady_clock::now() >= *deadline_; }

  // The first failure; an account that fails keeps no other from being watched.
  std::optional<CommandFailure> lookAndWatch() {
    std::optional<CommandFailure> failure;
    for (auto& [name, watch] : accounts_) {
      auto looked = watch->lookAndWatch([this](const ItemReference& reference, const char* event) {
        if (remaining_ == std::size_t{0}) return;
        if (remaining_) --*remaining_;
        if (output_.options().json) {
          output_.object({{"event", event}, {"path", reference.text()}, {"time", Date::now().description()}});
        } else {
          output_.line(std::string(event) + "\t" + printable(reference.text()));
        }
      });
      if (!looked && !failure) failure = looked.error();
    }
    return failure;
  }

  // Until something happens, or after a failure for a pause. False when the time that was given is over.
  bool wait(bool pausing) {
    std::unique_lock lock(wakeup_->mutex);
    auto waitUntil = [&](std::optional<MonotonicTime> time, auto condition) {
      auto end = time && deadline_ ? std::min(*time, *deadline_) : time ? time : deadline_;
      if (end) {
        wakeup_->condition.wait_until(lock, *end, condition);
      } else {
        wakeup_->condition.wait(lock, condition);
      }
    };
    if (!pausing) waitUntil(std::nullopt, [this] { return wakeup_->updated || wakeup_->ended; });
    // A refused cookie is gone by now, and the next look signs in again.
    bool refused = wakeup_->ended && wakeup_->ended->is(URLErrorDomain, 401);
    if (pausing || (wakeup_->ended && !refused)) {
      auto pause = std::chrono::duration_cast<MonotonicTime::duration>(backOff_.next());
      waitUntil(std::chrono::steady_clock::now() + pause, [this] { return wakeup_->updated; });
    }
    wakeup_->updated = false;
    wakeup_->ended.reset();
    return !isOver();
  }

  const Output& output_;
  std::optional<std::size_t> remaining_;
  std::optional<MonotonicTime> deadline_;
  const std::shared_ptr<Wakeup> wakeup_ = std::make_shared<Wakeup>();
  std::map<std::string, std::unique_ptr<AccountWatch>> accounts_;
  BackOff backOff_;
};

}  // namespace

ExitStatus watchItems(const Output& output, const WatchOptions& options) {
  Watching watching(output, options.count);
  if (auto added = watching.add(options.references); !added) return output.fail(added.error());
  return watching.run();
}

}  // namespace florvane::tools
