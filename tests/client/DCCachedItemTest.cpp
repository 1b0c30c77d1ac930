#include "Client/Client/DCLog.h"
#include "platform/Exceptions.h"
#include "tests/client/CacheFixture.h"

#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <sys/stat.h>

namespace florvane {
namespace {

using std::chrono::seconds;
using test::bytes;
using testing::ElementsAre;
using testing::IsEmpty;

class DCCachedItemTest : public test::CacheFixture {
 protected:
  // "a" with the identifier "A" in a root that was just listed, downloaded.
  DCCachedFile::Ptr downloadedFile(Date date) {
    list("", "root", {entry("a", "A", date)});
    auto item = file("a");
    download(item, entry("a", "A", date), "server's");
    return item;
  }
};

TEST_F(DCCachedItemTest, AnswersAreFreshForAWhile) {
  auto item = downloadedFile(date(-50));
  EXPECT_EQ(test::readText(documents("41/a")), "server's");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderSame);
  EXPECT_EQ(item->versionIdentifier(), bytes("1"));
  EXPECT_EQ(item->lastRemoteMetadataUpdate(), start_);
  EXPECT_FALSE(item->needsDownload() || item->needsUpload() || item->isUnsent());
  EXPECT_TRUE(manager_->root()->isUpToDate());
  clock_.advance(seconds(9));
  EXPECT_TRUE(item->isUpToDate());
  EXPECT_FALSE(manager_->root()->isUpToDate());
  clock_.advance(seconds(2));
  EXPECT_FALSE(item->isUpToDate());
  manager_->root()->setLastDownloadDate(clock_.now());
  EXPECT_TRUE(item->isUpToDate());  // as its parent is
  // A clock that was set back.
  item->setLastDownloadDate(clock_.now() + seconds(5));
  manager_->root()->setLastDownloadDate(std::nullopt);
  EXPECT_FALSE(item->isUpToDate());
  // A newer entry.
  list("", "root", {entry("a", "A", date(-40), false, "2")}, "2");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderLocalIsOlder);
  EXPECT_TRUE(item->needsDownload());
  expectNoAssertion();
}

TEST_F(DCCachedItemTest, NewFilesWaitUntilTheyHaveAnIdentifier) {
  list("", "root", {entry("d", "D", date(0), true)});
  list("d", "D", {});
  auto item = file("d/new");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderUnknown);
  EXPECT_FALSE(item->needsUpload());
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine"))));
  EXPECT_EQ(test::readText(documents("upload+d/new")), "mine");
  EXPECT_EQ(database_->uploadForPath("d/new")->fileURL(), documents("upload+d/new"));
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderLocalIsNewer);
  EXPECT_TRUE(item->isUpToDate() && item->needsInitialUpload() && item->needsUpload() && item->isUnsent());
  auto local = *item->localMetadata();
  EXPECT_EQ(local.string(ResourceNameKey), "new");
  EXPECT_EQ(local.string(ResourcePathKey), "d/new");
  EXPECT_EQ(local.integer(ResourceFileSizeKey), 4);
  EXPECT_EQ(local.boolean(DCFileNeedsUploadKey), true);
  EXPECT_THAT(directory("d")->localItems(), ElementsAre(item));
  EXPECT_THAT(manager_->root()->localItems(), IsEmpty());

  // Its name is in a listing: identifier, file and record change together, and it replaces no version.
  EXPECT_TRUE(item->updateDocumentIdentifier(bytes("N")));
  EXPECT_TRUE(item->updateDocumentIdentifier(bytes("N")));
  EXPECT_FALSE(item->updateDocumentIdentifier(bytes("M")));
  EXPECT_EQ(test::readText(documents("4e/new")), "mine");
  EXPECT_FALSE(fileExists(documents("upload+d/new")));
  EXPECT_EQ(database_->uploadForPath("d/new")->fileURL(), documents("4e/new"));
  EXPECT_FALSE(item->lastRemoteMetadataVersionIdentifier());
  EXPECT_TRUE(item->isUnsent());
  // Written again, it still is a new file to the server.
  list("d", "D", {entry("new", "N", date(1), false, "theirs")}, "2");
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine, too"))));
  EXPECT_FALSE(item->lastRemoteMetadataVersionIdentifier());
  expectNoAssertion();
}

