#include "tools/CachedTree.h"
#include "tools/Commands.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>

namespace florvane::tools {

namespace {

// What wakes the watching loop: changes of what is watched, and the server's going and coming.
struct Wakeup {
  std::mutex mutex;
  std::condition_variable condition;
  bool updated = false;
  bool failed = false;
  void wake(bool Wakeup::* what) {
    std::lock_guard lock(mutex);
    this->*what = true;
    condition.notify_all();
  }
};

// What is at a path, told from what was there before.
struct Version {
  std::string item;                             // of a folder its identifier only
  std::map<std::string, std::string> children;  // by name; of a folder
  bool operator==(const Version&) const = default;
};

// The watched paths of one account.
class AccountWatch : public DCDocumentManagerDelegate,
                     public DCConnectivityTrackerDelegate,
                     public std::enable_shared_from_this<AccountWatch> {
 public:
  AccountWatch(CachedTree tree, std::shared_ptr<Wakeup> wakeup) : tree_(std::move(tree)), wakeup_(std::move(wakeup)) {}
  ~AccountWatch() override { tracker_->removeDelegate(this); }
  void begin() { tracker_->addDelegate(shared_from_this()); }
  void add(const ItemReference& reference) { paths_.emplace_back(reference, std::nullopt); }

  // Looks at every path and reports what differs from the look before; then registers for what is there, and for the
  // closest folder above each path, where things come and go.
  using Report = std::function<void(const ItemReference&, const char* event)>;
  CommandResult<void> lookAndWatch(const Report& report) {
    std::set<std::string> folders;
    for (auto& [reference, known] : paths_) {
      auto version = look(reference.path, folders);
      if (!version) return tl::unexpected(version.error());
      if (hasLooked_) reportDifferences(reference, known, *version, report);
      known = std::move(*version);
    }
    hasLooked_ = true;
    for (const auto& folder : watched_) {
      if (!folders.contains(folder)) tree_.manager()->removeDelegateForFilterPath(folder);
    }
    for (const auto& folder : folders) tree_.manager()->setDelegate(shared_from_this(), queue_, folder);
    watched_ = std::move(folders);
    return {};
  }

  const std::shared_ptr<DCService>& service() const override { return tree_.service(); }
  void didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& /*connectivityTracker*/,
                                 bool isConnected) override {
    wakeup_->wake(isConnected ? &Wakeup::updated : &Wakeup::failed);
  }
  void didUpdateContentsOfDirectoryAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                          const Array& /*contents*/) override {
    wakeup_->wake(&Wakeup::updated);
  }
  void didFailToUpdateItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                 const Error& /*error*/) override {
    // Also of a look of one's own, so it must not end the pause after that look.
    wakeup_->wake(&Wakeup::failed);
  }

 private:
  // A folder that stays is told of by what changes in it.
  static void reportDifferences(const ItemReference& reference, const std::optional<Version>& before,
                                const std::optional<Version>& now, const Report& report) {
    if (before == now) return;
    if (!before || !now || before->item != now->item) {
      report(reference, !now ? "removed" : !before ? "added" : "changed");
      return;
    }
    auto child = [&](const std::string& name) {
      return ItemReference{reference.account, reference.path.empty() ? name : reference.path + "/" + name};
    };
    for (const auto& [name, version] : before->children) {
      if (!now->children.contains(name)) report(child(name), "removed");
    }
    for (const auto& [name, version] : now->children) {
      auto known = before->children.find(name);
      if (known == before->children.end()) {
        report(child(name), "added");
      } else if (known->second != version) {
        report(child(name), "changed");
      }
    }
  }

  // Absent when nothing is there.
  CommandResult<std::optional<Version>> look(const std::string& path, std::set<std::string>& folders) {
    std::string existing = path;
    while (true) {
      auto listing = tree_.list(existing);
      if (listing) {
        if (listing->item.isDirectory()) folders.insert(existing);
        if (!existing.empty()) folders.insert(parentOf(existing));
        return existing == path ? std::optional(versionOf(*listing)) : std::nullopt;
      }
      if (listing.error().status != ExitStatus::NoSuchItem || existing.empty()) return tl::unexpected(listing.error());
      existing = parentOf(existing);
    }
  }

  static Version versionOf(const CachedTree::Listing& listing) {
    auto text = [](const CachedTree::Item& item) {
      return hexEncode(item.documentIdentifier().value_or(Data())) + "/" +
             hexEncode(item.versionIdentifier().value_or(Data()));
    };
    if (!listing.item.isDirectory()) return {text(listing.item), {}};
    // What a folder holds says more than its version, which changes with every listing that the server makes.
    Version version{hexEncode(listing.item.documentIdentifier().value_or(Data())), {}};
    for (const auto& each : listing.children) version.children.emplace(each.name, text(each));
    return version;
  }

  CachedTree tree_;
  const std::shared_ptr<Wakeup> wakeup_;
  const std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("florvane watch");
  const std::shared_ptr<DCConnectivityTracker> tracker_ =
      DCConnectivityTracker::connectivityTrackerForService(tree_.service());
  std::vector<std::pair<ItemReference, std::optional<Version>>> paths_;
  std::set<std::string> watched_;
  bool hasLooked_ = false;
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
        auto tree = CachedTree::open(reference.account, output_.options(), Freshness::Required);
        if (!tree) return tl::unexpected(tree.error());
        watch = std::make_shared<AccountWatch>(std::move(*tree), wakeup_);
        watch->begin();
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
        // Once, however often it is tried.
        if (told_ != failure->sentence) output_.note("florvane: " + failure->sentence + " Trying again.");
        told_ = failure->sentence;
      } else {
        if (isFirst) output_.note("Watching. Stop with Ctrl-C.");
        if (!told_.empty()) output_.note("Watching again.");
        told_.clear();
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
    if (pausing) {
      auto pause = std::chrono::duration_cast<MonotonicTime::duration>(backOff_.next());
      waitUntil(std::chrono::steady_clock::now() + pause, [this] { return wakeup_->updated; });
    } else {
      waitUntil(std::nullopt, [this] { return wakeup_->updated || wakeup_->failed; });
    }
    wakeup_->updated = wakeup_->failed = false;
    return !isOver();
  }

  const Output& output_;
  std::optional<std::size_t> remaining_;
  std::optional<MonotonicTime> deadline_;
  const std::shared_ptr<Wakeup> wakeup_ = std::make_shared<Wakeup>();
  std::map<std::string, std::shared_ptr<AccountWatch>> accounts_;
  FVFBackOff backOff_;
  std::string told_;  // why the last look failed
};

}  // namespace

ExitStatus watchItems(const Output& output, const WatchOptions& options) {
  Watching watching(output, options.count);
  if (auto added = watching.add(options.references); !added) return output.fail(added.error());
  return watching.run();
}

}  // namespace florvane::tools
