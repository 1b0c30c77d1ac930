#include "Client/Client/DCUploadManager.h"
#include "common/FVFMetadataUtils.h"
#include "platform/BackgroundURLSession.h"
#include "tests/client/NotificationCounter.h"
#include "tests/client/UploadClient.h"

#include <atomic>
#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;

std::size_t filesIn(const std::string& folder) {
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(folder)) files += entry.is_regular_file() ? 1 : 0;
  return files;
}

TEST(Upload, ARefusalThatPassesCountsAndTheFirstHandlerHearsTheFirstFailure) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  std::atomic<int> refusals = 0;
  Signal mayAnswer;
  faulty.setFault("write", [&](const auto&) -> std::optional<std::string> {
    mayAnswer.wait();
    return ++refusals <= 2 ? std::optional(FaultyServer::refusal(500, "Broken.")) : std::nullopt;
  });
  ASSERT_FALSE(client.write("Files/a", "bytes").error);
  std::promise<std::optional<Error>> first, second;
  client.manager->startUploadingItemAtPath("Files/a", [&](const auto&, const auto& error) { first.set_value(error); });
  client.manager->startUploadingItemAtPath("Files/a", [&](const auto&, const auto& error) { second.set_value(error); });
  client.onQueue([] {});
  mayAnswer.raise();
  auto error = first.get_future().get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 500);
  EXPECT_TRUE(second.get_future().get());
  ASSERT_TRUE(client.sent("Files/a"));
  EXPECT_EQ(faulty.requestsOf("write"), 3U);
  EXPECT_EQ(client.countOf("failed with error Broken.. Retry #1"), 1U);
  EXPECT_EQ(client.countOf("Retry #2"), 1U);
  EXPECT_EQ(textOf(server.files() + "/a"), "bytes");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, SomebodyElsesFileOfTheNameIsAConflictInWhichNobodyLoses) {
  TestServer server;
  writeText(server.files() + "/both", "base");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  // Nothing tells of changes on the server.
  faulty.setFault("watch", [](const auto&) { return FaultyServer::refusal(500, ""); });
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files");
  EXPECT_EQ(client.text(client.read("Files/both")), "base");
  // Behind this client's back, after its last listing.
  writeText(server.files() + "/both", "theirs, longer");
  auto conflictOf = [&](const std::string& path, const std::string& mine) {
    ASSERT_FALSE(client.write(path, mine).error);
    delegate->waitFor("failed " + path + " 3");
    auto upload = client.record(path);
    ASSERT_TRUE(upload);
    EXPECT_TRUE(upload->isConflict());
    EXPECT_FALSE(upload->taskIdentifier());
    EXPECT_EQ(client.text(client.read(path)), mine);
  };
  conflictOf("Files/both", "mine");
  EXPECT_EQ(textOf(server.files() + "/both"), "theirs, longer");
  writeText(server.files() + "/name", "theirs");
  conflictOf("Files/name", "my own words");
  EXPECT_EQ(textOf(server.files() + "/name"), "theirs");
  const std::size_t sentBefore = faulty.requestsOf("replace") + faulty.requestsOf("write");
  // The server's versions are fetched beside.
  client.refresh("Files");
  for (const auto& [path, theirs] : {std::pair("Files/both", "theirs, longer"), std::pair("Files/name", "theirs")}) {
    auto upload = client.record(path);
    for (int turn = 0; turn < 1000 && !upload->conflictingVersionURL(); ++turn) client.refresh("Files");
    ASSERT_TRUE(upload->conflictingVersionURL()) << path;
    EXPECT_EQ(textOf(upload->conflictingVersionURL()->path()), theirs);
  }
  // Nothing is sent until somebody decides.
  client.manager->restartUploads();
  client.onQueue([] {});
  EXPECT_EQ(faulty.requestsOf("replace") + faulty.requestsOf("write"), sentBefore);
  const std::string beside = client.record("Files/both")->conflictingVersionURL()->path();
  (void)client.upload("Files/both");
  EXPECT_TRUE(client.sent("Files/both"));
  EXPECT_EQ(textOf(server.files() + "/both"), "mine");
  EXPECT_FALSE(fs::exists(beside));
  ASSERT_FALSE(client.write("Files/name", "written over it").error);
  EXPECT_TRUE(client.sent("Files/name"));
  EXPECT_EQ(textOf(server.files() + "/name"), "written over it");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, AConflictWithAnEarlierAttemptOfOneOwnIsNone) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  Signal arrived, mayGo;
  std::atomic<int> writes = 0;
  // The first attempt is stored, but its answer is held until it has been replaced by a newer write.
  faulty.setFault("write", [&](const auto&) -> std::optional<std::string> {
    if (++writes > 1) return std::nullopt;
    arrived.raise();
    return std::nullopt;
  });
  ASSERT_FALSE(client.write("Files/a", "first").error);
  ASSERT_TRUE(arrived.wait());
  ASSERT_FALSE(client.write("Files/a", "second, and newer").error);
  ASSERT_TRUE(client.sent("Files/a"));
  EXPECT_EQ(textOf(server.files() + "/a"), "second, and newer");
  EXPECT_EQ(filesIn(server.files()), 1U);
  EXPECT_EQ(client.text(client.read("Files/a")), "second, and newer");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, AFileThatIsRewrittenWhileItIsSentEndsWithTheNewerBytes) {
  TestServer server;
  writeText(server.files() + "/a", "base");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  client.read("Files/a");
  for (int round = 0; round < 5; ++round) {
    Signal arrived, mayGo;
    std::atomic<bool> isFirst = true;
    faulty.setFault("replace", [&](const auto&) -> std::optional<std::string> {
      if (!isFirst.exchange(false)) return std::nullopt;
      arrived.raise();
      mayGo.wait();
      return std::nullopt;
    });
    ASSERT_FALSE(client.write("Files/a", "older").error);
    ASSERT_TRUE(arrived.wait());
    const std::string newer = "newer " + std::to_string(round);
    if (round % 2 == 0) {
      ASSERT_FALSE(client.write("Files/a", newer).error);
    } else {
      // In place, without a word; whoever starts the upload finds it.
      writeText(client.read("Files/a").value->path(), newer);
    }
    mayGo.raise();
    ASSERT_TRUE(client.sent("Files/a")) << client.record("Files/a")->error().value_or("");
    (void)client.upload("Files/a");
    ASSERT_TRUE(client.sent("Files/a"));
    EXPECT_EQ(textOf(server.files() + "/a"), newer);
    EXPECT_EQ(client.text(client.read("Files/a")), newer);
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, ALoginThatTheServerHasForgottenIsRenewed) {
  TestServer server;
  UploadClient client(server);
  ASSERT_TRUE(server->revokeAllSessions());
  ASSERT_FALSE(client.write("Files/a", "bytes").error);
  ASSERT_TRUE(client.sent("Files/a"));
  EXPECT_EQ(textOf(server.files() + "/a"), "bytes");
  EXPECT_EQ(client.countOf("Got an authentication error. Retrying upload of file at"), 1U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, AServerThatRefusesEveryLoginIsNotHammered) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  // Signing in works each time, and the upload is refused all the same.
  constexpr std::size_t kRefusals = 6;
  std::atomic<std::size_t> writes = 0;
  faulty.setFault("write", [&](const auto&) -> std::optional<std::string> {
    return ++writes <= kRefusals ? std::optional(FaultyServer::refusal(401, "")) : std::nullopt;
  });
  auto untilPausesAre = [&](std::size_t pauses) {
    while (client.countOf("Uploads wait before they sign in again") < pauses) client.onQueue([] {});
    client.onQueue([] {});  // the pause has begun
  };
  ASSERT_FALSE(client.write("Files/a", "bytes").error);
  // The first refused login may have been an old one: the next is asked for at once.
  untilPausesAre(1);
  EXPECT_EQ(writes, 2U);
  const std::size_t messages = faulty.requestsOf("/sasl");
  EXPECT_GT(messages, 0U);
  Duration pause = seconds(1);
  for (std::size_t attempts = 3; attempts <= kRefusals + 1; ++attempts) {
    EXPECT_EQ(client.record("Files/a")->numberOfRetries().value_or(0), 0);
    // Nobody signs in before the pause is over, which is up to a quarter shorter.
    client.clock.advance(pause * 3 / 4 - Duration(1));
    client.onQueue([] {});
    EXPECT_EQ(faulty.requestsOf("/sasl"), (attempts - 2) * messages);
    EXPECT_EQ(writes, attempts - 1);
    client.clock.advance(pause / 4 + Duration(1));
    if (attempts <= kRefusals) {
      untilPausesAre(attempts - 1);
    } else {
      while (client.record("Files/a")) client.onQueue([] {});
    }
    EXPECT_EQ(writes, attempts);
    EXPECT_EQ(faulty.requestsOf("/sasl"), (attempts - 1) * messages);
    pause *= 2;
  }
  EXPECT_EQ(textOf(server.files() + "/a"), "bytes");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, ManyIntoOneFolderAllArriveAndTheListingHasThem) {
  TestServer server;
  UploadClient client(server);
  std::vector<std::string> paths;
  for (int i = 0; i < 60; ++i) {
    paths.push_back("Files/many-" + std::to_string(i));
    ASSERT_FALSE(client.write(paths.back(), "bytes " + std::to_string(i)).error);
  }
  for (const auto& path : paths) ASSERT_TRUE(client.sent(path)) << path;
  EXPECT_FALSE(client.manager->hasPendingUploads());
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(textOf(server.files() + "/many-" + std::to_string(i)), "bytes " + std::to_string(i));
    EXPECT_EQ(client.text(client.read(paths[static_cast<std::size_t>(i)])), "bytes " + std::to_string(i));
  }
  EXPECT_EQ(client.names(client.list("Files")).size(), 60U);
  EXPECT_EQ(filesIn(server.files()), 60U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, ARecordWithoutTaskAndATaskWithoutRecordAreTakenUpByTheNextStart) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  // Killed between the write and the task.
  client.queueWithoutStart("Files/queued", "queued bytes");
  // A record whose task nobody knows: its connection was lost.
  const URL orphan = client.queueWithoutStart("Files/orphan", "orphan bytes");
  ASSERT_TRUE(client.database().saveUploadFileURL(orphan, std::nullopt, 123456, "Files/orphan"));
  client.record("Files/orphan")->setNumberOfRetries(3);
  ASSERT_TRUE(client.database().save());
  // Killed when the last attempt had been sent, and nobody had said yet that it failed.
  client.queueWithoutStart("Files/last", "last bytes");
  client.record("Files/last")->setNumberOfRetries(2);
  client.record("Files/last")->addAttempt({10, Date::now(), Data::fromString("generation")});
  // One whose file is gone.
  ASSERT_TRUE(client.database().saveUploadFileURL(URL::fileURL(client.container.file("gone")), "Files/gone"));
  client.manager->restartUploads();
  for (const char* path : {"Files/queued", "Files/orphan", "Files/last", "Files/gone"}) {
    for (int turn = 0; turn < 1000 && client.record(path); ++turn) client.refresh("Files");
    EXPECT_FALSE(client.record(path)) << path;
  }
  EXPECT_EQ(textOf(server.files() + "/queued"), "queued bytes");
  EXPECT_EQ(textOf(server.files() + "/orphan"), "orphan bytes");
  EXPECT_EQ(textOf(server.files() + "/last"), "last bytes");
  EXPECT_EQ(filesIn(server.files()), 3U);
  EXPECT_EQ(faulty.requestsOf("write"), 3U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, WhatIsOnItsWayDuringARebuildIsSentOnce) {
  TestServer server;
  writeText(server.files() + "/old", "old");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  client.listFresh("Files");
  Signal mayAnswer;
  for (const char* command : {"write", "replace"}) {
    faulty.setFault(command, [&](const auto&) -> std::optional<std::string> {
      mayAnswer.wait();
      return std::nullopt;
    });
  }
  ASSERT_FALSE(client.write("Files/new", "new bytes").error);
  ASSERT_FALSE(client.write("Files/old", "newer bytes").error);
  std::promise<std::optional<Error>> joined;
  client.manager->startUploadingItemAtPath("Files/new",
                                           [&](const auto&, const auto& error) { joined.set_value(error); });
  std::promise<void> rebuilt;
  client.manager->rebuildDatabaseWithCompletionHandler([&] { rebuilt.set_value(); });
  rebuilt.get_future().wait();
  EXPECT_FALSE(client.manager->rebuildError());
  for (const char* path : {"Files/new", "Files/old"}) {
    ASSERT_TRUE(client.record(path)) << path;
    EXPECT_TRUE(client.record(path)->taskIdentifier()) << path;
  }
  mayAnswer.raise();
  EXPECT_FALSE(joined.get_future().get());
  for (const char* path : {"Files/new", "Files/old"}) {
    for (int turn = 0; turn < 1000 && client.record(path); ++turn) client.refresh("Files");
    EXPECT_FALSE(client.record(path)) << path;
  }
  EXPECT_EQ(faulty.requestsOf("write"), 1U);
  EXPECT_EQ(faulty.requestsOf("replace"), 1U);
  EXPECT_EQ(textOf(server.files() + "/new"), "new bytes");
  EXPECT_EQ(textOf(server.files() + "/old"), "newer bytes");
  EXPECT_EQ(client.text(client.read("Files/new")), "new bytes");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Upload, ASourceThatVanishedTakesItsRecordAlong) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  fs::remove(client.queueWithoutStart("Files/vanished", "x").path());
  auto answer = client.upload("Files/vanished");
  EXPECT_FALSE(client.record("Files/vanished"));
  EXPECT_EQ(faulty.requestsOf("write"), 0U);
  EXPECT_EQ(failures.count(), 0);
}

