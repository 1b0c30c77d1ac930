#include "platform/FileSystem.h"
#include "tests/client/DocumentClient.h"
#include "tests/support/Process.h"
#include "tests/support/TestServer.h"

#include <algorithm>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

// What another process says of the container.
std::string peer(const std::string& command, const std::string& path) {
  auto result = runProcess({fs::read_symlink("/proc/self/exe").parent_path() / "document_peer", command, path});
  return result.standardOutput;
}

TEST(DocumentManagerProcesses, TheNextProcessHasWhatThisOneSawAlsoOffline) {
  TestServer server;
  writeText(server.files() + "/a.txt", "kept");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  client.read("Files/a.txt");
  EXPECT_EQ(peer("ls", "Files"), "4 a.txt");
  server.stop();
  EXPECT_THAT(peer("seen", "Files"), testing::EndsWith(" a.txt"));
  EXPECT_THAT(peer("cat", "Files/a.txt"), testing::EndsWith(" kept"));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerProcesses, AListingThatAnotherProcessBroughtIsTakenInWithItsMoves) {
  TestServer server;
  for (const char* name : {"a", "b", "gone"}) writeText(server.files() + "/" + name, std::string("of ").append(name));
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  for (const char* name : {"a", "b", "gone"}) client.read(std::string("Files/").append(name));
  fs::rename(server.files() + "/a", server.files() + "/x");
  fs::rename(server.files() + "/b", server.files() + "/a");
  fs::rename(server.files() + "/x", server.files() + "/b");
  fs::remove(server.files() + "/gone");
  ASSERT_EQ(peer("ls", "Files"), "4 a b");
  DCDatabase::databaseForService(client.service)->refresh();
  // It is the very moment at which the other process looked, by the machine's clock.
  const auto directory =
      DCCachedItemManager::directoryAtRelativePath(DCRelativePath::relativePathWithString("Files", client.service));
  ASSERT_TRUE(directory && directory->lastDownloadDate());
  ASSERT_GT(*directory->lastDownloadDate(), client.clock.now());
  client.clock.advance(*directory->lastDownloadDate() - client.clock.now());

  // No request of this process: the other one's look is recent, and the copies are where it has moved them.
  const auto listings = client.countOf("Starting download of directory");
  EXPECT_GE(listings, 2U);
  auto listing = client.list("Files");
  EXPECT_THAT(client.names(listing), ElementsAre("a", "b"));
  EXPECT_EQ(client.countOf("Starting download of directory"), listings);
  EXPECT_EQ(readText(client.manager->fileURLOfItemAtPath("Files/a")->path()), "of b");
  EXPECT_EQ(client.text(client.read("Files/a")), "of b");
  EXPECT_EQ(client.text(client.read("Files/b")), "of a");
  EXPECT_TRUE(client.read("Files/gone").failedWith(11));
  // And back again, now seen by this one first.
  fs::rename(server.files() + "/a", server.files() + "/x");
  fs::rename(server.files() + "/b", server.files() + "/a");
  client.clock.advance(seconds(60));
  EXPECT_THAT(client.names(client.listFresh("Files")), ElementsAre("a", "x"));
  EXPECT_THAT(peer("cat", "Files/x"), testing::EndsWith(" of b"));
  EXPECT_THAT(peer("cat", "Files/a"), testing::EndsWith(" of a"));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerProcesses, LeftoversOfKilledProcessesAreSweptAfterAnHour) {
  TestServer server;
  DocumentClient client(server.port());
  client.list("");
  client.settle("");
  const std::string tmp = *DUTemporaryDirectory();
  const std::vector<std::string> litter = {"upload-response-Ab3", ".florvane-tmp-Zk1", "download-Q7x", "reading-P2d"};
  // A stable copy that is being sent, another name of the same file, and what is not ours.
  const std::vector<std::string> others = {"RmlsZXMvYQ==-0a1b", "RmlsZXMvYg==-0a1b", "somebody-elses"};
  for (const auto& names : {litter, others}) {
    for (const auto& name : names) writeText(std::string(tmp).append("/").append(name), "left");
  }
  ASSERT_EQ(unlink((tmp + "/" + others[1]).c_str()), 0);
  ASSERT_EQ(link((tmp + "/" + others[0]).c_str(), (tmp + "/" + others[1]).c_str()), 0);
  auto present = [&](const std::vector<std::string>& names) {
    return std::count_if(names.begin(), names.end(), [&](const auto& name) { return fileExists(tmp + "/" + name); });
  };
  client.clock.advance(minutes(59));
  client.list("");
  client.settle("");
  EXPECT_EQ(present(litter), 4);
  client.clock.advance(minutes(2));
  client.list("");
  client.settle("");
  EXPECT_EQ(present(litter), 0);
  EXPECT_EQ(present(others), 3);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test
