#include "common/FVFMetadataUtils.h"
#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/ResourceValues.h"
#include "server/LocalDocumentStore.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {

namespace {

// Dates beyond some three centuries from 1970 cannot be counted in nanoseconds.
constexpr std::int64_t kMaximumMicroseconds = 9'200'000'000'000'000;
// After so many taken names a drop box makes up one that is certainly free.
constexpr int kNumberedNames = 20;

tl::unexpected<StoreError> refuse(StoreStatus status, std::string sentence) {
  return tl::unexpected(StoreError{status, std::move(sentence)});
}

StoreResult<std::optional<Date>> dateIn(const Dictionary& metadata, const char* key) {
  const auto date = metadata.date(key);
  if (date &&
      (date->microsecondsSince1970() > kMaximumMicroseconds || date->microsecondsSince1970() < -kMaximumMicroseconds)) {
    return refuse(StoreStatus::BadRequest, "The server cannot keep the dates of this file.");
  }
  return date;
}

std::optional<std::int64_t> nanoseconds(const std::optional<Date>& date) {
  if (!date) return std::nullopt;
  return date->microsecondsSince1970() * 1000;
}

// "name suffix.extension", the name shortened between characters where it must be.
std::string nameWithSuffix(const std::string& name, const std::string& suffix) {
  std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name.size() - dot > 32) dot = name.size();
  const std::string end = " " + suffix + name.substr(dot);
  std::size_t length = std::min(dot, 255 - end.size());
  while (length > 0 && length < dot && (static_cast<unsigned char>(name[length]) & 0xC0U) == 0x80U) --length;
  return name.substr(0, length) + end;
}

// Whether both files hold the same bytes and have the same modification date: then one is the other, sent again because
// the first answer was lost.
bool isSameDelivery(int one, int other) {
  struct stat first{}, second{};
  if (fstat(one, &first) != 0 || fstat(other, &second) != 0 || !S_ISREG(second.st_mode)) return false;
  if (first.st_size != second.st_size || first.st_mtim.tv_sec != second.st_mtim.tv_sec ||
      first.st_mtim.tv_nsec != second.st_mtim.tv_nsec) {
    return false;
  }
  std::array<char, 65536> ours, theirs;
  for (off_t at = 0; at < first.st_size;) {
    const ssize_t read = pread(one, ours.data(), ours.size(), at);
    if (read <= 0 || pread(other, theirs.data(), static_cast<std::size_t>(read), at) != read ||
        std::memcmp(ours.data(), theirs.data(), static_cast<std::size_t>(read)) != 0) {
      return false;
    }
    at += read;
  }
  return true;
}

}  // namespace

struct LocalDocumentStore::Dates {
  std::optional<Date> modified;
  std::optional<std::int64_t> created;  // nanoseconds
  std::optional<std::int64_t> added;    // nanoseconds

  static StoreResult<Dates> from(const Dictionary& metadata) {
    const auto modified = dateIn(metadata, ResourceContentModificationDateKey);
    if (!modified) return tl::unexpected(modified.error());
    const auto created = dateIn(metadata, ResourceCreationDateKey);
    if (!created) return tl::unexpected(created.error());
    const auto added = dateIn(metadata, ResourceAddedToDirectoryDateKey);
    if (!added) return tl::unexpected(added.error());
    return Dates{*modified, nanoseconds(*created), nanoseconds(*added)};
  }
};

StoreResult<LocatedDocument> LocalDocumentStore::locatedForStoring(const Data& document,
                                                                   const std::optional<Data>& share) {
  if (document == index_->root().data()) {
    return refuse(StoreStatus::Forbidden, "Files can be stored in a share only.");
  }
  auto found = located(document, share);
  if (!found) return found;
  const std::string& name = found->record.name;
  if (found->share->configuration().readOnly) {
    return refuse(StoreStatus::Forbidden, "The share “" + found->share->configuration().name + "” is read-only.");
  }
  if (!found->stamp.isWritable()) {
    return refuse(StoreStatus::Forbidden, "The server has no permission to change “" + name + "”.");
  }
  return found;
}

