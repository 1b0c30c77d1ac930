#include "tests/client/WatchFixture.h"
#include "tests/support/Process.h"

#include <sys/stat.h>

namespace florvane::test {
namespace {

class Maintenance : public WatchFixture {
 protected:
  void rebuild() {
    std::promise<void> rebuilt;
    manager()->rebuildDatabaseWithCompletionHandler([&] { rebuilt.set_value(); });
    rebuilt.get_future().wait();
  }
};

std::shared_ptr<DCPreferences> preferences() { return DCPreferences::preferences(); }

// Something of the cache's that a wipe removes.
std::string writeCached(const std::string& name) {
  DUPathVerifyPathSetup();
  const std::string folder = *DUPathMetadataDirectoryPath() + "/" + name;
  std::filesystem::create_directories(folder);
  return folder;
}

TEST_F(Maintenance, WipesOnlyDataOfVersionsThatItCannotUse) {
  auto survives = [&](const std::optional<std::string>& stored) {
    EXPECT_TRUE(preferences()->setCurrentDataVersionNumber(stored));
    EXPECT_TRUE(preferences()->setAuthCookie(Secret("k=1"), Data::fromString("certificate"), service()));
    const std::string cached = writeCached("cached");
    DCDocumentManager::deleleAllDataIfNecessary();
    EXPECT_EQ(preferences()->currentDataVersionNumber(), "1.1");
    bool isThere = std::filesystem::exists(cached);
    EXPECT_EQ(preferences()->authCookieForService(service()).has_value(), isThere);
    return isThere;
  };
  EXPECT_FALSE(survives(std::nullopt));
  EXPECT_FALSE(survives("0.9"));
  EXPECT_FALSE(survives("1.0"));
  EXPECT_FALSE(survives("1"));
  EXPECT_TRUE(survives("1.1"));
  EXPECT_TRUE(survives("1.5"));
  EXPECT_TRUE(survives("1.0.1"));
  EXPECT_TRUE(survives("1.10")) << "numbers, not text";

  // Preferences that cannot be read say nothing of the data.
  const std::string cached = writeCached("cached");
  writeText(container.file("Preferences/group.quorl.Florvane.plist"), "no property list");
  DCDocumentManager::deleleAllDataIfNecessary();
  EXPECT_TRUE(std::filesystem::exists(cached));
}

TEST_F(Maintenance, KeepsUnsentBytesOfEveryServiceOutOfTheWipe) {
  // A service whose account is gone, as another process left it: a staged new file, one with an upload record at a
  // place of its own, and nothing else worth keeping.
  auto gone = DCService::serviceWithHostName("localhost", "gone");
  const std::string root = DCFullPath::documentRootForService(gone)->string();
  std::filesystem::create_directories(root + "/upload+Files:Letters");
  writeText(root + "/upload+Files:Letters/new", "never sent");
  std::filesystem::create_directories(root + "/ab01");
  writeText(root + "/ab01/notes", "edited");
  {
    DCDatabase store(gone);
    ASSERT_TRUE(store.saveUploadFileURL(URL::fileURL(root + "/ab01/notes"), "Files/notes"));
  }
  DCDocumentManager::deleleAllDataIfNecessary();
  EXPECT_FALSE(std::filesystem::exists(root));
  auto kept = recovered();
  ASSERT_EQ(kept.size(), 2U);
  EXPECT_TRUE(kept[0].starts_with("Files/Letters/new ("));
  EXPECT_TRUE(kept[1].starts_with("Files/notes ("));
  EXPECT_EQ(readText(container.file("Recovered/" + kept[0])), "never sent");
  EXPECT_EQ(readText(container.file("Recovered/" + kept[1])), "edited");
}

TEST_F(Maintenance, RebuildsWhatTheDiskKnowsAndChangesNothingElse) {
  std::filesystem::create_directories(server.files() + "/Folder");
  writeText(server.files() + "/Folder/below", "1");
  writeText(server.files() + "/edited", "1");
  writeText(server.files() + "/never", "1");
  list({"", "Files", "Files/Folder", "Files/notes", "Files/edited", "Files/Folder/below"});
  auto edited = fileAt("Files/edited");
  const std::string local = edited->fullPath()->string();
  writeText(local, "changed here");
  ASSERT_TRUE(edited->isUnsent());
  ASSERT_FALSE(fileAt("Files/notes")->isUnsent());
  const std::string staged = documentRoot() + "/upload+Files";
  std::filesystem::create_directories(staged);
  writeText(staged + "/new", "never sent");
  ASSERT_TRUE(database()->saveUploadFileURL(URL::fileURL(staged + "/new"), "Files/new"));
  auto upload = database()->uploadForPath("Files/new");
  upload->setNumberOfRetries(2);
  upload->setError("why");
  upload->setTaskIdentifier(7);
  upload->setGenerationIdentifier(Data::fromString("generation"));
  ASSERT_TRUE(database()->save());
  const Dictionary record = upload->dictionaryRepresentation();

  auto known = database()->documentIdentifiersForPathsBelow("");
  rebuild();

  EXPECT_EQ(database()->documentIdentifiersForPathsBelow(""), known);
  EXPECT_FALSE(fileAt("Files/notes")->isUnsent());
  EXPECT_FALSE(fileAt("Files/notes")->needsDownload());
  EXPECT_FALSE(fileAt("Files/Folder/below")->isUnsent());
  EXPECT_TRUE(fileAt("Files/edited")->isUnsent());
  EXPECT_FALSE(fileAt("Files/never")->hasBeenDownloaded());
  EXPECT_EQ(fileAt("Files/notes")->contents(), Data::fromString("1"));
  upload = database()->uploadForPath("Files/new");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->dictionaryRepresentation(), record);
  EXPECT_EQ(database()->numberOfPendingUploads(), 1U);
  // Nothing is kept of documents that are not there any more.
  ASSERT_TRUE(database()->saveOtherMetadata({{DCFileLastUploadDateKey, clock.now()}}, Data::fromString("gone")));
  rebuild();
  EXPECT_EQ(database()->otherMetadataForDocumentIdentifier(Data::fromString("gone")), nullptr);
  EXPECT_TRUE(database()->otherMetadataForDocumentIdentifier(*fileAt("Files/notes")->documentIdentifier()));
  // What is known now is enough to go on.
  writeText(server.files() + "/notes", "22");
  list({"", "Files", "Files/notes"});
  EXPECT_EQ(fileAt("Files/notes")->contents(), Data::fromString("22"));
  // A folder and the share above it that were about to be asked for anew.
  known = database()->documentIdentifiersForPathsBelow("");
  auto forgetListing = [&](const std::string& path) {
    DCCachedItemManager::directoryAtRelativePath(DCRelativePath::relativePathWithString(path, service()))
        ->clearRemoteMetadata();
  };
  for (const char* path : {"Files/Folder", "Files"}) forgetListing(path);
  rebuild();
  EXPECT_EQ(database()->documentIdentifiersForPathsBelow(""), known);
  forgetListing("");
  rebuild();
  writeText(server.files() + "/Folder/below", "22");
  list({"", "Files", "Files/Folder", "Files/Folder/below"});
  EXPECT_EQ(fileAt("Files/Folder/below")->contents(), Data::fromString("22"));
  EXPECT_TRUE(fileAt("Files/edited")->isUnsent());
}

TEST_F(Maintenance, LeavesWhatANewerVersionHasWrittenAlone) {
  std::string store;
  {
    DCDatabase present(service());
    ASSERT_TRUE(present.saveUploadFileURL(URL::fileURL(container.file("sent")), "Files/new"));
    store = present.databaseURL().path();
  }
  auto made = runPython(
      "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\nc.execute('PRAGMA user_version = 1000')\nc.commit()\n",
      {store});
  ASSERT_EQ(made.exitStatus, 0) << made.standardError;
  const std::string before = readText(store), cached = documentRoot() + "/ab01";
  std::filesystem::create_directories(cached);
  writeText(cached + "/notes", "perhaps unsent");

  // A wipe for want of a version, and whoever asks for something else.
  ASSERT_TRUE(preferences()->setCurrentDataVersionNumber(std::nullopt));
  auto refused = refresh("");
  ASSERT_TRUE(refused);
  EXPECT_TRUE(refused->is(SQLiteErrorDomain, SQLiteStoreNewerVersionError)) << refused->description();
  EXPECT_EQ(preferences()->currentDataVersionNumber(), "1.1");
  manager()->deleteAllLocalData();
  rebuild();
  ASSERT_TRUE(manager()->rebuildError());
  EXPECT_TRUE(manager()->rebuildError()->is(SQLiteErrorDomain, SQLiteStoreNewerVersionError));
  EXPECT_EQ(readText(store), before);
  EXPECT_EQ(readText(cached + "/notes"), "perhaps unsent");
  EXPECT_TRUE(recovered().empty());
}

TEST_F(Maintenance, RebuildsByDatesWhenTheStoreIsLost) {
  writeText(server.files() + "/edited", "1");
  list({"", "Files", "Files/notes", "Files/edited"});
  writeText(fileAt("Files/edited")->fullPath()->string(), "changed here");
  const std::string staged = documentRoot() + "/upload+Files";
  std::filesystem::create_directories(staged);
  writeText(staged + "/new", "never sent");
  // Not even damaged pages are left of it.
  database()->reset();
  rebuild();
  EXPECT_FALSE(fileAt("Files/notes")->isUnsent());
  EXPECT_TRUE(fileAt("Files/edited")->isUnsent());
  EXPECT_TRUE(database()->uploadForPath("Files/new")) << "a new file would wait for ever";
}

TEST_F(Maintenance, GoesOnWithARebuildThatWasCutShort) {
  ASSERT_TRUE(preferences()->setCurrentDataVersionNumber("1.1"));
  // As a kill leaves it between the old store's end and the new one's first record.
  Dictionary record;
  record.set("path", "Files/new");
  record.set("fileURL", container.file("new"));
  Array records;
  records.append(record);
  DUPathVerifyPathSetup();
  const std::string folder = *DUPathMetadataDirectoryPath() + "/db";
  const std::string journal = folder + "/rebuild-" + service()->uniqueIdentifier() + ".plist";
  std::filesystem::create_directories(folder);
  ASSERT_TRUE(writeFileAtomically(journal, *writePropertyList(records, PropertyListFormat::Binary)));
  (void)manager();
  settle();
  ASSERT_TRUE(database()->uploadForPath("Files/new"));
  EXPECT_EQ(database()->uploadForPath("Files/new")->fileURL(), container.file("new"));
  EXPECT_EQ(database()->numberOfPendingUploads(), 1U);
  EXPECT_FALSE(std::filesystem::exists(journal));
}

TEST_F(Maintenance, DeletesAServicesDataButNotWhatWasNeverSent) {
  list({"", "Files", "Files/notes"});
  auto delegate = watch("Files");
  const std::string local = fileAt("Files/notes")->fullPath()->string();
  writeText(local, "changed here");
  ASSERT_TRUE(database()->saveUploadFileURL(URL::fileURL(local), "Files/notes"));
  manager()->deleteAllLocalData();
  EXPECT_TRUE(delegate->hears(std::string("failed Files/notes ") + DCErrorDomain));
  ASSERT_EQ(recovered().size(), 1U);
  EXPECT_TRUE(recovered()[0].starts_with("Files/notes ("));
  EXPECT_EQ(readText(container.file("Recovered/" + recovered()[0])), "changed here");
  EXPECT_FALSE(std::filesystem::exists(local));
  EXPECT_FALSE(preferences()->authCookieForService(service()));
  EXPECT_EQ(database()->numberOfPendingUploads(), 0U);
  EXPECT_TRUE(database()->documentIdentifiersForPathsBelow("").empty());
  // It starts over, and what is registered finds its item again.
  list();
  EXPECT_TRUE(fileAt("Files/notes")->documentIdentifier());
  settle();
  EXPECT_TRUE(isFetching());
  delegate->forget();
  writeText(server.files() + "/notes", "4444");
  EXPECT_TRUE(delegate->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 4; }));
}

}  // namespace
}  // namespace florvane::test
