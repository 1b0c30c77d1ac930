#include "common/FVFGenerationIdentifierUtils.h"
#include "platform/Exceptions.h"
#include "tests/client/CacheFixture.h"

#include <csignal>
#include <future>

#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::bytes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class DCCachedItemManagerTest : public test::CacheFixture {
 protected:
  // Two files and a directory with one, all downloaded.
  void fill() {
    list("", "root", {entry("a", "A", date(-50)), entry("b", "B", date(-50)), entry("d", "D", date(-50), true)});
    list("d", "D", {entry("f", "F", date(-50))});
    download(file("a"), entry("a", "A", date(-50)), "A's");
    download(file("b"), entry("b", "B", date(-50)), "B's");
    download(file("d/f"), entry("f", "F", date(-50)), "F's");
  }
  std::unordered_map<std::string, Data> recorded() { return database_->documentIdentifiersForPathsBelow(""); }
};

TEST_F(DCCachedItemManagerTest, OneObjectAPathOfTheRightKind) {
  fill();
  EXPECT_EQ(DCCachedItemManager::itemAtRelativePath(path("a")), file("a"));
  EXPECT_EQ(DCCachedItemManager::itemAtRelativePath(path("d")), directory("d"));
  EXPECT_EQ(DCCachedItemManager::fileResourceTypeAtRelativePath(path("d")), ResourceTypeDirectory);
  EXPECT_FALSE(DCCachedItemManager::fileResourceTypeAtRelativePath(path("a/below")));
  EXPECT_FALSE(DCCachedItemManager::fileResourceTypeAtRelativePath(path("nothing/here")));
  EXPECT_FALSE(DCCachedItemManager::fileResourceTypeAtRelativePath(nullptr));
  EXPECT_TRUE(isLogged("Invalid request with nil path"));
  expectNoAssertion();
  EXPECT_EQ(directory("a"), nullptr);
  EXPECT_TRUE(isLogged("Unexpected request for DCCachedDirectory: "));
  list("", "root", {entry("e", "E", date(0), true)}, "2");
  EXPECT_NE(file("e"), nullptr);
  EXPECT_TRUE(isLogged("failed assertion '!isMismatch'"));
  EXPECT_NE(DCCachedItemManager::itemWithDocumentIdentifier(bytes("F"), directory("d")), nullptr);
  EXPECT_EQ(DCCachedItemManager::itemWithDocumentIdentifier(bytes("F"), manager_->root()), nullptr);

  EXPECT_NO_THROW(manager_->setPurposeIdentifier("test"));
  EXPECT_THROW(manager_->setPurposeIdentifier("other"), InvalidArgumentException);
  DCCachedItemManager::removeCachedItemManagerForService(service_);
  auto fresh = DCCachedItemManager::cachedItemManagerForService(service_);
  EXPECT_NE(fresh, manager_);
  EXPECT_THROW((void)fresh->coordinateReadingItemAtURL(URL::fileURL("/x"), FileCoordinatorReadingOptions::None,
                                                       [](const URL&) {}),
               InvalidArgumentException);
}

TEST_F(DCCachedItemManagerTest, AMoveCarriesWhatLiesBelow) {
  fill();
  ASSERT_TRUE(file("d/f")->updateFileFromURL(URL::fileURL(source("edited"))));
  ASSERT_TRUE(file("d/new")->updateFileFromURL(URL::fileURL(source("new"))));
  auto folder = directory("d");
  auto edited = file("d/f"), made = file("d/new");
  manager_->moveItem(folder, std::nullopt, std::nullopt, path("moved"));
  EXPECT_EQ(edited->relativePath()->string(), "moved/f");
  EXPECT_EQ(file("moved/f"), edited);
  EXPECT_EQ(manager_->knownItem("d/f"), nullptr);
  EXPECT_EQ(edited->documentIdentifier(), bytes("F"));
  EXPECT_TRUE(edited->isUnsent() && made->isUnsent());
  EXPECT_EQ(database_->uploadForPath("moved/new")->fileURL(), documents("upload+moved/new"));
  EXPECT_EQ(made->contents(), bytes("new"));
  EXPECT_EQ(edited->contents(), bytes("edited"));
  ASSERT_TRUE(folder->contents());
  EXPECT_TRUE(fileExists(metadata("44/moved")));
  EXPECT_FALSE(fileExists(metadata("44/d")));

  // To another name: the file and its record go together.
  manager_->moveItem(edited, std::nullopt, std::nullopt, path("moved/g"));
  EXPECT_EQ(database_->uploadForPath("moved/g")->fileURL(), documents("46/g"));
  EXPECT_THAT(filesBelow("File Provider Storage/service/46"), ElementsAre("g"));
  expectNoAssertion();

  // To where it is.
  manager_->moveItem(edited, std::nullopt, std::nullopt, path("moved/g"));
  EXPECT_TRUE(isLogged("![item.relativePath.string isEqualToString:relativePath.string]"));
  EXPECT_EQ(edited->contents(), bytes("edited"));
  EXPECT_EQ(file("moved/g"), edited);
}

