#include "tests/server/StoreFixture.h"

#include <algorithm>

namespace florvane::test {
namespace {

class DocumentWatchesTest : public StoreFixture {
 protected:
  DocumentVersion pair(const std::string& path) {
    const Dictionary found = entry(path);
    return {identifier(found), version(found)};
  }
  DocumentVersion folderPair(const std::string& path) {
    return {path.empty() ? share() : identifier(entry(path)), folderVersion(path)};
  }
};

TEST_F(DocumentWatchesTest, AnswersEveryPairWhenOneChangesBehindItsBack) {
  makeFolder("folder/inner");
  make("folder/file", "1");
  make("other", "1");
  open();
  const std::vector<DocumentVersion> watched = {folderPair("folder"), pair("other"), folderPair("folder/inner")};
  Watching watching = watch(watched);
  EXPECT_FALSE(watching.answered());
  append("folder/file");
  Answer answer = watching.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, (std::vector<DocumentVersion>{folderPair("folder"), pair("other"), folderPair("folder/inner")}));
  EXPECT_NE((*answer)[0], watched[0]);
  EXPECT_EQ((*answer)[1], watched[1]);

  // What the answer said can be watched on; a stale pair is answered at once.
  watching = watch(*answer);
  EXPECT_FALSE(watching.answered());
  EXPECT_TRUE(watch(watched).answer.get());

  // A folder's date stands in the listing above it.
  makeFolder("folder/inner/new");
  answer = watching.answer.get();
  ASSERT_TRUE(answer);
  watching = watch({folderPair("folder")});
  makeFolder("folder/inner/newer");
  answer = watching.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->at(0), folderPair("folder"));

  Watching file = watch({pair("other")});
  rename("other", "renamed");
  answer = file.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->at(0), pair("renamed"));

  Watching top = watch({{identifier(store->listRoot({})->metadata), store->listRoot({})->version}});
  makeFolder("on top");
  EXPECT_TRUE(top.answer.get());
}

TEST_F(DocumentWatchesTest, LeavesOutWhatIsGone) {
  makeFolder("folder");
  make("folder/file");
  make("stays");
  open();
  Watching both = watch({pair("folder/file"), pair("stays")});
  Watching alone = watch({pair("folder/file"), folderPair("folder")});
  std::filesystem::rename(docs("folder"), directory.file("away"));
  Answer answer = both.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, std::vector<DocumentVersion>{pair("stays")});
  const Answer none = alone.answer.get();
  EXPECT_EQ(status(none), 404);

  makeFolder("folder");
  make("folder/file");
  both = watch({pair("stays"), pair("folder/file")});
  remove("folder");
  answer = both.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, std::vector<DocumentVersion>{pair("stays")});
  EXPECT_EQ(status(watch({{Data("unknown", 7), Data()}}).answer.get()), 404);
  EXPECT_EQ(status(watch({}).answer.get()), 404);
}

TEST_F(DocumentWatchesTest, TellsNeighboursApart) {
  makeFolder("folder");
  makeFolder("elsewhere");
  for (const char* name : {"edited", "moved", "removed", "same"}) make("folder/" + std::string(name), "1");
  open();
  std::vector<DocumentVersion> watched;
  for (const char* name : {"edited", "moved", "removed", "same"})
    watched.push_back(pair("folder/" + std::string(name)));
  Watching watching = watch(watched);
  append("folder/edited");
  Answer answer = watching.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, (std::vector<DocumentVersion>{pair("folder/edited"), watched[1], watched[2], watched[3]}));
  EXPECT_NE(answer->at(0), watched[0]);

  rename("folder/moved", "elsewhere/moved");
  remove("folder/removed");
  entries(identifier(entry("elsewhere")));
  const std::vector<DocumentVersion> now = {pair("folder/edited"), pair("elsewhere/moved"), watched[3]};
  EXPECT_EQ(now[1].document, watched[1].document);
  answer = watch(*answer).answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, now);
  // And is told of again, where it is now.
  watching = watch(now);
  append("elsewhere/moved");
  answer = watching.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_NE(answer->at(1), now[1]);
}

TEST_F(DocumentWatchesTest, AnswersUnchangedOnRequestAndNothingOnceCancelled) {
  make("file", "1");
  open();
  const DocumentVersion watched = pair("file");
  Watching watching = watch({watched});
  watching.watch->answerNow();
  const Answer answer = watching.answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer, std::vector<DocumentVersion>{watched});
  watching.watch->answerNow();  // a second one must not call the handler again, which would throw

  Watching cancelled = watch({watched});
  cancelled.watch.reset();
  Watching witness = watch({watched});
  append("file");
  ASSERT_TRUE(witness.answer.get());
  EXPECT_EQ(cancelled.answer.wait_for(std::chrono::seconds(0)), std::future_status::ready) << "broken promise";
  EXPECT_THROW(cancelled.answer.get(), std::future_error);
}

TEST_F(DocumentWatchesTest, HearsOfUploadsAndOfOneAmongAThousand) {
  for (int i = 0; i < 1'000; ++i) make(std::to_string(i), "1");
  open();
  const Entries listed = entries(share());
  std::vector<Watching> watches;
  watches.reserve(1'000);
  for (int i = 0; i < 1'000; ++i) {
    const Dictionary& file = listed.at(std::to_string(i));
    watches.push_back(watch({{identifier(file), version(file)}}));
  }
  const Dictionary& changed = listed.at("500");
  ASSERT_TRUE(replace(identifier(changed), version(changed), "22"));
  const Answer answer = watches[500].answer.get();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->at(0), pair("500"));
  const auto answered =
      std::count_if(watches.begin(), watches.end(), [](const Watching& watching) { return watching.answered(); });
  EXPECT_EQ(answered, 0) << "but the one, which was taken";
}

}  // namespace
}  // namespace florvane::test
