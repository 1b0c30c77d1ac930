#include "Client/Client/DCDirectoryContents.h"

#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Encoding.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <climits>
#include <vector>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCDirectoryContents";

}  // namespace

bool DCDirectoryContents::isLegalChildName(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX) return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos && isValidUTF8(name);
}

const Value* DCDirectoryContents::valueOfEntry(const Value& entry, const Key& key) {
  const DictionaryEntry* entries = entry.dictionaryBegin();
  for (std::size_t i = 0; entries && i < entry.dictionarySize(); ++i) {
    if (entries[i].key == key) return &entries[i].value;
  }
  return nullptr;
}

std::string_view DCDirectoryContents::nameOfEntry(const Value& entry) {
  static const Key key(ResourceNameKey);
  const Value* name = valueOfEntry(entry, key);
  return name ? name->asString().value_or(std::string_view()) : std::string_view();
}

DCDirectoryContents::Ptr DCDirectoryContents::contentsWithEntries(const Array& entries) {
  auto contents = std::make_shared<DCDirectoryContents>();
  std::vector<bool> kept(entries.size());
  std::size_t count = 0;
  std::string_view previous;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::string_view name = nameOfEntry(entries[i]);
    if (!isLegalChildName(name)) {
      DCAssertionFailed(kSource, __LINE__, "childName");
      continue;
    }
    kept[i] = true;
    ++count;
    contents->isSorted_ = contents->isSorted_ && previous < name;
    previous = name;
  }
  if (!contents->isSorted_) {
    contents->byName_.reserve(count);
    count = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (!kept[i]) continue;
      kept[i] = contents->byName_.emplace(nameOfEntry(entries[i]), count).second;
      if (kept[i]) ++count;
    }
  }
  if (count == entries.size()) {
    contents->entries_ = entries;
    return contents;
  }
  contents->entries_.reserve(count);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (kept[i]) contents->entries_.append(entries[i]);
  }
  return contents;
}

const Value* DCDirectoryContents::entryNamed(std::string_view name) const {
  if (!isSorted_) {
    auto found = byName_.find(name);
    return found == byName_.end() ? nullptr : &entries_[found->second];
  }
  const Value* found =
      std::lower_bound(entries_.begin(), entries_.end(), name,
                       [](const Value& entry, std::string_view sought) { return nameOfEntry(entry) < sought; });
  return found != entries_.end() && nameOfEntry(*found) == name ? found : nullptr;
}

const Value* DCDirectoryContents::Walk::entryNamed(std::string_view name) {
  const Array& entries = contents_.entries_;
  if (next_ < entries.size() && nameOfEntry(entries[next_]) == name) return &entries[next_++];
  const Value* found = contents_.entryNamed(name);
  if (found) next_ = static_cast<std::size_t>(found - entries.begin()) + 1;
  return found;
}

const Value* DCDirectoryContents::entryWithDocumentIdentifier(const Data& documentIdentifier) const {
  std::call_once(identifiersIndexed_, [this] {
    static const Key identifierKey(FVDocumentIdentifierKey);
    byDocumentIdentifier_.reserve(entries_.size());
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const Value* identifier = valueOfEntry(entries_[i], identifierKey);
      if (identifier && identifier->kind() == Value::Kind::Data) {
        byDocumentIdentifier_.emplace(identifier->dataBytes(), i);
      }
    }
  });
  auto found = byDocumentIdentifier_.find(documentIdentifier.view());
  return found == byDocumentIdentifier_.end() ? nullptr : &entries_[found->second];
}

}  // namespace florvane