TEST_F(DCCachedItemTest, AnswersThatDoNotFitChangeNothing) {
  dc_log_set_level(dc_log_default_category(), DCLogLevelInfo);
  auto item = downloadedFile(date(-50));
  auto other = entry("a", "B", date(0));
  EXPECT_THROW(manager_->updateItem(item, answer(other, bytes("other"))), InternalInconsistencyException);
  auto nobody = entry("a", "A", date(0));
  nobody.remove(FVDocumentIdentifierKey);
  EXPECT_FALSE(manager_->updateItem(item, answer(nobody, bytes("other"))));
  EXPECT_TRUE(isLogged("Ignoring response with missing document identifier: "));
  FVFResponseContainer gone(URL::fileURL(container_.file("gone")), FVFResponseContainerTransferTypeFull,
                            entry("a", "A", date(-50), false, "1"));
  EXPECT_FALSE(manager_->updateItem(item, gone));
  EXPECT_TRUE(isLogged("Unable to update attributes of '"));
  EXPECT_EQ(test::readText(documents("41/a")), "server's");

  // One without a name keeps its own; one with another name moves first.
  auto nameless = entry("a", "A", date(-20), false, "2");
  nameless.remove(ResourceNameKey);
  EXPECT_TRUE(manager_->updateItem(item, answer(nameless, bytes("2nd"))));
  EXPECT_TRUE(isLogged("failed assertion 'name'"));
  EXPECT_EQ(item->remoteMetadata()->string(ResourceNameKey), "a");
  EXPECT_TRUE(manager_->updateItem(item, answer(entry("b", "A", date(-10), false, "3"), bytes("3rd"))));
  EXPECT_EQ(item->relativePath()->string(), "b");
  EXPECT_EQ(test::readText(documents("41/b")), "3rd");
  EXPECT_FALSE(fileExists(documents("41/a")));
  EXPECT_EQ(file("b"), item);
  EXPECT_EQ(manager_->knownItem("a"), nullptr);
}

TEST_F(DCCachedItemTest, TheNewestRemoteMetadataCounts) {
  auto item = downloadedFile(date(-50));
  const std::string first = metadata("41/31-remoteMetadata.plist");
  struct stat before{}, after{};
  ASSERT_EQ(stat(first.c_str(), &before), 0);
  EXPECT_TRUE(manager_->updateItem(item, answer(entry("a", "A", date(-50)), bytes("server's"))));
  ASSERT_EQ(stat(first.c_str(), &after), 0);
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_TRUE(manager_->updateItem(item, answer(entry("a", "A", date(-40), false, "2"), bytes("2nd"))));
  EXPECT_FALSE(fileExists(first));
  // Left behind by a kill, and dated by a clock that was ahead.
  auto stale = *writePropertyList(entry("a", "A", date(-60), false, "0"), PropertyListFormat::XML);
  ASSERT_TRUE(
      writeFileAtomically(metadata("41/30-remoteMetadata.plist"), stale, 0600, false, date(900'000'000).toTimespec()));
  EXPECT_EQ(item->versionIdentifier(), bytes("0"));
  EXPECT_TRUE(manager_->updateItem(item, answer(entry("a", "A", date(-30), false, "3"), bytes("3rd"))));
  EXPECT_EQ(item->versionIdentifier(), bytes("3"));
  item->clearRemoteMetadata();
  EXPECT_FALSE(item->versionIdentifier() && *item->versionIdentifier() == bytes("3"));
  EXPECT_EQ(item->lastRemoteMetadataVersionIdentifier(), bytes("3"));

  // The root is known by a file of its own, also without the database.
  EXPECT_EQ(test::readText(metadata("root.docid")), "root");
  ASSERT_TRUE(database_->removePath(""));
  EXPECT_FALSE(manager_->root()->remoteMetadata());
  EXPECT_EQ(manager_->root()->remoteMetadataFromDisk()->data(FVDocumentIdentifierKey), bytes("root"));
  std::filesystem::remove(metadata("root.docid"));
  EXPECT_FALSE(manager_->root()->remoteMetadataFromDisk());
  EXPECT_TRUE(isLogged("Unable to read root document identifier: "));
}

TEST_F(DCCachedItemTest, MetadataWithoutItsContentsIsNotBelieved) {
  auto item = downloadedFile(date(-50));
  item->prepareForDownload();
  EXPECT_EQ(item->versionIdentifier(), bytes("1"));
  // Killed after the next version's metadata was saved.
  ASSERT_TRUE(
      writeFileAtomically(metadata("41/32-remoteMetadata.plist"),
                          *writePropertyList(entry("a", "A", date(-40), false, "2"), PropertyListFormat::Binary)));
  ASSERT_EQ(item->versionIdentifier(), bytes("2"));
  item->prepareForDownload();
  EXPECT_FALSE(item->remoteMetadata());
  EXPECT_FALSE(item->isUnsent());
  download(item, entry("a", "A", date(-40), false, "2"), "2nd");
  std::filesystem::remove(documents("41/a"));
  item->prepareForDownload();
  EXPECT_FALSE(item->remoteMetadata());
  EXPECT_TRUE(item->needsDownload());
}

