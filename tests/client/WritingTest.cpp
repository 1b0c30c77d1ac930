#include "Client/Client/DCTemporarySweeper.h"
#include "Client/Client/DCUnsentFiles.h"
#include "common/FVFMetadataUtils.h"
#include "tests/client/UploadClient.h"

#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::IsEmpty;

std::optional<Error> waitForError(const std::function<void(DCDocumentManager::ErrorHandler)>& operation) {
  auto promise = std::make_shared<std::promise<std::optional<Error>>>();
  operation([promise](const std::optional<Error>& error) { promise->set_value(error); });
  return promise->get_future().get();
}

TEST(Writing, ANewFileIsSafeHereWhenTheHandlerHearsAndThenOnTheServer) {
  TestServer server;
  UploadClient client(server);
  auto answer = client.write("Files/new.txt", "fresh bytes");
  ASSERT_FALSE(answer.error) << answer.error->description();
  ASSERT_TRUE(answer.value);
  EXPECT_EQ(textOf(answer.value->path()), "fresh bytes");
  ASSERT_TRUE(client.sent("Files/new.txt"));
  EXPECT_EQ(textOf(server.files() + "/new.txt"), "fresh bytes");
  EXPECT_FALSE(client.manager->hasPendingUploads());
  auto listing = client.list("Files");
  auto entry = client.entry(listing, "new.txt");
  ASSERT_TRUE(entry);
  EXPECT_TRUE(entry->data(FVDocumentIdentifierKey));
  auto read = client.read("Files/new.txt");
  EXPECT_EQ(read.state, 4);
  EXPECT_EQ(client.text(read), "fresh bytes");
  // Nothing is left of the transfer: no copy, no answer, no staged file.
  for (const auto& file : fs::recursive_directory_iterator(client.container.path())) {
    EXPECT_EQ(file.path().filename().string().find("upload-response"), std::string::npos) << file.path();
    EXPECT_FALSE(file.is_regular_file() && file.path().parent_path().filename() == "tmp") << file.path();
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, AFileIsReplacedOverTheVersionThatItWasListedWithAlsoWhenItWasNeverDownloaded) {
  TestServer server;
  writeText(server.files() + "/seen.txt", "old");
  writeText(server.files() + "/read.txt", "old");
  UploadClient client(server);
  EXPECT_EQ(client.text(client.read("Files/read.txt")), "old");
  for (const char* name : {"seen.txt", "read.txt"}) {
    const std::string path = std::string("Files/") + name;
    auto answer = client.write(path, "new of " + path);
    ASSERT_FALSE(answer.error);
    ASSERT_TRUE(client.sent(path)) << client.record(path)->error().value_or("");
    EXPECT_EQ(textOf(server.files() + "/" + name), "new of " + path);
    EXPECT_EQ(client.text(client.read(path)), "new of " + path);
    // Again, with the same contents and with others.
    ASSERT_FALSE(client.write(path, "new of " + path).error);
    ASSERT_TRUE(client.sent(path));
    ASSERT_FALSE(client.write(path, "third").error);
    ASSERT_TRUE(client.sent(path));
    EXPECT_EQ(textOf(server.files() + "/" + name), "third");
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, WhatIsNoRegularFileIsRefusedAndChangesNothing) {
  TestServer server;
  UploadClient client(server);
  auto write = [&](const URL& source, const std::string& path = "Files/x") {
    auto promise = std::make_shared<std::promise<std::optional<Error>>>();
    client.manager->writeToFileAtPath(
        path, source,
        [promise](const std::optional<URL>&, const std::optional<Error>& error) { promise->set_value(error); });
    return promise->get_future().get();
  };
  EXPECT_EQ(write(*URL::fromString("https://host/x"))->localizedDescription(), "Invalid argument.");
  EXPECT_EQ(write(URL::fileURL(client.container.file("missing")))->localizedDescription(), "No such item.");
  EXPECT_EQ(write(URL::fileURL(client.container.path()))->localizedDescription(), "Mistmatched file type.");
  EXPECT_EQ(write(client.source("x"), "Nowhere/x")->code(), 11);
  EXPECT_EQ(write(client.source("x"), "../x")->code(), 1);
  EXPECT_EQ(write(client.source("x"), "Files")->code(), 6);
  EXPECT_FALSE(client.manager->hasPendingUploads());
  auto error = waitForError(
      [&](auto handler) { client.manager->createDirectoryAtPath("Files/folder", {}, std::move(handler)); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 13);
  EXPECT_FALSE(waitForError([&](auto h) { client.manager->cancelUploadingItemAtPath("Files", std::move(h)); }));
  EXPECT_FALSE(waitForError([&](auto h) { client.manager->cancelDownloadingItemAtPath("Files", std::move(h)); }));
  EXPECT_FALSE(waitForError([&](auto h) { client.manager->evictItemAtPath("Files", std::move(h)); }));
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, TheCachedFileItselfIsNotSentAgainButAnEditInPlaceIs) {
  TestServer server;
  writeText(server.files() + "/a.txt", "one");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  auto local = client.read("Files/a.txt");
  ASSERT_TRUE(local.value);
  auto promise = std::make_shared<std::promise<std::optional<Error>>>();
  client.manager->writeToFileAtPath(
      "Files/a.txt", *local.value,
      [promise](const std::optional<URL>&, const std::optional<Error>& error) { promise->set_value(error); });
  EXPECT_FALSE(promise->get_future().get());
  EXPECT_FALSE(client.manager->hasPendingUploads());
  EXPECT_EQ(faulty.requestsOf("replace"), 0U);
  writeText(local.value->path(), "edited in place");
  auto uploaded = client.upload("Files/a.txt");
  EXPECT_FALSE(uploaded.error) << uploaded.error->description();
  EXPECT_TRUE(client.sent("Files/a.txt"));
  EXPECT_EQ(textOf(server.files() + "/a.txt"), "edited in place");
  EXPECT_EQ(faulty.requestsOf("replace"), 1U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, ADropBoxTakesFilesAndNothingOfThemIsKept) {
  TestServer server;
  UploadClient client(server);
  client.listFresh("Inbox");
  ASSERT_FALSE(client.write("Inbox/letter.txt", "dear").error);
  ASSERT_TRUE(client.sent("Inbox/letter.txt"));
  EXPECT_EQ(textOf(server.inbox() + "/letter.txt"), "dear");
  ASSERT_FALSE(client.write("Inbox/letter.txt", "dear again").error);
  ASSERT_TRUE(client.sent("Inbox/letter.txt"));
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(server.inbox())) files += entry.is_regular_file() ? 1 : 0;
  EXPECT_EQ(files, 2U);
  EXPECT_FALSE(client.manager->hasPendingUploads());
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, APreparedFileIsSentByALaterStartOrForgotten) {
  TestServer server;
  UploadClient client(server);
  auto staged = client.manager->fileURLOfItemAtPath("Files/staged.txt");
  ASSERT_TRUE(staged);
  writeText(staged->path(), "staged bytes");
  auto prepare = [&](const std::string& path, const URL& source) {
    return waitForError(
        [&](auto handler) { client.manager->preflightWriteToNewFileAtPath(path, source, std::move(handler)); });
  };
  EXPECT_FALSE(prepare("Files/staged.txt", *staged));
  EXPECT_TRUE(client.manager->hasPendingUploads());
  ASSERT_TRUE(client.sent("Files/staged.txt"));
  EXPECT_EQ(textOf(server.files() + "/staged.txt"), "staged bytes");
  auto other = client.manager->fileURLOfItemAtPath("Files/other.txt");
  ASSERT_TRUE(other);
  EXPECT_FALSE(prepare("Files/other.txt", *other));
  client.manager->removePreflightedWriteToNewFileAtPath("Files/other.txt");
  EXPECT_FALSE(client.manager->hasPendingUploads());
  // What somebody was promised is not thrown away with a preparation.
  server.stop();
  ASSERT_FALSE(client.write("Files/written.txt", "written bytes").error);
  client.manager->removePreflightedWriteToNewFileAtPath("Files/written.txt");
  EXPECT_FALSE(client.manager->hasPendingUploads());
  std::vector<std::string> kept;
  for (const auto& each : fs::recursive_directory_iterator(*DCUnsentFiles::directory())) {
    if (each.is_regular_file()) kept.push_back(textOf(each.path()));
  }
  EXPECT_EQ(kept, std::vector<std::string>{"written bytes"});
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(Writing, CopiesForUploadsAreSweptWhenNoRecordNamesThem) {
  TestServer server;
  UploadClient client(server);
  server.stop();
  ASSERT_FALSE(client.write("Files/waiting.txt", "waiting bytes").error);
  auto upload = client.record("Files/waiting.txt");
  ASSERT_TRUE(upload);
  auto copyOf = [&](const std::string& path, const std::string& generation) {
    auto copy = DCManagedUpload::temporaryUploadFileURLForItemAtPath(path, Data::fromString(generation));
    writeText(copy->path(), "copy");
    return copy->path();
  };
  // Left behind by a kill: the names of short paths and of long ones, and of a generation that is not sent any more.
  const std::vector<std::string> litter = {copyOf("Files/gone.txt", "generation-1"),
                                           copyOf("Files/" + std::string(250, 'n'), "generation-2"),
                                           copyOf("Files/waiting.txt", "generation-3")};
  const auto sending =
      DCManagedUpload::temporaryUploadFileURLForItemAtPath(upload->path(), upload->sentGenerationIdentifier());
  ASSERT_TRUE(sending);
  ASSERT_EQ(textOf(sending->path()), "waiting bytes");
  const std::string folder = *DUTemporaryDirectory();
  // Neither what no upload is called nor what somebody may be typing.
  const std::vector<std::string> others = {folder + "/notes", folder + "/" + std::string(64, 'x'),
                                           folder + "/put-abcdef"};
  for (const std::string& each : others) writeText(each, "other");
  DCTemporarySweeper::sweep(folder, Date::now());
  for (const std::string& each : litter) EXPECT_TRUE(fs::exists(each)) << "somebody may be about to record it";
  const Duration hours = std::chrono::hours(2);
  DCTemporarySweeper::sweep(folder, Date::now() + hours);
  for (const std::string& each : litter) EXPECT_FALSE(fs::exists(each)) << each;
  EXPECT_TRUE(fs::exists(sending->path()));
  for (const std::string& each : others) EXPECT_TRUE(fs::exists(each)) << each;
  DCTemporarySweeper::sweep(folder, Date::now() + 13 * hours);
  EXPECT_FALSE(fs::exists(others.back()));
}

}  // namespace
}  // namespace florvane::test
