#include "server/KnownDirectory.h"

#include <utility>

namespace florvane {

namespace {

// Beyond so many changed names the whole directory is looked at again.
constexpr std::size_t kMaximumPendingNames = 10'000;

}  // namespace

KnownDirectory::Pending KnownDirectory::takePending() {
  const std::lock_guard lock(pendingMutex_);
  Pending taken = std::move(pending_);
  pending_.everything = false;
  pending_.names.clear();
  return taken;
}

void KnownDirectory::entryChanged(std::string_view name) {
  if (!name.starts_with(kReservedNamePrefix)) note(false, name);
}

void KnownDirectory::directoryChanged() { note(false, {}); }

void KnownDirectory::changesMissed() { note(true, {}); }

void KnownDirectory::note(bool everything, std::string_view name) {
  {
    const std::lock_guard lock(pendingMutex_);
    if (!name.empty() && !pending_.everything && !pending_.names.contains(name)) pending_.names.emplace(name);
    if (everything || pending_.names.size() > kMaximumPendingNames) pending_ = {};
  }
  if (isAttended()) touched_(identifier_);
}

std::shared_ptr<void> KnownDirectory::attend() {
  attention_->fetch_add(1);
  // The token needs only the count, so it may outlive the directory.
  return {nullptr, [attention = attention_](std::nullptr_t) { attention->fetch_sub(1); }};
}

}  // namespace florvane