TEST(Upload, WithoutALoginAndWithoutAServerTheWriteIsAnsweredAndWaits) {
  TestServer server;
  writeText(server.files() + "/edited", "as it was");
  UploadClient client(server);
  const auto edited = client.read("Files/edited");
  ASSERT_TRUE(edited.value);
  server.stop();
  DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
  auto answer = client.write("Files/a", "written signed out");
  ASSERT_FALSE(answer.error);
  auto upload = client.record("Files/a");
  ASSERT_TRUE(upload);
  EXPECT_FALSE(upload->taskIdentifier());
  EXPECT_EQ(upload->numberOfRetries().value_or(0), 0);
  writeText(edited.value->path(), "edited in its place");
  std::promise<std::optional<Error>> sent;
  client.manager->startUploadingItemAtPath("Files/edited",
                                           [&](const auto&, const auto& error) { sent.set_value(error); });
  EXPECT_TRUE(client.record("Files/edited"));
  server.restart();
  for (int turn = 0; turn < 2000 && (client.record("Files/a") || client.record("Files/edited")); ++turn) {
    client.clock.advance(seconds(61));
    client.onQueue([] {});
    client.refresh("Files");
  }
  EXPECT_FALSE(client.record("Files/a"));
  EXPECT_EQ(textOf(server.files() + "/a"), "written signed out");
  EXPECT_FALSE(sent.get_future().get());
  EXPECT_EQ(textOf(server.files() + "/edited"), "edited in its place");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test
