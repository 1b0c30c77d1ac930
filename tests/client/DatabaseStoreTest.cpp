// What becomes of a store that is damaged, of a newer version, not to be opened, or made anew.

#include "tests/client/DatabaseFixture.h"

#include <gmock/gmock.h>

namespace florvane {
namespace {

using testing::ElementsAre;

using DatabaseStoreTest = DatabaseFixture;

TEST_F(DatabaseStoreTest, SetsADamagedStoreAsideAndRescuesUploads) {
  {
    auto database = open();
    for (int i = 0; i < 200; ++i) {
      EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/f"), "upload-" + std::to_string(i)));
    }
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("x"), "path"));
  }
  damage("PathBypath");
  auto database = open();
  EXPECT_EQ(database->documentIdentifierForPath("path"), std::nullopt);
  EXPECT_EQ(database->numberOfPendingUploads(), 200U);
  EXPECT_EQ(setAside(), 1U);
  expectLogged("was damaged", 3);
  EXPECT_TRUE(database->setDocumentIdentifier(bytes("y"), "path"));

  // Damage that a save meets first: what it was to save is saved.
  auto upload = database->uploadForPath("upload-7");
  upload->setError("unsaved");
  damage("UploadBypath");
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/g"), "fresh"));
  EXPECT_EQ(open()->uploadForPath("upload-7")->error(), "unsaved");
  EXPECT_EQ(open()->uploadForPath("fresh")->fileURL(), "/g");
  EXPECT_EQ(database->numberOfPendingUploads(), 201U);

  damage("UploadBypath");
  EXPECT_TRUE(database->removeUploadForPath("fresh"));
  EXPECT_EQ(database->uploadForPath("fresh"), nullptr);
  EXPECT_EQ(database->numberOfPendingUploads(), 200U);

