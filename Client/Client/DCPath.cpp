#include "Client/Client/DCPath.h"

#include "Client/Client/DCLog.h"
#include "common/FVFPathUtils.h"
#include "common/PUAdditions.h"
#include "platform/Container.h"
#include "platform/Crypto.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/GenerationCounter.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>
#include <unordered_map>
#include <utility>

#include <sys/stat.h>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCPath";
constexpr std::size_t kExpectedServices = 5;

struct DirectoryPaths {
  std::mutex mutex;  // guards both
  std::optional<std::string> root;
  std::optional<std::string> metadata;
};

DirectoryPaths& directoryPaths() {
  static auto& instance = *new DirectoryPaths;
  return instance;
}

// True when there was something at the path. That a folder cannot be made shows when it is used.
bool existsOrCreate(const std::string& path) {
  if (fileExists(path)) return true;
  (void)createDirectories(path);
  return false;
}

// The folder that holds the document folder, ending in "/".
std::string directoryBesideRoot(const std::string& root, std::string_view name) {
  return root.substr(0, root.rfind('/') + 1) + std::string(name);
}

// Relative strings are looked up in an empty folder that nothing may be put into, unless the program has chosen one.
void setUpCurrentDirectory() {
  if (!FVFPathHost::current().currentDirectory.empty()) return;
  std::string path = directoryBesideRoot(*DUPathRootDirectoryPath(), "Empty");
  mkdir(path.c_str(), 0500);
  FVFPathUtils::setCurrentDirectory(path);
}

// Until it has succeeded: a process whose container appears later is not lost.
void verifyPathSetupOnce() {
  static std::atomic<bool> verified = false;
  if (verified.load(std::memory_order_acquire)) return;
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  if (verified.load(std::memory_order_relaxed)) return;
  DUPathVerifyPathSetup();
  setUpCurrentDirectory();
  verified.store(true, std::memory_order_release);
}

std::string sanitizedAbsolutePath(std::string_view path) {
  return FVFPathUtils::stringBySanitizingPath(path, false, true);
}

// What is kept for each service for the life of the process, made under the table's lock.
template <typename Path>
class ServiceTable {
 public:
  ServiceTable() { paths_.reserve(kExpectedServices); }

  template <typename Make>
  Path pathForService(const DCService& service, Make make) {
    std::lock_guard lock(mutex_);
    auto entry = paths_.find(service.uniqueIdentifier());
    if (entry != paths_.end()) return entry->second;
    return paths_.emplace(service.uniqueIdentifier(), make()).first->second;
  }

 private:
  std::mutex mutex_;  // guards paths_
  std::unordered_map<std::string, Path> paths_;
};

// The component that starts there; "" at the end.
std::string firstComponent(std::string_view path) { return std::string(path.substr(0, path.find('/'))); }

