#include "Client/Client/DCError.h"
#include "platform/ResourceValues.h"
#include "tests/client/DocumentClient.h"
#include "tests/support/TestServer.h"

#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(DocumentManagerListing, AnswersFromTheCacheFirstAndThenAsTheServerSays) {
  TestServer server;
  writeText(server.files() + "/b.txt", "b");
  writeText(server.files() + "/a.txt", "aa");
  std::filesystem::create_directory(server.files() + "/C");
  DocumentClient client(server.port());

  auto first = client.list("");
  EXPECT_EQ(first.state, 2);
  EXPECT_FALSE(first.error);
  EXPECT_THAT(client.names(first), IsEmpty());
  client.settle("");
  EXPECT_THAT(client.names(client.list("")), ElementsAre("Files", "Inbox", "Library"));
  // Nobody knows of what is below a directory that was never listed.
  EXPECT_TRUE(client.attributes("Files/a.txt").failedWith(11));

  auto fresh = client.listFresh("Files");
  EXPECT_EQ(fresh.state, 4);
  EXPECT_THAT(client.names(fresh), ElementsAre("C", "a.txt", "b.txt"));
  auto entry = client.entry(fresh, "a.txt");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->integer(ResourceFileSizeKey), 2);
  EXPECT_EQ(client.list("Files").state, 4);
  EXPECT_EQ(client.attributes("Files").value->integer(DCFileDirectoryItemsCountKey), 3);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, StaysCurrentForASecondAndIsRefreshedAfterIt) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");

  client.clock.advance(seconds(1));
  EXPECT_EQ(client.list("Files").state, 4);
  client.clock.advance(milliseconds(1));
  client.clock.advance(seconds(1));
  writeText(server.files() + "/new.txt", "n");
  auto stale = client.list("Files");
  EXPECT_EQ(stale.state, 1);
  EXPECT_THAT(client.names(stale), ElementsAre("a.txt"));
  client.settle("Files");
  auto refreshed = client.list("Files");
  EXPECT_EQ(refreshed.state, 4);
  EXPECT_THAT(client.names(refreshed), ElementsAre("a.txt", "new.txt"));

  // A clock that was set back says nothing of how long ago something was.
  const auto directory =
      DCCachedItemManager::directoryAtRelativePath(DCRelativePath::relativePathWithString("Files", client.service));
  directory->setLastDownloadDate(client.clock.now() + seconds(60));
  EXPECT_EQ(client.list("Files").state, 1);
  client.settle("Files");
  EXPECT_EQ(directory->lastDownloadDate(), client.clock.now());
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, AnUnchangedListingChangesNothingButItsDate) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files/a.txt");
  client.clock.advance(seconds(5));
  auto again = client.listFresh("Files");
  EXPECT_EQ(again.state, 4);
  EXPECT_THAT(delegate->take(), IsEmpty());
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, WhatWasSeenBeforeIsThereWithoutTheServer) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  server.stop();
  client.clock.advance(seconds(20));

  auto listing = client.list("Files");
  EXPECT_EQ(listing.state, 1);
  EXPECT_THAT(client.names(listing), ElementsAre("a.txt"));
  auto error = client.refresh("Files");
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->is(DCErrorDomain, 2));
  ASSERT_NE(error->underlyingError(), nullptr);
  EXPECT_EQ(error->underlyingError()->domain(), URLErrorDomain);
  auto insisted = client.listFresh("Files");
  EXPECT_EQ(insisted.state, 2);
  EXPECT_TRUE(insisted.failedWith(2));
  // The wish was that call's alone.
  EXPECT_EQ(client.list("Files").state, 1);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, TheWishForAFreshListingIsNotSpentOnACurrentOne) {
  TestServer server;
  DocumentClient client(server.port());
  client.listFresh("");
  client.manager->_synchronousNextContentsOfDirectory();
  EXPECT_EQ(client.list("").state, 4);
  client.clock.advance(seconds(5));
  writeText(server.files() + "/late.txt", "l");
  EXPECT_EQ(client.list("").state, 4);
}

TEST(DocumentManagerListing, RefusesWhatIsNoDirectoryNoItemOrNoPath) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");

  auto file = client.list("Files/a.txt");
  EXPECT_EQ(file.state, 2);
  ASSERT_TRUE(file.failedWith(6));
  EXPECT_EQ(file.error->userInfo().string(ResourceFileResourceTypeKey), ResourceTypeRegular);
  EXPECT_EQ(file.error->userInfo().string(ResourcePathKey), "Files/a.txt");
  auto directory = client.read("Files");
  ASSERT_TRUE(directory.failedWith(6));
  EXPECT_EQ(directory.error->userInfo().string(ResourceFileResourceTypeKey), ResourceTypeDirectory);

  auto missing = client.list("Files/none/deeper");
  ASSERT_TRUE(missing.failedWith(11));
  EXPECT_EQ(missing.error->userInfo().string(DCFileRelativePathKey), "Files/none/deeper");
  auto below = client.attributes("Files/a.txt/x");
  ASSERT_TRUE(below.failedWith(6));
  EXPECT_EQ(below.error->userInfo().string(ResourcePathKey), "Files/a.txt");
  for (const char* illegal : {"/Files", "Files/../Files", "./x"}) {
    EXPECT_TRUE(client.list(illegal).failedWith(1)) << illegal;
    EXPECT_FALSE(client.manager->fileURLOfItemAtPath(illegal));
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, ManyAskersShareOneTransferAndHearInTheirOrder) {
  TestServer server;
  writeText(server.files() + "/a.txt", "contents");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files/a.txt");

  std::vector<int> order;
  std::promise<void> done;
  for (int asker = 0; asker < 5; ++asker) {
    client.manager->contentsOfFileAtPath("Files/a.txt", [&, asker](auto state, const auto& url, const auto& error) {
      EXPECT_EQ(state, 4);
      EXPECT_TRUE(url);
      EXPECT_FALSE(error);
      order.push_back(asker);
      if (order.size() == 5) done.set_value();
    });
  }
  done.get_future().wait();
  client.queue->sync([] {});
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4));
  auto events = delegate->take();
  EXPECT_EQ(std::count(events.begin(), events.end(), "started Files/a.txt"), 1);
  EXPECT_EQ(std::count(events.begin(), events.end(), "file Files/a.txt"), 1);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerListing, SignsInAgainWhenTheServerHasForgottenTheLogin) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  for (int askers : {1, 4}) {
    ASSERT_TRUE(server->revokeAllSessions());
    client.clock.advance(seconds(5));
    std::promise<void> done;
    int answers = 0;
    for (int asker = 0; asker < askers; ++asker) {
      client.manager->refreshItemAtPath("Files", [&, askers](const std::optional<Error>& error) {
        EXPECT_FALSE(error) << error->description();
        if (++answers == askers) done.set_value();
      });
    }
    done.get_future().wait();
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test
