#include "Client/Client/DCDirectoryContents.h"

#include "Client/Client/DCLog.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Encoding.h"
#include "platform/ResourceValues.h"

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
  contents->byName_.reserve(entries.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::string_view name = nameOfEntry(entries[i]);
    if (!isLegalChildName(name)) {
      DCAssertionFailed(kSource, __LINE__, "childName");
      continue;
    }
    kept[i] = contents->byName_.emplace(name, count).second;
    if (kept[i]) ++count;
  }
  if (count == entries.size()) {
    contents->entries_ = entries;
  } else {
    contents->entries_.reserve(count);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (kept[i]) contents->entries_.append(entries[i]);
    }
  }
  static const Key identifierKey(FVDocumentIdentifierKey);
  contents->byDocumentIdentifier_.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const Value* identifier = valueOfEntry(contents->entries_[i], identifierKey);
    if (identifier && identifier->kind() == Value::Kind::Data) {
      contents->byDocumentIdentifier_.emplace(identifier->dataBytes(), i);
    }
  }
  return contents;
}

const Value* DCDirectoryContents::entryNamed(std::string_view name) const {
  auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &entries_[found->second];
}

const Value* DCDirectoryContents::entryWithDocumentIdentifier(const Data& documentIdentifier) const {
  auto found = byDocumentIdentifier_.find(documentIdentifier.view());
  return found == byDocumentIdentifier_.end() ? nullptr : &entries_[found->second];
}

}  // namespace florvane
