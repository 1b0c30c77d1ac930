#include "tests/tools/PutFixture.h"

#include <sys/stat.h>

namespace florvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Put = PutFixture;

TEST_F(Put, WritesFilesWhereTheyBelong) {
  const std::string source = folder.file("notes"), place = server.files() + "/Docs";
  std::filesystem::create_directories(place + "/Taken");
  writeText(source, "1");
  const timespec dates[2] = {{1'600'000'000, 123'456'000}, {1'600'000'000, 123'456'000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), dates, 0), 0);
  addAccount();

  output({"put", "--wait", source, "home:Files/Docs"});
  EXPECT_EQ(readText(place + "/notes"), "1");
  struct stat status{};
  ASSERT_EQ(stat((place + "/notes").c_str(), &status), 0);
  EXPECT_EQ(status.st_mtim.tv_sec, 1'600'000'000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'000);

  writeText(source, "22");
  output({"put", "--wait", source, "home:Files/Docs/notes"});
  EXPECT_EQ(readText(place + "/notes"), "22");
  EXPECT_EQ(output({"cat", "home:Files/Docs/notes"}), "22");

  const std::string large(3'000'001, 'i');
  EXPECT_EQ(run({"put", "--wait", "-", "home:Files/Docs/from input"}, large).exitStatus, 0);
  EXPECT_EQ(readText(place + "/from input"), large);
  writeText(folder.file("other"), "other");
  const auto lines = output({"--json", "put", "--wait", source, folder.file("other"), "home:Files/Docs/"});
  EXPECT_THAT(lines, HasSubstr(R"("path":"Files/Docs/other","state":"sent")"));
  EXPECT_EQ(readText(place + "/other"), "other");
  EXPECT_TRUE(uploads().empty());
  for (const auto& left : std::filesystem::directory_iterator(container + "/tmp")) {
    ADD_FAILURE() << left.path() << " is left of the spooled bytes and the answers";
  }

  // A drop box takes whatever comes, and shows nothing.
  output({"put", "--wait", source, "home:Inbox"});
  output({"put", "--wait", folder.file("other"), "home:Inbox/notes"});
  std::vector<std::string> dropped;
  for (const auto& each : std::filesystem::directory_iterator(server.inbox())) {
    if (each.is_regular_file()) dropped.push_back(readText(each.path()));
  }
  EXPECT_THAT(dropped, testing::UnorderedElementsAre("22", "other"));

  expectFailure({"put", source, "home"}, 2, "The last argument says where the files go");
  expectFailure({"put", source, "home:"}, 2, "Files go into a share");
  expectFailure({"put", "-", "home:Files/Docs"}, 2, "Standard input has no name");
  expectFailure({"put", folder.file("missing"), "home:Files/Docs"}, 1, "No such file or directory");
  expectFailure({"put", source, "home:Files/Nowhere/notes"}, 3, "home:Files/Nowhere: There is no such folder");
  expectFailure({"put", source, "home:Files/Docs/other/notes"}, 1, "Not a folder");
  expectFailure({"put", source, "home:Library"}, 1, "home:Library: Nothing may be written there.");
  std::filesystem::create_directory(folder.file("b"));
  writeText(folder.file("b/Taken"), "a file");
  expectFailure({"put", folder.file("b/Taken"), "home:Files/Docs/"}, 1, "A folder of that name is there");
  EXPECT_TRUE(uploads().empty());
}

TEST_F(Put, PutsWholeFoldersOntoThoseOfTheServer) {
  const std::string tree = folder.file("tree"), place = server.files() + "/Docs";
  std::filesystem::create_directories(place + "/Present/Deep");
  std::filesystem::create_directories(tree + "/Present/Deep");
  std::filesystem::create_directories(tree + "/Absent/Deep");
  for (const char* name : {"/top", "/Present/one", "/Present/Deep/two", "/Absent/lost", "/Absent/Deep/lost"}) {
    writeText(tree + name, name);
  }
  std::filesystem::create_symlink("..", tree + "/Present/round");
  addAccount();
  const auto result = run({"put", "--wait", tree, "home:Files/Docs"});
  EXPECT_EQ(result.exitStatus, 3);
  EXPECT_THAT(result.standardError, HasSubstr("home:Files/Docs/Absent: There is no such folder on the server"));
  EXPECT_THAT(result.standardError, HasSubstr("Present/round: Neither a file nor a folder; left out."));
  for (const char* name : {"/top", "/Present/one", "/Present/Deep/two"}) EXPECT_EQ(readText(place + name), name);
  EXPECT_FALSE(std::filesystem::exists(place + "/Absent"));

  std::filesystem::create_directory(folder.file("b"));
  writeText(folder.file("b/top"), "another");
  const auto twice = run({"put", tree + "/top", folder.file("b/top"), "home:Files/Docs"});
  EXPECT_EQ(twice.exitStatus, 2);
  EXPECT_THAT(twice.standardError, HasSubstr("Another of the files goes to home:Files/Docs/top already."));
}