std::string lastComponent(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace

bool DUPathSetDirectoryPaths(const std::optional<std::string>& rootPath,
                             const std::optional<std::string>& metadataPath) {
  auto& paths = directoryPaths();
  {
    std::lock_guard lock(paths.mutex);
    if (paths.root && paths.root != rootPath) {
      throw InvalidArgumentException(format("Illegal to change root path: %@", rootPath));
    }
    if (paths.metadata && paths.metadata != metadataPath) {
      throw InvalidArgumentException(format("Illegal to change metadata path: %@", metadataPath));
    }
    if (!rootPath || !rootPath->starts_with('/')) {
      throw InvalidArgumentException(format("Illegal root path: %@", rootPath));
    }
    if (!metadataPath || !metadataPath->starts_with('/')) {
      throw InvalidArgumentException(format("Illegal metadata path: %@", metadataPath));
    }
    std::string root = sanitizedAbsolutePath(*rootPath);
    paths.metadata = sanitizedAbsolutePath(*metadataPath);
    paths.root = std::move(root);
  }
  bool rootExisted = existsOrCreate(*rootPath);
  bool metadataExisted = existsOrCreate(*metadataPath);
  // Documents are ours to date, also where they lie outside the container.
  addGenerationFolder(*rootPath);
  return rootExisted && metadataExisted;
}

void DUPathSetDefaultDirectoryPaths() {
  if (DUPathRootDirectoryPath() || DUPathMetadataDirectoryPath()) return;
  auto container = Container::directory();
  if (!container) return;
  DUPathSetDirectoryPaths(*container + "/File Provider Storage", *container + "/Metadata");
}

std::optional<std::string> DUPathRootDirectoryPath() {
  auto& paths = directoryPaths();
  std::lock_guard lock(paths.mutex);
  return paths.root;
}

std::optional<std::string> DUPathMetadataDirectoryPath() {
  auto& paths = directoryPaths();
  std::lock_guard lock(paths.mutex);
  return paths.metadata;
}

std::optional<std::string> DUTemporaryDirectory() {
  auto root = DUPathRootDirectoryPath();
  if (!root) return std::nullopt;
  std::string path = directoryBesideRoot(*root, "tmp");
  if (!fileExists(path)) mkdir(path.c_str(), 0777);
  return path;
}

void DUPathVerifyPathSetup() {
  DUPathSetDefaultDirectoryPaths();
  if (!DUPathRootDirectoryPath()) throw InvalidArgumentException("Illegal nil root path");
  if (!DUPathMetadataDirectoryPath()) throw InvalidArgumentException("Illegal nil metadata path");
}

std::string DUPathCharacterFromString(std::string_view string, std::size_t index) {
  if (index >= string.size()) throw InvalidArgumentException(format("Illegal index: %lu", index));
  std::size_t end = index + 1;
  while (end < string.size() && (static_cast<unsigned char>(string[end]) & 0xc0) == 0x80) ++end;
  return std::string(string.substr(index, end - index));
}

bool DUPathStringHasPathPrefix(std::string_view string, std::string_view prefix) {
  if (!string.starts_with(prefix)) return false;
  if (string.size() == prefix.size() || prefix == "/") return true;
  return DUPathCharacterFromString(string, prefix.size()) == "/";
}

DCRelativePath::DCRelativePath(Private, std::string sanitizedString, ServicePtr service)
    : string_(std::move(sanitizedString)), firstPathComponent_(firstComponent(string_)), service_(std::move(service)) {}

DCRelativePath::Ptr DCRelativePath::relativePathWithString(std::string_view string, const ServicePtr& service) {
  DCLogTrace("+[DCRelativePath relativePathWithString:forService:]", {{"string", string}, {"service", service}});
  verifyPathSetupOnce();
  std::string sanitized = FVFPathUtils::stringBySanitizingPath(string, true, true);
  DCAssert(service, kSource);
  return std::make_shared<DCRelativePath>(Private(), std::move(sanitized), service);
}

DCRelativePath::Ptr DCRelativePath::rootForService(const ServicePtr& service) {
  DCLogTrace("+[DCRelativePath rootForService:]", {{"service", service}});
  if (!service) return relativePathWithString("", service);
  static auto& roots = *new ServiceTable<Ptr>;
  return roots.pathForService(*service, [&] { return relativePathWithString("", service); });
}

DCRelativePath::Ptr DCRelativePath::relativePathByAppendingPathComponent(std::string_view component) const {
  DCLogTrace("-[DCRelativePath relativePathByAppendingPathComponent:]", {{"pathComponent", component}});
  std::string sanitized = FVFPathUtils::stringBySanitizingPath(component, true, false);
  return appending(sanitized);
}

DCRelativePath::Ptr DCRelativePath::relativePathByAppendingPath(std::string_view path) const {
  DCLogTrace("-[DCRelativePath relativePathByAppendingPath:]", {{"path", path}});
  std::string sanitized = FVFPathUtils::stringBySanitizingPath(path, true, true);
  return appending(sanitized);
}

DCRelativePath::Ptr DCRelativePath::appending(const std::string& sanitized) const {
  std::string joined = string_;
  if (!joined.empty() && !sanitized.empty()) joined += '/';
  return relativePathWithString(joined + sanitized, service_);
}

DCRelativePath::Ptr DCRelativePath::relativePathByDeletingLastPathComponent() const {
  DCLogTrace("-[DCRelativePath relativePathByDeletingLastPathComponent]");
  if (string_.empty()) return nullptr;
  std::size_t slash = string_.rfind('/');
  if (slash == std::string::npos) return rootForService(service_);
  return relativePathWithString(string_.substr(0, slash), service_);
}

DCRelativePath::Ptr DCRelativePath::relativePathForAssetType(std::string_view assetType,
                                                             const Data& underlyingItemDocumentIdentifier) const {
  DCLogTrace("-[DCRelativePath relativePathForAssetType:withUnderlyingItemDocumentIdentifier:]",
             {{"assetType", assetType}, {"documentIdentifier", underlyingItemDocumentIdentifier}});
  DCAssert(assetType == DCPathAssetTypeThumbnail, kSource);
  return relativePathByAppendingPathComponent(format("%@.png", pu_hex(underlyingItemDocumentIdentifier)));
}

DCRelativePath::Ptr DCRelativePath::metadataPath() const {
  DCLogTrace("-[DCRelativePath metadataPath]");
  DCAssertionFailed(kSource, __LINE__, "0");
  return nullptr;
}

const std::string& DCRelativePath::string() const {
  DCLogTrace("-[DCRelativePath string]");
  return string_;
}

const DCRelativePath::ServicePtr& DCRelativePath::service() const {
  DCLogTrace("-[DCRelativePath service]");
  return service_;
}

const std::string& DCRelativePath::firstPathComponent() const {
  DCLogTrace("-[DCRelativePath firstPathComponent]");
  return firstPathComponent_;
}

std::string DCRelativePath::lastPathComponent() const {
  DCLogTrace("-[DCRelativePath lastPathComponent]");
  return lastComponent(string_);
}

bool DCRelativePath::isRoot() const {
  DCLogTrace("-[DCRelativePath isRoot]");
  return string_.empty();
}

// Without a trace line of its own: trace lines describe paths.
std::string DCRelativePath::description() const {
  return format("<%@ service=%@, path='%@'>", baseDescription("DCRelativePath", this),
                service_ ? std::optional(service_->uniqueIdentifier()) : std::nullopt, string_);
}

DCFullPath::DCFullPath(Private, std::string sanitizedString, ServicePtr service)
    : string_(std::move(sanitizedString)), service_(std::move(service)) {}

DCFullPath::Ptr DCFullPath::fullPathWithString(std::string_view string, const ServicePtr& service) {
  DCLogTrace("+[DCFullPath fullPathWithString:forService:]", {{"string", string}, {"service", service}});
  return std::make_shared<DCFullPath>(Private(), sanitizedAbsolutePath(string), service);
}

DCFullPath::Ptr DCFullPath::fullPathWithString(std::string_view string, const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("+[DCFullPath fullPathWithString:relativePath:]", {{"string", string}, {"relativePath", relativePath}});
  return fullPathWithString(string, relativePath->service());
}

DCFullPath::Ptr DCFullPath::documentRootForService(const ServicePtr& service) {
  DCLogTrace("+[DCFullPath documentRootForService:]", {{"service", service}});
  static auto& roots = *new ServiceTable<Ptr>;
  return roots.pathForService(*service, [&] {
    auto root = DCRelativePath::rootForService(service);
    return fullPathWithString(*DUPathRootDirectoryPath() + "/" + service->uniqueIdentifier(), root);
  });
}

DCFullPath::Ptr DCFullPath::metadataRootForService(const ServicePtr& service) {
  DCLogTrace("+[DCFullPath metadataRootForService:]", {{"service", service}});
  static auto& roots = *new ServiceTable<Ptr>;
  return roots.pathForService(*service, [&] {
    verifyPathSetupOnce();
    return fullPathWithString(*DUPathMetadataDirectoryPath() + "/" + service->uniqueIdentifier(), service);
  });
}

DCFullPath::Ptr DCFullPath::fullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                                           const DCRelativePath::Ptr& relativePath) {
  DCLogTrace("+[DCFullPath fullPathWithDocumentIdentifier:relativePath:]",
             {{"documentIdentifier", documentIdentifier}, {"relativePath", relativePath}});
  return _fullPathWithDocumentIdentifier(documentIdentifier, relativePath->lastPathComponent(),
                                         relativePath->service());
}

