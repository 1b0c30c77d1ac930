#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "platform/Encoding.h"
#include "tests/client/DatabaseFixture.h"
#include "tests/support/ChildProcess.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <map>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string kPeer = std::string(FLORVANE_BIN_DIR) + "/database_peer";

using DCDatabaseTest = DatabaseFixture;
using Children = std::map<std::string, Data>;

Children childrenOf(DCDatabase& database, const std::string& directory) {
  Children children;
  for (const auto& child : database.knownChildrenOf(directory)->children()) {
    children.emplace(child.name, child.documentIdentifier);
  }
  return children;
}

std::vector<std::pair<std::string, Data>> newcomersOf(const std::string& directory, int count) {
  std::vector<std::pair<std::string, Data>> newcomers;
  for (int i = 0; i < count; ++i) {
    newcomers.emplace_back(directory + "/n" + std::to_string(i), bytes("n" + std::to_string(i)));
  }
  return newcomers;
}

TEST_F(DCDatabaseTest, KeepsPathsAcrossOpenings) {
  {
    auto database = open();
    EXPECT_EQ(database->databaseURL().path(), file("service.sqlite"));
    EXPECT_EQ(database->documentIdentifierForPath("a/b"), std::nullopt);
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("one"), "a/b"));
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("two"), "a/b"));
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("two"), "c"));
    EXPECT_TRUE(database->setDocumentIdentifier(Data(), "root's"));
    EXPECT_TRUE(database->removePath("none"));
  }
  auto database = open();
  EXPECT_EQ(database->documentIdentifierForPath("a/b"), bytes("two"));
  EXPECT_EQ(database->documentIdentifierForPath("root's"), Data());
  EXPECT_THAT(database->pathsForDocumentIdentifier(bytes("two")), UnorderedElementsAre("a/b", "c"));
  EXPECT_TRUE(database->renamePath("a/b", "c"));
  EXPECT_THAT(database->pathsForDocumentIdentifier(bytes("two")), ElementsAre("c"));
  EXPECT_TRUE(database->removePath("c"));
  EXPECT_THAT(database->pathsForDocumentIdentifier(bytes("two")), IsEmpty());
  EXPECT_EQ(sql("SELECT count(*) FROM Path"), "1\n");
  EXPECT_EQ(DCDatabase::databaseForService(nullptr), nullptr);
  auto service = DCService::serviceWithHostName("host", "service");
  EXPECT_EQ(DCDatabase::databaseForService(service),
            DCDatabase::databaseForService(DCService::serviceWithHostName("other", "service")));
}

TEST_F(DCDatabaseTest, MovesEverythingBelowAPath) {
  auto database = open();
  for (const char* path : {"", "a", "a/x", "a/x/deep", "ab", "a.b", "b/x"}) {
    EXPECT_TRUE(database->setDocumentIdentifier(bytes(path), path));
  }
  const std::optional<Data> generation = bytes("\x01\xff");
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/staged"), "a/new"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/staged"), generation, 7, "a/new"));
  test::writeText(DCManagedUpload::temporaryUploadFileURLForItemAtPath("a/new", generation)->path(), "copy");
  EXPECT_TRUE(database->saveOtherMetadata({{DCFileLastUploadDateKey, clock_.now()}}, bytes("a/new")));

  EXPECT_TRUE(database->renamePathsBelow("a", "b"));
  EXPECT_THAT(database->documentIdentifiersForPathsBelow(""),
              UnorderedElementsAre(std::pair("b", bytes("a")), std::pair("b/x", bytes("a/x")),
                                   std::pair("b/x/deep", bytes("a/x/deep")), std::pair("ab", bytes("ab")),
                                   std::pair("a.b", bytes("a.b"))));
  EXPECT_EQ(childrenOf(*database, "b"), (Children{{"x", bytes("a/x")}}));
  EXPECT_THAT(database->uploadPaths(), ElementsAre("b/new"));
  EXPECT_NE(database->otherMetadataForDocumentIdentifier(bytes("b/new")), nullptr);
  EXPECT_EQ(test::readText(DCManagedUpload::temporaryUploadFileURLForItemAtPath("b/new", generation)->path()), "copy");
  EXPECT_TRUE(database->renamePathsBelow("b", "b/inner"));
  EXPECT_EQ(database->documentIdentifierForPath("b/inner/x/deep"), bytes("a/x/deep"));
  EXPECT_EQ(database->documentIdentifierForPath("b/x"), std::nullopt);
}

