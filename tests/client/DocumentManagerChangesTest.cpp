#include "platform/ResourceValues.h"
#include "tests/client/DocumentClient.h"
#include "tests/client/ScriptedTree.h"
#include "tests/support/TestServer.h"

#include <algorithm>
#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// A server's tree that changes while a client looks at it, which must then say the same.
class DocumentManagerChanges : public testing::Test {
 protected:
  DocumentManagerChanges() : client_(server_.port()) { client_.listFresh(""); }

  void write(const std::string& name, const std::string& text) { writeText(path(name), text); }
  void rename(const std::string& from, const std::string& to) { fs::rename(path(from), path(to)); }
  std::string path(const std::string& name) const { return server_.files() + "/" + name; }
  Answer<Array> list(const std::string& directory = "Files") {
    client_.clock.advance(seconds(60));
    return client_.listFresh(directory);
  }
  std::string read(const std::string& name) { return DocumentClient::text(client_.read("Files/" + name)); }
  std::optional<Data> documentOf(const std::string& name) {
    return DCDatabase::databaseForService(client_.service)->documentIdentifierForPath("Files/" + name);
  }
  // The local copy, without asking the server. Whether it is still current the server alone can say.
  std::string copyOf(const std::string& name) {
    auto url = client_.manager->fileURLOfItemAtPath("Files/" + name);
    return url && fs::exists(url->path()) ? readText(url->path()) : "(none)";
  }
  // Listings, kinds, contents and dates of the whole tree.
  void expectSame(const std::string& directory = "") {
    std::string name = directory.empty() ? "Files" : "Files/" + directory;
    auto listing = list(name);
    EXPECT_EQ(listing.state, 4) << name;
    std::vector<std::string> expected;
    for (const auto& entry : fs::directory_iterator(path(directory))) {
      expected.push_back(entry.path().filename().string());
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(client_.names(listing), expected) << name;
    for (const auto& child : expected) {
      std::string below = directory.empty() ? child : std::string(directory).append("/").append(child);
      auto entry = client_.entry(listing, child);
      if (fs::is_directory(path(below))) {
        EXPECT_EQ(entry->string(ResourceFileResourceTypeKey), ResourceTypeDirectory) << below;
        expectSame(below);
      } else {
        EXPECT_EQ(read(below), readText(path(below))) << below;
        auto date = (*resourceValues(path(below))).date(ResourceContentModificationDateKey);
        EXPECT_EQ(client_.attributes("Files/" + below).value->date(ResourceContentModificationDateKey), date) << below;
      }
    }
    EXPECT_THAT(client_.assertions(), IsEmpty());
  }

  TestServer server_;
  DocumentClient client_;
};

TEST_F(DocumentManagerChanges, ARenamedFileKeepsItsLocalCopy) {
  write("a.txt", "contents");
  expectSame();
  const auto document = documentOf("a.txt");
  rename("a.txt", "b.txt");
  list();
  EXPECT_EQ(documentOf("b.txt"), document);
  EXPECT_FALSE(documentOf("a.txt"));
  EXPECT_EQ(copyOf("b.txt"), "contents");
  expectSame();
}

TEST_F(DocumentManagerChanges, SwapsAndChainsOfNamesAreSettledByDocument) {
  for (const char* name : {"a", "b", "c", "d"}) write(name, std::string("of ") + name);
  fs::create_directory(path("E"));
  write("E/inner", "inner");
  fs::create_directory(path("F"));
  expectSame();
  const auto a = documentOf("a"), b = documentOf("b");
  rename("a", "x");
  rename("b", "a");
  rename("x", "b");
  rename("d", "e");
  rename("c", "d");
  rename("E", "x");
  rename("F", "E");
  rename("x", "F");
  list();
  EXPECT_EQ(documentOf("a"), b);
  EXPECT_EQ(documentOf("b"), a);
  for (const char* name : {"a", "b", "d", "e", "F/inner"}) EXPECT_EQ(copyOf(name), readText(path(name)));
  // One name takes the place of another, and a file the name of a folder that has another one now.
  rename("a", "b");
  rename("F", "G");
  rename("d", "F");
  expectSame();
  EXPECT_FALSE(documentOf("a"));
  EXPECT_EQ(documentOf("b"), b);
}

TEST_F(DocumentManagerChanges, AFileBecomesAFolderAndAFolderAFile) {
  write("x", "file");
  fs::create_directory(path("y"));
  write("y/inner", "inner");
  expectSame();
  fs::remove(path("x"));
  fs::create_directory(path("x"));
  write("x/inner", "in the new folder");
  fs::remove_all(path("y"));
  write("y", "now a file");
  expectSame();
  fs::remove_all(path("x"));
  write("x", "a file again");
  expectSame();
}

TEST_F(DocumentManagerChanges, WhatIsGoneOnTheServerGoesFromTheDiskWithAllBelowIt) {
  write("a", "a");
  fs::create_directories(path("D/E"));
  write("D/E/deep", "deep");
  expectSame();
  auto deep = client_.read("Files/D/E/deep");
  auto folder = client_.manager->fileURLOfItemAtPath("Files/D");
  ASSERT_TRUE(folder);
  fs::remove_all(path("D"));
  fs::remove(path("a"));
  expectSame();
  EXPECT_FALSE(fs::exists(deep.value->path()));
  EXPECT_FALSE(fs::exists(folder->path()));
  EXPECT_TRUE(client_.read("Files/D/E/deep").failedWith(11));
  EXPECT_THAT(DCDatabase::databaseForService(client_.service)->documentIdentifiersForPathsBelow("Files"), IsEmpty());
}

TEST_F(DocumentManagerChanges, WhatMovesToAnotherFolderTakesItsCopiesAlong) {
  fs::create_directory(path("A"));
  fs::create_directory(path("B"));
  write("A/file", "moved");
  fs::create_directory(path("A/sub"));
  write("A/sub/inner", "inner");
  expectSame();
  rename("A/file", "B/renamed");
  rename("A/sub", "B/sub");
  // Whichever of the two folders is looked at first.
  list("Files/B");
  EXPECT_EQ(copyOf("B/renamed"), "moved");
  EXPECT_EQ(copyOf("B/sub/inner"), "inner");
  expectSame();
  rename("B/renamed", "A/file");
  list("Files/B");
  list("Files/A");
  expectSame();
}

TEST_F(DocumentManagerChanges, AnOlderVersionThatWasPutBackIsFetched) {
  write("a", "first");
  const auto first = fs::last_write_time(path("a")) - std::chrono::hours(1);
  fs::last_write_time(path("a"), first);
  expectSame();
  write("a", "the second");
  expectSame();
  write("a", "first again");
  fs::last_write_time(path("a"), first);
  expectSame();
  // Another version of the same date.
  write("a", "other bytes of that date");
  fs::last_write_time(path("a"), first);
  expectSame();
  EXPECT_EQ(read("a"), "other bytes of that date");
}

// The scripted server tells nothing about watched paths, so that only the listings do.
TEST(DocumentManagerListings, DelegatesHearOfChangedAttributesAndNotOfRenames) {
  ScriptedTree tree;
  auto& client = tree.client;
  auto listAgain = [&, version = 2](const Array& entries) mutable {
    const std::string name = std::to_string(version++);
    tree.list("ls s", tree.directory("S", "s", name), entries);
    EXPECT_FALSE(client.refresh("S"));
    client.queue->sync([] {});
  };
  client.listFresh("");
  listAgain({tree.file("a", "f1", "1"), tree.file("b", "f2", "1"), tree.file("c", "f3", "1")});
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "S");
  auto heard = [&] {
    auto events = delegate->take();
    std::erase_if(events, [](const std::string& event) { return event.starts_with("started"); });
    return events;
  };
  (void)heard();
  listAgain({tree.file("a", "f1", "2"), tree.file("b", "f2", "1"), tree.file("c", "f3", "1")});
  EXPECT_THAT(heard(), ElementsAre("attributes S/a", "attributes S", "contents S"));
  // Renamed, swapped, new and removed: only the directory changed.
  listAgain({tree.file("b", "f1", "2"), tree.file("a", "f2", "1"), tree.file("new", "f4", "1")});
  EXPECT_THAT(heard(), ElementsAre("attributes S", "contents S"));
  // Replaced by another document of that name.
  listAgain({tree.file("b", "f5", "1"), tree.file("a", "f2", "1"), tree.file("new", "f4", "1")});
  EXPECT_THAT(heard(), ElementsAre("attributes S/b", "attributes S", "contents S"));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListings, IllegalNamesAreLeftOutAndTheirSiblingsKept) {
  ScriptedTree tree;
  auto& client = tree.client;
  Dictionary nameless = tree.file("x", "f3", "1");
  nameless.remove(ResourceNameKey);
  Dictionary unidentified = tree.file("no-document", "f4", "1");
  unidentified.remove(FVDocumentIdentifierKey);
  tree.list("ls s", tree.directory("S", "s", "2"),
            {tree.file("good", "f1", "1"), tree.file("..", "f2", "1"), tree.file("a/b", "f5", "1"), nameless,
             unidentified, tree.file("better", "f6", "1")});
  client.listFresh("");
  auto listing = client.listFresh("S");
  auto names = client.names(listing);
  EXPECT_THAT(names, Contains("good"));
  EXPECT_THAT(names, Contains("better"));
  EXPECT_THAT(names, Not(Contains("..")));
  EXPECT_THAT(names, Not(Contains("a/b")));
  EXPECT_EQ(client.assertions({"'childName'", "'documentIdentifier'"}), std::vector<std::string>());
  EXPECT_GE(client.countOf("failed assertion 'childName'"), 3U);
}

