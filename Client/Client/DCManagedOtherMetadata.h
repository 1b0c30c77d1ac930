#pragma once

#include "platform/ManagedObject.h"

#include <optional>
#include <vector>

namespace florvane {

// Keys of an item's bookkeeping: dates of exchanges with the server, and the generation of the local contents or the
// version of the metadata at that time (bytes).
inline constexpr char DCFileLastDownloadDateKey[] = "DCFileLastDownloadDateKey";
inline constexpr char DCFileLastDownloadGenerationIdentifierKey[] = "DCFileLastDownloadGenerationIdentifierKey";
// Its value lacks a word; it must stay so.
inline constexpr char DCFileLastRemoteMetadataUpdateDateKey[] = "DCFileLastRemoteMetadataUpdateKey";
inline constexpr char DCFileLastUpdateGenerationIdentifierKey[] = "DCFileLastUpdateGenerationIdentifierKey";
inline constexpr char DCFileLastUploadDateKey[] = "DCFileLastUploadDateKey";
inline constexpr char DCFileLastUploadGenerationIdentifierKey[] = "DCFileLastUploadGenerationIdentifierKey";
inline constexpr char DCFileLastRemoteMetadataVersionIdentifierKey[] = "DCFileLastRemoteMetadataVersionIdentifierKey";

// Entity "OtherMetadata": an item's bookkeeping by its data key. Any thread.
class DCManagedOtherMetadata : public ManagedObject {
 public:
  enum Attribute : std::size_t {
    DocumentIdentifier,
    LastDownloadedDate,
    LastDownloadedGenerationIdentifier,
    LastRemoteMetadataUpdateDate,
    LastUpdateGenerationIdentifier,
    LastUploadDate,
    LastUploadGenerationIdentifier,
    LastRemoteMetadataVersionIdentifier
  };
  static std::vector<ManagedAttribute> attributes();

  std::optional<Data> documentIdentifier() const;
  void setDocumentIdentifier(const std::optional<Data>& documentIdentifier);
  std::optional<Date> lastDownloadedDate() const;
  void setLastDownloadedDate(const std::optional<Date>& date);
  std::optional<Data> lastDownloadedGenerationIdentifier() const;
  void setLastDownloadedGenerationIdentifier(const std::optional<Data>& identifier);
  std::optional<Date> lastRemoteMetadataUpdateDate() const;
  void setLastRemoteMetadataUpdateDate(const std::optional<Date>& date);
  std::optional<Data> lastUpdateGenerationIdentifier() const;
  void setLastUpdateGenerationIdentifier(const std::optional<Data>& identifier);
  std::optional<Date> lastUploadDate() const;
  void setLastUploadDate(const std::optional<Date>& date);
  std::optional<Data> lastUploadGenerationIdentifier() const;
  void setLastUploadGenerationIdentifier(const std::optional<Data>& identifier);
  std::optional<Data> lastRemoteMetadataVersionIdentifier() const;
  void setLastRemoteMetadataVersionIdentifier(const std::optional<Data>& identifier);

  // Sets the attributes whose keys are present; one of another kind of value is passed over.
  void updateWithValuesFromDictionary(const Dictionary& dictionary);
  // The attributes that have a value, the data key not among them.
  Dictionary dictionaryRepresentation() const;
};

}  // namespace florvane