StoreResult<Upload> LocalDocumentStore::beginWrite(const Data& parent, const std::optional<Data>& share,
                                                   std::uint64_t expectedBytes) {
  auto located = locatedForStoring(parent, share);
  if (!located) return tl::unexpected(located.error());
  if (!located->stamp.identity.directory) {
    return refuse(StoreStatus::NotFound, "“" + located->record.name + "” is not a folder.");
  }
  return uploads_.make(*located->share->folder, located->descriptor.get(), expectedBytes);
}

StoreResult<Upload> LocalDocumentStore::beginReplace(const Data& document, const std::optional<Data>& share,
                                                     std::uint64_t expectedBytes) {
  auto located = locatedForStoring(document, share);
  if (!located) return tl::unexpected(located.error());
  if (located->stamp.identity.directory || DocumentIdentifier::fromData(document)->isThumbnail()) {
    return refuse(StoreStatus::NotFound, "“" + located->record.name + "” is not a file.");
  }
  return beginWrite(located->record.parent.data(), std::nullopt, expectedBytes);
}

// Under the name or one like it that is free. What was delivered before stays alone: its descriptor is the answer then.
StoreResult<FileDescriptor> LocalDocumentStore::publishUnderFreeName(Upload& upload, int directory,
                                                                     const std::string& name) {
  for (int number = 1; number <= kNumberedNames; ++number) {
    const std::string candidate = number == 1 ? name : nameWithSuffix(name, std::to_string(number));
    auto published = UploadFolder::publish(upload, directory, candidate);
    if (published) return FileDescriptor();
    if (published.error().status != StoreStatus::Conflict) return tl::unexpected(published.error());
    FileDescriptor present(
        ::openat(directory, candidate.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (present.valid() && isSameDelivery(upload.descriptor(), present.get())) return present;
  }
  const auto random = randomBytes(8);
  if (!random) return refuse(StoreStatus::Internal, random.error().localizedDescription());
  auto published = UploadFolder::publish(upload, directory, nameWithSuffix(name, hexEncode(*random)));
  if (!published) return tl::unexpected(published.error());
  return FileDescriptor();
}

// The answer once the directory has been looked at again.
StoreResult<StoredUpload> LocalDocumentStore::answer(KnownDirectory& directory, const FileIdentity& stored) {
  const ShareConfiguration& share = directory.share().configuration();
  StoredUpload answer;
  if (!share.dropBox) {
    if (auto made = makeBody(directory); !made) return tl::unexpected(made.error());
    answer.version = directory.contents.version.data();
    answer.metadata = EntryMetadata(share).dictionary(directory.contents.self, directory.contents.version);
    answer.body = directory.contents.body;
    return answer;
  }
  const auto& entries = directory.contents.entries;
  const auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const DirectoryEntry& candidate) { return candidate.stamp.identity == stored; });
  if (entry == entries.end()) return refuse(StoreStatus::NotFound, "The file was stored and removed again.");
  answer.dropBox = true;
  answer.version = entry->version.data();
  answer.metadata = EntryMetadata(share).dictionary(*entry);
  return answer;
}

// Stores a new file, with the directory's lock held.
StoreResult<StoredUpload> LocalDocumentStore::store(KnownDirectory& directory, const LocatedDocument& located,
                                                    const std::string& name, const Dates& dates, Upload& upload) {
  const int descriptor = located.descriptor.get();
  FileDescriptor delivered;
  if (located.share->configuration().dropBox) {
    auto published = publishUnderFreeName(upload, descriptor, name);
    if (!published) return tl::unexpected(published.error());
    delivered = std::move(*published);
  } else if (auto published = UploadFolder::publish(upload, descriptor, name); !published) {
    return tl::unexpected(published.error());
  }
  const auto stamp = located.share->folder->stamp(delivered.valid() ? delivered.get() : upload.descriptor());
  if (!stamp) return tl::unexpected(stamp.error());
  const DirectoryCatalog::ClientDates client{stamp->identity, dates.created, dates.added};
  if (auto fresh = catalog_.refresh(directory, located, &client); !fresh) return tl::unexpected(fresh.error());
  return answer(directory, stamp->identity);
}