TEST(DocumentManagerListings, AnAnswerThatIsNoListingLeavesTheOldOne) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f1", "1")});
  client.listFresh("");
  client.listFresh("S");
  tree.answer("ls s", tree.directory("S", "s", "3"), "this is no property list");
  client.clock.advance(seconds(60));
  EXPECT_TRUE(client.refresh("S"));
  EXPECT_THAT(client.names(client.list("S")), ElementsAre("a"));
  tree.list("ls s", tree.directory("S", "s", "3"), {tree.file("a", "f1", "1"), tree.file("b", "f2", "1")});
  EXPECT_THAT(client.names(client.listFresh("S")), ElementsAre("a", "b"));
  EXPECT_EQ(DCDatabase::databaseForService(client.service)->documentIdentifierForPath("S/a"), identifier("f1"));
}

TEST(DocumentManagerListings, AListingThatWasDamagedOnDiskIsFetchedWhole) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f1", "1")});
  client.listFresh("");
  client.listFresh("S");
  const std::string path = client.manager->fileURLOfItemAtPath("S")->path();
  const auto date = fs::last_write_time(path);
  fs::resize_file(path, fs::file_size(path) / 2);
  fs::last_write_time(path, date);
  EXPECT_EQ(client.list("S").state, 2);
  client.settle("S");
  auto listing = client.list("S");
  EXPECT_EQ(listing.state, 4);
  EXPECT_THAT(client.names(listing), ElementsAre("a"));
}

