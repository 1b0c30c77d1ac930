#pragma once

#include "common/FVFMetadataUtils.h"
#include "platform/PropertyList.h"
#include "platform/ResourceValues.h"
#include "server/DocumentStore.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

namespace florvane::test {

// A document store over real folders: the share "Docs" and what a test adds.
class StoreFixture : public ::testing::Test {
 protected:
  using Entries = std::map<std::string, Dictionary>;
  using Answer = StoreResult<std::vector<DocumentVersion>>;

  StoreFixture() {
    std::filesystem::create_directories(docs());
    shares = {{"Docs", docs(), false, false}};
  }

  std::string docs(const std::string& path = {}) const {
    return directory.file("docs") + (path.empty() ? "" : "/" + path);
  }
  void makeFolder(const std::string& path) const { std::filesystem::create_directories(docs(path)); }
  void make(const std::string& path, const std::string& text = "text") const { writeText(docs(path), text); }
  // A change of one step, unlike a rewrite, which empties the file first.
  void append(const std::string& path, const std::string& text = "+") const {
    std::ofstream(docs(path), std::ios::binary | std::ios::app) << text;
  }
  void rename(const std::string& from, const std::string& to) const { std::filesystem::rename(docs(from), docs(to)); }
  void remove(const std::string& path) const { std::filesystem::remove_all(docs(path)); }

  void open() {
    store.reset();
    auto opened = DocumentStore::open(directory.file("state"), shares, clock);
    ASSERT_TRUE(opened) << opened.error().sentence;
    store = *std::move(opened);
  }

  static Entries parse(const Data& body) {
    Entries entries;
    const auto list = readPropertyList(body);
    const auto values = list ? list->asArray() : std::nullopt;
    if (!values) {
      ADD_FAILURE() << "the body is no array";
      return entries;
    }
    std::string last;
    for (const Value& value : *values) {
      const Dictionary entry = value.asDictionary().value_or(Dictionary());
      const std::string name = entry.string(ResourceNameKey).value_or("");
      EXPECT_LT(last, name) << "sorted by name";
      last = name;
      entries.emplace(name, entry);
    }
    return entries;
  }
  Entries shareEntries() { return parse(store->listRoot({})->body); }
  Data share(const std::string& name = "Docs") { return identifier(shareEntries().at(name)); }
  static Data identifier(const Dictionary& entry) { return entry.data(FVDocumentIdentifierKey).value_or(Data()); }
  static Data version(const Dictionary& entry) { return entry.data(FVVersionIdentifierKey).value_or(Data()); }

  DirectoryListing list(const Data& folder) {
    auto listing = store->list(folder, {}, {});
    EXPECT_TRUE(listing) << listing.error().sentence;
    return listing ? *std::move(listing) : DirectoryListing();
  }
  Entries entries(const Data& folder) { return parse(list(folder).body); }
  // The entry of a path below "Docs", every folder of it listed on the way.
  Dictionary entry(const std::string& path) {
    Data folder = share();
    Dictionary found;
    for (const auto& name : std::filesystem::path(path)) {
      const Entries listed = entries(folder);
      const auto at = listed.find(name.string());
      if (at == listed.end()) return {};
      found = at->second;
      folder = identifier(found);
    }
    return found;
  }
  Data folderVersion(const std::string& path) { return list(path.empty() ? share() : identifier(entry(path))).version; }

  std::string read(const Data& document) {
    auto opened = store->contents(document, {}, {});
    if (!opened) return "status " + std::to_string(static_cast<int>(opened.error().status));
    std::string text(opened->size, '\0');
    EXPECT_EQ(::read(opened->descriptor.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return text;
  }

  StoreResult<StoredUpload> write(const Data& parent, const std::string& name, const std::string& text,
                                  const Dictionary& metadata = {}) {
    auto upload = store->beginWrite(parent, {}, text.size());
    if (!upload) return tl::unexpected(upload.error());
    EXPECT_EQ(::write(upload->descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return store->write(parent, {}, name, metadata, *std::move(upload));
  }
  StoreResult<StoredUpload> replace(const Data& document, const std::optional<Data>& known, const std::string& text,
                                    const Dictionary& metadata = {}) {
    auto upload = store->beginReplace(document, {}, text.size());
    if (!upload) return tl::unexpected(upload.error());
    EXPECT_EQ(::write(upload->descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return store->replace(document, {}, known, metadata, *std::move(upload));
  }

  struct Watching {
    std::unique_ptr<DocumentWatch> watch;
    std::future<Answer> answer;
    bool answered() const {
      return answer.valid() && answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }
  };
  Watching watch(std::vector<DocumentVersion> documents) {
    auto promise = std::make_shared<std::promise<Answer>>();
    Watching watching{nullptr, promise->get_future()};
    watching.watch =
        store->watch(std::move(documents), [promise](Answer answer) { promise->set_value(std::move(answer)); });
    return watching;
  }

  template <typename T>
  static int status(const StoreResult<T>& result) {
    return result ? 200 : static_cast<int>(result.error().status);
  }

  TemporaryDirectory directory;
  ManualClock clock;
  std::vector<ShareConfiguration> shares;
  std::unique_ptr<DocumentStore> store;
};

}  // namespace florvane::test
