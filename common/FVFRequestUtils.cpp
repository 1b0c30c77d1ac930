#include "common/FVFRequestUtils.h"

#include "platform/Encoding.h"

namespace florvane {

namespace {

using QueryItems = FVFRequestUtils::QueryItems;
using Identifier = FVFRequestUtils::Identifier;
using Components = std::vector<std::string>;

std::string uri(const char* command) {
  return std::string(DURequestPrefix) + "/" + DURequestCurrentVersion + "/" + command;
}

// Collects the items of one request, leaving out what is absent.
class ItemList {
 public:
  ItemList(QueryItems* items, std::size_t capacity) : items_(items) {
    if (!items_) return;
    items_->clear();
    items_->reserve(capacity);
  }
  ItemList& add(const char* key, const Identifier& identifier) {
    if (items_ && identifier) items_->push_back({key, hexEncode(*identifier)});
    return *this;
  }
  ItemList& add(const char* key, std::string text) {
    if (items_) items_->push_back({key, std::move(text)});
    return *this;
  }

 private:
  QueryItems* items_;
};

std::optional<std::string> value(const QueryItems& items, std::string_view key) {
  for (const auto& item : items) {
    if (item.name == key) return item.value;
  }
  return std::nullopt;
}

Identifier identifier(const QueryItems& items, std::string_view key) {
  auto text = value(items, key);
  return text ? hexDecode(*text) : std::nullopt;
}

std::optional<std::string> component(const Components& components, std::size_t index) {
  return index < components.size() ? std::optional(components[index]) : std::nullopt;
}

Identifier identifierComponent(const Components& components, std::size_t index) {
  auto text = component(components, index);
  return text ? hexDecode(*text) : std::nullopt;
}

}  // namespace

std::string FVFRequestUtils::URIForContentsOfVirtualRootDirectory() {
  return uri(DURequestContentsOfRootDirectoryCommand);
}

std::string FVFRequestUtils::URIForContentsOfDirectoryWithDocumentIdentifier(
    const Identifier& documentIdentifier, const Identifier& sharepointDocumentIdentifier, QueryItems* queryItems) {
  ItemList(queryItems, 2)
      .add(FVQueryKeyDocumentIdentifier, documentIdentifier)
      .add(FVQueryKeySharepointDocumentIdentifier, sharepointDocumentIdentifier);
  return uri(DURequestContentsOfDirectoryCommand);
}

std::string FVFRequestUtils::URIForContentsOfFileWithDocumentIdentifier(const Identifier& documentIdentifier,
                                                                        const Identifier& sharepointDocumentIdentifier,
                                                                        QueryItems* queryItems) {
  ItemList(queryItems, 2)
      .add(FVQueryKeyDocumentIdentifier, documentIdentifier)
      .add(FVQueryKeySharepointDocumentIdentifier, sharepointDocumentIdentifier);
  return uri(DURequestContentsOfFileCommand);
}

std::string FVFRequestUtils::URIForWatchWithSharepointDocumentIdentifier(const Identifier& sharepointDocumentIdentifier,
                                                                         QueryItems* queryItems) {
  ItemList(queryItems, 1).add(FVQueryKeySharepointDocumentIdentifier, sharepointDocumentIdentifier);
  return uri(DURequestWatchCommand);
}

std::string FVFRequestUtils::URIForReplaceFileWithDocumentIdentifier(const Identifier& documentIdentifier,
                                                                     const Identifier& versionIdentifier,
                                                                     const Identifier& parentDocumentIdentifier,
                                                                     const Identifier& parentVersionIdentifier,
                                                                     const Identifier& sharepointDocumentIdentifier,
                                                                     QueryItems* queryItems) {
  ItemList(queryItems, 5)
      .add(FVQueryKeyDocumentIdentifier, documentIdentifier)
      .add(FVQueryKeyVersionIdentifier, versionIdentifier)
      .add(FVQueryKeyParentDocumentIdentifier, parentDocumentIdentifier)
      .add(FVQueryKeyParentVersionIdentifier, parentVersionIdentifier)
      .add(FVQueryKeySharepointDocumentIdentifier, sharepointDocumentIdentifier);
  return uri(DURequestReplaceFileCommand);
}

std::string FVFRequestUtils::URIForWriteFileWithName(std::string_view name, const Identifier& parentDocumentIdentifier,
                                                     const Identifier& parentVersionIdentifier,
                                                     const Identifier& sharepointDocumentIdentifier,
                                                     QueryItems* queryItems) {
  ItemList(queryItems, 3)
      .add(FVQueryKeyName, percentEncode(name, URLPathAllowedCharacters))
      .add(FVQueryKeyParentDocumentIdentifier, parentDocumentIdentifier)
      .add(FVQueryKeyParentVersionIdentifier, parentVersionIdentifier)
      .add(FVQueryKeySharepointDocumentIdentifier, sharepointDocumentIdentifier);
  return uri(DURequestWriteFileCommand);
}

Identifier FVFRequestUtils::documentIdentifierFromURIQueryItems(const QueryItems& queryItems) {
  return identifier(queryItems, FVQueryKeyDocumentIdentifier);
}

Identifier FVFRequestUtils::versionIdentifierFromURIQueryItems(const QueryItems& queryItems) {
  return identifier(queryItems, FVQueryKeyVersionIdentifier);
}

Identifier FVFRequestUtils::parentDocumentIdentifierFromURIQueryItems(const QueryItems& queryItems) {
  return identifier(queryItems, FVQueryKeyParentDocumentIdentifier);
}

Identifier FVFRequestUtils::parentVersionIdentifierFromURIQueryItems(const QueryItems& queryItems) {
  return identifier(queryItems, FVQueryKeyParentVersionIdentifier);
}

Identifier FVFRequestUtils::sharepointDocumentIdentifierFromURIQueryItems(const QueryItems& queryItems) {
  return identifier(queryItems, FVQueryKeySharepointDocumentIdentifier);
}

std::optional<std::string> FVFRequestUtils::nameFromURIQueryItems(const QueryItems& queryItems) {
  auto text = value(queryItems, FVQueryKeyName);
  return text ? percentDecode(*text) : std::nullopt;
}

Components FVFRequestUtils::URIComponentsFromPath(std::string_view path) {
  Components components;
  if (path.starts_with('/')) components.emplace_back("/");
  while (!path.empty()) {
    std::size_t slash = std::min(path.find('/'), path.size());
    if (slash > 0) components.emplace_back(path.substr(0, slash));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return components;
}

std::optional<std::string> FVFRequestUtils::versionFromURIComponents(const Components& components) {
  return component(components, 2);
}

std::optional<std::string> FVFRequestUtils::commandFromURIComponents(const Components& components) {
  return component(components, 3);
}

Identifier FVFRequestUtils::documentIdentifierFromContentsOfDirectoryURIComponents(const Components& components) {
  return identifierComponent(components, 4);
}

Identifier FVFRequestUtils::documentIdentifierFromContentsOfFileURIComponents(const Components& components) {
  return identifierComponent(components, 4);
}

Identifier FVFRequestUtils::documentIdentifierFromReplaceFileURIComponents(const Components& components) {
  return identifierComponent(components, 4);
}

std::optional<std::string> FVFRequestUtils::nameFromWriteFileURIComponents(const Components& components) {
  auto text = component(components, 4);
  return text ? percentDecode(*text) : std::nullopt;
}

Identifier FVFRequestUtils::parentDocumentIdentifierFromWriteFileURIComponents(const Components& components) {
  return identifierComponent(components, 5);
}

}  // namespace florvane
