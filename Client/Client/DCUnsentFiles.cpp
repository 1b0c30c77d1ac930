#include "Client/Client/DCUnsentFiles.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFMetadataUtils.h"
#include "platform/Container.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>
#include <tuple>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kDirectoryName[] = "Recovered";
constexpr char kStagingPrefix[] = "upload+";
constexpr std::string_view kRemoteMetadataSuffix = "-remoteMetadata.plist";
constexpr std::size_t kMaximumNameBytes = 255;

// Calls with the name and the path of each entry of a folder; nothing when it cannot be read.
template <typename Visit>
void forEachEntry(const std::string& folder, const Visit& visit) {
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error), end;
  while (!error && entries != end) {
    visit(entries->path().filename().string(), entries->path().string());
    entries.increment(error);
  }
}

bool isRegularFile(const std::string& path) {
  struct stat status{};
  return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The generations that a file had when it and the server were the same, by the data key of its item.
using Generations = std::unordered_map<std::string, std::vector<Data>>;

Generations exchangedGenerations(DCDatabase& database) {
  Generations generations;
  ManagedObjectFetch fetch;
  fetch.entity = DCEntityIndexOtherMetadata;
  auto context = database.managedObjectContext();
  context->performAndWait([&] {
    for (const auto& object : context->fetch(fetch)) {
      auto record = std::static_pointer_cast<DCManagedOtherMetadata>(object);
      auto key = record->documentIdentifier();
      if (!key) continue;
      const Dictionary values = record->dictionaryRepresentation();
      auto& known = generations[std::string(key->view())];
      for (const char* each : {DCFileLastUpdateGenerationIdentifierKey, DCFileLastUploadGenerationIdentifierKey,
                               DCFileLastDownloadGenerationIdentifierKey}) {
        if (auto generation = values.data(each)) known.push_back(*generation);
      }
    }
  });
  return generations;
}

// What the server last said of the document, as the cache keeps it beside the contents.
std::optional<Dictionary> newestRemoteMetadata(const std::string& folder) {
  std::optional<Date> newest;
  std::string path;
  forEachEntry(folder, [&](const std::string& name, const std::string& entry) {
    struct stat status{};
    if (!name.ends_with(kRemoteMetadataSuffix) || ::stat(entry.c_str(), &status) != 0) return;
    Date date = Date::fromTimespec(status.st_mtim);
    if (newest && date <= *newest) return;
    newest = date;
    path = entry;
  });
  if (!newest) return std::nullopt;
  auto bytes = readFile(path);
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Failure(bytes.error()));
  return list ? list->asDictionary() : std::nullopt;
}

bool isAsTheServerSaid(const std::string& path, const std::string& metadataFolder) {
  auto metadata = newestRemoteMetadata(metadataFolder);
  struct stat status{};
  if (!metadata || ::stat(path.c_str(), &status) != 0) return false;
  return metadata->date(ResourceContentModificationDateKey) == Date::fromTimespec(status.st_mtim) &&
         metadata->integer(ResourceFileSizeKey) == status.st_size;
}

bool isUnsent(const std::string& path, const std::string& documentIdentifier, const Generations& generations,
              const std::string& metadataFolder) {
  auto known = generations.find(documentIdentifier);
  if (known == generations.end() || known->second.empty()) return !isAsTheServerSaid(path, metadataFolder);
  auto generation = FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(URL::fileURL(path));
  if (!generation || !*generation) return true;
  return std::find(known->second.begin(), known->second.end(), **generation) == known->second.end();
}

std::string join(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

// A name with the date behind it, of a length that a folder takes; cut between characters.
std::string datedName(std::string name, const std::string& suffix) {
  std::size_t room = kMaximumNameBytes - suffix.size();
  if (name.size() > room) {
    while (room > 0 && (static_cast<unsigned char>(name[room]) & 0xc0U) == 0x80U) --room;
    name.resize(room);
  }
  return name + suffix;
}

}  // namespace

