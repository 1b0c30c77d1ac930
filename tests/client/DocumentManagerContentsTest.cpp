#include "Client/Client/DCLog.h"
#include "platform/ResourceValues.h"
#include "tests/client/DocumentClient.h"
#include "tests/client/ScriptedTree.h"
#include "tests/support/Process.h"
#include "tests/support/TestServer.h"

#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::Contains;
using testing::IsEmpty;

TEST(DocumentManagerContents, AFileIsReadOnceAndThenFromTheDiskForTenSeconds) {
  TestServer server;
  writeText(server.files() + "/a.txt", "one");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto first = client.read("Files/a.txt");
  EXPECT_EQ(first.state, 4);
  EXPECT_EQ(client.text(first), "one");
  writeText(server.files() + "/a.txt", "two");
  client.clock.advance(seconds(10));
  EXPECT_EQ(client.text(client.read("Files/a.txt")), "one");
  client.clock.advance(seconds(1));
  auto later = client.read("Files/a.txt");
  EXPECT_EQ(later.state, 4);
  EXPECT_EQ(client.text(later), "two");
  // Current again, though the parent's listing still has the older entry.
  EXPECT_EQ(client.attributes("Files/a.txt").value->integer(ResourceFileSizeKey), 3);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, AttributesOfAStaleItemAreAnsweredAtOnceAndTheParentIsListed) {
  TestServer server;
  writeText(server.files() + "/a.txt", "one");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  EXPECT_EQ(client.attributes("Files/a.txt").state, 1);  // never fetched, so of no age
  client.read("Files/a.txt");
  EXPECT_EQ(client.attributes("Files/a.txt").state, 4);
  client.clock.advance(seconds(20));
  writeText(server.files() + "/a.txt", "longer");
  auto stale = client.attributes("Files/a.txt");
  EXPECT_EQ(stale.state, 1);
  EXPECT_EQ(stale.value->integer(ResourceFileSizeKey), 3);
  client.settle("Files");
  EXPECT_EQ(client.attributes("Files/a.txt").value->integer(ResourceFileSizeKey), 6);
  EXPECT_EQ(client.attributes("").state, 1);
  client.settle("");
  EXPECT_EQ(client.attributes("").state, 4);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, WithoutTheServerTheLastCopyIsReadAndMissingOnesAreNoError) {
  TestServer server;
  writeText(server.files() + "/seen", "seen");
  writeText(server.files() + "/unseen", "unseen");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  client.read("Files/seen");
  server.stop();
  client.clock.advance(seconds(60));
  auto seen = client.read("Files/seen");
  EXPECT_EQ(seen.state, 2);
  EXPECT_FALSE(seen.error);
  EXPECT_EQ(client.text(seen), "seen");
  auto unseen = client.read("Files/unseen");
  EXPECT_EQ(unseen.state, 2);
  EXPECT_FALSE(unseen.error);
  EXPECT_FALSE(unseen.value);
  server.restart();
  client.clock.advance(seconds(60));
  EXPECT_EQ(client.text(client.read("Files/unseen")), "unseen");
  EXPECT_THAT(client.assertions({"DCError:121"}), IsEmpty());
}