  database.reset();
  test::writeText(file("service.sqlite"), std::string(10'000, 'x'));
  EXPECT_EQ(open()->numberOfPendingUploads(), 0U);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
  EXPECT_EQ(setAside(), 4U);
}

TEST_F(DatabaseStoreTest, RescuesUploadsFromBothSidesOfABadPage) {
  {
    auto database = open();
    EXPECT_TRUE(database->performBatch([&] {
      for (int i = 0; i < 1000; ++i) {
        (void)database->saveUploadFileURL(URL::fileURL("/f"), "upload-" + std::to_string(i));
      }
    }));
  }
  auto result = test::runPython(
      "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\nc.execute('PRAGMA wal_checkpoint(TRUNCATE)')\n"
      "s=c.execute('PRAGMA page_size').fetchone()[0]\nc.close()\nf=open(sys.argv[1],'r+b')\nb=f.read()\n"
      "for o in range(0,len(b),s):\n"
      " if b[o]==13 and b'upload-500' in b[o:o+s]: f.seek(o); f.write(b'\\xff'*s); print('damaged')\n",
      {file("service.sqlite")});
  ASSERT_EQ(result.standardOutput, "damaged\n");
  auto database = open();
  EXPECT_GT(database->allUploads().size(), 800U);
  EXPECT_NE(database->uploadForPath("upload-0"), nullptr);
  EXPECT_NE(database->uploadForPath("upload-999"), nullptr);
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
}

TEST_F(DatabaseStoreTest, LeavesANewerStoreAloneAndWorksInMemory) {
  EXPECT_TRUE(open()->setDocumentIdentifier(bytes("x"), "kept"));
  sql("PRAGMA user_version = 1000");
  const std::string before = test::readText(file("service.sqlite"));
  auto database = open();
  expectLogged("Could not add persistent store for service: ", 3);
  expectLogged("written by a newer version", 3);
  EXPECT_EQ(database->documentIdentifierForPath("kept"), std::nullopt);
  auto saved = database->setDocumentIdentifier(bytes("memory"), "kept");
  ASSERT_FALSE(saved);
  EXPECT_TRUE(saved.error().is(SQLiteErrorDomain, SQLiteStoreNewerVersionError));
  EXPECT_EQ(database->documentIdentifierForPath("kept"), bytes("memory"));
  EXPECT_TRUE(database->newerVersionError());
  EXPECT_FALSE(database->resetKeepingExchanges());
  auto checked = SQLiteStore::check(DCDatabase::storeOptions(*DCService::serviceWithHostName("host", "service")));
  ASSERT_FALSE(checked);
  EXPECT_TRUE(checked.error().is(SQLiteErrorDomain, SQLiteStoreNewerVersionError));
  EXPECT_EQ(test::readText(file("service.sqlite")), before);
  EXPECT_THAT(filesNamed("service.sqlite"), ElementsAre("service.sqlite")) << "nothing beside it";
  EXPECT_EQ(sql("SELECT documentIdentifier FROM Path\nPRAGMA user_version"), "b'x'\n1000\n");

  // A newer version that is at work has its last changes in the log only.
  EXPECT_FALSE(open("other")->newerVersionError());
  auto atWork = test::runPython(
      "import sqlite3,sys,os\nc=sqlite3.connect(sys.argv[1])\nc.execute('PRAGMA user_version = 1000')\nc.commit()\n"
      "os._exit(0)\n",
      {file("other.sqlite")});
  ASSERT_EQ(atWork.exitStatus, 0) << atWork.standardError;
  const std::string store = test::readText(file("other.sqlite")), log = test::readText(file("other.sqlite-wal"));
  EXPECT_TRUE(open("other")->newerVersionError());
  EXPECT_EQ(test::readText(file("other.sqlite")), store);
  EXPECT_EQ(test::readText(file("other.sqlite-wal")), log);
}

TEST_F(DatabaseStoreTest, KeepsUploadsAndExchangesThroughAResetForAllWhoHaveItOpen) {
  auto database = open(), other = open();
  EXPECT_TRUE(database->setDocumentIdentifier(bytes("x"), "path"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/f"), "due"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/f"), Data(), 7, "due"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/g"), "cancelled"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/g"), Data(), 8, "cancelled"));
  auto cancelled = database->uploadForPath("cancelled");
  const std::string session = *cancelled->sessionIdentifier();
  cancelled->markAsCancelled();
  EXPECT_TRUE(database->save());
  EXPECT_TRUE(database->saveOtherMetadata({{DCFileLastUpdateGenerationIdentifierKey, bytes("g")}}, bytes("x")));
  EXPECT_TRUE(database->saveStoredLocalMetadata({{"ResourceNameKey", "name"}}, bytes("x")));
  auto held = database->uploadForPath("due"), others = other->uploadForPath("due");
  others->setTotalBytesSent(3);

  ASSERT_TRUE(database->resetKeepingExchanges());
  EXPECT_EQ(setAside(), 0U);
  EXPECT_TRUE(other->save());
  EXPECT_EQ(database->uploadForPath("due"), held) << "the same object";
  EXPECT_EQ(held->totalBytesSent(), 3);
  EXPECT_EQ(held->taskIdentifier(), 7);
  EXPECT_EQ(database->numberOfPendingUploads(), 1U);
  for (auto& each : {database, other}) {
    EXPECT_EQ(each->documentIdentifierForPath("path"), std::nullopt);
    EXPECT_EQ(each->storedLocalMetadataForDocumentIdentifier(bytes("x")), nullptr);
    ASSERT_TRUE(each->otherMetadataForDocumentIdentifier(bytes("x")));
    EXPECT_TRUE(each->uploadForTaskIdentifier(8, session));
  }
  EXPECT_TRUE(other->saveUploadFileURL(URL::fileURL("/h"), "later"));
  EXPECT_TRUE(database->uploadForPath("later"));
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
}

TEST_F(DatabaseStoreTest, SavesToAStoreThatCanBeOpenedLater) {
  std::filesystem::create_directories(file("service.sqlite"));
  auto database = open();
  expectLogged("Could not add persistent store for service: ", 3);
  EXPECT_FALSE(database->saveUploadFileURL(URL::fileURL("/f"), "f"));
  EXPECT_EQ(database->numberOfPendingUploads(), 1U);
  std::filesystem::remove(file("service.sqlite"));
  EXPECT_TRUE(database->save());
  EXPECT_EQ(open()->numberOfPendingUploads(), 1U);
}

}  // namespace
}  // namespace florvane
