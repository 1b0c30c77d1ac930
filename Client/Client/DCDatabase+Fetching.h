#pragma once

#include "Client/Client/DCDatabase.h"

#include <memory>
#include <utility>
#include <vector>

namespace florvane {

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
  return found;
}

template <typename T>
Result<void> DCDatabase::removeMetadata(std::size_t entity, const Data& documentIdentifier) {
  return change(Durability::Normal, [&](ManagedObjectContext& context) {
    if (auto found = first<T>(entity, {{T::DocumentIdentifier, documentIdentifier}})) context.deleteObject(found);
  });
}

}  // namespace florvane
