#include "tests/client/ClockedAgent.h"
#include "tests/client/UploadClient.h"
#include "tests/support/SmallDisk.h"

#include <cstdlib>
#include <filesystem>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kDiskBytes = std::size_t{48} << 20;

// A container on a disk that can be filled; server and sources have the machine's own.
class UploadDiskFull : public testing::Test {
 protected:
  void SetUp() override {
    if (disk.obstacle()) GTEST_SKIP() << "This machine lets nobody have a disk of its own: " << *disk.obstacle();
    server = std::make_unique<TestServer>();
    writeText(server->files() + "/old", "old");
    faulty = std::make_unique<FaultyServer>(*server);
    sources = std::make_unique<TemporaryDirectory>();
    setenv("TMPDIR", place.path().c_str(), 1);
    client = std::make_unique<UploadClient>(*server, *faulty);
    client->listFresh("Inbox");
    agent = std::make_unique<ClockedAgent>(*client);
    // What is made only once is there before anything is measured.
    ASSERT_FALSE(write("Files/first", "first").error);
    untilSent("Files/first");
    EXPECT_EQ(client->text(client->read("Files/old")), "old");
  }
  void TearDown() override {
    if (!client) return;
    disk.release();
    agent.reset();
    client.reset();
  }

  Answer<URL> write(const std::string& path, const std::string& text) {
    const std::string source = sources->file("source");
    writeText(source, text);
    return client->writeFrom(path, source);
  }
  // Everybody has time to try again, and no request that is under way takes too long by the clock.
  void someTimePasses() {
    for (int turn = 0; turn < 2; ++turn) {
      client->clock.advance(seconds(5));
      client->onQueue([] {});
      (void)client->refresh("Files");
    }
  }
  // As somebody does who looks after what was given up.
  void untilSent(const std::string& path) {
    while (auto upload = client->record(path)) {
      const bool hasGivenUp = upload->error() && upload->numberOfRetries().value_or(0) > DCFileUploadMaxNumberOfRetries;
      if (hasGivenUp) (void)client->upload(path);
      client->clock.advance(std::chrono::milliseconds(200));
      client->onQueue([] {});
      (void)client->refresh("");
    }
  }
  std::string onServer(const std::string& name) const { return textOf(server->files() + "/" + name); }
  void expectNoLitter() {
    for (const auto& each : fs::recursive_directory_iterator(client->container.path())) {
      const std::string folder = each.path().parent_path().filename();
      EXPECT_FALSE(each.is_regular_file() && (folder == "tmp" || folder == "Answers")) << each.path();
    }
    EXPECT_FALSE(fs::exists(client->container.file("Recovered")));
    // What cannot be noted of an answer is found to be missing.
    EXPECT_THAT(client->assertions({"[remoteMetadata isEqualToDictionary:file.remoteMetadata]"}), IsEmpty());
  }

  const TemporaryDirectory place;
  SmallDisk disk{place.path(), kDiskBytes};
  std::unique_ptr<TestServer> server;
  std::unique_ptr<FaultyServer> faulty;
  std::unique_ptr<TemporaryDirectory> sources;
  std::unique_ptr<UploadClient> client;
  std::unique_ptr<ClockedAgent> agent;
};

TEST_F(UploadDiskFull, AWriteFailsWholeOrSucceedsWholeWhateverIsLeft) {
  const std::string filling(3 * kPage, 'x');
  std::string old = "old";
  int failed = 0, later = 0, sent = 0;
  for (std::size_t pages = 0; pages < 48; ++pages) {
    for (const bool isNew : {true, false}) {
      const std::string name = isNew ? "new-" + std::to_string(pages) : "old", path = "Files/" + name;
      SCOPED_TRACE(path + " with " + std::to_string(pages) + " pages");
      const std::string text = filling + std::to_string(pages), before = isNew ? "(none)" : old;
      disk.leave(pages * kPage);
      const auto answer = write(path, text);
      if (answer.error) {
        ++failed;
        EXPECT_THAT(answer.error->localizedDescription(), AnyOf(HasSubstr("No space left"), HasSubstr("disk is full")));
        EXPECT_FALSE(client->record(path));
      }
      someTimePasses();
      EXPECT_EQ(client->text(client->read(path)), answer.error ? before : text);
      EXPECT_TRUE(!answer.error || onServer(name) == before);
      disk.release();
      if (answer.error) {
        // As it was, and written when there is room again.
        EXPECT_EQ(client->text(client->read(path)), before);
        ASSERT_FALSE(write(path, text).error);
      } else {
        ++(client->record(path) ? later : sent);
      }
      untilSent(path);
      EXPECT_EQ(onServer(name), text);
      EXPECT_EQ(client->text(client->read(path)), text);
      if (!isNew) old = text;
    }
  }
  // Each of the three has been seen: copy or record, what comes after them, and nothing.
  EXPECT_GT(failed, 0);
  EXPECT_GT(later, 0);
  EXPECT_GT(sent, 0);
  expectNoLitter();
}

TEST_F(UploadDiskFull, AnAnswerThatCannotBeKeptIsNoFailureAndNothingIsSentTwice) {
  // So many that the listing which comes as an answer has a file of its own.
  for (int i = 0; i < 400; ++i) writeText(server->files() + "/neighbour-" + std::to_string(i), "x");
  client->clock.advance(seconds(60));
  client->listFresh("Files");
  int number = 0;
  for (const std::size_t pages : {0, 4, 8, 16, 24, 32, 48, 64, 96, 128}) {
    for (const auto& [folder, command] :
         {std::pair("Files", "write"), std::pair("Files", "replace"), std::pair("Inbox", "write")}) {
      const std::string name = std::string(command) == "replace" ? "old" : "new-" + std::to_string(number);
      const std::string path = std::string(folder) + "/" + name, text = "text " + std::to_string(number++);
      SCOPED_TRACE(path + " with " + std::to_string(pages) + " pages");
      const std::size_t before = faulty->requestsOf(command);
      Signal arrived;
      faulty->setFault(command, [&](const auto&) -> std::optional<std::string> {
        disk.leave(pages * kPage);
        arrived.raise();
        return std::nullopt;
      });
      ASSERT_FALSE(write(path, text).error);
      ASSERT_TRUE(arrived.wait());
      someTimePasses();
      disk.release();
      faulty->setFault(command, {});
      untilSent(path);
      EXPECT_EQ(faulty->requestsOf(command) - before, 1U);
      EXPECT_EQ(textOf((std::string(folder) == "Files" ? server->files() : server->inbox()) + "/" + name), text);
    }
  }
  expectNoLitter();
}

}  // namespace
}  // namespace florvane::test
