#include "Client/Client/DCManagedStoredLocalMetadata.h"

#include "platform/ResourceValues.h"

#include <array>
#include <utility>

namespace florvane {

namespace {

// Attribute and the key that it is exchanged under.
constexpr std::array<std::pair<DCManagedStoredLocalMetadata::Attribute, const char*>, 3> kKeys = {{
    {DCManagedStoredLocalMetadata::Name, ResourceNameKey},
    {DCManagedStoredLocalMetadata::LocalFilePath, ResourcePathKey},
    {DCManagedStoredLocalMetadata::AddedToDirectoryDate, ResourceAddedToDirectoryDateKey},
}};

}  // namespace

std::vector<ManagedAttribute> DCManagedStoredLocalMetadata::attributes() {
  return {{"documentIdentifier", Value::Kind::Data, true},
          {"name", Value::Kind::String},
          {"localFilePath", Value::Kind::String},
          {"addedToDirectoryDate", Value::Kind::Date}};
}

std::optional<Data> DCManagedStoredLocalMetadata::documentIdentifier() const {
  return value(DocumentIdentifier).asData();
}
void DCManagedStoredLocalMetadata::setDocumentIdentifier(const std::optional<Data>& documentIdentifier) {
  setValue(DocumentIdentifier, documentIdentifier);
}
std::optional<std::string> DCManagedStoredLocalMetadata::name() const { return stringValue(Name); }
std::optional<std::string> DCManagedStoredLocalMetadata::localFilePath() const { return stringValue(LocalFilePath); }
std::optional<Date> DCManagedStoredLocalMetadata::addedToDirectoryDate() const {
  return value(AddedToDirectoryDate).asDate();
}

void DCManagedStoredLocalMetadata::updateWithValuesFromDictionary(const Dictionary& dictionary) {
  static const auto kinds = attributes();
  for (const auto& [attribute, key] : kKeys) {
    const Value* found = dictionary.find(key);
    if (found && found->kind() == kinds[attribute].kind) setValue(attribute, *found);
  }
}

Dictionary DCManagedStoredLocalMetadata::dictionaryRepresentation() const {
  Dictionary dictionary;
  for (const auto& [attribute, key] : kKeys) {
    if (Value found = value(attribute); !found.isNull()) dictionary.set(key, found);
  }
  return dictionary;
}

}  // namespace florvane
