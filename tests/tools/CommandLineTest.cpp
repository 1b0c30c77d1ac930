#include "platform/Date.h"
#include "tests/support/ScriptedServer.h"
#include "tests/tools/CommandLineFixture.h"

#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>

namespace florvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using CommandLine = CommandLineFixture;

TEST_F(CommandLine, SaysWhatWentWrongInASentenceAndByItsStatus) {
  std::filesystem::create_directory(server.files() + "/Folder");
  writeText(server.files() + "/notes", "1");
  writeText(folder.file("empty"), "\n");
  const std::string good = folder.file("password");
  auto adding = [&](const std::string& name, const std::string& where, const std::string& passwordFile) {
    return std::vector<std::string>{"account", "add", name, where, "--user", "ada", "--password-file", passwordFile};
  };
  expectFailure({"ls", "home"}, 3, "There is no account named \"home\". Add one with: florvane account add home");
  expectFailure({}, 2, "subcommand is required");
  expectFailure({"list"}, 2, "There is no command \"list\".");
  expectFailure({"--timeout", "nan", "ls", "home"}, 2, "Not a number of seconds");
  expectFailure({"ls", ":Files"}, 2, "An account's name is missing");
  expectFailure(adding("home", "two words", good), 2, "Not a host, or HOST:PORT: two words");
  expectFailure(adding("home", "localhost:65536", good), 2, "Not a host, or HOST:PORT: localhost:65536");
  expectFailure(adding("a:b", address(), good), 2, "must not be empty or hold");
  expectFailure(adding("home", address(), folder.file("empty")), 2, "The password file is empty");
  expectFailure(adding("home", address(), folder.file("missing")), 1, "No such file or directory");
  EXPECT_EQ(output({"account", "list"}), "");

  addAccount();
  expectFailure(adding("home", address(), good), 1, "There is an account named \"home\" already.");
  expectFailure({"account", "remove", "other"}, 3, "There is no account named \"other\".");
  expectFailure({"ls", "home:Nowhere"}, 3, "Nowhere: No such item.");
  expectFailure({"stat", "home:Files/notes/below"}, 3, "Files/notes/below: No such item.");
  expectFailure({"cat", "home:Files/Folder"}, 1, "home:Files/Folder: Is a directory.");
  expectFailure({"get", "home"}, 1, "home: Is a directory.");
  expectFailure({"get", "home:Files/notes", folder.file("missing/notes")}, 1, "No such file or directory");

  addAccount("stranger", "mallory");
  expectFailure({"ls", "stranger"}, 4, "refused the sign-in. Check user name and password");
  server.stop();
  expectFailure({"ls", "--fresh", "home"}, 5, "Nothing answers at " + address());
  expectFailure({"watch", "home:Files"}, 5, "Nothing answers at " + address());
}

TEST_F(CommandLine, AnswersInJSON) {
  std::filesystem::create_directory(server.files() + "/Folder");
  writeText(server.files() + "/data", std::string("\0\xff\n", 3));
  const timespec dates[2] = {{1'600'000'000, 123'456'000}, {1'600'000'000, 123'456'000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (server.files() + "/data").c_str(), dates, 0), 0);

  auto added =
      object({"account", "add", "home", address(), "--user", "ada", "--password-file", folder.file("password")});
  EXPECT_EQ(added["host"], address());
  EXPECT_EQ(object({"account", "list"})["accounts"][0], added);
  auto shares = object({"ls", "home"});
  EXPECT_EQ(shares["state"], 4);
  EXPECT_EQ(shares["items"].size(), 3U);
  auto items = object({"ls", "home:/Files//"})["items"];
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(items[0]["type"], "directory");
  const nlohmann::json data = {{"name", "data"},
                               {"type", "file"},
                               {"size", 3},
                               {"modified", "2020-09-13T12:26:40.123456Z"},
                               {"pendingUpload", false}};
  EXPECT_EQ(items[1], data);
  EXPECT_EQ(object({"ls", "home:Files/data"})["items"], nlohmann::json::array({data})) << "a file lists itself";
  EXPECT_EQ(object({"stat", "home:Files/data"})["path"], "Files/data");
  auto root = object({"stat", "home"});
  EXPECT_EQ(root["name"], "home");
  EXPECT_EQ(root["type"], "directory");
  EXPECT_TRUE(root["version"].is_string());
  auto contents = object({"cat", "home:Files/data"});
  EXPECT_EQ(contents["encoding"], "base64");
  EXPECT_EQ(contents["contents"], "AP8K");
  EXPECT_EQ(object({"get", "home:Files/data", folder.path()})["path"], folder.file("data"));
  EXPECT_EQ(object({"doctor"})["ok"], true);
  EXPECT_EQ(object({"account", "remove", "home"})["removed"], "home");
  EXPECT_TRUE(object({"account", "list"})["accounts"].empty());
}