std::optional<std::string> DCUnsentFiles::directory() {
  auto container = Container::directory();
  return container ? std::optional(*container + "/" + kDirectoryName) : std::nullopt;
}

std::vector<DCUnsentFile> DCUnsentFiles::unsentFilesOfService(const std::shared_ptr<DCService>& service,
                                                              DCDatabase& database) {
  std::vector<DCUnsentFile> files;
  std::set<std::string> found;
  auto add = [&](const std::string& relativePath, const std::string& path) {
    if (found.insert(path).second) files.push_back({relativePath, path});
  };
  for (const auto& upload : database.allUploads()) {
    auto path = upload->path(), file = upload->fileURL();
    if (path && file && isRegularFile(*file)) add(*path, *file);
  }
  const Generations generations = exchangedGenerations(database);
  const std::string metadataRoot = DCFullPath::metadataRootForService(service)->string();
  forEachEntry(DCFullPath::documentRootForService(service)->string(),
               [&](const std::string& folder, const std::string& folderPath) {
                 if (folder.starts_with(kStagingPrefix)) {
                   std::string parent = folder.substr(sizeof kStagingPrefix - 1);
                   std::replace(parent.begin(), parent.end(), ':', '/');
                   forEachEntry(folderPath, [&](const std::string& name, const std::string& path) {
                     if (isRegularFile(path)) add(join(parent, name), path);
                   });
                   return;
                 }
                 auto documentIdentifier = hexDecode(folder);
                 if (!documentIdentifier) return;
                 forEachEntry(folderPath, [&](const std::string& name, const std::string& path) {
                   if (!isRegularFile(path) || found.contains(path)) return;
                   std::string key(documentIdentifier->view());
                   if (!isUnsent(path, key, generations, join(metadataRoot, folder))) return;
                   auto relativePaths = database.pathsForDocumentIdentifier(*documentIdentifier);
                   add(relativePaths.empty() ? name : relativePaths.front(), path);
                 });
               });
  std::sort(files.begin(), files.end(), [](const DCUnsentFile& a, const DCUnsentFile& b) {
    return std::tie(a.relativePath, a.filePath) < std::tie(b.relativePath, b.filePath);
  });
  return files;
}

Result<std::string> DCUnsentFiles::recoverFile(const DCUnsentFile& file, Date date) {
  auto container = Container::requireDirectory();
  if (!container) return Failure(container.error());
  std::size_t slash = file.relativePath.rfind('/');
  std::string parent = slash == std::string::npos ? "" : file.relativePath.substr(0, slash);
  std::string name = slash == std::string::npos ? file.relativePath : file.relativePath.substr(slash + 1);
  std::string folder = join(*container + "/" + kDirectoryName, parent);
  if (auto made = createDirectories(folder, 0700); !made) return Failure(made.error());
  for (int number = 1;; ++number) {
    std::string suffix = " (" + date.description() + ")" + (number > 1 ? " " + std::to_string(number) : "");
    std::string destination = folder + "/" + datedName(name, suffix);
    // Never over what was recovered before.
    if (::renameat2(AT_FDCWD, file.filePath.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE) != 0) {
      if (errno == EEXIST) continue;
      return Failure(Error::fileWrite(errno, destination));
    }
    if (auto synced = syncDirectory(folder); !synced) return Failure(synced.error());
    DCLogNotice("Bytes of '%@' that were never sent are kept as %@", file.relativePath, destination);
    return destination;
  }
}

Result<std::vector<std::string>> DCUnsentFiles::recoverFiles(const std::vector<DCUnsentFile>& files, Date date) {
  std::vector<std::string> recovered;
  recovered.reserve(files.size());
  for (const auto& file : files) {
    auto path = recoverFile(file, date);
    if (!path) {
      DCLogError("Unable to keep '%@', which was never sent: %@", file.filePath, path.error());
      return Failure(path.error());
    }
    recovered.push_back(*path);
  }
  return recovered;
}

}  // namespace florvane