TEST_F(DCCachedItemTest, UnsentBytesAreNeverOverwritten) {
  auto item = downloadedFile(date(-50));
  test::writeText(documents("41/a"), "edited");
  EXPECT_TRUE(item->isUnsent() && item->needsUpload());
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderLocalIsNewer);
  EXPECT_FALSE(manager_->updateItem(item, answer(entry("a", "A", date(-10), false, "2"), bytes("2nd"))));
  item->prepareForDownload();
  item->markContentsStale();
  EXPECT_EQ(test::readText(documents("41/a")), "edited");
  EXPECT_EQ(item->versionIdentifier(), bytes("1"));

  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(documents("41/a"))));
  EXPECT_EQ(test::readText(documents("41/a")), "edited");
  EXPECT_FALSE(item->remoteMetadata());
  EXPECT_EQ(item->lastRemoteMetadataVersionIdentifier(), bytes("1"));
  EXPECT_TRUE(database_->uploadForPath("a"));
  EXPECT_FALSE(manager_->updateItem(item, answer(entry("a", "A", date(-10), false, "2"), bytes("2nd"))));
  EXPECT_EQ(item->lastRemoteMetadataVersionIdentifier(), bytes("1"));
  // Written under another name and put in place, as editors do.
  test::writeText(documents("41/.a~"), "saved");
  std::filesystem::rename(documents("41/.a~"), documents("41/a"));
  ASSERT_TRUE(database_->removeUploadForPath("a"));
  EXPECT_TRUE(item->isUnsent());
  expectNoAssertion();
}

TEST_F(DCCachedItemTest, WritesAreNewerThanAnythingKnownAndWholeOrNot) {
  const Date future = Date::now() + seconds(100'000);
  list("", "root", {entry("a", "A", future, false, "7")});
  auto item = file("a");
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine"))));
  EXPECT_EQ(item->localContentModificationDate(), future + Duration(1));
  EXPECT_EQ(item->lastRemoteMetadataVersionIdentifier(), bytes("7"));  // the listing's is the one that is replaced
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderLocalIsNewer);

  EXPECT_FALSE(item->updateFileFromURL(URL::fileURL(container_.file("nothing"))));
  EXPECT_TRUE(isLogged("Skip update of file '"));
  EXPECT_EQ(test::readText(documents("41/a")), "mine");
  auto other = file("b");
  EXPECT_FALSE(other->updateFileFromURL(URL::fileURL(container_.file("nothing"))));
  std::filesystem::create_directory(documents("upload+/b"));  // in the way
  EXPECT_FALSE(other->updateFileFromURL(URL::fileURL(source("mine"))));
  EXPECT_FALSE(database_->uploadForPath("b"));
  EXPECT_EQ(database_->uploadPaths(), std::vector<std::string>{"a"});
  for (const auto& name : filesBelow("tmp")) EXPECT_EQ(name.find(".florvane-tmp-"), std::string::npos);
}

TEST_F(DCCachedItemTest, BytesAreCopiedBeforeOthersAreKeptOut) {
  auto item = downloadedFile(date(-50));
  auto copies = [this] {
    std::vector<std::string> texts;
    for (const auto& name : filesBelow("tmp")) {
      if (name.find(".florvane-tmp-") != std::string::npos)
        texts.push_back(test::readText(container_.file("tmp/" + name)));
    }
    return texts;
  };
  std::vector<bool> told;
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine")), [&](bool isDeciding) {
    told.push_back(isDeciding);
    EXPECT_EQ(copies(), isDeciding ? std::vector<std::string>{"mine"} : std::vector<std::string>());
    EXPECT_EQ(test::readText(documents("41/a")), "server's");
    EXPECT_FALSE(database_->uploadForPath("a")) << "nothing is decided yet";
  }));
  EXPECT_THAT(told, ElementsAre(false, true));
  EXPECT_EQ(test::readText(documents("41/a")), "mine");
}