StoreResult<StoredUpload> LocalDocumentStore::write(const Data& parent, const std::optional<Data>& share,
                                                    const std::string& name, const Dictionary& metadata,
                                                    Upload upload) {
  if (!isLegalName(name)) return refuse(StoreStatus::BadRequest, "The name “" + name + "” cannot be used.");
  if (name.starts_with(kReservedNamePrefix)) {
    return refuse(StoreStatus::Forbidden, "The name “" + name + "” is kept for the server's own use.");
  }
  const auto located = locatedForStoring(parent, share);
  if (!located) return tl::unexpected(located.error());
  const auto dates = Dates::from(metadata);
  if (!dates) return tl::unexpected(dates.error());
  // Outside the directory's lock, since it may take long.
  if (auto finished = UploadFolder::finish(upload, dates->modified); !finished) {
    return tl::unexpected(finished.error());
  }
  return catalog_.in(*located, [&](KnownDirectory& directory, const LocatedDocument& place) {
    return store(directory, place, name, *dates, upload);
  });
}

StoreResult<StoredUpload> LocalDocumentStore::replace(const Data& document, const std::optional<Data>& share,
                                                      const std::optional<Data>& version, const Dictionary& metadata,
                                                      Upload upload) {
  const auto target = locatedForStoring(document, share);
  if (!target) return tl::unexpected(target.error());
  if (target->stamp.identity.directory || DocumentIdentifier::fromData(document)->isThumbnail()) {
    return refuse(StoreStatus::NotFound, "“" + target->record.name + "” is not a file.");
  }
  const auto dates = Dates::from(metadata);
  if (!dates) return tl::unexpected(dates.error());
  UploadFolder::takePermissions(upload, target->stamp);
  if (auto finished = UploadFolder::finish(upload, dates->modified); !finished) {
    return tl::unexpected(finished.error());
  }
  const auto in = [&](KnownDirectory& directory, const LocatedDocument& place) -> StoreResult<StoredUpload> {
    const auto& entries = directory.contents.entries;
    const auto entry = std::find_if(entries.begin(), entries.end(), [&](const DirectoryEntry& candidate) {
      return candidate.identifier == target->record.identifier;
    });
    if (entry == entries.end()) return refuse(StoreStatus::NotFound, "The file is not on the server any more.");
    if (version != entry->version.data()) {
      if (place.share->configuration().dropBox) return store(directory, place, entry->name, *dates, upload);
      return refuse(StoreStatus::Conflict,
                    version ? "“" + entry->name + "” was changed on the server after the version to be replaced."
                            : "The version of “" + entry->name + "” that is to be replaced is missing.");
    }
    // Taken before the exchange, after which the entry is another.
    const auto stamp = place.share->folder->stamp(upload.descriptor());
    if (!stamp) return tl::unexpected(stamp.error());
    const std::int64_t created =
        entry->created.value_or(entry->stamp.identity.birth != 0 ? entry->stamp.identity.birth : entry->stamp.modified);
    const DirectoryCatalog::ClientDates client{stamp->identity, dates->created.value_or(created),
                                               dates->added.value_or(entry->added)};
    auto exchanged =
        UploadFolder::exchange(upload, *place.share->folder, place.descriptor.get(), entry->name, entry->stamp);
    if (!exchanged) return tl::unexpected(exchanged.error());
    if (auto fresh = catalog_.refresh(directory, place, &client); !fresh) return tl::unexpected(fresh.error());
    return answer(directory, stamp->identity);
  };
  return catalog_.in(target->record.parent, in);
}

}  // namespace florvane
