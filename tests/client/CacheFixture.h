#pragma once

#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDatabase.h"
#include "common/FVFMetadataUtils.h"
#include "common/PUAdditions.h"
#include "platform/FileSystem.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"
#include "tests/support/ManualClock.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace florvane::test {

inline Data bytes(std::string_view text) { return Data::fromString(text); }

// A container with the cache of one service, and the answers of a server that is not there.
class CacheFixture : public testing::Test {
 protected:
  CacheFixture() { manager_->setPurposeIdentifier("test"); }

  DCRelativePath::Ptr path(const std::string& string) {
    return DCRelativePath::relativePathWithString(string, service_);
  }
  DCCachedFile::Ptr file(const std::string& string) { return manager_->file(path(string)); }
  DCCachedDirectory::Ptr directory(const std::string& string) { return manager_->directory(path(string)); }
  std::string documents(const std::string& name) { return container_.file("File Provider Storage/service/" + name); }
  std::string metadata(const std::string& name) { return container_.file("Metadata/service/" + name); }
  Date date(std::int64_t seconds) { return start_ + std::chrono::seconds(seconds); }

  Dictionary entry(const std::string& name, const std::string& identifier, Date date, bool isDirectory = false,
                   const std::string& version = "1") {
    return {{ResourceNameKey, name},
            {FVDocumentIdentifierKey, bytes(identifier)},
            {FVVersionIdentifierKey, bytes(version)},
            {ResourceFileResourceTypeKey, isDirectory ? ResourceTypeDirectory : ResourceTypeRegular},
            {ResourceContentModificationDateKey, date}};
  }
  FVFResponseContainer answer(const Dictionary& metadata, const Data& body) {
    std::string path = container_.file("tmp/answer-" + std::to_string(++answers_));
    EXPECT_TRUE(createDirectories(container_.file("tmp")) && writeFileAtomically(path, body));
    return {URL::fileURL(path), FVFResponseContainerTransferTypeFull, metadata};
  }
  // A listing of the directory arrives; with identifiers recorded as the facade does.
  void list(const std::string& directoryPath, const std::string& identifier, const Array& entries,
            const std::string& version = "1") {
    auto listed = directoryPath.empty() ? manager_->root() : directory(directoryPath);
    auto name = listed->relativePath()->lastPathComponent();
    listed->setLastDownloadDate(clock_.now());
    EXPECT_TRUE(manager_->updateItem(listed, answer(entry(name, identifier, date(0), true, version),
                                                    *writePropertyList(entries, PropertyListFormat::Binary))));
    for (const Value& value : entries) {
      Dictionary fields = *value.asDictionary();
      auto child = *fields.string(ResourceNameKey);
      std::string childPath = directoryPath;
      if (!childPath.empty()) childPath += '/';
      childPath += child;
      if (!database_->documentIdentifierForPath(childPath) && !database_->knownUploadForPath(childPath)) {
        (void)manager_->recordChildren(*listed, {{child, *fields.data(FVDocumentIdentifierKey)}});
      }
    }
  }
  void download(const DCCachedItem::Ptr& item, const Dictionary& metadata, const std::string& text) {
    item->setLastDownloadDate(clock_.now());
    EXPECT_TRUE(manager_->updateItem(item, answer(metadata, bytes(text))));
  }
  std::string source(const std::string& text) {
    std::string path = container_.file("source-" + std::to_string(++answers_));
    writeText(path, text);
    return path;
  }
  bool isLogged(const std::string& part) {
    for (const auto& message : log_.messages()) {
      if (message.text.find(part) != std::string::npos) return true;
    }
    return false;
  }
  void expectNoAssertion() {
    for (const auto& message : log_.messages())
      EXPECT_EQ(message.text.find("failed assertion"), std::string::npos) << message.text;
  }
  // Files below a folder of the container, by their paths in it.
  std::vector<std::string> filesBelow(const std::string& folder) {
    std::vector<std::string> found;
    std::error_code error;
    std::filesystem::recursive_directory_iterator entries(container_.file(folder), error), end;
    for (; !error && entries != end; entries.increment(error)) {
      if (entries->is_regular_file()) {
        found.push_back(entries->path().string().substr(container_.file(folder).size() + 1));
      }
    }
    return found;
  }

  TestContainer container_;
  RecordingSystemLog log_;
  ManualClock clock_;
  const Date start_ = clock_.now();
  int answers_ = 0;
  std::shared_ptr<DCService> service_ = DCService::serviceWithHostName("host", "service", clock_);
  DCCachedItemManager::Ptr manager_ = DCCachedItemManager::cachedItemManagerForService(service_);
  std::shared_ptr<DCDatabase> database_ = DCDatabase::databaseForService(service_);
};

}  // namespace florvane::test