TEST_F(DCDatabaseTest, ExchangesMetadataAsDictionaries) {
  auto database = open();
  const Date date = Date::fromMicroseconds(1'700'000'000'123'456);
  EXPECT_EQ(database->otherMetadataForDocumentIdentifier(bytes("k")), nullptr);
  EXPECT_EQ(database->otherMetadataForDocumentIdentifier(bytes("k"), true)->dictionaryRepresentation(), Dictionary());
  const Dictionary all{{"DCFileLastDownloadDateKey", date},
                       {"DCFileLastDownloadGenerationIdentifierKey", bytes("1")},
                       {"DCFileLastRemoteMetadataUpdateKey", date},
                       {"DCFileLastUpdateGenerationIdentifierKey", bytes("2")},
                       {"DCFileLastUploadDateKey", date},
                       {"DCFileLastUploadGenerationIdentifierKey", Data()},
                       {"DCFileLastRemoteMetadataVersionIdentifierKey", bytes("4")}};
  EXPECT_TRUE(database->saveOtherMetadata(all, bytes("k")));
  EXPECT_TRUE(database->saveOtherMetadata({{DCFileLastUploadDateKey, "no date"}, {"unknown", 1}}, bytes("k")));
  EXPECT_EQ(open()->otherMetadataForDocumentIdentifier(bytes("k"))->dictionaryRepresentation(), all);
  EXPECT_TRUE(database->removeOtherMetadataForDocumentIdentifier(bytes("k")));
  EXPECT_EQ(open()->otherMetadataForDocumentIdentifier(bytes("k")), nullptr);

  const Dictionary local{{"ResourceNameKey", "n"}, {"ResourcePathKey", "p"}};
  EXPECT_TRUE(database->saveStoredLocalMetadata(local, bytes("k")));
  EXPECT_TRUE(database->saveStoredLocalMetadata({{"ResourceAddedToDirectoryDateKey", date}}, bytes("k")));
  auto stored = open()->storedLocalMetadataForDocumentIdentifier(bytes("k"));
  EXPECT_EQ(stored->name(), "n");
  EXPECT_EQ(stored->localFilePath(), "p");
  EXPECT_EQ(stored->addedToDirectoryDate(), date);
  EXPECT_EQ(stored->dictionaryRepresentation().size(), 3U);
  EXPECT_TRUE(database->removeStoredLocalMetadataForDocumentIdentifier(bytes("k")));
  EXPECT_TRUE(stored->isDeleted() || open()->storedLocalMetadataForDocumentIdentifier(bytes("k")) == nullptr);
}

TEST_F(DCDatabaseTest, QueuesUploadsNewestFirst) {
  std::atomic<int> announced{0};
  auto observation = NotificationCenter::shared().addObserver(FlorvaneDidAddOrRemoveUploadsNotification,
                                                              [&](const Notification& notification) {
                                                                if (!notification.object) ++announced;
                                                              });
  auto database = open();
  for (const char* path : {"old", "middle", "new"}) {
    EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/a b"), path));
    clock_.advance(std::chrono::seconds(1));
  }
  EXPECT_THAT(database->uploadPaths(), ElementsAre("new", "middle", "old"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/again"), "old"));
  EXPECT_THAT(database->uploadPaths(), ElementsAre("new", "middle", "old"));
  EXPECT_EQ(database->uploadForPath("old")->fileURL(), "/again");

  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/send"), bytes("g"), 12, "middle"));
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/send"), bytes("g"), 13, "absent"));
  auto upload = database->uploadForTaskIdentifier(12, "service~quorl.Florvane");
  ASSERT_NE(upload, nullptr);
  EXPECT_EQ(upload, database->uploadForPath("middle"));
  upload->markAsCancelled();
  EXPECT_THAT(database->uploadPaths(), ElementsAre("new", "old"));  // unsaved, and seen
  EXPECT_EQ(database->numberOfPendingUploads(), 2U);
  EXPECT_TRUE(database->save());
  EXPECT_EQ(database->numberOfPendingUploads(), 2U);
  EXPECT_EQ(open()->allUploads().size(), 2U);
  EXPECT_EQ(database->uploadForTaskIdentifier(12, "service~quorl.Florvane"), upload);
  EXPECT_EQ(upload->path(), std::nullopt);
  EXPECT_EQ(upload->date(), std::nullopt);
  EXPECT_EQ(upload->taskIdentifier(), 12);
  EXPECT_TRUE(database->removeCancelledUpload(upload));
  EXPECT_EQ(database->uploadForTaskIdentifier(12, "service~quorl.Florvane"), nullptr);

  const std::optional<Data> generation = bytes("g");
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/send"), generation, 1, "new"));
  auto copy = DCManagedUpload::temporaryUploadFileURLForItemAtPath("new", generation);
  test::writeText(copy->path(), "copy");
  EXPECT_TRUE(database->removeUploadForPath("new"));
  EXPECT_FALSE(fileExists(copy->path()));
  EXPECT_EQ(sql("SELECT path FROM Upload"), "old\n");
  std::promise<void> over;
  auto ending = NotificationCenter::shared().addObserver("over", [&](const Notification&) { over.set_value(); });
  NotificationCenter::shared().post("over");
  over.get_future().wait();
  EXPECT_EQ(announced, 6);  // four saves, two removals
}

TEST_F(DCDatabaseTest, CountsRetriesAndNamesTemporaries) {
  auto database = open();
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/f"), "f"));
  auto upload = database->uploadForPath("f");
  auto retriesAfter = [&](const std::optional<std::string>& error) {
    upload->setError(error);
    upload->setTaskIdentifier(1);
    upload->setState(2);
    upload->setTotalBytesSent(3);
    upload->resetAndIncrementNumberOfRetries();
    EXPECT_EQ(upload->error(), std::nullopt);
    EXPECT_EQ(upload->taskIdentifier(), std::nullopt);
    EXPECT_EQ(upload->state(), std::nullopt);
    EXPECT_EQ(upload->totalBytesSent(), std::nullopt);
    return upload->numberOfRetries();
  };
  EXPECT_EQ(retriesAfter(std::nullopt), std::nullopt);
  EXPECT_EQ(retriesAfter("lost"), 1);
  EXPECT_EQ(retriesAfter("HTTP 401."), 1);
  EXPECT_EQ(retriesAfter(""), 2);

  auto name = [](const std::string& path) {
    auto url = DCManagedUpload::temporaryUploadFileURLForItemAtPath(path, bytes("\x0a\xff"));
    return std::filesystem::path(url->path()).filename().string();
  };
  EXPECT_EQ(base64Encode(bytes(std::string("???") + "-0aff")).find('/'), 3U);
  EXPECT_EQ(name("???"), "Pz8_LTBhZmY=");
  EXPECT_EQ(name(std::string(1000, 'x')).size(), 64U);
  EXPECT_NE(name(std::string(1000, 'x')), name(std::string(1001, 'x')));
  EXPECT_EQ(DCManagedUpload::temporaryUploadFileURLForItemAtPath("f", std::nullopt), std::nullopt);
  EXPECT_EQ(DCManagedUpload::temporaryUploadFileURLForItemAtPath(std::nullopt, bytes("g")), std::nullopt);
}

TEST_F(DCDatabaseTest, SavesTogetherOrNotAtAll) {
  dc_log_set_level(dc_log_default_category(), 6);
  auto database = open();
  EXPECT_TRUE(database->setDocumentIdentifier(bytes("before"), "kept"));
  EXPECT_THROW((void)database->performBatch([&] {
    (void)database->setDocumentIdentifier(bytes("in"), "batch");
    (void)database->removePath("kept");
    EXPECT_EQ(database->documentIdentifierForPath("batch"), bytes("in"));
    EXPECT_EQ(database->documentIdentifierForPath("kept"), std::nullopt);
    throw std::runtime_error("stop");
  }),
               std::runtime_error);
  EXPECT_EQ(database->documentIdentifierForPath("batch"), std::nullopt);
  EXPECT_EQ(database->documentIdentifierForPath("kept"), bytes("before"));

  // A store that cannot be written keeps what is unsaved in memory, for the next save.
  sql("CREATE TRIGGER full BEFORE INSERT ON Path BEGIN SELECT RAISE(ABORT, 'full'); END");
  auto saved = database->setDocumentIdentifier(bytes("x"), "unsaved");
  ASSERT_FALSE(saved);
  EXPECT_EQ(saved.error().domain(), SQLiteErrorDomain);
  expectLogged("Could not save context: " + saved.error().description(), 6);
  EXPECT_EQ(database->documentIdentifierForPath("unsaved"), bytes("x"));
  EXPECT_EQ(open()->documentIdentifierForPath("unsaved"), std::nullopt);
  EXPECT_FALSE(database->saveWithError());
  EXPECT_FALSE(database->setDocumentIdentifiers(newcomersOf("d", 200), "d"));
  EXPECT_EQ(childrenOf(*database, "d").size(), 200U);
  EXPECT_EQ(database->knownDocumentIdentifierForPath("d/n7"), bytes("n7"));
  sql("DROP TRIGGER full");
  EXPECT_TRUE(database->saveWithError());
  EXPECT_EQ(open()->documentIdentifierForPath("unsaved"), bytes("x"));
  EXPECT_EQ(childrenOf(*open(), "d"), childrenOf(*database, "d"));
  sql("CREATE TRIGGER full BEFORE UPDATE ON Path BEGIN SELECT RAISE(ABORT, 'full'); END");
  EXPECT_FALSE(database->performBatch([&] { (void)database->setDocumentIdentifier(bytes("y"), "unsaved"); }, true));
  EXPECT_EQ(database->documentIdentifierForPath("unsaved"), bytes("x"));
  EXPECT_FALSE(database->managedObjectContext()->hasChanges());
}

TEST_F(DCDatabaseTest, SavesAGroupStepByStepAndSettlesItAtItsEnd) {
  auto database = open();
  std::vector<std::string> order;
  database->performWhenStable([&] { order.emplace_back("alone"); });
  EXPECT_TRUE(database->performGroup([&] {
    EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/file"), "path"));
    EXPECT_NE(open()->uploadForPath("path"), nullptr);  // would survive a kill here
    EXPECT_TRUE(database->performGroup([&] { database->performWhenStable([&] { order.emplace_back("stable"); }); }));
    // What other threads save meanwhile is not of the group.
    std::thread([&] { database->performWhenStable([&] { order.emplace_back("other thread"); }); }).join();
    order.emplace_back("end");
  }));
  EXPECT_EQ(order, (std::vector<std::string>{"alone", "other thread", "end", "stable"}));
  EXPECT_THROW((void)database->performGroup([] { throw std::runtime_error("stop"); }), std::runtime_error);
  database->performWhenStable([&] { order.clear(); });
  EXPECT_THAT(order, IsEmpty());
}

TEST_F(DCDatabaseTest, WritesOnlyWhatChanged) {
  auto here = open(), there = open();
  EXPECT_TRUE(here->saveUploadFileURL(URL::fileURL("/f"), "f"));
  auto mine = here->uploadForPath("f"), theirs = there->uploadForPath("f");
  mine->setError("mine");
  theirs->setNumberOfRetries(5);
  theirs->setError("theirs");
  EXPECT_TRUE(there->save());
  EXPECT_TRUE(here->save());
  EXPECT_EQ(here->uploadForPath("f"), mine);
  EXPECT_EQ(mine->numberOfRetries(), 5);
  EXPECT_EQ(mine->error(), "mine");
  EXPECT_EQ(there->numberOfPendingUploads(), 1U);
  EXPECT_EQ(theirs->error(), "mine");
  theirs->setError("late");
  EXPECT_TRUE(here->removeUploadForPath("f"));
  EXPECT_TRUE(there->save());
  EXPECT_TRUE(theirs->isDeleted());
  EXPECT_EQ(there->numberOfPendingUploads(), 0U);
}

TEST_F(DCDatabaseTest, SharesAStoreWithAnotherProcess) {
  auto database = open();
  EXPECT_TRUE(database->saveUploadFileURL(URL::fileURL("/f"), "shared"));
  auto upload = database->uploadForPath("shared");
  std::thread peer([] { EXPECT_EQ(test::runProcess({kPeer, "retries", "100"}).exitStatus, 0); });
  std::thread second([] { EXPECT_EQ(test::runProcess({kPeer, "paths", "100"}).exitStatus, 0); });
  for (int i = 1; i <= 100; ++i) {
    upload->setTotalBytesSent(i);
    EXPECT_TRUE(database->save());
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("mine"), "path-" + std::to_string(i - 1)));
  }
  peer.join();
  second.join();
  EXPECT_EQ(database->uploadForPath("shared"), upload);
  EXPECT_EQ(upload->numberOfRetries(), 100);
  EXPECT_EQ(sql("SELECT numberOfRetries, totalBytesSent FROM Upload\nSELECT count(*), count(DISTINCT path) FROM Path"),
            "100 100\n100 100\n");
}

// The log tells of a change before it can be seen, and not again when it can.
TEST_F(DCDatabaseTest, SeesWhatTookLongToReachTheDisk) {
  auto database = open();
  EXPECT_TRUE(database->setDocumentIdentifier(bytes("x"), "p"));
  EXPECT_EQ(database->knownUploadForPath("late"), nullptr);
  test::ChildProcess peer({kPeer, "slow", "late"});
  int waits = 0;
  for (auto line = peer.readLine(); line == "waiting"; line = peer.readLine(), ++waits) {
    // Until the dates of the log say that it is at rest.
    using std::filesystem::file_time_type;
    const auto written = std::filesystem::last_write_time(file("service.sqlite-wal"));
    while (file_time_type::clock::now() < written + std::chrono::milliseconds(50)) std::this_thread::yield();
    database->refresh();
    EXPECT_EQ(database->knownUploadForPath("late"), nullptr);
    peer.writeLine("");
  }
  EXPECT_EQ(peer.wait(), 0);
  EXPECT_GT(waits, 0);
  database->refresh();
  EXPECT_NE(database->knownUploadForPath("late"), nullptr);
}

TEST_F(DCDatabaseTest, LosesNothingThatWasSavedWhenItsProcessIsKilled) {
  auto database = open();
  for (int round = 0; round < 12; ++round) {
    const std::string name = "round" + std::to_string(round);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    std::string command = "queue", program = kPeer, argument = name;
    char* arguments[] = {program.data(), command.data(), argument.data(), nullptr};
    pid_t process = 0;
    ASSERT_EQ(posix_spawn(&process, kPeer.c_str(), &actions, nullptr, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    FILE* output = fdopen(ends[0], "r");
    int saved = -1;
    for (int lines = 0; lines < round * 3 && fscanf(output, "%d", &saved) == 1; ++lines) {
    }
    kill(process, SIGKILL);
    while (fscanf(output, "%d", &saved) == 1) {
    }
    waitpid(process, nullptr, 0);
    fclose(output);
    for (int i = 0; i <= saved; ++i) EXPECT_NE(database->uploadForPath(name + "-" + std::to_string(i)), nullptr);
    EXPECT_TRUE(database->setDocumentIdentifier(bytes("x"), name));
  }
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok\n");
}

TEST_F(DCDatabaseTest, DeletesOnlyItsOwnFiles) {
  auto database = open(), sameStore = open(), other = open("servant"), longer = open("service2");
  for (auto& each : {database, other, longer}) EXPECT_TRUE(each->setDocumentIdentifier(bytes("x"), "p"));
  auto held = sameStore->otherMetadataForDocumentIdentifier(bytes("k"), true);
  EXPECT_EQ(sameStore->documentIdentifierForPath("p"), bytes("x"));
  auto context = database->managedObjectContext();
  database->deleteDatabase();
  EXPECT_THAT(filesNamed("service"), UnorderedElementsAre(".lock-service2", ".lock-service"));
  EXPECT_TRUE(fileExists(file("servant.sqlite")));
  EXPECT_EQ(database->documentIdentifierForPath("p"), std::nullopt);
  EXPECT_NE(database->managedObjectContext(), context);
  EXPECT_TRUE(database->setDocumentIdentifier(bytes("y"), "p"));
  // Whoever had the old store open goes over to the new one.
  EXPECT_EQ(sameStore->documentIdentifierForPath("p"), bytes("y"));
  EXPECT_TRUE(held->isDeleted());
  EXPECT_TRUE(sameStore->setDocumentIdentifier(bytes("z"), "q"));
  EXPECT_EQ(database->documentIdentifierForPath("q"), bytes("z"));
  database->reset();
  EXPECT_EQ(database->documentIdentifierForPath("q"), std::nullopt);
  EXPECT_EQ(other->documentIdentifierForPath("p"), bytes("x"));
}

// Answers that were read ahead hold until somebody changes what they tell, in this process or in another.
TEST_F(DCDatabaseTest, ForgetsChildrenReadAheadWhenTheyChange) {
  auto database = open(), other = open();
  ASSERT_TRUE(database->setDocumentIdentifier(bytes("1"), "d/a"));
  database->beginPrefetchingChildrenOf("d");
  ASSERT_TRUE(database->setDocumentIdentifier(bytes("2"), "d/b"));
  EXPECT_EQ(childrenOf(*database, "d"), (Children{{"a", bytes("1")}, {"b", bytes("2")}}));

  ASSERT_TRUE(database->setDocumentIdentifier(bytes("1"), "e/a"));
  database->prefetchChildrenOf("e");
  ASSERT_TRUE(other->setDocumentIdentifier(bytes("3"), "e/a"));
  database->refresh();
  EXPECT_EQ(childrenOf(*database, "e"), (Children{{"a", bytes("3")}}));

  // Newcomers whose metadata another process has stored, together with more than are asked for one by one.
  database->prefetchChildrenOf("d");
  ASSERT_TRUE(other->saveOtherMetadata({{DCFileLastDownloadDateKey, Date::fromMicroseconds(7)}}, bytes("n5")));
  ASSERT_TRUE(database->setDocumentIdentifiers(newcomersOf("d", 40), "d"));
  EXPECT_EQ(childrenOf(*database, "d"), childrenOf(*open(), "d"));
  EXPECT_TRUE(database->knownChildrenOf("d")->named("n5")->mayHaveOtherMetadata);
  EXPECT_FALSE(database->knownChildrenOf("d")->named("n6")->mayHaveOtherMetadata);
  auto known = database->knownOtherMetadataForDocumentIdentifier(bytes("n5"));
  ASSERT_TRUE(known);
  EXPECT_EQ(known->lastDownloadedDate(), Date::fromMicroseconds(7));
  EXPECT_FALSE(database->knownOtherMetadataForDocumentIdentifier(bytes("n6")));
  ASSERT_TRUE(database->saveOtherMetadata({{DCFileLastDownloadDateKey, Date::fromMicroseconds(8)}}, bytes("n6")));
  EXPECT_TRUE(database->knownChildrenOf("d")->named("n6")->mayHaveOtherMetadata);
  for (int i = 7; i < 40; ++i) {
    EXPECT_FALSE(database->knownOtherMetadataForDocumentIdentifier(bytes("n" + std::to_string(i))));
  }
  EXPECT_TRUE(database->renamePath("d/a", "d/z"));
  EXPECT_TRUE(database->removePath("d/b"));
  EXPECT_EQ(childrenOf(*database, "d"), childrenOf(*open(), "d"));
}

TEST_F(DCDatabaseTest, AnswersFromAHundredThousandRecords) {
  constexpr int kDirectories = 100, kChildren = 1000;
  {
    auto database = open();
    for (int d = 0; d < kDirectories; ++d) {
      const std::string directory = "d" + std::to_string(d);
      std::vector<std::pair<std::string, Data>> children;
      children.reserve(kChildren);
      for (int i = 0; i < kChildren; ++i) children.emplace_back(directory + "/" + std::to_string(i), bytes("id"));
      ASSERT_TRUE(database->setDocumentIdentifiers(children, directory));
    }
  }
  auto started = std::chrono::steady_clock::now();
  auto database = open();
  EXPECT_EQ(database->documentIdentifierForPath("d42/17"), bytes("id"));
  RecordProperty(
      "firstLookUpMicroseconds",
      std::to_string(
          std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started).count()));
  EXPECT_EQ(database->knownChildrenOf("d42")->children().size(), 1000U);
  EXPECT_EQ(database->documentIdentifiersForPathsBelow("").size(), 100'000U);
  EXPECT_TRUE(database->renamePathsBelow("d42", "moved"));
  EXPECT_EQ(database->documentIdentifierForPath("moved/999"), bytes("id"));
  EXPECT_THAT(sql("EXPLAIN QUERY PLAN SELECT * FROM Path WHERE rtrim(path, replace(path, '/', '')) = 'd1/'"),
              HasSubstr("USING INDEX"));
  EXPECT_LT(std::filesystem::file_size(file("service.sqlite-wal")), 64U << 20);
}

TEST_F(DCDatabaseTest, ServesManyThreads) {
  auto database = open();
  auto metadata = database->otherMetadataForDocumentIdentifier(bytes("k"), true);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(database->setDocumentIdentifier(bytes("x"), std::to_string(t) + "/" + std::to_string(i)));
        metadata->setLastUploadDate(Date::fromMicroseconds(i));
        metadata->lastUploadDate();
        EXPECT_TRUE(database->save());
        database->allUploads();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(sql("SELECT count(*) FROM Path\nSELECT lastUploadDate FROM OtherMetadata"), "80\n19\n");
}

TEST_F(DCDatabaseTest, AStoreOfTheFirstVersionKeepsItsUploadsAndTakesWhatIsKeptOfThemNow) {
  {
    auto database = open();
    ASSERT_TRUE(database->saveUploadFileURL(URL::fileURL("/old/file"), "Files/old"));
  }
  // As the first version wrote it.
  for (const char* column :
       {"baseVersionIdentifier", "attempts", "conflictingVersionIdentifier", "conflictingFileURL"}) {
    sql(std::string("ALTER TABLE Upload DROP COLUMN ") + column);
  }
  sql("PRAGMA user_version = 1");
  {
    auto database = open();
    auto upload = database->uploadForPath("Files/old");
    ASSERT_TRUE(upload);
    EXPECT_EQ(upload->fileURL(), "/old/file");
    EXPECT_FALSE(upload->baseVersionIdentifier());
    EXPECT_THAT(upload->attempts(), IsEmpty());
    EXPECT_FALSE(upload->isConflict());
    upload->setBaseVersionIdentifier(bytes("base"));
    for (int i = 0; i < 20; ++i) upload->addAttempt({i, Date::fromMicroseconds(1'600'000'000'000'001 + i)});
    upload->addAttempt({18, Date::fromMicroseconds(1'600'000'000'000'019)});
    upload->setConflictingVersionIdentifier(bytes("theirs"));
    ASSERT_TRUE(database->save());
  }
  auto database = open();
  auto upload = database->uploadForPath("Files/old");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->baseVersionIdentifier(), bytes("base"));
  auto attempts = upload->attempts();
  ASSERT_EQ(attempts.size(), 16U);
  EXPECT_EQ(attempts.back(), (DCUploadAttempt{18, Date::fromMicroseconds(1'600'000'000'000'019)}));
  EXPECT_EQ(attempts.front().size, 4);
  upload->resolveConflict();
  EXPECT_FALSE(upload->isConflict());
  EXPECT_EQ(upload->baseVersionIdentifier(), bytes("theirs"));
  EXPECT_THAT(upload->attempts(), IsEmpty());
}

}  // namespace
}  // namespace florvane
