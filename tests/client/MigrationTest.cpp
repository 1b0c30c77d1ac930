// Containers as earlier versions left them, each with a listing, a file that equals the server's, one that was edited,
// one that was never fetched, and a new one that was never sent. They open without a word to the server, and with
// everything that was in them.

#include "Client/Client/Florvane.h"
#include "common/FVFGenerationIdentifierUtils.h"
#include "platform/TransferStore.h"
#include "tests/support/Process.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestContainer.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kService[] = "7F3C0B5E-3D0A-4C57-9B61-2A3C5D7E9F10";
constexpr char kSession[] = "7F3C0B5E-3D0A-4C57-9B61-2A3C5D7E9F10~quorl.Florvane";
constexpr std::int64_t kTask = 1'795'341'600'000'100;

Data bytes(std::string_view text) { return Data::fromString(text); }

class Migration : public testing::Test {
 protected:
  Migration() {
    fs::copy(fixture("tree"), container.path(), fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    // The server's date of everything that was fetched; what was edited has its own.
    const auto date = Date::fromSeconds(1'795'341'600);
    for (const auto& path : {notes(), container.file(std::string("Metadata/") + kService + "/66696c65/Files")}) {
      auto file = openFile(path, O_RDONLY);
      if (!file || !setContentModificationDate(file->get(), date)) throw std::runtime_error(path);
    }
  }

  static std::string fixture(const std::string& name) {
    return std::string(FLORVANE_SOURCE_DIR) + "/tests/fixtures/containers/" + name;
  }
  std::string document(const std::string& name) const {
    return container.file(std::string("File Provider Storage/") + kService + "/" + name);
  }
  std::string notes() const { return document("6e6f7465/notes"); }
  // A fixture's text with what depends on the place where it stands.
  std::string placed(const std::string& name) const {
    auto generation = FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(URL::fileURL(notes()));
    std::string text = readText(fixture(name));
    for (const auto& [mark, value] : {std::pair<std::string, std::string>("@CONTAINER@", container.path()),
                                      {"@GENERATION_OF_NOTES@", "X'" + hexEncode(**generation) + "'"}}) {
      for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
        text.replace(at, mark.size(), value);
      }
    }
    return text;
  }
  void makeStore(const std::string& fixtureName, const std::string& path) const {
    fs::create_directories(container.file(path).substr(0, container.file(path).rfind('/')));
    auto made = runPython(
        "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\nc.executescript(sys.stdin.read())\nc.commit()\n"
        "c.execute('PRAGMA journal_mode=WAL')\n",
        {container.file(path)}, placed(fixtureName));
    ASSERT_EQ(made.exitStatus, 0) << made.standardError;
  }
  std::string storePath() const { return std::string("Metadata/db/") + kService + ".sqlite"; }

  const std::shared_ptr<DCService>& service() {
    if (!service_) {
      Account account;
      account.identifier = kService;
      account.name = "office";
      account.userName = "ada";
      account.hostName = "127.0.0.1";
      account.dataClassPortNumber = server.port();
      service_ = DCService::serviceWithAccount(account);
    }
    return service_;
  }
  DCDatabase& database() { return *DCDatabase::databaseForService(service()); }
  DCCachedFile::Ptr fileAt(const std::string& path) {
    return DCCachedItemManager::fileAtRelativePath(DCRelativePath::relativePathWithString(path, service()));
  }
  void expectTreeIsKnown() {
    auto manager = DCDocumentManager::documentManagerForService(service());
    for (const auto& [path, text] : {std::pair("Files/notes", "kept"), std::pair("Files/edited", "changed here"),
                                     std::pair("Files/new", "never sent")}) {
      auto url = manager->fileURLOfItemAtPath(path);
      ASSERT_TRUE(url) << path << url.error().description();
      EXPECT_EQ(readText(url->path()), text);
    }
    EXPECT_EQ(database().documentIdentifierForPath(""), bytes("root"));
    EXPECT_EQ(database().documentIdentifiersForPathsBelow("").size(), 4U);
    EXPECT_EQ(database().documentIdentifierForPath("Files/never"), bytes("neve"));
    EXPECT_FALSE(fileAt("Files/never")->hasBeenDownloaded());
    EXPECT_TRUE(fileAt("Files/notes")->hasBeenDownloaded());
    EXPECT_FALSE(fileAt("Files/notes")->isUnsent());
    EXPECT_TRUE(fileAt("Files/edited")->isUnsent());
    EXPECT_TRUE(manager->hasPendingUploads());
    EXPECT_FALSE(fs::exists(container.file("Recovered")));
    EXPECT_EQ(connections, 0);
  }
  Dictionary recordOf(const std::string& path) {
    auto upload = database().uploadForPath(path);
    return upload ? upload->dictionaryRepresentation() : Dictionary();
  }

  const TestContainer container;
  RecordingSystemLog log;
  std::atomic<int> connections = 0;
  ScriptedServer server{[this](ScriptedServer::Connection&) { ++connections; }};

 private:
  std::shared_ptr<DCService> service_;
};

TEST_F(Migration, AStoreOfTheFirstVersionKeepsEverythingAndIsBroughtToThePresentOne) {
  makeStore("first.sql", storePath());
  expectTreeIsKnown();
  EXPECT_EQ(recordOf("Files/new"), (Dictionary{{"path", "Files/new"},
                                               {"fileURL", document("upload+Files/new")},
                                               {"date", Date::fromMicroseconds(1'795'341'600'000'005)},
                                               {"error", "Something broke."},
                                               {"numberOfRetries", 1},
                                               {"generationIdentifier", Data("\n", 1)},
                                               {"cancelled", false}}));
  EXPECT_EQ(recordOf("Files/edited"), (Dictionary{{"path", "Files/edited"},
                                                  {"fileURL", document("65646974/edited")},
                                                  {"date", Date::fromMicroseconds(1'795'341'600'000'006)},
                                                  {"taskIdentifier", kTask},
                                                  {"sessionIdentifier", kSession},
                                                  {"state", 1},
                                                  {"totalBytesExpectedToSend", 12},
                                                  {"totalBytesSent", 5},
                                                  {"numberOfRetries", 0},
                                                  {"generationIdentifier", Data("\v", 1)},
                                                  {"cancelled", false}}));
  EXPECT_EQ(database().numberOfPendingUploads(), 2U);
  auto cancelled = database().uploadForTaskIdentifier(kTask - 1, kSession);
  ASSERT_TRUE(cancelled);
  EXPECT_TRUE(cancelled->cancelled());
  auto local = database().storedLocalMetadataForDocumentIdentifier(bytes("note"));
  ASSERT_TRUE(local);
  EXPECT_EQ(local->dictionaryRepresentation().string(ResourcePathKey), notes());
  EXPECT_EQ(fileAt("Files/notes")->lastRemoteMetadataVersionIdentifier(), bytes("3"));
  // What only the present version has can be kept now.
  database().uploadForPath("Files/new")->addAttempt({10, Date::fromSeconds(1), bytes("g")});
  ASSERT_TRUE(database().save());
  EXPECT_EQ(database().uploadForPath("Files/new")->attempts().size(), 1U);
}

TEST_F(Migration, AttemptsOfBeforeTheyHadGenerationsStillSayWhatWasSent) {
  makeStore("second.sql", storePath());
  expectTreeIsKnown();
  auto upload = database().uploadForPath("Files/edited");
  ASSERT_TRUE(upload);
  EXPECT_THAT(upload->attempts(), ElementsAre(DCUploadAttempt{7, Date::fromSeconds(1'795'341'601), Data("\v", 1)},
                                              DCUploadAttempt{12, Date::fromSeconds(1'795'341'602), Data("\v", 1)}));
  EXPECT_EQ(upload->baseVersionIdentifier(), bytes("4"));
  EXPECT_EQ(upload->conflictingVersionIdentifier(), bytes("9"));
  EXPECT_EQ(upload->conflictingVersionURL()->path(), document("conflict+39/edited"));
  EXPECT_EQ(upload->numberOfRetries(), 2);
  EXPECT_EQ(database().uploadForPath("Files/new")->baseVersionIdentifier(), Data());
  // One more goes behind them.
  upload->addAttempt({13, Date::fromSeconds(1'795'341'603), bytes("g")});
  EXPECT_EQ(upload->attempts().size(), 3U);
  EXPECT_EQ(upload->attempts()[0].size, 7);
  EXPECT_EQ(upload->sentGenerationIdentifier(), bytes("g"));
}

TEST_F(Migration, AJournalOfARebuildIsFinished) {
  makeStore("interrupted.sql", storePath());
  const std::string journal = container.file(std::string("Metadata/db/rebuild-") + kService + ".plist");
  writeText(journal, placed("interrupted.plist"));
  expectTreeIsKnown();
  EXPECT_EQ(recordOf("Files/new"), (Dictionary{{"path", "Files/new"},
                                               {"fileURL", document("upload+Files/new")},
                                               {"date", Date::fromSeconds(1'795'341'600)},
                                               {"numberOfRetries", 1},
                                               {"cancelled", false}}));
  EXPECT_FALSE(fs::exists(journal));
}

TEST_F(Migration, TheTransferAgentFindsItsTasksAndOutcomes) {
  makeStore("transfers.sql", "Transfers/transfers.sqlite");
  auto folder = TransferFolder::open(container.path());
  ASSERT_TRUE(folder);
  auto store = TransferStore::open(*folder, Clock::system());
  ASSERT_TRUE(store) << store.error().description();
  auto tasks = (*store)->tasks(kSession, 0, 10);
  ASSERT_TRUE(tasks);
  ASSERT_EQ(tasks->size(), 3U);
  const TransferTask& waiting = (*tasks)[1];
  EXPECT_EQ(waiting.identifier, static_cast<std::uint64_t>(kTask));
  EXPECT_EQ(waiting.state, TransferState::Waiting);
  EXPECT_EQ(waiting.request.url.absoluteString(), "https://127.0.0.1:10548/fv/v1/write");
  EXPECT_EQ(waiting.request.headers.value("X-Title"), "Files/edited");
  EXPECT_EQ(waiting.transfer.path, "Files/edited");
  EXPECT_EQ(waiting.transfer.generationIdentifier, Data("\v", 1));
  EXPECT_EQ(waiting.transfer.pinnedCertificate, Data("\x30\x82", 2));
  EXPECT_EQ(waiting.cookie, Secret("k=1"));
  EXPECT_EQ((*tasks)[2].state, TransferState::Suspended);
  EXPECT_THAT(*(*store)->ended(kSession), ElementsAre(static_cast<std::uint64_t>(kTask - 2)));
  auto outcome = (*store)->outcome(static_cast<std::uint64_t>(kTask - 2));
  ASSERT_TRUE(outcome && *outcome);
  EXPECT_EQ((*outcome)->response->statusCode(), 409);
  EXPECT_EQ((*outcome)->body, bytes("It is newer."));
  EXPECT_THAT(*(*store)->relaunchCommand(kSession), ElementsAre("/usr/bin/florvane"));
  EXPECT_EQ((*store)->waiting()->size(), 1U);
}

}  // namespace
}  // namespace florvane::test
