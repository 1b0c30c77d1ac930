#pragma once

#include "Client/Client/DCDatabase.h"

#include <array>
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
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>()(text); }
  };
  template <typename Value>
  using ByText = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;
  using Identifier = std::optional<Data>;  // absent for no record

  // Of the children of one directory.
  struct Directory {
    DCKnownChildren::Ptr children;  // all of them; null when they were never asked for together
    std::uint64_t metadataChanges = 0;
    // By name, what was learnt after `children`.
    ByText<Identifier> identifiers;
  };

  std::mutex mutex;  // guards what follows; nothing else is locked or waited for while it is held
  // The context and its version for which the answers hold.
  const ManagedObjectContext* context = nullptr;
  std::uint64_t version = 0;
  ByText<Directory> directories;
  std::unordered_map<Data, std::shared_ptr<DCManagedOtherMetadata>, DataHash> otherMetadata;
  // All of these, when they are known at all.
  std::optional<std::unordered_map<Data, std::shared_ptr<DCManagedStoredLocalMetadata>, DataHash>> storedLocalMetadata;
  std::optional<std::map<std::string, UploadPtr, std::less<>>> uploads;

  // How store and log looked before the last look for others' changes, and whether that look saw all that they held and
  // a change after it would show.
  std::array<std::int64_t, 8> storeStamp{};
  bool isSettled = false;

  void clear();
  // Clears answers that do not hold any more.
  void validate(const ManagedObjectContext& current);

  std::optional<Identifier> identifierForPath(std::string_view path) const;
  void keepIdentifier(std::string_view path, const Identifier& identifier);
  // With what was learnt since they were read; null when they were not.
  DCKnownChildren::Ptr childrenOf(const std::string& directoryPath);
  void keepChildren(const std::string& directoryPath, DCKnownChildren::Ptr children);
  using OtherMetadata = std::shared_ptr<DCManagedOtherMetadata>;
  std::optional<OtherMetadata> otherMetadataForIdentifier(const Data& documentIdentifier);
  void keepOtherMetadata(const Data& documentIdentifier, const OtherMetadata& metadata);

 private:
  std::size_t answers_ = 0;            // about identifiers
  std::uint64_t metadataChanges_ = 0;  // of bookkeeping, by this process
  // Children that are known to have no bookkeeping, but not by their identifiers yet.
  std::vector<DCKnownChildren::Ptr> unnamed_;
  std::size_t missed_ = 0;
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
