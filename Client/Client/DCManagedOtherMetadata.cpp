#include "Client/Client/DCManagedOtherMetadata.h"

#include <array>
#include <utility>

namespace florvane {

namespace {

// Attribute and the key that it is exchanged under.
constexpr std::array<std::pair<DCManagedOtherMetadata::Attribute, const char*>, 7> kKeys = {{
    {DCManagedOtherMetadata::LastDownloadedDate, DCFileLastDownloadDateKey},
    {DCManagedOtherMetadata::LastDownloadedGenerationIdentifier, DCFileLastDownloadGenerationIdentifierKey},
    {DCManagedOtherMetadata::LastRemoteMetadataUpdateDate, DCFileLastRemoteMetadataUpdateDateKey},
    {DCManagedOtherMetadata::LastUpdateGenerationIdentifier, DCFileLastUpdateGenerationIdentifierKey},
    {DCManagedOtherMetadata::LastUploadDate, DCFileLastUploadDateKey},
    {DCManagedOtherMetadata::LastUploadGenerationIdentifier, DCFileLastUploadGenerationIdentifierKey},
    {DCManagedOtherMetadata::LastRemoteMetadataVersionIdentifier, DCFileLastRemoteMetadataVersionIdentifierKey},
}};

}  // namespace

std::vector<ManagedAttribute> DCManagedOtherMetadata::attributes() {
  return {
      {"documentIdentifier", Value::Kind::Data, true},
      {"lastDownloadedDate", Value::Kind::Date},
      {"lastDownloadedGenerationIdentifier", Value::Kind::Data},
      {"lastRemoteMetadataUpdateDate", Value::Kind::Date},
      {"lastUpdateGenerationIdentifier", Value::Kind::Data},
      {"lastUploadDate", Value::Kind::Date},
      {"lastUploadGenerationIdentifier", Value::Kind::Data},
      {"lastRemoteMetadataVersionIdentifier", Value::Kind::Data},
  };
}

std::optional<Data> DCManagedOtherMetadata::documentIdentifier() const { return value(DocumentIdentifier).asData(); }
void DCManagedOtherMetadata::setDocumentIdentifier(const std::optional<Data>& documentIdentifier) {
  setValue(DocumentIdentifier, documentIdentifier);
}
std::optional<Date> DCManagedOtherMetadata::lastDownloadedDate() const { return value(LastDownloadedDate).asDate(); }
void DCManagedOtherMetadata::setLastDownloadedDate(const std::optional<Date>& date) {
  setValue(LastDownloadedDate, date);
}
std::optional<Data> DCManagedOtherMetadata::lastDownloadedGenerationIdentifier() const {
  return value(LastDownloadedGenerationIdentifier).asData();
}
void DCManagedOtherMetadata::setLastDownloadedGenerationIdentifier(const std::optional<Data>& identifier) {
  setValue(LastDownloadedGenerationIdentifier, identifier);
}
std::optional<Date> DCManagedOtherMetadata::lastRemoteMetadataUpdateDate() const {
  return value(LastRemoteMetadataUpdateDate).asDate();
}
void DCManagedOtherMetadata::setLastRemoteMetadataUpdateDate(const std::optional<Date>& date) {
  setValue(LastRemoteMetadataUpdateDate, date);
}
std::optional<Data> DCManagedOtherMetadata::lastUpdateGenerationIdentifier() const {
  return value(LastUpdateGenerationIdentifier).asData();
}
void DCManagedOtherMetadata::setLastUpdateGenerationIdentifier(const std::optional<Data>& identifier) {
  setValue(LastUpdateGenerationIdentifier, identifier);
}
std::optional<Date> DCManagedOtherMetadata::lastUploadDate() const { return value(LastUploadDate).asDate(); }
void DCManagedOtherMetadata::setLastUploadDate(const std::optional<Date>& date) { setValue(LastUploadDate, date); }
std::optional<Data> DCManagedOtherMetadata::lastUploadGenerationIdentifier() const {
  return value(LastUploadGenerationIdentifier).asData();
}
void DCManagedOtherMetadata::setLastUploadGenerationIdentifier(const std::optional<Data>& identifier) {
  setValue(LastUploadGenerationIdentifier, identifier);
}
std::optional<Data> DCManagedOtherMetadata::lastRemoteMetadataVersionIdentifier() const {
  return value(LastRemoteMetadataVersionIdentifier).asData();
}
void DCManagedOtherMetadata::setLastRemoteMetadataVersionIdentifier(const std::optional<Data>& identifier) {
  setValue(LastRemoteMetadataVersionIdentifier, identifier);
}

void DCManagedOtherMetadata::updateWithValuesFromDictionary(const Dictionary& dictionary) {
  static const auto kinds = attributes();
  for (const auto& [attribute, key] : kKeys) {
    const Value* found = dictionary.find(key);
    if (found && found->kind() == kinds[attribute].kind) setValue(attribute, *found);
  }
}

Dictionary DCManagedOtherMetadata::dictionaryRepresentation() const {
  Dictionary dictionary;
  for (const auto& [attribute, key] : kKeys) {
    if (Value found = value(attribute); !found.isNull()) dictionary.set(key, found);
  }
  return dictionary;
}

}  // namespace florvane
