#include "platform/FileSystem.h"
#include "platform/PreferencesStore.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::readText;
using test::TemporaryDirectory;
using test::writeText;

template <typename Body>
pid_t startChild(Body body) {
  pid_t child = fork();
  if (child == 0) _exit(body() ? 0 : 1);
  return child;
}

int statusOf(pid_t child) {
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// One more under the writer's own key and under the common one.
void count(Dictionary& contents, const std::string& writer) {
  for (const auto& key : {writer, std::string("total")}) contents.set(key, contents.integer(key).value_or(0) + 1);
}

struct PreferencesStoreTest : testing::Test {
  TemporaryDirectory directory;
  std::string path = directory.file("Preferences.plist");
  PreferencesStore store{path};
};

TEST_F(PreferencesStoreTest, KeepsValuesInAPrivateFileThatPeopleCanRead) {
  EXPECT_EQ(store.read("LogLevel").value(), std::nullopt);
  EXPECT_FALSE(fileExists(path));
  ASSERT_TRUE(store.synchronize());
  ASSERT_TRUE(store.set("LogLevel", Value("debug <&>")));
  ASSERT_TRUE(store.set("LogTrace", Value(true)));
  ASSERT_TRUE(store.set("Cert", Value(Data::fromString(std::string("\0\xff", 2)))));
  ASSERT_TRUE(store.set("Gone", Value(1)));
  ASSERT_TRUE(store.set("Gone", std::nullopt));
  ASSERT_TRUE(store.synchronize());
  EXPECT_EQ(PreferencesStore(path).snapshot().value(), store.snapshot().value());
  auto judged = test::runPython(
      "import sys,plistlib;print(sorted(plistlib.load(open(sys.argv[1],'rb'),fmt=plistlib.FMT_XML).items()))", {path});
  EXPECT_EQ(judged.standardOutput, "[('Cert', b'\\x00\\xff'), ('LogLevel', 'debug <&>'), ('LogTrace', True)]\n");
  struct stat status{};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(PreferencesStoreTest, AChangeThatChangesNothingOrFailsWritesNothing) {
  ASSERT_TRUE(store.set("a", Value(1)));
  struct stat before{}, after{};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  ASSERT_TRUE(store.update([&](Dictionary& contents) { contents.set("a", *store.read("a").value()); }));
  EXPECT_THROW(static_cast<void>(store.update([](Dictionary& contents) {
                 contents.set("a", 2);
                 throw std::runtime_error("");
               })),
               std::runtime_error);
  EXPECT_FALSE(store.set("a", Value()));  // a null, which no property list holds
  ASSERT_EQ(stat(path.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(store.read("a").value(), Value(1));
}

TEST_F(PreferencesStoreTest, VersionsOfOneSizeDifferInTheirDatesWhateverTheClockSays) {
  PreferencesStore other(path);
  ASSERT_TRUE(other.set("digit", Value(9)));
  timespec future{std::time(nullptr) + 3600, 999'999'999};
  const std::array<timespec, 2> times = {future, future};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  std::pair<time_t, long> last{future.tv_sec, future.tv_nsec};
  for (int round = 0; round < 30; ++round) {
    ASSERT_TRUE(other.set("digit", Value(round % 10)));
    if (round % 3 != 1) {
      ASSERT_EQ(store.read("digit").value(), Value(round % 10));
    }
    struct stat status{};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    std::pair now{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    ASSERT_GT(now, last);
    last = now;
  }
}

TEST_F(PreferencesStoreTest, ProcessesThatCountAtOnceLoseNothing) {
  constexpr int writers = 5, rounds = 40;
  std::vector<pid_t> children;
  children.reserve(writers);
  for (int writer = 0; writer < writers; ++writer) {
    children.push_back(startChild([&] {
      std::string name = "writer " + std::to_string(writer);
      PreferencesStore second(path);
      for (int round = 0; round < rounds; ++round) {
        if (!(round % 2 ? store : second).update([&](Dictionary& contents) { count(contents, name); })) return false;
      }
      return true;
    }));
  }
  // Meanwhile every snapshot is one whole version.
  for (std::int64_t total = 0; total < std::int64_t{writers} * rounds;) {
    auto snapshot = store.snapshot();
    ASSERT_TRUE(snapshot) << snapshot.error().description();
    std::int64_t sum = 0;
    for (const auto& [key, value] : *snapshot) sum += *value.asInteger();
    std::int64_t now = snapshot->integer("total").value_or(0);
    ASSERT_EQ(sum, 2 * now);
    ASSERT_GE(now, total);
    total = now;
  }
  for (pid_t child : children) EXPECT_EQ(statusOf(child), 0);
}

TEST_F(PreferencesStoreTest, ThreadsThatCountAtOnceLoseNothing) {
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int writer = 0; writer < 4; ++writer) {
    threads.emplace_back([&, name = std::to_string(writer)] {
      PreferencesStore own(path);
      for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE((round % 2 ? store : own).update([&](Dictionary& contents) { count(contents, name); }));
        EXPECT_TRUE(store.read("total").value());
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store.read("total").value(), Value(80));
}

TEST_F(PreferencesStoreTest, AWriterKilledAnywhereLeavesAWholeFileAndNoLock) {
  for (int round = 0; round < 25; ++round) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    pid_t child = startChild([&] {
      for (std::int64_t i = 0;; ++i) {
        auto done = store.update([&](Dictionary& contents) {
          contents.set("total", contents.integer("total").value_or(0) + 1);
          contents.set("copy", *contents.integer("total"));
          contents.set("ballast", std::string(static_cast<std::size_t>(i % 7) * 50'000, 'x'));
        });
        if (!done || write(ends[1], "x", 1) != 1) return false;
      }
    });
    std::array<char, 1> byte{};
    for (int updates = 0; updates <= round % 5; ++updates) ASSERT_EQ(read(ends[0], byte.data(), 1), 1);
    auto before = store.read("total").value();
    kill(child, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(statusOf(child)));
    for (int end : ends) close(end);

    auto snapshot = store.snapshot();
    ASSERT_TRUE(snapshot) << snapshot.error().description();
    EXPECT_EQ(snapshot->integer("total"), snapshot->integer("copy"));
    EXPECT_GE(snapshot->integer("total"), before->asInteger());
    ASSERT_TRUE(store.set("after", Value(round)));
  }
}

TEST_F(PreferencesStoreTest, ADamagedFileIsAnErrorForEveryCallAndStaysAsItIs) {
  ASSERT_TRUE(store.set("a", Value(1)));
  std::string whole = readText(path);
  for (const std::string& text : {std::string(), std::string("not a list"), whole.substr(0, whole.size() / 2),
                                  std::string("<plist version=\"1.0\"><array/></plist>")}) {
    writeText(path, text);
    auto snapshot = store.snapshot();
    ASSERT_FALSE(snapshot) << text;
    EXPECT_TRUE(snapshot.error().is(QuilbarErrorDomain, PropertyListReadCorruptError));
    EXPECT_NE(snapshot.error().localizedDescription().find(path), std::string::npos);
    EXPECT_FALSE(store.read("a"));
    EXPECT_FALSE(store.set("b", Value(2)));
    EXPECT_FALSE(store.update([](Dictionary& contents) { contents = {}; }));
    EXPECT_EQ(readText(path), text);
  }
  writeText(path, whole);
  EXPECT_EQ(store.read("a").value(), Value(1));

  ASSERT_TRUE(removeItem(path));
  std::filesystem::create_directory(path);  // there, but unreadable for anyone
  EXPECT_FALSE(store.snapshot());
  EXPECT_FALSE(store.set("b", Value(2)));
}

}  // namespace
}  // namespace florvane