TEST_F(CommandLine, KeepsEveryNameApartAndOffTheTerminalsControls) {
  const std::vector<std::string> names = {"-dash",      "100%41",     "a:b",         "line\nbreak",       "red\x1b[31m",
                                          "two  words", "Grüße 文書", "csi\xc2\x9b", "rtl\xe2\x80\xaegnp"};
  for (const auto& name : names) writeText(server.files() + "/" + name, name);
  addAccount();
  std::vector<std::string> listed;
  const auto items = object({"ls", "home:Files"})["items"];
  for (const auto& item : items) listed.push_back(item["name"]);
  EXPECT_THAT(listed, testing::UnorderedElementsAreArray(names));
  for (const auto& name : names) EXPECT_EQ(output({"cat", "home:Files/" + name}), name);
  std::string plain = output({"ls", "-l", "home:Files"});
  EXPECT_EQ(std::count(plain.begin(), plain.end(), '\n'), static_cast<std::ptrdiff_t>(names.size()));
  for (const char* shown : {"line\\x0abreak\n", "red\\x1b[31m\n", "csi\\x9b\n", "rtl\\u202egnp\n", "Grüße 文書\n"}) {
    EXPECT_THAT(plain, HasSubstr(shown));
  }
  expectFailure({"cat", "home:Files/\x1b[2J"}, 3, "No such item.");
  EXPECT_THAT(run({"cat", "home:Files/\x1b[2J"}).standardError, Not(HasSubstr("\x1b")));
}

