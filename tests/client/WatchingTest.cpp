#include "platform/Exceptions.h"
#include "tests/client/WatchFixture.h"

#include <atomic>

namespace florvane::test {
namespace {

using Watching = WatchFixture;

constexpr char kStarted[] = "-[DCDocumentManager _startFetchingUpdates] ()";

void enableTrace() {
  if (!DCPreferences::preferences()->setTraceLogsEnabled(true)) throw std::runtime_error("no preferences");
  _DCConfigureLoggingFromLogTracePreference();
}

TEST_F(Watching, KeepsOneRegistrationAPathAndTheRequestWhileNothingChanges) {
  list();
  enableTrace();
  auto delegate = watch("Files");
  manager()->setDelegate(delegate, queue, "Files");
  EXPECT_EQ(log.countOf(kStarted), 1U) << "the same registration again";
  EXPECT_EQ(manager()->delegateForFilterPath("Files"), delegate);
  manager()->setDelegate(delegate, queue, "Files/");
  EXPECT_EQ(log.countOf(kStarted), 1U) << "the same document under another spelling";

  EXPECT_THROW(manager()->setDelegate(nullptr, queue, "Files"), InvalidArgumentException);
  EXPECT_THROW(manager()->setDelegate(delegate, nullptr, "Files"), InvalidArgumentException);
  manager()->setDelegate(delegate, queue, "Nowhere/at all");
  manager()->setDelegate(delegate, queue, "../up");
  EXPECT_FALSE(manager()->delegateForFilterPath("Nowhere/at all"));
  EXPECT_FALSE(manager()->delegateForFilterPath("../up"));
  EXPECT_FALSE(manager()->delegateForFilterPath(std::nullopt));

  auto another = watch("Files");
  EXPECT_EQ(manager()->delegateForFilterPath("Files"), another) << "the later one takes the place";
  manager()->removeDelegate(delegate);
  EXPECT_EQ(manager()->delegateForFilterPath("Files/"), delegate) << "under a spelling that is not the item's own";
  EXPECT_EQ(manager()->delegateForFilterPath("Files"), another) << "somebody else's";
  settle();
  EXPECT_TRUE(isFetching());
  manager()->removeDelegateForFilterPath("Files/");
  manager()->removeDelegate(another);
  EXPECT_FALSE(isFetching()) << "nothing is registered any more";
}

TEST_F(Watching, TellsOfEditsThatComeSoonerThanAListingGrowsOld) {
  list();
  auto folder = watch("Files"), file = watch("Files/notes");
  // The clock stands still: for every rule of age the listing was made just now.
  for (std::size_t size : {22U, 333U, 4444U}) {
    writeText(server.files() + "/notes", std::string(size, 'x'));
    EXPECT_TRUE(folder->sees([&](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == size; }));
    untilTrue([&] { return fileAt("Files/notes")->contents().value_or(Data()).size() == size; });
    EXPECT_TRUE(file->hears("file Files/notes"));
    file->forget();
  }
}

TEST_F(Watching, DoesNotWatchForADelegateThatIsGone) {
  list();
  auto kept = watch("");
  watch("Files");
  // The destroyed delegate's registration stays, and is passed over when the set is next made.
  kept = watch("");
  log.waitFor("Unable to watch item with path 'Files': Missing delegate");
  EXPECT_FALSE(manager()->delegateForFilterPath("Files"));
  settle();
  EXPECT_TRUE(isFetching());
}

TEST_F(Watching, ComesBackByItselfAndFindsWhatChangedMeanwhile) {
  list();
  enableTrace();
  auto folder = watch("Files");
  settle();
  ASSERT_TRUE(isFetching());
  const std::size_t started = log.countOf(kStarted);
  server.stop();
  untilPausesAre(1);
  writeText(server.files() + "/notes", "while nobody looked");
  // A pause of 1 s and then one of 2 s, each up to a quarter shorter.
  clock.advance(std::chrono::milliseconds(700));
  settle();
  EXPECT_EQ(log.countOf(kStarted), started);
  clock.advance(std::chrono::milliseconds(350));
  untilPausesAre(2);
  EXPECT_EQ(log.countOf(kStarted), started + 1);
  clock.advance(std::chrono::milliseconds(1400));
  settle();
  EXPECT_EQ(log.countOf(kStarted), started + 1);
  server.restart();
  clock.advance(std::chrono::milliseconds(650));
  EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 19; }));
}

TEST_F(Watching, ComesBackAtOnceWhenTheServerIsKnownToAnswer) {
  list();
  auto folder = watch("Files");
  settle();
  ASSERT_TRUE(isFetching());
  server.stop();
  untilPausesAre(1);
  untilTrue([&] { return !manager()->isConnected(); });
  writeText(server.files() + "/notes", "while nobody looked");
  server.restart();
  ASSERT_FALSE(refresh(""));
  EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 19; }));
  EXPECT_TRUE(manager()->isConnected());
}

TEST_F(Watching, SignsInAgainAndSaysWhenItCannot) {
  list();
  auto folder = watch("Files");
  settle();
  ASSERT_TRUE(isFetching());
  ASSERT_TRUE(server->revokeAllSessions());
  writeText(server.files() + "/notes", "22");
  EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 2; }));

  // No password any more: the delegate is told, and a login that somebody else stores brings the watch back.
  const std::size_t before = pauses();
  server.stop();
  untilPausesAre(before + 1);
  ASSERT_TRUE((*AccountStore::shared())->credentials().removePassword(service()->uniqueIdentifier()));
  ASSERT_TRUE(DCPreferences::preferences()->clearAuthCookieAndTrustedCertDataForService(service()));
  server.restart();
  ASSERT_TRUE(server->revokeAllSessions());
  clock.advance(std::chrono::seconds(1));
  EXPECT_TRUE(folder->hears(std::string("failed Files ") + HTTPSASLErrorDomain));
  writeText(server.files() + "/notes", "333");
  ASSERT_TRUE(DCPreferences::preferences()->setAuthCookie(server.makeCookie(), server->certificateDER(), service()));
  EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 3; }));
}

TEST_F(Watching, FindsTheItemThatTookTheWatchedOnesPlace) {
  list();
  auto file = watch("Files/notes");
  settle();
  ASSERT_TRUE(isFetching());
  std::filesystem::remove(server.files() + "/notes");
  untilTrue([&] {
    settle();
    return !DCCachedItemManager::fileResourceTypeAtRelativePath(
        DCRelativePath::relativePathWithString("Files/notes", service()));
  });
  file->forget();
  writeText(server.files() + "/notes", "another");
  EXPECT_TRUE(file->hears("file Files/notes"));
  file->forget();
  // And goes on with it.
  writeText(server.files() + "/notes", "another one");
  EXPECT_TRUE(file->hears("file Files/notes"));
  untilTrue([&] { return fileAt("Files/notes")->contents() == Data::fromString("another one"); });
}

TEST_F(Watching, SurvivesRegistrationsFromManyThreads) {
  list();
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < 50; ++i) {
        auto mine = watch(thread % 2 ? "Files" : "Files/notes");
        if (thread < 2) manager()->removeDelegate(mine);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  auto folder = watch("Files");
  writeText(server.files() + "/notes", "22");
  EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "notes") == 2; }));
  manager()->removeDelegateForFilterPath("Files");
  manager()->removeDelegateForFilterPath("Files/notes");
  settle();
  EXPECT_FALSE(isFetching()) << "an opening of the past was left open";
}

}  // namespace
}  // namespace florvane::test
