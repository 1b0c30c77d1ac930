#include "platform/FileSystem.h"
#include "platform/LargeFile.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::readText;
using test::TemporaryDirectory;
using test::writeText;

int underlyingErrno(const Error& error) {
  return error.underlyingError() ? static_cast<int>(error.underlyingError()->code()) : 0;
}

struct FileSystemTest : testing::Test {
  TemporaryDirectory directory;
};

TEST_F(FileSystemTest, ReadingKnowsItsLimitAndSizesThatLie) {
  std::string path = directory.file("f");
  writeText(path, std::string(5000, 'x'));
  EXPECT_EQ(readFile(path, 5000)->size(), 5000U);
  auto refused = readFile(path, 4999);
  ASSERT_FALSE(refused);
  EXPECT_EQ(underlyingErrno(refused.error()), EFBIG);
  EXPECT_GT(readFile("/proc/self/status")->size(), 100U);  // its size claims to be 0
  EXPECT_FALSE(readFile("/dev/zero", 100'000));
  EXPECT_TRUE(readFile(directory.file("none")).error().is(QuilbarErrorDomain, FileReadNoSuchFileError));
  EXPECT_EQ(underlyingErrno(readFile(directory.path()).error()), EISDIR);
}

TEST_F(FileSystemTest, AnAtomicWriteReplacesWholeAndLeavesNothingBeside) {
  std::string path = directory.file("f"), target = directory.file("target");
  writeText(target, "kept");
  std::filesystem::create_symlink(target, path);
  ASSERT_TRUE(writeFileAtomically(path, Data::fromString("new"), 0640, true, timespec{1'000'000'000, 123'456'789}));
  EXPECT_EQ(readText(path), "new");
  EXPECT_EQ(readText(target), "kept");
  struct stat status{};
  ASSERT_EQ(lstat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0640U);
  EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'789);

  // The destination cannot be replaced: the temporary goes again.
  std::filesystem::create_directory(directory.file("folder"));
  EXPECT_FALSE(writeFileAtomically(directory.file("folder"), Data::fromString("x")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 3);
  EXPECT_TRUE(
      writeFileAtomically(directory.file("none/f"), Data()).error().is(QuilbarErrorDomain, FileNoSuchFileError));
}

TEST_F(FileSystemTest, AFullDiskLeavesTheOldContents) {
  std::string path = directory.file("f");
  writeText(path, "old");
  pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{1000, 1000};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(writeFileAtomically(path, Data::fromString(std::string(5000, 'x'))) ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readText(path), "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);
}

TEST_F(FileSystemTest, OnlyOldTemporariesOfKilledWritersAreSwept) {
  std::string old = directory.file(".florvane-tmp-aaaaaa"), fresh = directory.file(".florvane-tmp-bbbbbb"),
              foreign = directory.file(".other-tmp-aaaaaa");
  for (const auto& path : {old, fresh, foreign}) writeText(path, "x");
  timespec past{std::time(nullptr) - 3700, 0};
  for (const auto& path : {old, foreign}) {
    const std::array<timespec, 2> times = {past, past};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
  }
  ASSERT_TRUE(writeFileAtomically(directory.file("f"), Data::fromString("x")));
  EXPECT_FALSE(fileExists(old));
  EXPECT_TRUE(fileExists(fresh));
  EXPECT_TRUE(fileExists(foreign));
}

TEST_F(FileSystemTest, FoldersAreMadeFromTheFirstMissingOne) {
  std::string path = directory.file("a/b//c/");
  ASSERT_TRUE(createDirectories(path, 0700));
  ASSERT_TRUE(createDirectories(path, 0700));
  struct stat status{};
  ASSERT_EQ(stat(directory.file("a/b").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  writeText(directory.file("file"), "");
  EXPECT_TRUE(createDirectories(directory.file("file")).error().is(QuilbarErrorDomain, FileWriteFileExistsError));
  EXPECT_FALSE(createDirectories(directory.file("file/below")));
}

TEST_F(FileSystemTest, RemovingATreeNeverLeavesIt) {
  std::string tree = directory.file("tree"), outside = directory.file("outside");
  std::filesystem::create_directories(tree + "/a/b");
  std::filesystem::create_directory(outside);
  writeText(outside + "/kept", "x");
  writeText(tree + "/a/f", "x");
  std::filesystem::create_directory_symlink(outside, tree + "/a/b/link");
  std::filesystem::create_directory_symlink(outside, directory.file("link"));
  ASSERT_TRUE(removeTree(directory.file("link")));
  ASSERT_TRUE(removeTree(tree));
  ASSERT_TRUE(removeTree(tree));
  EXPECT_FALSE(fileExists(tree));
  EXPECT_TRUE(fileExists(outside + "/kept"));
  ASSERT_TRUE(removeItem(outside + "/none"));
  EXPECT_EQ(underlyingErrno(removeItem(outside).error()), ENOTEMPTY);
}

TEST_F(FileSystemTest, RemovingALargeFileTakesNoOtherNameOfIt) {
  constexpr std::uintmax_t kSize = std::uintmax_t{16} << 20U;
  const std::string path = directory.file("f"), link = directory.file("link"), second = directory.file("second");
  writeText(path, "x");
  std::filesystem::resize_file(path, kSize);
  std::filesystem::create_hard_link(path, second);
  std::filesystem::create_symlink(path, link);
  ASSERT_TRUE(removeLargeFile(link));
  EXPECT_TRUE(fileExists(path));
  for (int time = 0; time < 2; ++time) ASSERT_TRUE(removeLargeFile(path));
  EXPECT_EQ(std::filesystem::file_size(second), kSize);
  ASSERT_TRUE(removeLargeFile(second));
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(FileSystemTest, RemovesTreesDeeperThanPathsAndDescriptorsReach) {
  FileDescriptor at(open(directory.path().c_str(), O_RDONLY | O_DIRECTORY));
  for (int level = 0; level < 2000; ++level) {
    ASSERT_EQ(mkdirat(at.get(), "level", 0700), 0);
    FileDescriptor file(openat(at.get(), "file", O_CREAT | O_WRONLY, 0600));
    at = FileDescriptor(openat(at.get(), "level", O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(at.valid());
  }
  at.close();
  ASSERT_TRUE(removeTree(directory.file("level")));
  EXPECT_FALSE(fileExists(directory.file("level")));
}

TEST_F(FileSystemTest, LocksExcludeThreadsOfOneProcess) {
  std::string path = directory.file("lock");
  std::atomic<int> inside = 0;  // read and written in two steps: the lock is what keeps them together
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        auto lock = FileLock::acquire(path, true);
        ASSERT_TRUE(lock);
        inside.store(inside.load() + 1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(inside, 800);
}

TEST_F(FileSystemTest, ReadersShareALockAndAKilledHolderGivesItBack) {
  std::string path = directory.file("lock");
  std::array<int, 2> ready{};
  ASSERT_EQ(pipe(ready.data()), 0);
  pid_t child = fork();
  if (child == 0) {
    auto lock = FileLock::acquire(path, false);
    if (write(ready[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  ASSERT_TRUE(FileLock::acquire(path, false));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(FileLock::acquire(path, true));
  for (int end : ready) close(end);
}

}  // namespace
}  // namespace florvane