TEST(DocumentManagerContents, UnsentBytesAreNeitherOverwrittenNorWaitedFor) {
  TestServer server;
  writeText(server.files() + "/a.txt", "server's first");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto url = client.read("Files/a.txt").value;
  ASSERT_TRUE(url);
  writeText(url->path(), "nobody else has this");
  EXPECT_EQ(client.text(client.read("Files/a.txt")), "nobody else has this");
  // The server has a later version.
  writeText(server.files() + "/a.txt", "server's second");
  fs::last_write_time(server.files() + "/a.txt", fs::file_time_type::clock::now() + std::chrono::hours(1));
  client.clock.advance(seconds(60));
  client.listFresh("Files");
  auto conflicting = client.read("Files/a.txt");
  EXPECT_EQ(conflicting.state, 2);
  EXPECT_FALSE(conflicting.error);
  EXPECT_EQ(client.text(conflicting), "nobody else has this");
  // Nor does its removal on the server lose them.
  fs::remove(server.files() + "/a.txt");
  client.clock.advance(seconds(60));
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files");
  client.listFresh("Files");
  delegate->waitFor("failed Files/a.txt 5");
  bool isRecovered = false;
  for (const auto& entry : fs::recursive_directory_iterator(client.container.file("Recovered"))) {
    if (entry.is_regular_file()) isRecovered = isRecovered || readText(entry.path()) == "nobody else has this";
  }
  EXPECT_TRUE(isRecovered);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, AnAnswerThatComesAfterALocalChangeIsDropped) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f", "1")});
  tree.answer("cat f", tree.file("a", "f", "1"), "first");
  client.listFresh("");
  client.listFresh("S");
  auto url = client.read("S/a").value;
  ASSERT_TRUE(url);
  tree.date = tree.date + seconds(100);
  tree.list("ls s", tree.directory("S", "s", "3"), {tree.file("a", "f", "2")});
  tree.answer("cat f", tree.file("a", "f", "2"), "second");
  client.clock.advance(seconds(60));
  client.listFresh("S");
  tree.hold("cat f");
  std::promise<Answer<URL>> promise;
  client.manager->contentsOfFileAtPath(
      "S/a", [&](auto state, const auto& location, const auto& error) { promise.set_value({state, location, error}); });
  ASSERT_TRUE(tree.waitForHeld("cat f"));
  writeText(url->path(), "mine");
  tree.release("cat f");
  auto answer = promise.get_future().get();
  EXPECT_EQ(answer.state, 2);
  EXPECT_FALSE(answer.error);
  EXPECT_EQ(client.text(answer), "mine");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, ACopyThatIsLostIsNotConfirmedForEver) {
  ScriptedTree tree;
  auto& client = tree.client;
  tree.list("ls s", tree.directory("S", "s", "2"), {tree.file("a", "f", "1")});
  tree.answer("cat f", tree.file("a", "f", "1"), "first");
  client.listFresh("");
  client.listFresh("S");
  auto url = client.read("S/a").value;
  ASSERT_TRUE(url);
  // The copy is lost, but what was said of it is not.
  fs::remove(url->path());
  client.clock.advance(seconds(60));
  EXPECT_EQ(client.text(client.read("S/a")), "first");
  EXPECT_FALSE(tree.server.requests().back().headers.contains("if-none-match"));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, ThumbnailsComeFromTheServerAndPreviewsFromNobody) {
  TestServer server;
  auto made = runPython(R"(
import struct, sys, zlib
def chunk(kind, data):
    return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data))
