#include "tests/server/StoreFixture.h"

#include <csignal>

#include <sys/stat.h>
#include <sys/wait.h>

namespace florvane::test {
namespace {

class DocumentStoreWritingTest : public StoreFixture {
 protected:
  // What waits in the share's hidden upload folder.
  std::size_t waitingUploads() const {
    const std::filesystem::path folder = docs(".florvane-uploads");
    if (!std::filesystem::exists(folder)) return 0;
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
  }
};

TEST_F(DocumentStoreWritingTest, StoresNewFilesWithTheirDatesAndAnswersWithTheFolder) {
  makeFolder("folder");
  open();
  const Data folder = identifier(entry("folder"));
  const Date modified = Date::fromMicroseconds(1'500'000'000'123'456);
  const Date created = Date::fromMicroseconds(1'400'000'000'000'001);
  const Date added = Date::fromMicroseconds(1'450'000'000'000'002);
  const auto stored = write(folder, "Grüße.txt", "hello",
                            {{ResourceContentModificationDateKey, modified},
                             {ResourceCreationDateKey, created},
                             {ResourceAddedToDirectoryDateKey, added}});
  ASSERT_TRUE(stored) << stored.error().sentence;
  EXPECT_FALSE(stored->dropBox);
  EXPECT_EQ(stored->metadata.string(ResourceNameKey), "folder");
  const DirectoryListing listing = list(folder);
  EXPECT_EQ(stored->version, listing.version);
  EXPECT_EQ(stored->body, listing.body);
  const Dictionary file = parse(stored->body).at("Grüße.txt");
  EXPECT_EQ(file.date(ResourceContentModificationDateKey), modified);
  EXPECT_EQ(file.date(ResourceCreationDateKey), created);
  EXPECT_EQ(file.date(ResourceAddedToDirectoryDateKey), added);
  EXPECT_EQ(readText(docs("folder/Grüße.txt")), "hello");
  EXPECT_EQ(waitingUploads(), 0U);
  open();
  EXPECT_TRUE(entry("folder/Grüße.txt") == file) << "all of it, after a restart";
}

TEST_F(DocumentStoreWritingTest, RefusesWhatWouldLoseOrMisplaceAFile) {
  std::filesystem::create_directories(directory.file("archive"));
  writeText(directory.file("archive/old"), "old");
  shares.push_back({"Archive", directory.file("archive"), true, false});
  make("existing", "mine");
  open();
  const Data folder = share();
  const Data existing = identifier(entry("existing"));
  const Data archived = identifier(entries(share("Archive")).at("old"));

  EXPECT_EQ(status(write(folder, "existing", "other")), 409);
  EXPECT_EQ(status(replace(existing, std::nullopt, "other")), 409);
  EXPECT_EQ(status(replace(existing, Data("0123456789abcdef", 16), "other")), 409);
  EXPECT_EQ(status(write(share("Archive"), "new", "x")), 403);
  EXPECT_EQ(status(replace(archived, std::nullopt, "x")), 403);
  EXPECT_EQ(status(write(store->listRoot({})->metadata.data(FVDocumentIdentifierKey).value(), "new", "x")), 403);
  EXPECT_EQ(status(write(Data("0123456789abcde0", 16), "new", "x")), 404);
  EXPECT_EQ(status(write(existing, "new", "x")), 404) << "a file is no parent";
  for (const char* name : {"", ".", "..", "../escape", "a/b", "/etc/passwd", "\xFF", ".florvane-uploads"}) {
    EXPECT_GE(status(write(folder, name, "x")), 400) << name;
  }
  EXPECT_EQ(status(write(folder, std::string("a\0b", 3), "x")), 400);
  EXPECT_EQ(status(write(folder, std::string(256, 'x'), "x")), 400);
  EXPECT_EQ(
      status(write(folder, "dated", "x", {{ResourceContentModificationDateKey, Date::fromMicroseconds(INT64_MAX)}})),
      400);
  EXPECT_EQ(status(store->beginWrite(folder, {}, std::uint64_t{1} << 60)), 507);
  {
    const Data version = StoreFixture::version(entry("existing"));
    const auto upload = store->beginReplace(existing, {}, 100);
    EXPECT_TRUE(upload);
    make("existing", "changed by somebody");
    EXPECT_EQ(status(replace(existing, version, "other")), 409);
  }
  EXPECT_EQ(readText(docs("existing")), "changed by somebody");
  EXPECT_EQ(entries(folder).size(), 1U);
  EXPECT_EQ(waitingUploads(), 0U);
  EXPECT_FALSE(std::filesystem::exists(directory.file("escape")));
}

TEST_F(DocumentStoreWritingTest, ReplacesTheCurrentVersionAndKeepsWhatTheFileIs) {
  make("file", "first");
  ASSERT_EQ(::chmod(docs("file").c_str(), 0640), 0);
  open();
  const Dictionary before = entry("file");
  const Date modified = Date::fromMicroseconds(1'500'000'000'000'007);
  const auto stored =
      replace(identifier(before), version(before), "second!", {{ResourceContentModificationDateKey, modified}});
  ASSERT_TRUE(stored) << stored.error().sentence;
  const Dictionary after = parse(stored->body).at("file");
  EXPECT_EQ(identifier(after), identifier(before));
  EXPECT_NE(version(after), version(before));
  EXPECT_EQ(after.date(ResourceCreationDateKey), before.date(ResourceCreationDateKey));
  EXPECT_EQ(after.date(ResourceAddedToDirectoryDateKey), before.date(ResourceAddedToDirectoryDateKey));
  EXPECT_EQ(after.date(ResourceContentModificationDateKey), modified);
  EXPECT_EQ(read(identifier(before)), "second!");
  struct stat status{};
  ASSERT_EQ(::stat(docs("file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(StoreFixture::status(replace(identifier(before), version(before), "third")), 409) << "spent";
  EXPECT_TRUE(replace(identifier(before), version(after), "third"));

  rename("file", "renamed");
  EXPECT_TRUE(replace(identifier(before), version(entry("renamed")), "fourth"));
  EXPECT_EQ(readText(docs("renamed")), "fourth");
  EXPECT_EQ(waitingUploads(), 0U);
}

TEST_F(DocumentStoreWritingTest, DropBoxTakesEverythingAndShowsNothing) {
  shares[0].dropBox = true;
  open();
  const Data box = share();
  std::vector<Dictionary> stored;
  for (int i = 0; i < 30; ++i) {
    const auto answer = write(box, "scan.tar.gz", "page " + std::to_string(i));
    ASSERT_TRUE(answer) << answer.error().sentence;
    EXPECT_TRUE(answer->dropBox && answer->body.empty());
    EXPECT_EQ(version(answer->metadata), answer->version);
    EXPECT_EQ(readText(docs(answer->metadata.string(ResourceNameKey).value())), "page " + std::to_string(i));
    stored.push_back(answer->metadata);
  }
  EXPECT_EQ(stored[0].string(ResourceNameKey), "scan.tar.gz");
  EXPECT_EQ(stored[1].string(ResourceNameKey), "scan.tar 2.gz");
  EXPECT_TRUE(entries(box).empty());
  EXPECT_EQ(status(store->contents(identifier(stored[0]), {}, {})), 403);
  const auto stale = replace(identifier(stored[0]), std::nullopt, "again");
  ASSERT_TRUE(stale);
  EXPECT_NE(identifier(stale->metadata), identifier(stored[0]));
  EXPECT_EQ(readText(docs("scan.tar.gz")), "page 0");
  const auto current = replace(identifier(stored[0]), version(stored[0]), "again");
  ASSERT_TRUE(current);
  EXPECT_EQ(identifier(current->metadata), identifier(stored[0]));
  EXPECT_EQ(readText(docs("scan.tar.gz")), "again");
  const std::string longName =
      std::string(120, 'x') + "äöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßäöüßä";
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(write(box, longName, "x")) << "the name is shortened between characters";
}

TEST_F(DocumentStoreWritingTest, DropBoxKnowsADeliveryWhoseAnswerWasLost) {
  shares[0].dropBox = true;
  open();
  const Data box = share();
  const auto deliver = [&](const std::string& bytes, std::int64_t microseconds) {
    const auto answer =
        write(box, "receipt", bytes,
              {{ResourceContentModificationDateKey, Date::fromMicroseconds(1'700'000'000'000'000 + microseconds)}});
    EXPECT_TRUE(answer);
    return identifier(answer->metadata);
  };
  const Data first = deliver("same", 1);
  EXPECT_NE(deliver("same", 2), first);
  EXPECT_NE(deliver("SAME", 1), first);
  EXPECT_EQ(deliver("same", 1), first);
  EXPECT_FALSE(fileExists(docs("receipt 4")));
  EXPECT_EQ(waitingUploads(), 0U);
}

TEST_F(DocumentStoreWritingTest, AKillLeavesNoHalfFile) {
  make("existing", "whole");
  const pid_t child = ::fork();
  if (child == 0) {
    open();
    const Data folder = share();
    auto fresh = store->beginWrite(folder, {}, 10);
    auto instead = store->beginReplace(identifier(entry("existing")), {}, 10);
    if (!fresh || !instead) std::_Exit(1);
    if (::write(fresh->descriptor(), "half", 4) != 4 || ::write(instead->descriptor(), "half", 4) != 4) std::_Exit(1);
    ::kill(::getpid(), SIGKILL);
  }
  int ended = 0;
  ASSERT_EQ(::waitpid(child, &ended, 0), child);
  ASSERT_TRUE(WIFSIGNALED(ended));
  EXPECT_EQ(waitingUploads(), 2U);
  open();
  EXPECT_EQ(waitingUploads(), 0U);
  EXPECT_EQ(entries(share()).size(), 1U);
  EXPECT_EQ(readText(docs("existing")), "whole");
}

TEST_F(DocumentStoreWritingTest, OneOfManyReplacementsOfAVersionWins) {
  make("file", "0");
  open();
  const Dictionary before = entry("file");
  std::vector<std::future<int>> results;
  for (int i = 1; i <= 8; ++i) {
    results.push_back(std::async(std::launch::async, [&, i] {
      return status(replace(identifier(before), version(before), std::to_string(i)));
    }));
  }
  int stored = 0;
  for (auto& result : results) {
    const int answer = result.get();
    EXPECT_TRUE(answer == 200 || answer == 409) << answer;
    stored += answer == 200 ? 1 : 0;
  }
  EXPECT_EQ(stored, 1);
}

// Listings, uploads and other programs' renames at once; what is left agrees with the disk.
TEST_F(DocumentStoreWritingTest, StaysTrueUnderManyHands) {
  makeFolder("a");
  makeFolder("b");
  for (int i = 0; i < 50; ++i) make("a/file " + std::to_string(i));
  open();
  const Data top = share();
  const Data a = identifier(entry("a"));
  const Data b = identifier(entry("b"));
  std::vector<std::future<void>> hands;
  for (int hand = 0; hand < 2; ++hand) {
    hands.push_back(std::async(std::launch::async, [&, hand] {
      for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(write(a, "new " + std::to_string(hand) + " " + std::to_string(i), "x"));
        EXPECT_TRUE(store->list(b, {}, {}) && store->list(top, {}, {}));
      }
    }));
    hands.push_back(std::async(std::launch::async, [&, hand] {
      for (int i = hand; i < 50; i += 2) rename("a/file " + std::to_string(i), "b/file " + std::to_string(i));
    }));
  }
  for (auto& hand : hands) hand.get();
  const Entries left = entries(a);
  const Entries moved = entries(b);
  EXPECT_EQ(left.size(), 40U);
  EXPECT_EQ(moved.size(), 50U);
  for (const auto& [name, dictionary] : moved) EXPECT_EQ(read(identifier(dictionary)), "text") << name;
  open();
  EXPECT_EQ(entries(b), moved) << "identifiers and versions outlive the store";
}

}  // namespace
}  // namespace florvane::test
