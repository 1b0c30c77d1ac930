#include "platform/FileSystem.h"
#include "platform/GenerationCounter.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestContainer.h"

#include <array>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::TemporaryDirectory;
using test::TestContainer;
using test::writeText;

struct stat statusOf(const std::string& path) {
  struct stat status{};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status;
}

void setDate(const std::string& path, timespec date) {
  const std::array<timespec, 2> times = {timespec{0, UTIME_OMIT}, date};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

bool isEqual(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

class GenerationCounterTest : public testing::Test {
 protected:
  static Data counter(const std::string& path) {
    auto read = generationCounterOfItem(path);
    if (!read || !*read) throw std::runtime_error("no counter: " + path);
    return **read;
  }
  // Writes until a date of our own was given: a tick may end between the write and the question. Answers the date
  // that the write had.
  timespec writeUntilDated(const std::string& path) {
    for (int attempt = 0; attempt < 100'000; ++attempt) {
      writeText(path, "before");
      timespec date = statusOf(path).st_mtim;
      counter(path);
      if (!isEqual(date, statusOf(path).st_mtim)) return date;
    }
    ADD_FAILURE() << "no file was ever young";
    return {};
  }
  TestContainer container_;
};

TEST_F(GenerationCounterTest, ShowsEveryRewriteHoweverFastAndStaysOtherwise) {
  std::string path = container_.file("file");
  std::set<Data> seen;
  for (int index = 0; index < 10'000; ++index) {
    // In place and of the same size. Truncated first, some file systems would write it out on closing and take a tick.
    FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(pwrite(file.get(), index % 2 == 0 ? "even" : "odd!", 4, 0), 4);
    Data now = counter(path);
    ASSERT_EQ(now.size(), 12U);
    ASSERT_TRUE(seen.insert(now).second) << "rewrite " << index << " does not show";
    ASSERT_EQ(counter(path), now) << index;
  }
}

TEST_F(GenerationCounterTest, ARewriteThatTheClockDatesAsTheOneBeforeStillShows) {
  std::string path = container_.file("file");
  timespec tick = writeUntilDated(path);
  Data before = counter(path);
  EXPECT_EQ(statusOf(path).st_mtim.tv_nsec % 1000, 0) << "whole microseconds, so that a Date holds it";
  writeText(path, "later!");
  setDate(path, tick);  // what a kernel does that dates by ticks
  EXPECT_NE(counter(path), before);
}

TEST_F(GenerationCounterTest, StaysWhenTheFileIsRenamedLinkedOrGivenAnotherMode) {
  std::string path = container_.file("file");
  writeUntilDated(path);
  Data before = counter(path);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  EXPECT_EQ(counter(path), before);
  ASSERT_EQ(link(path.c_str(), container_.file("link").c_str()), 0);
  EXPECT_EQ(counter(path), before);
  EXPECT_EQ(counter(container_.file("link")), before);
  ASSERT_EQ(rename(path.c_str(), container_.file("renamed").c_str()), 0);
  EXPECT_EQ(counter(container_.file("renamed")), before);
  setDate(container_.file("renamed"), {1LL << 33, 123'456'000});  // beyond 32 bits
  Data late = counter(container_.file("renamed"));
  setDate(container_.file("renamed"), {0, 123'456'000});
  EXPECT_NE(counter(container_.file("renamed")), late);
}

TEST_F(GenerationCounterTest, LeavesDatesAloneThatAreNotItsOwnToChange) {
  TemporaryDirectory elsewhere;
  std::filesystem::create_symlink(elsewhere.file("person's"), container_.file("link"));
  for (int index = 0; index < 200; ++index) {
    writeText(elsewhere.file("person's"), "text");
    timespec date = statusOf(elsewhere.file("person's")).st_mtim;
    counter(elsewhere.file("person's"));
    counter(container_.file("link"));
    ASSERT_TRUE(isEqual(statusOf(elsewhere.file("person's")).st_mtim, date));

    writeText(container_.file("given"), "text");
    timespec given = {statusOf(container_.file("given")).st_mtim.tv_sec, 987'654'321};
    setDate(container_.file("given"), given);
    counter(container_.file("given"));
    ASSERT_TRUE(isEqual(statusOf(container_.file("given")).st_mtim, given));
  }
  addGenerationFolder(elsewhere.path());
  writeUntilDated(elsewhere.file("cached"));
}

TEST_F(GenerationCounterTest, ManyWhoAskAtOnceHearTheSame) {
  std::string path = container_.file("file");
  for (int round = 0; round < 100; ++round) {
    writeText(path, "text");
    std::vector<Data> answers(4);
    std::vector<std::thread> threads;
    threads.reserve(answers.size());
    for (auto& answer : answers) threads.emplace_back([&] { answer = counter(path); });
    for (auto& thread : threads) thread.join();
    for (const auto& answer : answers) ASSERT_EQ(answer, counter(path));
  }
}

TEST_F(GenerationCounterTest, IsAbsentWithoutFineDatesAndFailsForWhatIsNotThere) {
  auto kernels = generationCounterOfItem("/proc/self/status");
  ASSERT_TRUE(kernels);
  EXPECT_EQ(*kernels, std::nullopt);
  auto missing = generationCounterOfItem(container_.file("none"));
  ASSERT_FALSE(missing);
  EXPECT_TRUE(missing.error().is(QuilbarErrorDomain, FileReadNoSuchFileError));
}

}  // namespace
}  // namespace florvane
