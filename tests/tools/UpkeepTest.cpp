#include "platform/Clock.h"
#include "platform/PreferencesStore.h"
#include "tests/support/Certificates.h"
#include "tests/support/ScriptedServer.h"
#include "tests/tools/CommandLineFixture.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <regex>

namespace florvane::test {
namespace {

using testing::HasSubstr;
using testing::Not;

using Upkeep = CommandLineFixture;

TEST_F(Upkeep, SaysWhatToDoAboutEveryFinding) {
  addAccount();
  output({"ls", "home:Files"});
  const std::string identifier = object({"account", "list"})["accounts"][0]["identifier"];
  const std::string mark = container + "/Metadata/db/rebuild-" + identifier + ".plist";
  auto found = [&](const std::string& name) {
    auto result = run({"doctor"});
    EXPECT_EQ(result.exitStatus, 1);
    std::string line = result.standardOutput.substr(
        std::min(result.standardOutput.find("FAIL  " + name + ": "), result.standardOutput.size()));
    return line.substr(0, line.find('\n'));
  };
  writeText(mark, "<plist version=\"1.0\"><array/></plist>");
  EXPECT_THAT(found("home: store"), HasSubstr("any command goes on with it, such as: florvane status home"));
  EXPECT_TRUE(std::filesystem::exists(mark)) << "doctor changes nothing";
  output({"status", "home"});
  EXPECT_FALSE(std::filesystem::exists(mark));
  EXPECT_EQ(run({"doctor"}).exitStatus, 0);

  // Whatever is in the way of the agent.
  std::filesystem::rename(container + "/Transfers", container + "/away");
  writeText(container + "/Transfers", "no folder");
  EXPECT_THAT(found("home: agent"), HasSubstr("the container is writable"));
  std::filesystem::remove(container + "/Transfers");
  std::filesystem::rename(container + "/away", container + "/Transfers");
  setenv("FLORVANE_TRANSFERD", "/nowhere/florvane-transferd", 1);
  EXPECT_THAT(found("home: agent"), HasSubstr("was not found. Uploads go on only while a command runs"));
  unsetenv("FLORVANE_TRANSFERD");

  ScriptedServer broken(
      [](ScriptedServer::Connection& connection) {
        while (connection.read()) connection.send("HTTP/1.1 500 Broken\r\nContent-Length: 0\r\n\r\n");
      },
      makeCertificate());
  output({"account", "add", "broken", "127.0.0.1:" + std::to_string(broken.port()), "--user", "ada", "--password-file",
          folder.file("password")});
  EXPECT_THAT(found("broken: sign-in"), HasSubstr("HTTP 500. See the server's own log."));
  output({"account", "remove", "broken"});

  const auto ahead = Clock::system().now().microsecondsSince1970() / 1'000'000 + 3600;
  tm calendar{};
  const time_t seconds = static_cast<time_t>(ahead);
  std::array<char, 64> date{};
  (void)std::strftime(date.data(), date.size(), "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&seconds, &calendar));
  const Certificate certificate = makeCertificate();
  ScriptedServer late(
      [&](ScriptedServer::Connection& connection) {
        while (connection.read()) {
          connection.send(std::string("HTTP/1.1 304 Same\r\nDate: ") + date.data() + "\r\n\r\n");
        }
      },
      certificate);
  output({"account", "add", "late", "127.0.0.1:" + std::to_string(late.port()), "--user", "ada", "--password-file",
          folder.file("password")});
  auto added = AccountStore(container).accountWithName("late");
  ASSERT_TRUE(added && *added);
  PreferencesStore preferences(container + "/Preferences/group.quorl.Florvane.plist");
  ASSERT_TRUE(preferences.set("AuthenticatedCookie_" + (*added)->identifier, Value("k=1")));
  ASSERT_TRUE(preferences.set("TrustedCertData_" + (*added)->identifier, Value(certificate.der())));
  EXPECT_THAT(found("late: clock"), HasSubstr("seconds behind the server's; set this machine's clock"));
}

// What a later version has made of the database, and of the transfers, is not for this one.
TEST_F(Upkeep, RefusesWhatANewerVersionHasWritten) {
  writeText(server.files() + "/notes", "1");
  writeText(folder.file("letter"), "Dear Ada");
  addAccount();
  output({"cat", "home:Files/notes"});
  const std::string identifier = object({"account", "list"})["accounts"][0]["identifier"];
  auto makeNewer = [](const std::string& store, int version) {
    auto made = runPython(
        "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\nc.execute('PRAGMA user_version = '+sys.argv[2])\n"
        "c.commit()\n",
        {store, std::to_string(version)});
    ASSERT_EQ(made.exitStatus, 0) << made.standardError;
  };
  const std::string store = container + "/Metadata/db/" + identifier + ".sqlite";
  makeNewer(store, 1000);
  const std::string before = readText(store);
  const std::string sentence = "\"" + store +
                               "\" has version 1000 and was written by a newer version of this software. Nothing of it "
                               "was changed. Use that version, or keep a container of your own with --container.";
  const std::vector<std::vector<std::string>> commands = {{"ls", "home"},
                                                          {"stat", "home:Files"},
                                                          {"cat", "home:Files/notes"},
                                                          {"get", "home:Files/notes", folder.file("got")},
                                                          {"put", folder.file("letter"), "home:Files/letter"},
                                                          {"watch", "home:Files"},
                                                          {"uploads", "home"},
                                                          {"uploads", "--retry"},
                                                          {"status"},
                                                          {"rebuild", "home"},
                                                          {"reset", "home"},
                                                          {"reset", "--discard-unsent", "home"},
                                                          {"account", "remove", "home"}};
  for (const auto& each : commands) expectFailure(each, 1, sentence);
  EXPECT_THAT(run({"doctor"}).standardOutput, HasSubstr("FAIL  home: store: The store " + sentence));
  EXPECT_EQ(readText(store), before);
  EXPECT_EQ(filesHolding("Dear Ada"), std::vector<std::string>());
  makeNewer(store, 2);
  EXPECT_EQ(output({"cat", "home:Files/notes"}), "1");

  // The agent's, which is asked for only when there is something to send.
  const std::string transfers = container + "/Transfers/transfers.sqlite";
  std::filesystem::create_directories(container + "/Transfers");
  makeNewer(transfers, 1000);
  const std::string tasks = readText(transfers);
  auto agent = runProcess({std::string(FLORVANE_BIN_DIR) + "/florvane-transferd", "--container", container});
  EXPECT_EQ(agent.exitStatus, 1);
  EXPECT_THAT(agent.standardError, HasSubstr("florvane-transferd: The store \"" + transfers + "\" has version 1000"));
  auto put = run({"--timeout", "60", "put", "--wait", folder.file("letter"), "home:Files/letter"});
  EXPECT_EQ(put.exitStatus, 1) << put.standardError;
  EXPECT_THAT(put.standardError,
              HasSubstr("\"" + transfers + "\" has version 1000 and was written by a newer version"));
  EXPECT_THAT(run({"doctor"}).standardOutput, HasSubstr("FAIL  home: agent: The store \"" + transfers + "\""));
  EXPECT_EQ(readText(transfers), tasks);
  EXPECT_THAT(filesHolding("Dear Ada"), Not(testing::IsEmpty())) << "what was written stays here";
  makeNewer(transfers, 0);
  std::filesystem::remove(transfers);
  output({"--timeout", "60", "uploads", "--retry", "--wait", "home"});
  EXPECT_EQ(readText(server.files() + "/letter"), "Dear Ada");
}

// The manuals and the completion name all that the programs take.
TEST_F(Upkeep, IsDescribedAsItIs) {
  const std::string source = FLORVANE_SOURCE_DIR;
  const std::string bash = readText(source + "/packaging/florvane.bash");
  auto expectDescribed = [&](std::vector<std::string> command, const std::string& manual, bool isCompleted) {
    command.emplace_back("--help");
    const std::string help = runProcess(command).standardOutput;
    EXPECT_THAT(help, HasSubstr("--help")) << testing::PrintToString(command);
    static const std::regex option("(^|[ ,])--([a-z-]+)");
    for (std::sregex_iterator each(help.begin(), help.end(), option), end; each != end; ++each) {
      const std::string name = (*each)[2];
      EXPECT_THAT(manual, HasSubstr("Fl -" + name)) << testing::PrintToString(command);
      if (isCompleted) {
        EXPECT_THAT(bash, HasSubstr("--" + name)) << testing::PrintToString(command);
      }
    }
    return help;
  };
  const std::string manual = readText(source + "/docs/man/florvane.1");
  const std::string help = expectDescribed({program}, manual, true);
  static const std::regex subcommand("\n  ([a-z]+) +[A-Z]");
  std::vector<std::string> names;
  for (std::sregex_iterator each(help.begin(), help.end(), subcommand), end; each != end; ++each) {
    names.push_back((*each)[1]);
  }
  EXPECT_EQ(names.size(), 12U) << help;
  for (const std::string& name : names) {
    EXPECT_THAT(manual, HasSubstr("Ic " + name));
    EXPECT_THAT(bash, HasSubstr(name));
    expectDescribed({program, name}, manual, true);
  }
  expectDescribed({program, "account", "add"}, manual, true);
  expectDescribed({std::string(FLORVANE_BIN_DIR) + "/florvane-transferd"},
                  readText(source + "/docs/man/florvane-transferd.8"), false);
  const std::string serversManual = readText(source + "/docs/man/florvaned.8");
  for (const auto& words : std::vector<std::vector<std::string>>{
           {}, {"user", "add"}, {"user", "password"}, {"user", "remove"}, {"user", "list"}, {"sessions", "revoke"}}) {
    std::vector<std::string> command = {std::string(FLORVANE_BIN_DIR) + "/florvaned"};
    command.insert(command.end(), words.begin(), words.end());
    expectDescribed(command, serversManual, false);
  }
}

}  // namespace
}  // namespace florvane::test
