#include "platform/PreferencesStore.h"

#include "platform/FileSystem.h"
#include "platform/PropertyListFile.h"

#include <mutex>

namespace florvane {

struct PreferencesStore::State {
  explicit State(std::string path) : file(std::move(path), PropertyListFormat::XML, PropertyListFile::Readers::Any) {}

  const PropertyListFile file;
  std::mutex mutex;  // guards the cached version
  std::optional<PropertyListFile::Version> cached;
};

PreferencesStore::PreferencesStore(std::string path) : state_(std::make_unique<State>(std::move(path))) {}

PreferencesStore::~PreferencesStore() = default;

Result<Dictionary> PreferencesStore::snapshot() const {
  std::lock_guard lock(state_->mutex);
  auto stamp = state_->file.stamp();
  if (!stamp) return Failure(stamp.error());
  if (!state_->cached || state_->cached->stamp != *stamp) {
    state_->cached.reset();
    auto version = state_->file.read();
    if (!version) return Failure(version.error());
    state_->cached = std::move(*version);
  }
  return state_->cached->contents;
}

Result<std::optional<Value>> PreferencesStore::read(std::string_view key) const {
  auto contents = snapshot();
  if (!contents) return Failure(contents.error());
  const Value* value = contents->find(key);
  return value ? std::optional(*value) : std::nullopt;
}

Result<void> PreferencesStore::update(const std::function<void(Dictionary&)>& change) {
  return state_->file.update(change);
}

Result<void> PreferencesStore::set(std::string_view key, std::optional<Value> value) {
  return update([&](Dictionary& contents) {
    if (value) {
      contents.set(key, *value);
    } else {
      contents.remove(key);
    }
  });
}

Result<void> PreferencesStore::synchronize() {
  auto stamp = state_->file.stamp();
  if (!stamp) return Failure(stamp.error());
  return *stamp ? syncFile(state_->file.path()) : Result<void>();
}

}  // namespace florvane