TEST_F(DCCachedItemManagerTest, SwapsAndChainsAreSettledByIdentifier) {
  fill();
  auto a = file("a"), b = file("b");
  ASSERT_TRUE(b->updateFileFromURL(URL::fileURL(source("edited"))));
  // a becomes b, and then b, which was there, becomes a.
  manager_->moveItem(a, bytes("A"), bytes("1"), path("b"));
  EXPECT_TRUE(DCCachedItemManager::isParkedPath(b->relativePath()->string()));
  EXPECT_EQ(DCCachedItemManager::itemWithDocumentIdentifier(bytes("B"), manager_->root()), b);
  manager_->moveItem(b, bytes("B"), bytes("1"), path("a"));
  EXPECT_EQ(file("a"), b);
  EXPECT_EQ(file("b"), a);
  EXPECT_EQ(a->contents(), bytes("A's"));
  EXPECT_EQ(b->contents(), bytes("edited"));
  EXPECT_EQ(database_->uploadForPath("a")->fileURL(), documents("42/a"));
  EXPECT_THAT(database_->uploadPaths(), ElementsAre("a"));
  // Over one that is gone: its own vanishing removes it.
  manager_->moveItem(a, bytes("A"), bytes("1"), path("a"));
  manager_->removeItem(DCCachedItemManager::itemWithDocumentIdentifier(bytes("B"), manager_->root()));
  EXPECT_THAT(filesBelow("File Provider Storage/service"), UnorderedElementsAre("41/a", "46/f"));
  EXPECT_THAT(filesBelow("Recovered"), ElementsAre(HasSubstr(".florvane-parked-")));
  EXPECT_THAT(recorded(), UnorderedElementsAre(testing::Pair("a", bytes("A")), testing::Pair("d", bytes("D")),
                                               testing::Pair("d/f", bytes("F"))));
  expectNoAssertion();
}

TEST_F(DCCachedItemManagerTest, ANewFileWaitsOnUnderTheDocumentThatTookItsName) {
  fill();
  auto made = file("new");
  ASSERT_TRUE(made->updateFileFromURL(URL::fileURL(source("mine"))));
  auto a = file("a");
  manager_->moveItem(a, bytes("A"), bytes("1"), path("new"));
  EXPECT_TRUE(a->hasBeenRemoved());
  EXPECT_EQ(made->documentIdentifier(), bytes("A"));
  EXPECT_EQ(made->contents(), bytes("mine"));
  EXPECT_TRUE(made->isUnsent());
  EXPECT_FALSE(made->lastRemoteMetadataVersionIdentifier());
  EXPECT_FALSE(recorded().contains("a"));
  EXPECT_THAT(filesBelow("File Provider Storage/service/41"), ElementsAre("new"));
}

TEST_F(DCCachedItemManagerTest, RemovalsTakeWhatBelongsToThemAndNothingElse) {
  fill();
  auto listed = entry("f", "F", date(-50));
  listed.set(FVFileThumbnailDocumentIdentifierKey, bytes("T"));
  list("d", "D", {listed}, "2");
  download(manager_->_thumbnailForUnderlyingItem(file("d/f")), entry("46.png", "T", date(-50)), "image");
  ASSERT_TRUE(file("d/new")->updateFileFromURL(URL::fileURL(source("unsent"))));
  std::promise<std::pair<std::string, URL>> recovered;
  manager_->setRecoveryHandler(
      [&](const std::string& relativePath, const URL& url) { recovered.set_value({relativePath, url}); });
  // The same document stands elsewhere, under another name.
  ASSERT_TRUE(database_->setDocumentIdentifier(bytes("F"), "c"));
  auto f = file("d/f");
  auto folder = directory("d");
  manager_->removeItem(folder);
  EXPECT_TRUE(folder->hasBeenRemoved() && f->hasBeenRemoved());
  EXPECT_EQ(f->documentIdentifier(), bytes("F"));
  f->setLastDownloadDate(clock_.now());  // a late answer leaves no record
  auto [relativePath, url] = recovered.get_future().get();
  EXPECT_EQ(relativePath, "d/new");
  EXPECT_EQ(test::readText(url.path()), "unsent");
  EXPECT_THAT(url.path(), HasSubstr("/Recovered/d/new"));
  EXPECT_EQ(file("c")->contents(), bytes("F's"));
  EXPECT_FALSE(file("c")->isUnsent());
  EXPECT_FALSE(fileExists(metadata("54")) || fileExists(metadata("44")));
  EXPECT_THAT(recorded(), UnorderedElementsAre(testing::Pair("a", bytes("A")), testing::Pair("b", bytes("B")),
                                               testing::Pair("c", bytes("F"))));
  EXPECT_THAT(database_->uploadPaths(), IsEmpty());
  EXPECT_FALSE(database_->otherMetadataForDocumentIdentifier(bytes("D")));
  EXPECT_TRUE(database_->otherMetadataForDocumentIdentifier(bytes("F")));

  std::filesystem::remove_all(documents("42"));
  manager_->removeItem(file("b"));
  test::writeText(documents("41/a"), "edited in place");
  EXPECT_TRUE(file("a")->isUnsent());
  manager_->setRecoveryHandler({});
  manager_->removeItem(file("a"));
  EXPECT_EQ(filesBelow("Recovered").size(), 2U);
  EXPECT_THAT(filesBelow("File Provider Storage/service"), ElementsAre("46/c"));
  expectNoAssertion();
}

