#pragma once

#include "platform/AccountStore.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestServer.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane::test {

// A program that runs beside the test, both of its outputs read line by line.
class RunningProgram {
 public:
  explicit RunningProgram(std::vector<std::string> arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);  // the test's own server must not live on in it
    std::vector<char*> texts;
    texts.reserve(arguments.size() + 1);
    for (auto& each : arguments) texts.push_back(each.data());
    texts.push_back(nullptr);
    int failure = posix_spawnp(&identifier, texts[0], &actions, nullptr, texts.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    output_ = fdopen(ends[0], "r");
    if (failure != 0) throw std::system_error(failure, std::generic_category(), arguments[0]);
  }
  ~RunningProgram() {
    if (!ended_) kill(identifier, SIGKILL);
    wait();
    std::fclose(output_);
  }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // The next line without its end; empty at the end.
  std::string line() {
    std::string text;
    int character = 0;
    while ((character = std::getc(output_)) != EOF && character != '\n') text += static_cast<char>(character);
    return text;
  }
  // As waitpid(2) has it, once the program has ended.
  int wait() {
    if (!ended_) waitpid(identifier, &status_, 0);
    ended_ = true;
    return status_;
  }

  pid_t identifier = 0;

 private:
  std::FILE* output_ = nullptr;
  bool ended_ = false;
  int status_ = 0;
};

// The real program in a container of its own, with an empty home that must stay so, beside a server that has a user.
class CommandLineFixture : public testing::Test {
 protected:
  CommandLineFixture() {
    std::filesystem::create_directory(home);
    writeText(folder.file("password"), std::string(TestServer::password) + "\n");
  }
  void TearDown() override { EXPECT_TRUE(std::filesystem::is_empty(home)) << "written outside of the container"; }

  std::vector<std::string> command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {"env",           "-u",           "FLORVANE_CONTAINER", "-u",
                                    "XDG_DATA_HOME", "HOME=" + home, "TMPDIR=" + home,     program,
                                    "--container",   container};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  ProcessResult run(const std::vector<std::string>& arguments, const std::string& input = {}) const {
    return runProcess(command(arguments), input);
  }
  // What it prints, when all goes well.
  std::string output(const std::vector<std::string>& arguments) const {
    auto result = run(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.standardError << testing::PrintToString(arguments);
    return result.standardOutput;
  }
  nlohmann::json object(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "--json");
    return nlohmann::json::parse(output(arguments), nullptr, false);
  }
  void addAccount(const std::string& name = "home", const std::string& user = TestServer::user) const {
    output({"account", "add", name, address(), "--user", user, "--password-file", folder.file("password")});
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(server.port()); }
  // The sentence and the status, in both forms.
  void expectFailure(const std::vector<std::string>& arguments, int status, const std::string& sentence) const {
    SCOPED_TRACE(testing::PrintToString(arguments));
    auto plain = run(arguments);
    EXPECT_EQ(plain.exitStatus, status);
    EXPECT_EQ(plain.standardOutput, "");
    EXPECT_THAT(plain.standardError, testing::HasSubstr(sentence));
    std::vector<std::string> withJSON = arguments;
    withJSON.insert(withJSON.begin(), "--json");
    auto structured = run(withJSON);
    EXPECT_EQ(structured.exitStatus, status);
    EXPECT_EQ(structured.standardError, "");
    auto error = nlohmann::json::parse(structured.standardOutput, nullptr, false)["error"];
    EXPECT_TRUE(error.is_object() && error["domain"].is_string() && error["code"].is_number_integer());
    EXPECT_THAT(error.value("message", ""), testing::HasSubstr(sentence));
  }
  void removePassword(const std::string& name = "home") const {
    AccountStore store(container);
    ASSERT_TRUE(store.credentials().removePassword((*store.accountWithName(name))->identifier));
  }
  // The container's files that hold a text.
  std::vector<std::string> filesHolding(const std::string& text) const {
    std::vector<std::string> found;
    for (const auto& each : std::filesystem::recursive_directory_iterator(container)) {
      if (each.is_regular_file() && readText(each.path()).find(text) != std::string::npos) {
        found.push_back(each.path().filename());
      }
    }
    return found;
  }

  const TemporaryDirectory folder;
  const std::string program = std::string(FLORVANE_BIN_DIR) + "/florvane";
  const std::string home = folder.file("empty home"), container = folder.file("container");
  TestServer server;
};

}  // namespace florvane::test
