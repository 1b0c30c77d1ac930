#include "platform/Container.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::TemporaryDirectory;
using test::writeText;

// What the function says in a process of its own with just these variables of the ones that matter.
template <typename Function>
std::string inChild(const std::vector<std::pair<std::string, std::string>>& environment, Function function) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return "no pipe";
  pid_t child = fork();
  if (child == 0) {
    Container::setDirectory("");
    for (const char* name : {"FLORVANE_CONTAINER", "XDG_DATA_HOME", "HOME"}) unsetenv(name);
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::string text = function();
    _exit(write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  std::string text(4096, '\0');
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], text.data(), text.size()), 0)));
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return text;
}

std::string directoryOrError() {
  auto path = Container::requireDirectory();
  return path ? *path : path.error().localizedDescription();
}

struct ContainerTest : testing::Test {
  TemporaryDirectory directory;
};

TEST_F(ContainerTest, IsFoundInTheOrderThatIsPromised) {
  std::string home = directory.file("home"), data = directory.file("data"), container = directory.file("c/d");
  EXPECT_EQ(inChild({{"HOME", home}}, directoryOrError), home + "/.local/share/florvane/group.quorl.Florvane");
  EXPECT_EQ(inChild({{"HOME", home}, {"XDG_DATA_HOME", data}}, directoryOrError),
            data + "/florvane/group.quorl.Florvane");
  EXPECT_EQ(inChild({{"HOME", home}, {"XDG_DATA_HOME", data}, {"FLORVANE_CONTAINER", container}}, directoryOrError),
            container);
  EXPECT_EQ(inChild({{"FLORVANE_CONTAINER", container}},
                    [&] {
                      Container::setDirectory(directory.file("chosen"));
                      return directoryOrError();
                    }),
            directory.file("chosen"));
  struct stat status{};
  ASSERT_EQ(stat(container.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST_F(ContainerTest, ARelativePathKeepsItsMeaningAndLinksAreResolved) {
  std::filesystem::create_directory_symlink(directory.path(), directory.file("link"));
  EXPECT_EQ(inChild({{"FLORVANE_CONTAINER", "link/./inside"}},
                    [&] {
                      std::filesystem::current_path(directory.path());
                      auto first = directoryOrError();
                      std::filesystem::current_path("/");
                      return first == directoryOrError() ? first : "moved";
                    }),
            directory.file("inside"));
}

TEST_F(ContainerTest, RefusesAFolderThatOthersCanChange) {
  std::string path = directory.file("c");
  std::filesystem::create_directory(path);
  ASSERT_EQ(chmod(path.c_str(), 0770), 0);
  EXPECT_NE(inChild({{"FLORVANE_CONTAINER", path}}, directoryOrError).find("can be written by others"),
            std::string::npos);
  writeText(directory.file("file"), "");
  EXPECT_EQ(inChild({{"FLORVANE_CONTAINER", directory.file("file")}}, directoryOrError),
            directory.file("file") + ": Not a directory");
  std::string elsewhere = geteuid() == 0 ? path : "/usr";
  if (geteuid() == 0) {
    ASSERT_EQ(chmod(path.c_str(), 0700), 0);
    ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
  }
  EXPECT_NE(inChild({{"FLORVANE_CONTAINER", elsewhere}}, directoryOrError).find("belongs to another user"),
            std::string::npos);
}

TEST_F(ContainerTest, TheDeviceIdentifierIsMadeOnceWhoeverAsksFirst) {
  std::vector<std::pair<std::string, std::string>> environment = {{"FLORVANE_CONTAINER", directory.file("c")}};
  auto ask = [&] { return inChild(environment, [] { return deviceIdentifier().value_or("none"); }); };
  std::set<std::string> answers;
  std::mutex mutex;
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      Container::setDirectory(directory.file("c"));
      auto answer = deviceIdentifier().value_or("none");
      std::lock_guard lock(mutex);
      answers.insert(answer);
    });
  }
  for (auto& thread : threads) thread.join();
  answers.insert(ask());
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers.begin()->size(), 36U);

  writeText(directory.file("c/Device Identifier"), "");  // a file that a full disk left empty
  std::string second = ask();
  EXPECT_EQ(second.size(), 36U);
  EXPECT_EQ(ask(), second);
}

}  // namespace
}  // namespace florvane
