#pragma once

#include "platform/ManagedObject.h"

#include <optional>
#include <vector>

namespace florvane {

// Entity "StoredLocalMetadata": what the client keeps of an item that the server has not described, by the item's data
// key. Exchanged as a dictionary under the resource keys "ResourceNameKey", "ResourcePathKey" and
// "ResourceAddedToDirectoryDateKey". Any thread.
class DCManagedStoredLocalMetadata : public ManagedObject {
 public:
  enum Attribute : std::size_t { DocumentIdentifier, Name, LocalFilePath, AddedToDirectoryDate };
  static std::vector<ManagedAttribute> attributes();

  std::optional<Data> documentIdentifier() const;
  void setDocumentIdentifier(const std::optional<Data>& documentIdentifier);
  std::optional<std::string> name() const;
  std::optional<std::string> localFilePath() const;
  std::optional<Date> addedToDirectoryDate() const;
  // Sets the attributes whose keys are present; one of another kind of value is passed over.
  void updateWithValuesFromDictionary(const Dictionary& dictionary);
  // The attributes that have a value.
  Dictionary dictionaryRepresentation() const;
};

}  // namespace florvane
