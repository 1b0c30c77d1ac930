#pragma once

#include "Client/Client/DCDatabase.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace florvane {

// Answers of the store that still hold, and when they stop to. Filled only by work on the context's queue, so that an
// answer and a change never overtake each other.
struct DCDatabase::Memory {
  std::mutex mutex;  // guards what follows; nothing else is locked or waited for while it is held
  // The context and its version for which the answers hold.
  const ManagedObjectContext* context = nullptr;
  std::uint64_t version = 0;
  std::unordered_map<std::string, std::optional<Data>> identifiers;
  std::unordered_map<Data, std::shared_ptr<DCManagedOtherMetadata>, DataHash> otherMetadata;
  // All of these, when they are known at all.
  std::optional<std::unordered_map<Data, std::shared_ptr<DCManagedStoredLocalMetadata>, DataHash>> storedLocalMetadata;
  std::optional<std::map<std::string, UploadPtr, std::less<>>> uploads;
  std::unordered_set<std::string> prefetched;
  // What the last look at a directory's children brought, for whoever asks for them next.
  std::string lastDirectory;
  std::optional<std::unordered_map<std::string, Data>> lastChildren;

  std::atomic<std::uint64_t> changes{1};

  // How store and log looked before the last look for others' changes, and whether a change after that look would show.
  std::array<std::int64_t, 8> storeStamp{};
  bool isSettled = false;

  void clear();
  // Clears answers that do not hold any more.
  void validate(const ManagedObjectContext& current);
};

// What the look finds in answers that still hold; absent when it finds none.
template <typename Answer>
std::optional<Answer> DCDatabase::known(const std::function<std::optional<Answer>(Memory& memory)>& look) {
  auto context = managedObjectContext();
  std::lock_guard lock(memory_->mutex);
  memory_->validate(*context);
  return look(*memory_);
}

template <typename T>
std::shared_ptr<T> DCDatabase::first(std::size_t entity, std::vector<std::pair<std::size_t, Value>> equals) {
  ManagedObjectFetch fetch;
  fetch.entity = entity;
  fetch.equals = std::move(equals);
  return std::static_pointer_cast<T>(managedObjectContext()->fetchFirst(std::move(fetch)));
}

template <typename T>
std::shared_ptr<T> DCDatabase::metadataMade(std::size_t entity, const Data& documentIdentifier,
                                            ManagedObjectContext& context) {
  auto found = first<T>(entity, {{T::DocumentIdentifier, documentIdentifier}});
  if (found) return found;
  found = std::static_pointer_cast<T>(context.insert(entity));
  found->setDocumentIdentifier(documentIdentifier);
  if constexpr (std::is_same_v<T, DCManagedOtherMetadata>) rememberOtherMetadata(documentIdentifier, found);
  if constexpr (std::is_same_v<T, DCManagedStoredLocalMetadata>) forgetStoredLocalMetadata();
  return found;
}

template <typename T>
Result<void> DCDatabase::removeMetadata(std::size_t entity, const Data& documentIdentifier) {
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    if (auto found = first<T>(entity, {{T::DocumentIdentifier, documentIdentifier}})) context.deleteObject(found);
  });
}

}  // namespace florvane