rows = b''.join(b'\x00' + b'\xff\x00\x00' * 8 for _ in range(8))
with open(sys.argv[1], 'wb') as image:
    image.write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 8, 8, 8, 2, 0, 0, 0))
                + chunk(b'IDAT', zlib.compress(rows)) + chunk(b'IEND', b''))
)",
                        {server.files() + "/red.png"});
  ASSERT_EQ(made.exitStatus, 0) << made.standardError;
  writeText(server.files() + "/a.txt", "text");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files/red.png");

  auto none = client.thumbnail("Files/a.txt");
  EXPECT_TRUE(none.failedWith(15));
  EXPECT_EQ(none.error->userInfo().string(DCFileRelativePathKey), "Files/a.txt");
  EXPECT_TRUE(client.thumbnail("Files/none").failedWith(11));
  auto first = client.thumbnail("Files/red.png");
  EXPECT_EQ(first.state, 4);
  EXPECT_FALSE(first.error);
  EXPECT_EQ(client.text(first).substr(1, 3), "PNG");
  delegate->waitFor("thumbnail Files/red.png");
  auto second = client.thumbnail("Files/red.png");
  EXPECT_FALSE(second.error);
  EXPECT_EQ(second.value, first.value);

  auto preview = client.preview("Files/red.png");
  EXPECT_EQ(preview.state, 2);
  EXPECT_FALSE(preview.value);
  EXPECT_TRUE(preview.failedWith(10));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, LocalURLsAndPathsFindEachOther) {
  TestServer server;
  writeText(server.files() + "/a.txt", "a");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  auto url = client.read("Files/a.txt").value;
  ASSERT_TRUE(url);
  EXPECT_EQ(*client.manager->fileURLOfItemAtPath("Files/a.txt"), *url);
  EXPECT_EQ(*client.manager->pathsOfItemAtURL(*url), std::set<std::string>{"Files/a.txt"});
  auto root = DCFullPath::documentRootForService(client.service)->url();
  EXPECT_EQ(*client.manager->pathsOfItemAtURL(root), std::set<std::string>{""});

  auto staged = client.manager->fileURLOfItemAtPath("Files/new.txt");
  ASSERT_TRUE(staged);
  EXPECT_EQ(staged->path(), root.path() + "/upload+Files/new.txt");
  auto nobodys = client.manager->pathsOfItemAtURL(*staged);
  ASSERT_FALSE(nobodys);
  EXPECT_TRUE(nobodys.error().is(DCErrorDomain, 11));
  auto orphan = client.manager->fileURLOfItemAtPath("Files/none/new.txt");
  ASSERT_FALSE(orphan);
  EXPECT_TRUE(orphan.error().is(DCErrorDomain, 11));
  auto notFile = client.manager->pathsOfItemAtURL(*URL::fromString("https://host/a"));
  ASSERT_FALSE(notFile);
  EXPECT_TRUE(notFile.error().is(DCErrorDomain, 1));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerContents, AFileThatWaitsToBeSentIsListedAmongTheServers) {
  TestServer server;
  writeText(server.files() + "/b.txt", "b");
  DocumentClient client(server.port());
  client.listFresh("");
  client.listFresh("Files");
  server.stop();
  const std::string source = client.container.file("source");
  writeText(source, "mine");
  std::promise<std::optional<Error>> written;
  client.manager->writeToFileAtPath("Files/a.txt", URL::fileURL(source),
                                    [&](const auto& /*url*/, const auto& error) { written.set_value(error); });
  auto failed = written.get_future().get();
  ASSERT_FALSE(failed) << failed->description();
  auto listing = client.list("Files");
  EXPECT_EQ(listing.state, 1);
  EXPECT_EQ(client.names(listing), (std::vector<std::string>{"a.txt", "b.txt"}));
  auto entry = client.entry(listing, "a.txt");
  EXPECT_EQ(entry->boolean(DCFileNeedsUploadKey), true);
  EXPECT_EQ(entry->integer(DCFileShouldUseLocalThumbnailKey), 1);
  EXPECT_EQ(entry->integer(ResourceFileSizeKey), 4);
  EXPECT_FALSE(client.entry(listing, "b.txt")->contains(DCFileNeedsUploadKey));
  EXPECT_EQ(client.attributes("Files").value->integer(DCFileDirectoryItemsCountKey), 2);
  auto read = client.read("Files/a.txt");
  EXPECT_EQ(client.text(read), "mine");
  EXPECT_EQ(*client.manager->pathsOfItemAtURL(*read.value), std::set<std::string>{"Files/a.txt"});
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(DocumentManagerDelegates, HearOfTheirPathAndItsChildrenOnTheirOwnQueue) {
  TestServer server;
  fs::create_directories(server.files() + "/a/b");
  writeText(server.files() + "/a/b/c", "c");
  DocumentClient client(server.port());
  for (const char* path : {"", "Files", "Files/a", "Files/a/b"}) client.listFresh(path);
  DCLogEnableDebug(true);
  auto onDirectory = std::make_shared<RecordingDelegate>();
  auto onFile = std::make_shared<RecordingDelegate>();
  auto above = std::make_shared<RecordingDelegate>();
  onFile->deny("documentManager:didUpdateContentsOfFileAtPath:");
  client.manager->setDelegate(onDirectory, client.queue, "Files/a/b");
  client.manager->setDelegate(onFile, client.queue, "Files/a/b/c");
  client.manager->setDelegate(above, client.queue, "Files/a");
  client.read("Files/a/b/c");
  // Delegates hear of the file after its reader. All are offered it in one turn, whose end a listing waits for.
  onDirectory->waitFor("file Files/a/b/c");
  client.list("");
  client.queue->sync([] {});
  EXPECT_THAT(onDirectory->take(), Contains("file Files/a/b/c"));
  auto heard = onFile->take();
  EXPECT_THAT(heard, Contains("started Files/a/b/c"));
  EXPECT_THAT(heard, testing::Not(Contains("file Files/a/b/c")));
  EXPECT_THAT(above->take(), IsEmpty());
  EXPECT_GE(client.countOf("Skip calling delegate"), 1U);
  EXPECT_GE(client.countOf("Not calling delegate"), 1U);
  EXPECT_GE(client.countOf("Calling completion handler"), 1U);

  writeText(server.files() + "/a/b/d", "d");
  client.clock.advance(seconds(60));
  client.listFresh("Files/a/b");
  onDirectory->waitFor("contents Files/a/b");
  EXPECT_EQ(onDirectory->lastContents().size(), 2U);
}

}  // namespace
}  // namespace florvane::test