TEST_F(DCCachedItemTest, InterruptedWritesAreTakenBack) {
  auto item = downloadedFile(date(-50));
  // Killed between the record and the contents.
  ASSERT_TRUE(database_->saveUploadFileURL(URL::fileURL(documents("41/a")), "a"));
  database_->uploadForPath("a")->setGenerationIdentifier(bytes("never there"));
  ASSERT_TRUE(database_->save());
  EXPECT_TRUE(item->undoInterruptedWrite());
  EXPECT_FALSE(item->isUnsent());
  EXPECT_EQ(item->versionIdentifier(), bytes("1"));
  // Killed after it; and with an earlier write before it.
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine"))));
  EXPECT_FALSE(item->undoInterruptedWrite());
  database_->uploadForPath("a")->setGenerationIdentifier(bytes("never there"));
  EXPECT_FALSE(item->undoInterruptedWrite());
  auto missing = file("b");
  ASSERT_TRUE(missing->updateFileFromURL(URL::fileURL(source("new"))));
  std::filesystem::remove(documents("upload+/b"));
  EXPECT_TRUE(missing->undoInterruptedWrite());
  EXPECT_FALSE(database_->uploadForPath("b"));
}

TEST_F(DCCachedItemTest, UploadsThatEndLeaveNewerBytesAlone) {
  auto item = downloadedFile(date(-50));
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("first"))));
  item->registerFileForUploadOfURL(URL::fileURL(documents("41/a")), 17);
  EXPECT_EQ(database_->uploadForPath("a")->taskIdentifier(), 17);
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("second"))));
  const Date future = Date::now() + seconds(1000);
  item->updateUploadedFileFromRemoteMetadata(entry("a", "A", future, false, "2"));
  EXPECT_TRUE(item->isUnsent() && item->needsUpload());
  EXPECT_EQ(item->lastRemoteMetadataVersionIdentifier(), bytes("2"));
  EXPECT_EQ(item->localContentModificationDate(), future + Duration(1));
  EXPECT_EQ(test::readText(documents("41/a")), "second");

  item->registerFileForUploadOfURL(URL::fileURL(documents("41/a")), 18);
  item->updateUploadedFileFromRemoteMetadata(entry("a", "A", date(-10), false, "3"));
  EXPECT_FALSE(database_->uploadForPath("a"));
  EXPECT_EQ(item->localContentModificationDate(), date(-10));
  EXPECT_FALSE(item->isUnsent());
  list("", "root", {entry("a", "A", date(-10), false, "3")}, "3");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderSame);
  EXPECT_FALSE(item->needsUpload());

  // Written anew after the reply was lost, before it is known that the bytes of before were stored.
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("third"))));
  auto upload = database_->uploadForPath("a");
  upload->addAttempt({5, date(-10), *item->_localGenerationIdentifier()});
  ASSERT_TRUE(item->updateFileFromURL(URL::fileURL(source("fourth"))));
  item->updateUploadedFileFromRemoteMetadata(entry("a", "A", date(-10), false, "4"));
  EXPECT_TRUE(database_->uploadForPath("a") && item->needsUpload());
  upload->addAttempt({6, date(-9), *item->_localGenerationIdentifier()});
  item->updateUploadedFileFromRemoteMetadata(entry("a", "A", date(-9), false, "5"));
  EXPECT_FALSE(database_->uploadForPath("a"));

  // A new file gets its identifier by its upload; one for a drop box leaves nothing.
  auto made = file("new");
  ASSERT_TRUE(made->updateFileFromURL(URL::fileURL(source("new"))));
  made->updateUploadedFileFromRemoteMetadata(entry("new", "N", date(-5)));
  EXPECT_EQ(test::readText(documents("4e/new")), "new");
  EXPECT_FALSE(made->isUnsent());
  auto dropped = file("dropped");
  ASSERT_TRUE(dropped->updateFileFromURL(URL::fileURL(source("dropped"))));
  dropped->updateUploadedFileToDropBox();
  EXPECT_THAT(filesBelow("File Provider Storage/service"), testing::UnorderedElementsAre("41/a", "4e/new"));
  EXPECT_THAT(database_->uploadPaths(), IsEmpty());
  expectNoAssertion();
}

TEST_F(DCCachedItemTest, ARestoredOlderVersionIsSeenAsNewer) {
  auto item = downloadedFile(date(-50));
  list("", "root", {entry("a", "A", date(-90), false, "0")}, "2");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderSame);
  item->markContentsStale();
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderLocalIsOlder);
  EXPECT_EQ(item->localContentModificationDate(), date(-90) - Duration(1));
  EXPECT_FALSE(item->isUnsent() || item->needsUpload());
  item->prepareForDownload();
  EXPECT_FALSE(item->versionIdentifier());
  download(item, entry("a", "A", date(-90), false, "0"), "older");
  EXPECT_EQ(item->relativeAge(), DCCachedItemOrderSame);
  manager_->root()->markContentsStale();
  EXPECT_TRUE(manager_->root()->needsDownload());
}