TEST_F(Put, GoesOnByItselfWhenTheServerIsBack) {
  addAccount();
  output({"ls", "home:Files"});
  server.stop();
  put("first", "home:Files/notes");
  put("second", "home:Files/notes");
  const auto pending = uploads();
  ASSERT_EQ(pending.size(), 1U);
  EXPECT_EQ(pending[0]["account"], "home");
  EXPECT_EQ(pending[0]["path"], "Files/notes");
  EXPECT_EQ(pending[0]["state"], "waiting");
  EXPECT_EQ(pending[0]["size"], 6);
  EXPECT_EQ(pending[0]["percent"], 0);
  EXPECT_THAT(output({"uploads", "home"}), HasSubstr("home:Files/notes\t0% of 6 B\twaiting for its turn"));
  EXPECT_EQ(object({"status"})["accounts"][0]["pendingUploads"], 1);
  writeText(folder.file("source"), "third");
  const auto late = run({"--timeout", "0.3", "put", "--wait", folder.file("source"), "home:Files/other"});
  EXPECT_EQ(late.exitStatus, 5);
  EXPECT_THAT(late.standardError, HasSubstr("1 file was not sent to home in time, but safe here and on the way."));
  expectFailure({"--timeout", "0.3", "uploads", "--wait"}, 5, "2 files were not sent to home in time");
  expectFailure({"put", folder.file("source"), "home:Files/Unknown/notes"}, 5, "Nothing answers at " + address());

  // The login is no longer good either: whoever is started then signs in with nobody there.
  Arrivals arrivals(server.files());
  server.restart();
  ASSERT_TRUE(server->revokeAllSessions());
  ASSERT_TRUE(arrivals.waitFor("notes"));
  EXPECT_TRUE(becomesTrue([this] { return uploads().empty(); }));
  EXPECT_EQ(readText(server.files() + "/notes"), "second");
  EXPECT_EQ(readText(server.files() + "/other"), "third");
  server.stop();
  EXPECT_EQ(output({"cat", "home:Files/notes"}), "second") << "folded into the cache";
}

TEST_F(Put, WaitsForTheFirstSignInWithoutTheCommand) {
  addAccount();
  output({"ls", "home:Files"});
  // A login that the server no longer knows goes, and there is no other for the moment.
  ASSERT_TRUE(server->revokeAllSessions());
  ASSERT_TRUE(server->removeUser(TestServer::user));
  EXPECT_EQ(run({"ls", "--fresh", "home:Files"}).exitStatus, 4);
  ASSERT_TRUE(server->addUser(TestServer::user, Secret(TestServer::password)));
  server.stop();
  put("bytes", "home:Files/notes");
  ASSERT_EQ(uploads().size(), 1U);
  EXPECT_THAT(output({"uploads"}), HasSubstr("waiting for signing in"));
  Arrivals arrivals(server.files());
  server.restart();
  EXPECT_TRUE(arrivals.waitFor("notes"));
  EXPECT_TRUE(becomesTrue([this] { return uploads().empty(); }));
  EXPECT_EQ(readText(server.files() + "/notes"), "bytes");
}

