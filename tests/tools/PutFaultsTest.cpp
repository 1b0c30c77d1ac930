#include "platform/TransferFolder.h"
#include "tests/support/SmallDisk.h"
#include "tests/tools/PutFixture.h"

#include <algorithm>

namespace florvane::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class PutFaults : public PutFixture {
 protected:
  // The program as it is on a machine without its agent.
  ProcessResult runWithoutAgent(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = command(arguments);
    all.insert(std::find(all.begin(), all.end(), program), "FLORVANE_TRANSFERD=/nowhere/florvane-transferd");
    return runProcess(all);
  }
};

TEST_F(PutFaults, WithoutAnAgentItSaysSoAndTheNextOneThatHasItSends) {
  addAccount();
  output({"ls", "home:Files"});
  writeText(folder.file("source"), "bytes");
  server.stop();
  const auto put = runWithoutAgent({"put", folder.file("source"), "home:Files/notes"});
  EXPECT_EQ(put.exitStatus, 0) << put.standardError;
  EXPECT_THAT(put.standardError, HasSubstr("The transfer agent (florvane-transferd) cannot be started: No such file"));
  EXPECT_THAT(put.standardError, Not(HasSubstr("on the way")));
  ASSERT_EQ(uploads().size(), 1U);
  EXPECT_EQ(uploads()[0]["path"], "Files/notes");
  server.restart();
  output({"uploads", "--wait"});
  EXPECT_EQ(readText(server.files() + "/notes"), "bytes");
  EXPECT_THAT(uploads(), IsEmpty());
  // While a command runs it does without.
  writeText(folder.file("source"), "other bytes");
  const auto waited = runWithoutAgent({"put", "--wait", folder.file("source"), "home:Files/notes"});
  EXPECT_EQ(waited.exitStatus, 0) << waited.standardError;
  EXPECT_EQ(readText(server.files() + "/notes"), "other bytes");
}

TEST(PutOnAFullDisk, FailsInWordsAndLosesNothing) {
  const TemporaryDirectory place, sources;
  SmallDisk disk(place.path(), std::size_t{32} << 20);
  if (disk.obstacle()) GTEST_SKIP() << "This machine lets nobody have a disk of its own: " << *disk.obstacle();
  TestServer server;
  writeText(sources.file("password"), std::string(TestServer::password) + "\n");
  const std::string program = std::string(FLORVANE_BIN_DIR) + "/florvane";
  auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {program, "--container", place.file("container")});
    return runProcess(arguments);
  };
  ASSERT_EQ(run({"account", "add", "home", "127.0.0.1:" + std::to_string(server.port()), "--user", TestServer::user,
                 "--password-file", sources.file("password")})
                .exitStatus,
            0);
  writeText(sources.file("source"), "first");
  ASSERT_EQ(run({"put", "--wait", sources.file("source"), "home:Files/notes"}).exitStatus, 0);
  writeText(sources.file("source"), std::string(100'000, 'x'));
  disk.leave(4096);
  for (const char* target : {"home:Files/notes", "home:Files/other"}) {
    const auto put = run({"put", sources.file("source"), target});
    EXPECT_EQ(put.exitStatus, 1);
    EXPECT_THAT(put.standardError, HasSubstr("No space left on device"));
  }
  EXPECT_EQ(run({"uploads"}).standardOutput, "");
  disk.release();
  EXPECT_EQ(run({"cat", "home:Files/notes"}).standardOutput, "first");
  EXPECT_EQ(run({"put", "--wait", sources.file("source"), "home:Files/notes"}).exitStatus, 0);
  EXPECT_EQ(readText(server.files() + "/notes"), std::string(100'000, 'x'));
  auto agent = TransferFolder::open(place.file("container")).and_then([](auto folder) { return folder.connect(); });
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (agent && getsockopt(agent->get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
    kill(credentials.pid, SIGKILL);
  }
}

}  // namespace
}  // namespace florvane::test