DCFullPath::Ptr DCFullPath::metadataFullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                                                   const std::optional<std::string>& name,
                                                                   const ServicePtr& service) {
  DCLogTrace("+[DCFullPath metadataFullPathWithDocumentIdentifier:name:forService:]",
             {{"documentIdentifier", documentIdentifier}, {"name", name}, {"service", service}});
  return _fullPathWithRoot(metadataRootForService(service), documentIdentifier, name, service);
}

DCFullPath::Ptr DCFullPath::_fullPathWithDocumentIdentifier(const std::optional<Data>& documentIdentifier,
                                                            const std::optional<std::string>& name,
                                                            const ServicePtr& service) {
  DCLogTrace("+[DCFullPath _fullPathWithDocumentIdentifier:name:forService:]",
             {{"documentIdentifier", documentIdentifier}, {"name", name}, {"service", service}});
  return _fullPathWithRoot(documentRootForService(service), documentIdentifier, name, service);
}

DCFullPath::Ptr DCFullPath::_fullPathWithRoot(const Ptr& root, const std::optional<Data>& documentIdentifier,
                                              const std::optional<std::string>& name, const ServicePtr& service) {
  DCLogTrace("+[DCFullPath _fullPathWithRoot:documentIdentifier:name:forService:]",
             {{"root", root}, {"documentIdentifier", documentIdentifier}, {"name", name}, {"service", service}});
  if (!documentIdentifier) {
    DCAssertionFailed(kSource, __LINE__, "documentIdentifier");
    return nullptr;
  }
  if (!root || !name) return nullptr;
  return fullPathWithString(root->string_ + "/" + pu_hex(*documentIdentifier) + "/" + *name, service);
}