TEST_F(DCCachedItemManagerTest, WhatCannotBeKeptIsNotRemoved) {
  fill();
  test::writeText(documents("41/a"), "edited in place");
  auto a = file("a");
  test::writeText(container_.file("Recovered"), "in the way");
  manager_->removeItem(a);
  EXPECT_EQ(test::readText(documents("41/a")), "edited in place");
  EXPECT_TRUE(recorded().contains("a"));
  std::filesystem::remove(container_.file("Recovered"));
  manager_->removeItem(file("a"));
  EXPECT_THAT(filesBelow("Recovered"), ElementsAre(HasSubstr("a ")));
}

TEST_F(DCCachedItemManagerTest, AnotherProcessIsHeardOf) {
  fill();
  auto otherDatabase = std::make_shared<DCDatabase>(service_, clock_);
  auto other = DCCachedItemManager::managerWithService(service_, otherDatabase);
  other->setPurposeIdentifier("other");
  auto mine = file("a"), theirs = other->file(path("a"));
  ASSERT_EQ(theirs->contents(), bytes("A's"));
  EXPECT_FALSE(mine->isUnsent() || theirs->isUnsent());
  ASSERT_TRUE(theirs->updateFileFromURL(URL::fileURL(source("theirs"))));
  database_->refresh();
  EXPECT_EQ(mine->contents(), bytes("theirs"));
  EXPECT_TRUE(mine->isUnsent());
  EXPECT_FALSE(mine->remoteMetadata());
  EXPECT_EQ(mine->localMetadata()->boolean(DCFileNeedsUploadKey), true);
  ASSERT_TRUE(database_->removeUploadForPath("a"));
  ASSERT_TRUE(mine->updateFileFromURL(URL::fileURL(source("mine"))));

  // It has listed the root and found another document at "b".
  other->removeItem(other->file(path("b")));
  auto fresh = other->file(path("b"));
  ASSERT_TRUE(fresh->updateDocumentIdentifier(bytes("B2")));
  database_->refresh();
  EXPECT_EQ(file("b")->documentIdentifier(), bytes("B2"));
  EXPECT_FALSE(file("b")->existsOnDisk());
  // What is new there is known without a listing, too.
  ASSERT_TRUE(other->file(path("d/waiting"))->updateFileFromURL(URL::fileURL(source("waiting"))));
  database_->refresh();
  EXPECT_EQ(DCCachedItemManager::itemAtRelativePath(path("d/waiting")), file("d/waiting"));
  EXPECT_THAT(directory("d")->localItems(), ElementsAre(file("d/waiting")));
  // Its own changes are exact without asking.
  ASSERT_TRUE(database_->removeUploadForPath("d/waiting"));
  EXPECT_THAT(directory("d")->localItems(), IsEmpty());
  database_->uploadForPath("a")->markAsCancelled();
  EXPECT_EQ(database_->knownUploadForPath("a"), nullptr);
}