TEST(DocumentManagerListings, AnAnswerThatWasOvertakenRemovesNothingAndIsAskedForAgain) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f1", "1")});
  client.listFresh("");
  tree.hold("ls s");
  std::promise<std::optional<Error>> listed;
  client.manager->refreshItemAtPath("S", [&](const std::optional<Error>& error) { listed.set_value(error); });
  ASSERT_TRUE(tree.waitForHeld("ls s"));
  // Meanwhile another process lists the directory.
  tree.list("ls s", tree.directory("S", "s", "3"), {tree.file("a", "f1", "1"), tree.file("b", "f2", "1")});
  client.clock.advance(seconds(1));
  auto directory =
      DCCachedItemManager::directoryAtRelativePath(DCRelativePath::relativePathWithString("S", client.service));
  directory->setLastDownloadDate(client.clock.now());
  client.clock.advance(seconds(1));
  tree.release("ls s");
  EXPECT_FALSE(listed.get_future().get());
  EXPECT_EQ(tree.requestsOf("ls s"), 2U);
  EXPECT_THAT(client.names(client.list("S")), ElementsAre("a", "b"));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListings, AnAnswerForAnItemThatIsGoneIsFollowedByOneForWhatIsThereNow) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f1", "1")});
  tree.answer("cat f1", tree.file("a", "f1", "1"), "bytes of the first");
  client.listFresh("");
  client.listFresh("S");
  tree.hold("cat f1");
  std::promise<Answer<URL>> promise;
  client.manager->contentsOfFileAtPath(
      "S/a", [&](auto state, const auto& url, const auto& error) { promise.set_value({state, url, error}); });
  ASSERT_TRUE(tree.waitForHeld("cat f1"));
  tree.list("ls s", tree.directory("S", "s", "3"), {tree.file("a", "f2", "1")});
  tree.answer("cat f2", tree.file("a", "f2", "1"), "bytes of the other");
  client.clock.advance(seconds(60));
  client.listFresh("S");
  // The new document is asked for by itself, not joined to the other's download.
  EXPECT_EQ(client.text(client.read("S/a")), "bytes of the other");
  tree.release("cat f1");
  auto answer = promise.get_future().get();
  EXPECT_EQ(client.text(answer), "bytes of the other");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test