DCFullPath::Ptr DCFullPath::uploadFullPathWithParentRelativePath(const DCRelativePath::Ptr& parentRelativePath,
                                                                 std::string_view name) {
  DCLogTrace("+[DCFullPath uploadFullPathWithParentRelativePath:name:]",
             {{"parentRelativePath", parentRelativePath}, {"name", name}});
  std::string parent = parentRelativePath->string();
  std::replace(parent.begin(), parent.end(), '/', ':');
  std::string directoryName = format("upload+%@", parent);
  // Too deep a folder for its path to be one name, or one that another folder's path would be written as, too. No plain
  // name has ":" there, since no relative path begins with "/".
  const std::string& original = parentRelativePath->string();
  if (directoryName.size() > NAME_MAX || original.find(':') != std::string::npos) {
    directoryName = format("upload+:%@", pu_hex(digest(DigestAlgorithm::SHA1, Data::fromString(original).span())));
  }
  auto service = parentRelativePath->service();
  std::string directory = documentRootForService(service)->string_ + "/" + directoryName;
  auto fullPath = fullPathWithString(directory + "/" + std::string(name), service);
  auto created = createDirectories(directory);
  if (!created && !created.error().is(QuilbarErrorDomain, FileWriteFileExistsError)) {
    DCLogWarning("Unable to create directory '%@': %@", directory, created.error());
    DCAssertionFailed(kSource, __LINE__, "!error");
  }
  return fullPath;
}

URL DCFullPath::url() const {
  DCLogTrace("-[DCFullPath url]");
  return URL::fileURL(string_);
}

std::optional<Data> DCFullPath::documentIdentifier() const {
  DCLogTrace("-[DCFullPath documentIdentifier]");
  if (!service_) return std::nullopt;
  for (const auto& root : {documentRootForService(service_), metadataRootForService(service_)}) {
    if (!DUPathStringHasPathPrefix(string_, root->string_)) continue;
    // "/", the identifier, "/", the name.
    std::string_view remainder = std::string_view(string_).substr(root->string_.size());
    std::size_t slash = remainder.find('/', 1);
    if (slash == std::string_view::npos || remainder.find('/', slash + 1) != std::string_view::npos) break;
    auto identifier = pu_dataFromHexString(remainder.substr(1, slash - 1));
    return identifier && !identifier->empty() ? identifier : std::nullopt;
  }
  return std::nullopt;
}

const std::string& DCFullPath::string() const {
  DCLogTrace("-[DCFullPath string]");
  return string_;
}

const DCFullPath::ServicePtr& DCFullPath::service() const {
  DCLogTrace("-[DCFullPath service]");
  return service_;
}

std::string DCFullPath::description() const {
  return format("<%@ url='%@'>", baseDescription("DCFullPath", this), URL::fileURL(string_));
}

}  // namespace florvane
