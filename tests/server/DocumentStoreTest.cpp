#include "tests/server/StoreFixture.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace florvane::test {
namespace {

class DocumentStoreTest : public StoreFixture {};

TEST_F(DocumentStoreTest, ListsSharesAndEntriesWithWhatClientsReadOfThem) {
  std::filesystem::create_directories(directory.file("inbox"));
  shares.push_back({"Inbox", directory.file("inbox"), false, true});
  shares.push_back({"Archive", directory.file("inbox"), true, false});
  makeFolder("Folder");
  make("notes.txt", "12345");
  make(".hidden", "");
  const timespec dates[2] = {{1'600'000'000, 123'456'789}, {1'600'000'000, 123'456'789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, docs("notes.txt").c_str(), dates, 0), 0);
  open();

  const Entries listed = shareEntries();
  ASSERT_EQ(listed.size(), 3U);
  EXPECT_EQ(listed.at("Inbox").boolean(ResourceIsReadableKey), false);
  EXPECT_EQ(listed.at("Inbox").boolean(ResourceIsWritableKey), true);
  EXPECT_EQ(listed.at("Archive").boolean(ResourceIsWritableKey), false);

  const DirectoryListing listing = list(share());
  EXPECT_EQ(listing.metadata.string(ResourceNameKey), "Docs");
  EXPECT_EQ(version(listing.metadata), listing.version);
  const Entries children = parse(listing.body);
  ASSERT_EQ(children.size(), 3U);
  const Dictionary& notes = children.at("notes.txt");
  EXPECT_EQ(notes.string(ResourceFileResourceTypeKey), ResourceTypeRegular);
  EXPECT_EQ(notes.integer(ResourceFileSizeKey), 5);
  EXPECT_EQ(notes.string(ResourceTypeIdentifierKey), "text/plain");
  EXPECT_EQ(notes.date(ResourceContentModificationDateKey), Date::fromMicroseconds(1'600'000'000'123'456));
  EXPECT_TRUE(notes.date(ResourceCreationDateKey) && notes.date(ResourceAttributeModificationDateKey) &&
              notes.date(ResourceAddedToDirectoryDateKey));
  EXPECT_EQ(identifier(notes).size(), 16U);
  EXPECT_EQ(children.at("Folder").string(ResourceFileResourceTypeKey), ResourceTypeDirectory);
  EXPECT_EQ(children.at("Folder").boolean(ResourceIsDirectoryKey), true);
  EXPECT_FALSE(children.at("Folder").contains(ResourceFileSizeKey));
  EXPECT_EQ(children.at(".hidden").boolean(ResourceIsHiddenKey), true);

  EXPECT_TRUE(store->list(share(), share(), listing.version)->notModified);
  EXPECT_TRUE(store->listRoot(store->listRoot({})->version)->notModified);
  EXPECT_TRUE(store->contents(identifier(notes), share(), version(notes))->notModified);
  EXPECT_EQ(status(store->list(share(), share("Inbox"), {})), 404) << "another share";
  EXPECT_EQ(status(store->list(identifier(notes), {}, {})), 404) << "a file";
  EXPECT_EQ(status(store->contents(share(), {}, {})), 404) << "a folder";
  EXPECT_EQ(status(store->contents(Data("abc", 3), {}, {})), 404);
}

TEST_F(DocumentStoreTest, ListsOnlyFilesAndFoldersOfTheShareItself) {
  writeText(directory.file("secret"), "secret");
  makeFolder("real");
  make("real/inside", "inside");
  std::filesystem::create_symlink(directory.file("secret"), docs("link"));
  std::filesystem::create_directory_symlink("/etc", docs("etc"));
  ASSERT_EQ(::mkfifo(docs("pipe").c_str(), 0600), 0);
  make("latin-\xE4", "not UTF-8");
  shares[0].folder = directory.path();  // the state folder is inside
  open();
  EXPECT_EQ(entries(share()).count("state"), 0U);
  const Entries children = entries(identifier(entries(share()).at("docs")));
  EXPECT_EQ(children.size(), 1U) << "only \"real\"";

  // A folder that turns into a way out after it was listed leads nowhere.
  const Data inside = identifier(entries(identifier(children.at("real"))).at("inside"));
  rename("real", "moved");
  std::filesystem::create_directories(directory.file("outside"));
  writeText(directory.file("outside/inside"), "outside");
  std::filesystem::create_directory_symlink(directory.file("outside"), docs("real"));
  EXPECT_EQ(read(inside), "inside");
  std::filesystem::rename(docs("moved"), directory.file("elsewhere"));
  remove("moved");
  EXPECT_NE(read(inside), "outside");
}

TEST_F(DocumentStoreTest, KeepsIdentifiersThroughRenamesAndMoves) {
  makeFolder("a/b");
  makeFolder("c");
  make("a/b/file.txt", "contents");
  make("one", "1");
  make("two", "2");
  open();
  const Data file = identifier(entry("a/b/file.txt"));
  const Data folder = identifier(entry("a/b"));
  const Data one = identifier(entry("one"));
  const Data two = identifier(entry("two"));
  ASSERT_EQ(file.size(), 16U);

  rename("a", "renamed");
  EXPECT_EQ(read(file), "contents") << "without a listing in between";
  EXPECT_EQ(identifier(entry("renamed/b/file.txt")), file);

  rename("renamed/b/file.txt", "renamed/b/other.txt");
  EXPECT_EQ(read(file), "contents");
  rename("renamed/b", "c/b");
  EXPECT_EQ(identifier(entry("c/b")), folder);
  EXPECT_EQ(identifier(entry("c/b/other.txt")), file);
  rename("c/b/other.txt", "file.txt");
  EXPECT_EQ(identifier(entry("file.txt")), file);
  EXPECT_TRUE(entries(folder).empty());

  ASSERT_EQ(::renameat2(AT_FDCWD, docs("one").c_str(), AT_FDCWD, docs("two").c_str(), RENAME_EXCHANGE), 0);
  EXPECT_EQ(identifier(entry("two")), one);
  EXPECT_EQ(identifier(entry("one")), two);
  EXPECT_EQ(read(one), "1");

  std::filesystem::create_hard_link(docs("one"), docs("c/link"));
  EXPECT_EQ(identifier(entry("one")), two) << "a second link is a second document";
  EXPECT_NE(identifier(entry("c/link")), two);
}

TEST_F(DocumentStoreTest, KeepsAFilesIdentifierWhenAnEditorReplacesIt) {
  make("saved", "1");
  make("backed up", "1");
  open();
  const Data saved = identifier(entry("saved"));
  const Data backedUp = identifier(entry("backed up"));

  make("saved.tmp", "22");
  rename("saved.tmp", "saved");
  EXPECT_EQ(read(saved), "22");
  EXPECT_EQ(identifier(entry("saved")), saved);

  rename("backed up", "backed up~");
  EXPECT_NE(identifier(entry("backed up~")), backedUp);
  make("backed up", "22");
  EXPECT_EQ(identifier(entry("backed up")), backedUp);
  EXPECT_EQ(read(backedUp), "22");

  remove("saved");
  makeFolder("saved");
  EXPECT_NE(identifier(entry("saved")), saved) << "a folder is not the file it stands in for";
  EXPECT_EQ(read(saved), "status 404");
}

TEST_F(DocumentStoreTest, KnowsFilesAgainAfterItWasDown) {
  makeFolder("folder");
  make("folder/renamed", "1");
  make("edited", "2");
  make("replaced", "3");
  make("untouched", "4");
  open();
  const Entries before = entries(share());
  const Data renamed = identifier(entry("folder/renamed"));
  const Data untouchedVersion = version(entry("untouched"));
  store.reset();

  rename("folder", "folder 2");
  rename("folder 2/renamed", "folder 2/other");
  make("edited", "changed");
  make("temporary", "33");
  rename("temporary", "replaced");
  open();
  EXPECT_EQ(read(renamed), "1");
  EXPECT_EQ(identifier(entry("folder 2")), identifier(before.at("folder")));
  EXPECT_EQ(identifier(entry("folder 2/other")), renamed);
  EXPECT_EQ(read(identifier(before.at("edited"))), "changed");
  EXPECT_EQ(read(identifier(before.at("replaced"))), "33");
  EXPECT_EQ(version(entry("untouched")), untouchedVersion);
  EXPECT_NE(version(entry("edited")), version(before.at("edited")));

  auto second = DocumentStore::open(directory.file("state"), shares, clock);
  EXPECT_FALSE(second) << "one store at a time";
}

TEST_F(DocumentStoreTest, ChangesVersionsWithWhatIsListedAndNoFurther) {
  makeFolder("a/b");
  make("a/b/file", "1234");
  make("other", "x");
  const timespec past[2] = {{1'600'000'000, 0}, {1'600'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, docs("a/b/file").c_str(), past, 0), 0);
  open();
  const Data file = version(entry("a/b/file"));
  const Data b = folderVersion("a/b");
  const Data a = folderVersion("a");
  const Data top = folderVersion("");
  EXPECT_EQ(folderVersion("a/b"), b);

  {
    // In place and of the same size.
    const int descriptor = ::open(docs("a/b/file").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::pwrite(descriptor, "4321", 4, 0), 4);
    ::close(descriptor);
  }
  EXPECT_NE(version(entry("a/b/file")), file);
  EXPECT_NE(folderVersion("a/b"), b);
  EXPECT_EQ(folderVersion("a"), a) << "no entry of it changed";

  const Data before = folderVersion("a/b");
  ASSERT_EQ(::chmod(docs("a/b/file").c_str(), 0640), 0);
  EXPECT_NE(folderVersion("a/b"), before) << "a listed date changed";
  make("a/b/new");
  EXPECT_NE(folderVersion("a"), a) << "the date of its folder changed";
  EXPECT_EQ(folderVersion(""), top) << "and nothing above";
}

TEST_F(DocumentStoreTest, HoldsTenThousandEntriesAndFollowsSingleChanges) {
  for (int i = 0; i < 10'000; ++i) make("file " + std::to_string(i), "x");
  open();
  const Data folder = share();
  Entries before = entries(folder);
  ASSERT_EQ(before.size(), 10'000U);
  rename("file 77", "file renamed");
  remove("file 78");
  make("file 79", "longer");
  Entries after = entries(folder);
  EXPECT_EQ(after.size(), 9'999U);
  EXPECT_EQ(identifier(after.at("file renamed")), identifier(before.at("file 77")));
  EXPECT_EQ(after.at("file 79").integer(ResourceFileSizeKey), 6);
  EXPECT_EQ(after.count("file 78"), 0U);
  for (const char* name : {"file 77", "file 78", "file 79"}) before.erase(name);
  for (const char* name : {"file renamed", "file 79"}) after.erase(name);
  EXPECT_TRUE(before == after) << "every other entry is as it was";
}

// On a file system whose changes nobody announces and whose files have no birth.
TEST_F(DocumentStoreTest, NoticesChangesWithoutNotifications) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("none", docs().c_str(), "ramfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "needs leave to mount";
  }
  makeFolder("folder");
  make("folder/file", "1");
  make("folder/gone", "1");
  open();
  const Data folder = identifier(entry("folder"));
  const Data file = identifier(entry("folder/file"));
  Watching watching = watch({{folder, list(folder).version}, {file, version(entry("folder/file"))}});
  make("folder/file", "22");
  EXPECT_EQ(read(file), "22");
  remove("folder/gone");
  EXPECT_EQ(entries(folder).size(), 1U);
  // That listing told the watch already; the next one hears of its change by the look-round.
  ASSERT_TRUE(watching.answer.get());
  watching = watch({{file, version(entry("folder/file"))}});
  make("folder/file", "333");
  EXPECT_FALSE(watching.answered());
  clock.advance(std::chrono::seconds(10));
  ASSERT_TRUE(watching.answer.get());
  store.reset();
  ASSERT_EQ(::umount(docs().c_str()), 0);
}

}  // namespace
}  // namespace florvane::test