TEST_F(DCCachedItemTest, ThumbnailsFollowTheirFiles) {
  auto item = downloadedFile(date(-50));
  EXPECT_EQ(manager_->_thumbnailForUnderlyingItem(item), nullptr);
  auto listed = entry("a", "A", date(-50));
  listed.set(FVFileThumbnailDocumentIdentifierKey, bytes("T"));
  list("", "root", {listed}, "2");
  auto thumbnail = manager_->_thumbnailForUnderlyingItem(item);
  ASSERT_TRUE(thumbnail);
  EXPECT_EQ(manager_->_thumbnailForUnderlyingItem(item), thumbnail);
  EXPECT_EQ(manager_->_thumbnailForUnderlyingItem(thumbnail), nullptr);
  EXPECT_EQ(thumbnail->relativePath()->string(), "a/41.png");
  EXPECT_EQ(thumbnail->documentIdentifier(), bytes("T"));
  EXPECT_TRUE(thumbnail->needsDownload());
  EXPECT_EQ(thumbnail->parent(), manager_->root());
  auto image = entry("41.png", "T", date(-50), false, "9");
  image.set(FVFileThumbnailedGenerationKey, bytes("1"));
  download(thumbnail, image, "image");
  EXPECT_EQ(test::readText(metadata("54/41.png")), "image");
  EXPECT_TRUE(thumbnail->isUpToDate());
  EXPECT_FALSE(thumbnail->needsDownload() || thumbnail->needsUpload());
  clock_.advance(seconds(60));
  EXPECT_FALSE(thumbnail->isUpToDate());
  // Another version of the file, whatever its date.
  listed.set(FVVersionIdentifierKey, bytes("2"));
  list("", "root", {listed}, "3");
  EXPECT_TRUE(thumbnail->needsDownload());
  expectNoAssertion();
}

TEST_F(DCCachedItemTest, ListingsAreIndexedAndBadNamesSkipped) {
  auto nameless = entry("x", "X", date(0));
  nameless.remove(ResourceNameKey);
  Array entries{entry("ok", "O", date(0)),
                entry("..", "1", date(0)),
                entry("a/b", "2", date(0)),
                entry("", "3", date(0)),
                nameless,
                entry(std::string(256, 'n'), "4", date(0)),
                entry("bad\xff", "5", date(0)),
                "no dictionary",
                entry("ok", "6", date(0)),
                entry("d", "D", date(0), true)};
  auto contents = DCDirectoryContents::contentsWithEntries(entries);
  ASSERT_EQ(contents->entries().size(), 2U);
  EXPECT_EQ(contents->entryNamed("d"), &contents->entries()[1]);
  EXPECT_EQ(contents->entryWithDocumentIdentifier(bytes("O")), &contents->entries()[0]);
  EXPECT_EQ(contents->entryWithDocumentIdentifier(bytes("6")), nullptr);
  EXPECT_EQ(contents->entryNamed(".."), nullptr);

  auto box = entry("d", "D", date(0), true);
  box.set(ResourceIsWritableKey, true);
  box.set(ResourceIsReadableKey, false);
  list("", "root", {box, entry("ok", "O", date(0))});
  EXPECT_TRUE(directory("d")->isDropBox());
  box.set(ResourceIsPackageKey, true);
  list("", "root", {box}, "2");
  EXPECT_FALSE(directory("d")->isDropBox());
  EXPECT_FALSE(manager_->root()->isDropBox());
  EXPECT_FALSE(file("ok")->parentContentsMetadata());  // the file on disk has changed
  EXPECT_FALSE(directory("d")->_parentContentsMetadataForChildAtRelativePath(path("ok")));
  EXPECT_TRUE(isLogged("failed assertion 'legalChild'"));
}

TEST_F(DCCachedItemTest, ReadersFindAWholeFileWhileItIsReplaced) {
  auto item = downloadedFile(date(-50));
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done) {
      auto read = readFile(documents("41/a"));
      EXPECT_TRUE(read && (read->view() == "server's" || read->view() == "another" || read->view() == "mine"));
    }
  });
  for (int i = 0; i < 100; ++i) {
    download(item, entry("a", "A", date(-40 + i), false, std::to_string(i)), i % 2 ? "server's" : "another");
  }
  EXPECT_TRUE(item->updateFileFromURL(URL::fileURL(source("mine"))));
  done = true;
  reader.join();
}

}  // namespace
}  // namespace florvane