TEST_F(CommandLine, PutsAFetchedFileInItsPlaceWhole) {
  const std::string contents(3'000'001, 'n');
  writeText(server.files() + "/notes", contents);
  const timespec dates[2] = {{1'600'000'000, 123'456'000}, {1'600'000'000, 123'456'000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (server.files() + "/notes").c_str(), dates, 0), 0);
  addAccount();
  const std::string present = folder.file("present"), link = folder.file("link");
  writeText(present, "old");
  std::filesystem::create_hard_link(present, folder.file("the old one"));
  std::filesystem::create_symlink("present", link);
  ASSERT_EQ(chmod(present.c_str(), 0600), 0);

  EXPECT_EQ(run({"get", "home:Files/gone", present}).exitStatus, 3);
  EXPECT_EQ(readText(present), "old");
  output({"get", "home:Files/notes", link});
  EXPECT_EQ(readText(present), contents);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(readText(folder.file("the old one")), "old") << "overwritten in place";
  struct stat status{};
  ASSERT_EQ(stat(present.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(status.st_mtim.tv_sec, 1'600'000'000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'000);

  // Into a folder, of another file system than the container's where there is one, by its own name.
  std::string other = "/dev/shm/florvane-XXXXXX";
  if (!mkdtemp(other.data())) other = folder.file("empty home");
  output({"get", "home:Files/notes", other});
  EXPECT_EQ(readText(other + "/notes"), contents);
  std::filesystem::remove(other + "/notes");
  EXPECT_TRUE(std::filesystem::is_empty(other)) << "no temporary is left";
  if (other != home) std::filesystem::remove(other);
  EXPECT_EQ(output({"get", "home:Files/notes", "/dev/stdout"}), contents);
  EXPECT_TRUE(std::filesystem::is_empty(container + "/tmp"));
}

// Long enough to be followed while it comes.
TEST_F(CommandLine, CopiesALargeFileToItsLastByte) {
  std::string contents(std::size_t{96} << 20U, '\0');
  std::uint32_t state = 1;
  for (char& each : contents) each = static_cast<char>((state = state * 1'664'525 + 1'013'904'223) >> 24U);
  const std::string served = server.files() + "/large", place = folder.file("fetched/large");
  auto serve = [&](time_t second) {
    writeText(served, contents);
    const timespec dates[2] = {{second, 0}, {second, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, served.c_str(), dates, 0), 0);
  };
  serve(1'600'000'000);
  addAccount();
  std::filesystem::create_directory(folder.file("fetched"));
  for (time_t second : {1'600'000'000, 1'600'000'001}) {
    output({"get", "home:Files/large", place});
    EXPECT_TRUE(readText(place) == contents);
    struct stat status{};
    ASSERT_EQ(stat(place.c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1U) << "the cache's own file";
    EXPECT_EQ(status.st_mtim.tv_sec, second);
    contents.resize(contents.size() - 1'000'001);
    serve(second + 1);
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.file("fetched")), {}), 1) << "a temporary is left";
}

TEST_F(CommandLine, FailsWhenItsOutputTakesNoMore) {
  writeText(server.files() + "/large", std::string(1'000'000, 'x'));
  addAccount();
  auto shell = [&](const std::string& script, const std::string& what) {
    std::vector<std::string> all = {"sh", "-c", script, "sh"};
    for (const auto& each : command({what, "home:Files" + std::string(what == "cat" ? "/large" : "")}))
      all.push_back(each);
    return runProcess(all);
  };
  for (const char* what : {"ls", "cat"}) {
    auto full = shell("\"$@\" >/dev/full", what);
    EXPECT_EQ(full.exitStatus, 1);
    EXPECT_THAT(full.standardError, HasSubstr("No space left on device"));
  }
  EXPECT_EQ(shell("{ \"$@\"; echo $? >&2; } | head -c 1", "cat").standardError, "1\n") << "silently";
  // None of its files takes the place of an output that is missing.
  for (const char* what : {"ls", "cat"}) EXPECT_EQ(shell("\"$@\" >&-", what).exitStatus, 1) << what;
}

TEST_F(CommandLine, AsksForAPasswordOnlyOnATerminal) {
  const std::vector<std::string> add = {"account", "add", "home", address(), "--user", "ada"};
  expectFailure(add, 2, "There is no terminal to ask for the password. Give it in a file: --password-file FILE");
  EXPECT_THAT(run(add, "secret\n").standardError, Not(HasSubstr("Password of")));
  auto fromInput = add;
  fromInput.insert(fromInput.end(), {"--password-file", "-"});
  EXPECT_EQ(run(fromInput, std::string(TestServer::password) + "\r\nrest").exitStatus, 0);
  output({"ls", "home"});
  output({"account", "remove", "home"});

  constexpr char kTerminal[] = R"(
import os, pty, sys, termios
typed, command = sys.argv[1].encode().decode("unicode_escape").encode(), sys.argv[2:]
child, master = pty.fork()
if child == 0: os.execvp(command[0], command)
said = b""
while b"Password of ada at " not in said: said += os.read(master, 1024)
while termios.tcgetattr(master)[3] & termios.ECHO: pass
os.write(master, typed)
ended = os.waitpid(child, 0)[1]
assert termios.tcgetattr(master)[3] & termios.ECHO, "echo is off"
try:
  while more := os.read(master, 1024): said += more
except OSError: pass
assert typed.strip() not in said, said
print(ended)
)";
  auto typing = [&](const std::string& typed) {
    std::vector<std::string> arguments = {typed};
    for (const auto& each : command(add)) arguments.push_back(each);
    auto result = runPython(kTerminal, arguments);
    EXPECT_EQ(result.standardError, "");
    return result.standardOutput;
  };
  EXPECT_EQ(typing("\\x03"), std::to_string(SIGINT) + "\n");
  EXPECT_EQ(typing(std::string(TestServer::password) + "\\n"), "0\n");
  output({"ls", "home"});
}

TEST_F(CommandLine, SignsInOnceForAllProcessesUntilTheAccountIsRemoved) {
  addAccount();
  auto loud = run({"--debug", "ls", "home"});
  EXPECT_THAT(loud.standardError, Not(HasSubstr(TestServer::password)));
  EXPECT_THAT(loud.standardError, Not(testing::ContainsRegex("k=[A-Za-z0-9+/]{20}")));
  EXPECT_THAT(filesHolding(TestServer::password), ElementsAre("Credentials.plist"));

  ASSERT_TRUE(server->revokeAllSessions());
  output({"ls", "home"});
  removePassword();
  output({"ls", "home"});
  server.restart();
  output({"ls", "home:Files"});
  ASSERT_TRUE(server->revokeAllSessions());
  expectFailure({"ls", "home"}, 4, "The password of this account is missing.");

  const std::string identifier = object({"account", "list"})["accounts"][0]["identifier"];
  output({"account", "remove", "home"});
  EXPECT_THAT(filesHolding(identifier), IsEmpty());
}

TEST_F(CommandLine, BelievesANewCertificateOnlyOfAServerThatKnowsThePassword) {
  addAccount();
  output({"ls", "home"});
  server.forgetCertificate();
  server.restart();
  output({"ls", "home"});
  server.forgetCertificate();
  server.restart();
  ASSERT_TRUE(server->removeUser(TestServer::user));
  ASSERT_TRUE(server->addUser(TestServer::user, Secret("another")));
  expectFailure({"ls", "home"}, 4, "refused the sign-in. Check user name and password");
}

TEST_F(CommandLine, WatchesThroughEditsRemovalsAndRestarts) {
  writeText(server.files() + "/edited", "1");
  writeText(server.files() + "/removed", "1");
  addAccount();
  RunningProgram watch(command({"--timeout", "60", "watch", "--count", "4", "home:Files/edited", "home:Files/removed",
                                "home:Files/later/appearing"}));
  ASSERT_EQ(watch.line(), "Watching. Stop with Ctrl-C.");
  int failures = 0, returns = 0;
  auto event = [&] {
    std::string line = watch.line();
    for (; line.ends_with(" Trying again.") || line == "Watching again."; line = watch.line()) {
      ++(line == "Watching again." ? returns : failures);
    }
    return line;
  };
  const std::string process = "/proc/" + std::to_string(watch.identifier);
  EXPECT_THAT(readText(process + "/cmdline") + readText(process + "/environ"), Not(HasSubstr(TestServer::password)));
  writeText(server.files() + "/edited", "22");
  EXPECT_EQ(event(), "changed\thome:Files/edited");
  std::filesystem::remove(server.files() + "/removed");
  EXPECT_EQ(event(), "removed\thome:Files/removed");
  server.stop();
  EXPECT_THAT(watch.line(), testing::EndsWith(" Trying again."));
  server.restart();
  std::filesystem::create_directory(server.files() + "/later");
  writeText(server.files() + "/later/appearing", "1");
  EXPECT_EQ(event(), "added\thome:Files/later/appearing");
  ASSERT_TRUE(server->revokeAllSessions());
  writeText(server.files() + "/edited", "333");
  EXPECT_EQ(event(), "changed\thome:Files/edited");
  EXPECT_EQ(event(), "");
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_LT(failures, 5) << "it waits between attempts";
  EXPECT_GE(returns, 1) << "who read that nothing answers wants to know";

  RunningProgram interrupted(command({"--json", "watch", "home:Files"}));
  ASSERT_EQ(interrupted.line(), "Watching. Stop with Ctrl-C.");
  writeText(server.files() + "/another", "1");
  const auto heard = nlohmann::json::parse(interrupted.line(), nullptr, false);
  EXPECT_EQ(heard["event"], "added");
  EXPECT_EQ(heard["path"], "home:Files/another");
  kill(interrupted.identifier, SIGINT);
  EXPECT_EQ(interrupted.wait(), SIGINT);
  // When its time is over it has done what was asked, unless events were; or it never came to watching.
  for (const auto& [options, status] : {std::pair("--quiet", 0), std::pair("--count=1", 1)}) {
    RunningProgram over(command({"--timeout", "1", "watch", options, "home:Files"}));
    const bool began = !over.line().starts_with("florvane: ");
    EXPECT_EQ(WEXITSTATUS(over.wait()), began ? status : 5);
  }
}

TEST_F(CommandLine, GivesUpInTimeOnAServerThatOnlyAccepts) {
  Signal end;
  ScriptedServer silent([&end](ScriptedServer::Connection&) { end.wait(); });
  output({"account", "add", "silent", "127.0.0.1:" + std::to_string(silent.port()), "--user", "ada", "--password-file",
          folder.file("password")});
  for (const char* what : {"ls", "cat", "watch"}) {
    expectFailure({"--timeout", "0.3", what, "silent:Files"}, 5, "did not answer in time");
  }
  EXPECT_EQ(run({"--timeout", "0.3", "doctor"}).exitStatus, 1);
  end.raise();
}

TEST_F(CommandLine, AnswersFromWhatItKnowsWhenTheServerIsAway) {
  std::filesystem::create_directories(server.files() + "/Folder/deeper");
  writeText(server.files() + "/Folder/deeper/notes", "1");
  writeText(server.files() + "/unread", "1");
  addAccount();
  const std::string listed = output({"ls", "-l", "home:Files/Folder/deeper"});
  EXPECT_EQ(output({"cat", "home:Files/Folder/deeper/notes"}), "1");
  output({"ls", "home:Files"});
  server.stop();
  auto away = run({"ls", "-l", "home:Files/Folder/deeper"});
  EXPECT_EQ(away.exitStatus, 0);
  EXPECT_EQ(away.standardOutput, listed);
  EXPECT_THAT(away.standardError, HasSubstr("Nothing answers at " + address()));
  EXPECT_THAT(away.standardError, HasSubstr("This is what was known before."));
  EXPECT_EQ(object({"ls", "home:Files"})["state"], 1);
  EXPECT_EQ(object({"stat", "home:Files/Folder/deeper/notes"})["size"], 1);
  EXPECT_EQ(output({"cat", "home:Files/Folder/deeper/notes"}), "1");
  output({"get", "home:Files/Folder/deeper/notes", folder.file("fetched")});
  EXPECT_EQ(readText(folder.file("fetched")), "1");
  for (const char* what : {"ls", "stat", "cat", "get"}) {
    expectFailure({what, "--fresh", "home:Files/Folder/deeper/notes"}, 5, "Nothing answers at " + address());
  }
  // Nothing is known of these.
  expectFailure({"ls", "home:Library"}, 5, "Nothing answers at " + address());
  expectFailure({"cat", "home:Files/unread"}, 5, "Nothing answers at " + address());
  expectFailure({"stat", "home:Files/Folder/appeared"}, 5, "Nothing answers at " + address());

  writeText(server.files() + "/Folder/deeper/notes", "22");
  server.restart();
  EXPECT_EQ(object({"ls", "--fresh", "home:Files/Folder/deeper"})["items"][0]["size"], 2);
  EXPECT_EQ(output({"cat", "--fresh", "home:Files/Folder/deeper/notes"}), "22");
  // Whatever the cache's rules of age make of a listing of a moment ago.
  writeText(server.files() + "/Folder/deeper/notes", "333");
  EXPECT_EQ(output({"cat", "home:Files/Folder/deeper/notes"}), "333");
  std::filesystem::rename(server.files() + "/Folder", server.files() + "/Renamed");
  expectFailure({"ls", "home:Files/Folder/deeper"}, 3, "No such item.");
  EXPECT_EQ(output({"cat", "home:Files/Renamed/deeper/notes"}), "333");
}

TEST_F(CommandLine, LooksAfterWhatIsKeptOfAnAccount) {
  writeText(server.files() + "/notes", "1");
  addAccount();
  output({"cat", "home:Files/notes"});
  auto status = object({"status"})["accounts"][0];
  EXPECT_EQ(status["name"], "home");
  EXPECT_EQ(status["connected"], true);
  EXPECT_GE(status["items"], 4);
  EXPECT_EQ(status["pendingUploads"], 0);
  EXPECT_EQ(status["dataVersion"], "1.1");
  EXPECT_EQ(object({"rebuild", "home"})["items"], status["items"]);
  EXPECT_EQ(output({"cat", "home:Files/notes"}), "1");

  // A file that was staged for the server, and never got there.
  const std::string identifier = object({"account", "list"})["accounts"][0]["identifier"];
  const std::string staging = container + "/File Provider Storage/" + identifier + "/upload+Files";
  std::filesystem::create_directories(staging);
  writeText(staging + "/new", "never sent");
  expectFailure({"reset", "home"}, 1, "home has 1 file that the server does not have yet.");
  EXPECT_EQ(readText(staging + "/new"), "never sent");
  EXPECT_EQ(object({"reset", "--discard-unsent", "home"})["recovered"], 1);
  EXPECT_THAT(filesHolding("never sent"), ElementsAre(testing::StartsWith("new (")));
  EXPECT_EQ(object({"status", "home"})["accounts"][0]["unsent"], 0);
  EXPECT_EQ(output({"cat", "home:Files/notes"}), "1");
  output({"reset", "home"});

  expectFailure({"reset", "other"}, 3, "There is no account named \"other\"");
  expectFailure({"status", "other"}, 3, "There is no account named \"other\"");
  server.stop();
  EXPECT_EQ(object({"status", "home"})["accounts"][0]["connected"], false);
  EXPECT_THAT(output({"status"}), testing::StartsWith("home: not connected, "));
}

TEST_F(CommandLine, ExaminesContainerAccountsAndServers) {
  writeText(server.files() + "/notes", "1");
  EXPECT_THAT(output({"doctor"}), HasSubstr("ok    accounts: none yet"));
  addAccount();
  EXPECT_THAT(output({"doctor"}), HasSubstr("ok    home: sign-in: signed in"));
  auto failing = [&] {
    auto result = run({"--json", "doctor"});
    EXPECT_EQ(result.exitStatus, 1);
    std::vector<std::string> names;
    const auto examined = nlohmann::json::parse(result.standardOutput, nullptr, false);
    for (const auto& check : examined["checks"]) {
      if (!check["ok"].get<bool>()) names.push_back(check["name"]);
    }
    return names;
  };
  // What lies on the disk and is not named, and what is named and does not read.
  const std::string identifier = object({"account", "list"})["accounts"][0]["identifier"];
  output({"cat", "home:Files/notes"});
  const std::string documents = container + "/File Provider Storage/";
  std::filesystem::create_directories(documents + identifier + "/0badc0de");
  std::filesystem::create_directories(documents + "of nobody");
  EXPECT_THAT(failing(), ElementsAre("home: orphans", "leftovers"));
  std::filesystem::remove(documents + identifier + "/0badc0de");
  std::filesystem::remove(documents + "of nobody");
  std::string cached;
  for (const auto& each : std::filesystem::recursive_directory_iterator(documents + identifier)) {
    if (each.is_regular_file()) cached = each.path();
  }
  writeText(cached, "changed by hand");
  EXPECT_THAT(failing(), ElementsAre("home: unsent"));
  const std::string store = container + "/Metadata/db/" + identifier + ".sqlite";
  std::filesystem::remove(store + "-wal");
  writeText(store, std::string(8192, 'x'));
  EXPECT_THAT(failing(), ElementsAre("home: store"));
  EXPECT_THAT(run({"doctor"}).standardOutput, HasSubstr("florvane rebuild home"));
  EXPECT_EQ(readText(store), std::string(8192, 'x')) << "doctor changes nothing";
  EXPECT_EQ(run({"rebuild", "home"}).exitStatus, 0);
  EXPECT_THAT(failing(), ElementsAre("home: unsent"));
  output({"reset", "--discard-unsent", "home"});
  EXPECT_THAT(output({"doctor"}), HasSubstr("1 files that were never sent lie in"));

  server.stop();
  EXPECT_THAT(failing(), ElementsAre("home: server"));
  removePassword();
  EXPECT_THAT(failing(), ElementsAre("home: password"));
  writeText(container + "/Accounts.plist", "no property list");
  EXPECT_THAT(failing(), ElementsAre("accounts"));
  ASSERT_EQ(chmod(container.c_str(), 0770), 0);
  EXPECT_THAT(failing(), ElementsAre("container"));
  EXPECT_THAT(run({"doctor"}).standardOutput, HasSubstr("chmod go-w"));
}

TEST_F(CommandLine, TakesAnAddressOfIPv6) {
  try {
    server.restart([](ServerOptions& options) { options.listenHost = "::1"; });
  } catch (const std::exception& exception) {
    GTEST_SKIP() << exception.what();
  }
  const std::string host = "[::1]:" + std::to_string(server.port());
  output({"account", "add", "six", host, "--user", "ada", "--password-file", folder.file("password")});
  EXPECT_EQ(output({"account", "list"}), "six\tada@" + host + "\n");
  EXPECT_EQ(output({"ls", "six"}), "Files/\nInbox/\nLibrary/\n");
}

}  // namespace
}  // namespace florvane::test
