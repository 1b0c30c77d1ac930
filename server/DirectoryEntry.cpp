#include "server/DirectoryEntry.h"

#include "common/FVFMetadataUtils.h"
#include "platform/Crypto.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"
#include "server/ThumbnailMaker.h"

#include <cstring>
#include <type_traits>
#include <utility>

namespace florvane {

namespace {

// Bytes of a digest's input; numbers in the machine's own order, since versions never leave their server.
class DigestInput {
 public:
  template <typename T>
    requires std::is_trivially_copyable_v<T>
  DigestInput& operator<<(const T& value) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&value);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof(value));
    return *this;
  }
  DigestInput& operator<<(const std::string& text) {
    *this << text.size();
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return *this;
  }
  VersionDigest digest() const {
    const Data hash = florvane::digest(DigestAlgorithm::SHA256, bytes_);
    VersionDigest version;
    std::memcpy(&version.low, hash.bytes(), sizeof(version.low));
    std::memcpy(&version.high, hash.bytes() + sizeof(version.low), sizeof(version.high));
    return version;
  }

 private:
  std::vector<std::uint8_t> bytes_;
};

Date dateOf(std::int64_t nanoseconds) {
  // Rounded down, before 1970 too.
  const std::int64_t rest = nanoseconds % 1000;
  return Date::fromMicroseconds((nanoseconds / 1000) - (rest < 0 ? 1 : 0));
}

}  // namespace

VersionDigest& VersionDigest::operator+=(const VersionDigest& other) {
  low += other.low;
  high += other.high + (low < other.low ? 1 : 0);
  return *this;
}

VersionDigest& VersionDigest::operator-=(const VersionDigest& other) {
  high -= other.high + (low < other.low ? 1 : 0);
  low -= other.low;
  return *this;
}

Data VersionDigest::data() const {
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), &low, sizeof(low));
  std::memcpy(bytes.data() + sizeof(low), &high, sizeof(high));
  return {bytes.data(), bytes.size()};
}

DirectoryEntry DirectoryEntry::from(const DocumentRecord& record, const FileStamp& stamp,
                                    const ShareConfiguration& share) {
  DirectoryEntry entry{record.identifier, record.name, stamp, record.added, record.created, {}};
  entry.updateVersion(share);
  return entry;
}

DocumentRecord DirectoryEntry::record(std::int64_t share, const DocumentIdentifier& parent) const {
  return {identifier, parent, name, share, stamp.identity, added, created, false};
}

void DirectoryEntry::updateVersion(const ShareConfiguration& share) {
  DigestInput input;
  input << identifier.bytes << name << stamp.identity.inode << stamp.identity.birth << stamp.identity.directory
        << stamp.size << stamp.modified << stamp.changed << stamp.mode << added << created.has_value()
        << created.value_or(0) << share.readOnly << share.dropBox;
  version = input.digest();
}

VersionDigest listingVersion(const VersionDigest& directory, const VersionDigest& sumOfEntries, std::size_t count) {
  DigestInput input;
  input << directory.low << directory.high << sumOfEntries.low << sumOfEntries.high << count;
  return input.digest();
}

const EntryMetadata::Type& EntryMetadata::type(const std::string& identifier) {
  const auto found = types_.find(identifier);
  if (found != types_.end()) return found->second;
  return types_.emplace(identifier, Type{identifier, localizedTypeDescription(identifier)}).first->second;
}

Dictionary EntryMetadata::dictionary(const DirectoryEntry& entry, const std::optional<VersionDigest>& version) {
  static const Key name(ResourceNameKey);
  static const Key resourceType(ResourceFileResourceTypeKey);
  static const Key size(ResourceFileSizeKey);
  static const Key isDirectory(ResourceIsDirectoryKey);
  static const Key isPackage(ResourceIsPackageKey);
  static const Key isReadable(ResourceIsReadableKey);
  static const Key isWritable(ResourceIsWritableKey);
  static const Key isHidden(ResourceIsHiddenKey);
  static const Key hasHiddenExtension(ResourceHasHiddenExtensionKey);
  static const Key typeIdentifier(ResourceTypeIdentifierKey);
  static const Key typeDescription(ResourceLocalizedTypeDescriptionKey);
  static const Key creation(ResourceCreationDateKey);
  static const Key contentModification(ResourceContentModificationDateKey);
  static const Key attributeModification(ResourceAttributeModificationDateKey);
  static const Key addedToDirectory(ResourceAddedToDirectoryDateKey);
  static const Key documentIdentifier(FVDocumentIdentifierKey);
  static const Key versionIdentifier(FVVersionIdentifierKey);
  static const Key thumbnailIdentifier(FVFileThumbnailDocumentIdentifierKey);
  static const Value directoryType(ResourceTypeDirectory);
  static const Value regularType(ResourceTypeRegular);

  const bool directory = entry.stamp.identity.directory;
  const std::string typeText = directory ? "inode/directory" : typeIdentifierForName(entry.name);
  const Type& described = type(typeText);
  const bool readable = entry.stamp.isReadable();
  // A folder that takes files and shows none is a drop box to clients, which one that merely cannot be read is not.
  const bool writable = !share_.readOnly && entry.stamp.isWritable() && (readable || !directory);

  Dictionary metadata;
  metadata.reserve(18);
  metadata.appendUnchecked(name, entry.name);
  metadata.appendUnchecked(documentIdentifier, entry.identifier.data());
  metadata.appendUnchecked(versionIdentifier, version.value_or(entry.version).data());
  metadata.appendUnchecked(resourceType, directory ? directoryType : regularType);
  if (!directory) metadata.appendUnchecked(size, entry.stamp.size);
  metadata.appendUnchecked(isDirectory, directory);
  metadata.appendUnchecked(isPackage, false);
  metadata.appendUnchecked(isReadable, readable && !share_.dropBox);
  metadata.appendUnchecked(isWritable, writable);
  metadata.appendUnchecked(isHidden, entry.name.starts_with('.'));
  metadata.appendUnchecked(hasHiddenExtension, false);
  metadata.appendUnchecked(typeIdentifier, described.identifier);
  metadata.appendUnchecked(typeDescription, described.description);
  const std::int64_t birth = entry.stamp.identity.birth != 0 ? entry.stamp.identity.birth : entry.stamp.modified;
  metadata.appendUnchecked(creation, dateOf(entry.created.value_or(birth)));
  metadata.appendUnchecked(contentModification, dateOf(entry.stamp.modified));
  metadata.appendUnchecked(attributeModification, dateOf(entry.stamp.changed));
  metadata.appendUnchecked(addedToDirectory, dateOf(entry.added));
  if (!directory && !share_.dropBox && ThumbnailMaker::handles(typeText, entry.stamp.size)) {
    metadata.appendUnchecked(thumbnailIdentifier, entry.identifier.thumbnail().data());
  }
  return metadata;
}

StoreResult<Data> listingBody(const Array& dictionaries) {
  auto body = writePropertyList(dictionaries, PropertyListFormat::Binary);
  if (!body) return tl::unexpected(StoreError{StoreStatus::Internal, body.error().localizedDescription()});
  return *std::move(body);
}

}  // namespace florvane