TEST_F(DCCachedItemManagerTest, AKillAtAnyMomentLosesNothing) {
  ASSERT_TRUE(file("c")->updateFileFromURL(URL::fileURL(source("precious"))));
  ASSERT_TRUE(file("c")->updateDocumentIdentifier(bytes("C")));
  int written = 0;
  for (int round = 0; round < 15; ++round) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    std::string program = std::string(FLORVANE_BIN_DIR) + "/cache_peer", number = std::to_string(written + 1);
    char* arguments[] = {program.data(), number.data(), nullptr};
    pid_t process = 0;
    ASSERT_EQ(posix_spawn(&process, program.c_str(), &actions, nullptr, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    FILE* output = fdopen(ends[0], "r");
    for (int lines = 0; lines <= round / 3 && fscanf(output, "%d", &written) == 1; ++lines) {
    }
    // Somewhere in the next turn: as long after its beginning as it takes to read a few files.
    for (int i = 0; i < round * 40; ++i) (void)readFile(documents("41/a"));
    kill(process, SIGKILL);
    while (fscanf(output, "%d", &written) == 1) {
    }
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    fclose(output);

    auto fresh = DCCachedItemManager::managerWithService(service_, std::make_shared<DCDatabase>(service_, clock_));
    auto a = fresh->file(path("a"));
    const Data contents = a->contents().value_or(Data());
    EXPECT_EQ(contents.size(), 65536U);
    EXPECT_EQ(contents.view().find_first_not_of(contents.view().substr(0, 1)), std::string_view::npos);
    EXPECT_FALSE(a->isUnsent());
    a->prepareForDownload();
    auto told = a->remoteMetadata();
    EXPECT_TRUE(!told || told->date(ResourceContentModificationDateKey) == a->localContentModificationDate());

    auto b = fresh->file(path("b"));
    EXPECT_FALSE(b->undoInterruptedWrite());
    EXPECT_TRUE(b->isUnsent());
    const int last = std::stoi(std::string(b->contents().value_or(bytes("-1")).view()));
    EXPECT_TRUE(last == written || last == written + 1) << last << " after " << written;
    written = last;

    const auto places = database_->pathsForDocumentIdentifier(bytes("C"));
    ASSERT_EQ(places.size(), 1U);
    auto precious = fresh->file(path(places.front()));
    EXPECT_EQ(precious->contents(), bytes("precious"));
    EXPECT_TRUE(precious->isUnsent());
    EXPECT_EQ(database_->uploadForPath(places.front())->fileURL(), precious->fullPath()->string());
  }
  EXPECT_THAT(database_->uploadPaths(), testing::SizeIs(2));
}

TEST_F(DCCachedItemManagerTest, ChildrenAreAskedForTogether) {
  Array entries;
  for (int i = 0; i < 500; ++i) entries.append(entry("f" + std::to_string(i), "F" + std::to_string(i), date(-50)));
  std::vector<std::pair<std::string, Data>> children;
  children.reserve(entries.size());
  for (int i = 0; i < 500; ++i) children.emplace_back("f" + std::to_string(i), bytes("F" + std::to_string(i)));
  ASSERT_TRUE(manager_->recordChildren(*manager_->root(), children));
  list("", "root", entries);
  file("f7")->setLastDownloadDate(clock_.now());
  auto other = DCCachedItemManager::managerWithService(service_, std::make_shared<DCDatabase>(service_, clock_));
  const auto known = other->knownChildrenOf(*other->root());
  EXPECT_EQ(known->named("f499")->documentIdentifier, bytes("F499"));
  EXPECT_TRUE(known->named("f7")->mayHaveOtherMetadata);
  EXPECT_FALSE(known->named("f8")->mayHaveOtherMetadata);
  EXPECT_EQ(other->file(path("f7"))->lastDownloadDate(), clock_.now());
  EXPECT_FALSE(other->file(path("f8"))->lastDownloadDate());
  EXPECT_EQ(other->file(path("f8"))->documentIdentifier(), bytes("F8"));
  other->file(path("f8"))->setLastDownloadDate(clock_.now());
  EXPECT_TRUE(other->file(path("f8"))->lastDownloadDate());
  EXPECT_TRUE(other->knownChildrenOf(*other->root())->named("f8")->mayHaveOtherMetadata);
}

TEST_F(DCCachedItemManagerTest, UploadsSendAStableCopyOfOneGeneration) {
  fill();
  auto a = file("a");
  ASSERT_TRUE(a->updateFileFromURL(URL::fileURL(source("to send"))));
  auto generation = a->_localGenerationIdentifier();
  std::optional<URL> copy;
  ASSERT_TRUE(manager_->coordinateReadingForUploadingItem(a, [&](const URL& url, const Data& sent) {
    EXPECT_EQ(sent, generation);
    test::writeText(documents("41/a"), "newer");
    EXPECT_EQ(test::readText(url.path()), "to send");
    copy = url;
  }));
  EXPECT_EQ(copy, DCManagedUpload::temporaryUploadFileURLForItemAtPath("a", generation));
  EXPECT_NE(a->_localGenerationIdentifier(), generation);
  a->registerFileForUploadOfURL(URL::fileURL(documents("41/a")), 1, generation);
  a->updateUploadedFileFromRemoteMetadata(entry("a", "A", date(0), false, "2"));
  EXPECT_TRUE(a->isUnsent());
  std::filesystem::remove(documents("41/a"));
  bool called = false;
  auto failed = manager_->coordinateReadingForUploadingItem(a, [&](const URL&, const Data&) { called = true; });
  ASSERT_FALSE(failed);
  EXPECT_TRUE(failed.error().is(QuilbarErrorDomain, FileReadNoSuchFileError));
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace florvane