TEST_F(Put, KeepsBothSidesOfAConflict) {
  writeText(server.files() + "/notes", "base");
  addAccount();
  EXPECT_EQ(output({"cat", "home:Files/notes"}), "base");
  server.stop();
  put("mine", "home:Files/notes");
  writeText(server.files() + "/notes", "theirs");
  server.restart();
  const auto waited = run({"uploads", "--wait"});
  EXPECT_EQ(waited.exitStatus, 6);
  EXPECT_THAT(waited.standardError, HasSubstr("home:Files/notes: Somebody else has changed it on the server"));
  const auto pending = uploads();
  ASSERT_EQ(pending.size(), 1U);
  EXPECT_EQ(pending[0]["state"], "conflict");
  EXPECT_EQ(readText(pending[0]["localFile"]), "mine");
  EXPECT_EQ(readText(pending[0]["serversFile"]), "theirs");
  EXPECT_EQ(readText(server.files() + "/notes"), "theirs");
  EXPECT_EQ(run({"uploads", "--retry", "--wait"}).exitStatus, 6) << "nobody has decided it";
  EXPECT_EQ(readText(server.files() + "/notes"), "theirs");

  put("mine after all", "home:Files/notes", {"--timeout", "60"});
  EXPECT_EQ(run({"uploads", "--wait"}).exitStatus, 0);
  EXPECT_EQ(readText(server.files() + "/notes"), "mine after all");

  // The same with the command that wrote it still there.
  server.stop();
  writeText(folder.file("source"), "mine again");
  RunningProgram waiting(command({"--json", "put", "--wait", folder.file("source"), "home:Files/notes"}));
  EXPECT_THAT(waiting.line(), HasSubstr("queued"));
  writeText(server.files() + "/notes", "theirs again");
  server.restart();
  EXPECT_THAT(waiting.line(), HasSubstr("Somebody else has changed it on the server"));
  EXPECT_EQ(WEXITSTATUS(waiting.wait()), 6);
}

TEST_F(Put, ArrivesWhenTheCommandIsKilledInTheMiddle) {
  std::string contents(64 << 20, '\0');
  for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * 2654435761U >> 13U);
  writeText(folder.file("large"), contents);
  addAccount();
  put("first", "home:Files/first");
  EXPECT_EQ(run({"uploads", "--wait"}).exitStatus, 0);
  Arrivals begun(server.files() + "/.florvane-uploads"), arrivals(server.files());
  RunningProgram killed(command({"put", "--wait", folder.file("large"), "home:Files/large"}));
  ASSERT_NE(begun.next(), "");
  kill(killed.identifier, SIGKILL);
  killed.wait();
  EXPECT_TRUE(arrivals.waitFor("large"));
  EXPECT_TRUE(becomesTrue([this] { return uploads().empty(); }));
  EXPECT_TRUE(readText(server.files() + "/large") == contents);
}

TEST_F(Put, DoesNotTakeAnUploadThatIsGoneForSent) {
  addAccount();
  output({"ls", "home:Files"});
  server.stop();
  writeText(folder.file("source"), "bytes");
  RunningProgram waiting(command({"--json", "put", "--wait", folder.file("source"), "home:Files/notes"}));
  EXPECT_THAT(waiting.line(), HasSubstr("queued"));
  output({"reset", "--discard-unsent", "home"});
  EXPECT_THAT(waiting.line(), HasSubstr("What was not sent is kept in " + container + "/Recovered"));
  EXPECT_EQ(WEXITSTATUS(waiting.wait()), 1);
}

TEST_F(Put, SaysWhatFailedAndTriesItAgain) {
  std::filesystem::create_directory(server.files() + "/Docs");
  addAccount();
  output({"ls", "home:Files/Docs"});
  server.restart([](ServerOptions& options) { options.maximumUploadSize = 4; });
  writeText(folder.file("source"), "too large");
  const auto refused = run({"put", "--wait", folder.file("source"), "home:Files/Docs/notes"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.standardError, HasSubstr("florvane uploads --retry home"));
  const auto pending = uploads();
  ASSERT_EQ(pending.size(), 1U);
  EXPECT_EQ(pending[0]["state"], "failed");
  EXPECT_TRUE(pending[0]["reason"].is_string());
  EXPECT_EQ(run({"uploads", "--wait"}).exitStatus, 1);
  server.restart([](ServerOptions& options) { options.maximumUploadSize = 1'000'000; });
  output({"uploads", "--retry", "--wait", "home"});
  EXPECT_EQ(readText(server.files() + "/Docs/notes"), "too large");
  EXPECT_EQ(output({"uploads"}), "");
}

}  // namespace
}  // namespace florvane::test
