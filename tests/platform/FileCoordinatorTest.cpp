#include "platform/Exceptions.h"
#include "platform/FileCoordinator.h"
#include "tests/platform/Increment.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using namespace std::chrono_literals;
using Reading = FileCoordinatorReadingOptions;
using Writing = FileCoordinatorWritingOptions;
using test::readText;
using test::runProcess;
using test::TemporaryDirectory;
using test::writeText;

const std::string kPeer = std::string(FLORVANE_BIN_DIR) + "/coordination_peer";

// A process that holds an item from the constructor's return until it is released or killed.
class Holder {
 public:
  Holder(const std::string& folder, std::string access, const std::string& path) {
    std::array<int, 2> input{}, output{};
    if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    std::vector<std::string> texts = {kPeer, "hold", folder, std::move(access), path};
    std::array<char*, 6> arguments{};
    for (std::size_t index = 0; index < texts.size(); ++index) arguments[index] = texts[index].data();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    int error = posix_spawn(&process_, kPeer.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    char character = 0;
    if (error != 0 || read(output[0], &character, 1) != 1) throw std::runtime_error("the peer does not hold the item");
    close(output[0]);
  }
  ~Holder() { end(0); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  void kill() { end(SIGKILL); }

 private:
  void end(int signal) {
    if (process_ <= 0) return;
    if (signal != 0) ::kill(process_, signal);
    close(input_);
    waitpid(process_, nullptr, 0);
    process_ = -1;
  }
  pid_t process_ = -1;
  int input_ = -1;
};

class Recorder : public FilePresenter {
 public:
  explicit Recorder(const std::string& path) : url_(URL::fileURL(path)) {}
  std::optional<URL> presentedItemURL() const override { return url_; }
  std::shared_ptr<SerialQueue> presentedItemOperationQueue() const override { return queue_; }
  void presentedItemDidChange() override { add("changed"); }
  void presentedSubitemDidChangeAtURL(const URL& url) override { add("below changed " + name(url)); }
  void presentedItemDidMoveToURL(const URL& url) override { add("moved " + name(url)); }
  void presentedSubitemDidMoveAtURL(const URL& url, const URL& newURL) override {
    add("below moved " + name(url) + " " + name(newURL));
  }
  void presentedItemWillBeDeleted() override { add("deleted"); }
  void presentedSubitemWillBeDeletedAtURL(const URL& url) override { add("below deleted " + name(url)); }

  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  static std::string name(const URL& url) { return std::filesystem::path(url.path()).filename(); }
  void add(const std::string& event) {
    std::lock_guard lock(mutex_);
    events_.push_back(queue_->isCurrent() ? event : "off the queue: " + event);
    changed_.notify_all();
  }
  URL url_;
  std::shared_ptr<SerialQueue> queue_ = SerialQueue::create("presenter");
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

class FileCoordinatorTest : public testing::Test {
 protected:
  FileCoordinatorTest() { std::filesystem::create_directories(directory_.file("folder/inner")); }
  std::string file(const std::string& name) const { return directory_.file(name); }
  // Whether the item can be had at once: "free", "busy", or another error.
  std::string tryReading(const std::string& name) {
    return outcome(coordinator_.coordinateReadingItemAtURL(URL::fileURL(file(name)), Reading::None, nothing_, 0ms));
  }
  std::string tryWriting(const std::string& name, Writing options = Writing::None) {
    return outcome(coordinator_.coordinateWritingItemAtURL(URL::fileURL(file(name)), options, nothing_, 0ms));
  }
  static std::string outcome(const Result<void>& result) {
    if (result) return "free";
    if (result.error().is(POSIXErrorDomain, ETIMEDOUT)) return "busy";
    if (result.error().is(POSIXErrorDomain, EDEADLK)) return "deadlock";
    return result.error().description();
  }

  TemporaryDirectory directory_;
  FileCoordinator::Accessor nothing_ = [](const URL&) {};
  NotificationCenter center_{directory_.file("Notifications")};
  FilePresenters presenters_{center_};
  FileCoordinator coordinator_{"own", directory_.path(), presenters_};
};

TEST_F(FileCoordinatorTest, WritersLoseNothingToWritersInOtherProcessesAndThreads) {
  constexpr int kEach = 200;
  writeText(file("count"), "0");
  std::vector<std::thread> threads;
  for (int index = 0; index < 2; ++index) {
    threads.emplace_back(
        [&] { EXPECT_TRUE(test::incrementCoordinated(coordinator_, URL::fileURL(file("count")), kEach)); });
    threads.emplace_back([&] {
      auto peer = runProcess({kPeer, "increment", directory_.path(), file("count"), std::to_string(kEach)});
      EXPECT_EQ(peer.exitStatus, 0);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(readText(file("count")), std::to_string(4 * kEach));
}

TEST_F(FileCoordinatorTest, ReadersShareWritersExcludeAndADeadHolderHoldsNothing) {
  {
    Holder reader(directory_.path(), "read", file("a"));
    EXPECT_EQ(tryReading("a"), "free");
    EXPECT_EQ(tryWriting("a"), "busy");
    EXPECT_EQ(tryWriting("b"), "free");
  }
  EXPECT_EQ(tryWriting("a"), "free");

  Holder writer(directory_.path(), "write", file("a"));
  EXPECT_EQ(tryReading("a"), "busy");
  EXPECT_EQ(outcome(coordinator_.coordinateReadingItemAtURL(URL::fileURL(file("a")), Reading::None, nothing_, 5ms)),
            "busy");
  std::thread waiting([&] {
    EXPECT_EQ(outcome(coordinator_.coordinateWritingItemAtURL(URL::fileURL(file("a")), Writing::None, nothing_)),
              "free");
  });
  writer.kill();
  waiting.join();
  EXPECT_EQ(tryWriting("a"), "free");
}

TEST_F(FileCoordinatorTest, MovingAFolderKeepsOutWhoeverIsBelowItAndNobodyElse) {
  {
    Holder mover(directory_.path(), "tree", file("folder"));
    EXPECT_EQ(tryReading("folder/inner/a"), "busy");
    EXPECT_EQ(tryWriting("folder"), "busy");
    EXPECT_EQ(tryWriting("folder2"), "free");
  }
  Holder reader(directory_.path(), "read", file("folder/inner/a"));
  EXPECT_EQ(tryWriting("folder", Writing::ForMoving), "busy");
  EXPECT_EQ(tryWriting("folder", Writing::ForDeleting), "busy");
  EXPECT_EQ(tryWriting("folder"), "free");
  EXPECT_EQ(tryWriting("folder/inner/b", Writing::ForReplacing), "free");

  TemporaryDirectory cache;  // outside the lock file's folder
  Holder outside(directory_.path(), "read", cache.file("folder/a"));
  auto moved =
      coordinator_.coordinateWritingItemAtURL(URL::fileURL(cache.file("folder")), Writing::ForMoving, nothing_, 0ms);
  EXPECT_EQ(outcome(moved), "busy");
}

TEST_F(FileCoordinatorTest, MovesInOppositeDirectionsNeverWaitForEachOther) {
  writeText(file("folder/a"), "moved");
  std::atomic<int> inside = 0, moves = 0;
  auto moveToAndFro = [&](const std::string& from, const std::string& to) {
    for (int index = 0; index < 300; ++index) {
      auto done =
          coordinator_.coordinateWritingItemAtURL(URL::fileURL(file(from)), Writing::ForMoving, URL::fileURL(file(to)),
                                                  Writing::ForReplacing, [&](const URL& source, const URL& target) {
                                                    EXPECT_EQ(++inside, 1);
                                                    if (std::rename(source.path().c_str(), target.path().c_str()) == 0)
                                                      ++moves;
                                                    --inside;
                                                  });
      EXPECT_EQ(outcome(done), "free");
    }
  };
  std::thread there([&] { moveToAndFro("folder/a", "folder/inner/b"); });
  std::thread back([&] { moveToAndFro("folder/inner/b", "folder/a"); });
  there.join();
  back.join();
  EXPECT_GE(moves, 1);
  EXPECT_NE(std::filesystem::exists(file("folder/a")), std::filesystem::exists(file("folder/inner/b")));
}

TEST_F(FileCoordinatorTest, RunsInPlaceWhatTheThreadHoldsAlready) {
  std::filesystem::create_directory_symlink(file("folder"), file("link"));
  FileCoordinator other("other", directory_.path(), presenters_);
  URL url = URL::fileURL(file("folder/a"));
  int ran = 0;
  auto written = coordinator_.coordinateWritingItemAtURL(url, Writing::None, [&](const URL&) {
    EXPECT_EQ(tryReading("link/a"), "free");  // the same file by another name
    EXPECT_EQ(tryWriting("folder/a"), "free");
    EXPECT_EQ(outcome(other.coordinateReadingItemAtURL(url, Reading::None, nothing_, 0ms)), "free");
    EXPECT_EQ(tryWriting("folder", Writing::ForMoving), "deadlock");
    std::thread([&] { EXPECT_EQ(tryReading("link/a"), "busy"); }).join();
    ++ran;
  });
  EXPECT_EQ(outcome(written), "free");
  auto read = coordinator_.coordinateReadingItemAtURL(url, Reading::None, [&](const URL&) {
    EXPECT_EQ(tryReading("folder/a"), "free");
    EXPECT_EQ(tryWriting("folder/a"), "deadlock");
    ++ran;
  });
  EXPECT_EQ(outcome(read), "free");
  auto both = coordinator_.coordinateWritingItemAtURL(url, Writing::None, url, Writing::ForMoving,
                                                      [&](const URL&, const URL&) { ++ran; });
  EXPECT_EQ(outcome(both), "free");
  EXPECT_EQ(ran, 3);

  EXPECT_THROW((void)coordinator_.coordinateWritingItemAtURL(url, Writing::ForReplacing,
                                                             [](const URL&) { throw std::runtime_error("accessor"); }),
               std::runtime_error);
  std::thread([&] { EXPECT_EQ(tryWriting("folder/a"), "free"); }).join();
  EXPECT_THROW(FileCoordinator("", directory_.path(), presenters_), InvalidArgumentException);
}

TEST_F(FileCoordinatorTest, ALockFileThatWasRemovedStillKeepsNewcomersApart) {
  EXPECT_EQ(tryWriting("a"), "free");
  unlink(file("Coordination.lock").c_str());
  Holder writer(directory_.path(), "write", file("a"));
  EXPECT_EQ(tryReading("a"), "busy");
}

TEST_F(FileCoordinatorTest, HandsOutACopyForUploading) {
  writeText(file("a"), std::string(700'000, 'x'));
  const std::array<timespec, 2> dates = {timespec{1'600'000'000, 0}, timespec{1'700'000'000, 123'456'000}};
  ASSERT_EQ(utimensat(AT_FDCWD, file("a").c_str(), dates.data(), 0), 0);
  std::string first;
  auto read =
      coordinator_.coordinateReadingItemAtURL(URL::fileURL(file("a")), Reading::ForUploading, [&](const URL& u) {
        first = u.path();
        writeText(file("a"), "later");  // the copy stays as it is
        EXPECT_EQ(readText(first), std::string(700'000, 'x'));
        struct stat status{};
        ASSERT_EQ(stat(first.c_str(), &status), 0);
        EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'000);
        EXPECT_EQ(status.st_mode & 0777, 0600U);
      });
  EXPECT_EQ(outcome(read), "free");
  EXPECT_FALSE(std::filesystem::exists(first));
  read = coordinator_.coordinateReadingItemAtURL(URL::fileURL(file("a")), Reading::ForUploading, [&](const URL& url) {
    std::filesystem::rename(url.path(), file("taken"));
  });
  EXPECT_EQ(outcome(read), "free");
  EXPECT_EQ(readText(file("taken")), "later");

  auto fail = [](const URL&) { FAIL() << "nothing to read"; };
  auto missing = coordinator_.coordinateReadingItemAtURL(URL::fileURL(file("none")), Reading::ForUploading, fail);
  ASSERT_FALSE(missing);
  EXPECT_TRUE(missing.error().is(QuilbarErrorDomain, FileReadNoSuchFileError));
  EXPECT_FALSE(coordinator_.coordinateReadingItemAtURL(URL::fileURL(file("folder")), Reading::ForUploading, fail));
  EXPECT_TRUE(std::filesystem::is_empty(file("tmp")));
}

TEST_F(FileCoordinatorTest, PresentersHearOfOthersWritesAndNotOfTheirOwn) {
  auto onFile = std::make_shared<Recorder>(file("folder/a"));
  auto onFolder = std::make_shared<Recorder>(file("folder"));
  auto sameProcess = std::make_shared<Recorder>(file("folder/a"));
  auto gone = std::make_shared<Recorder>(file("folder"));
  presenters_.addFilePresenter(onFile, "own");
  presenters_.addFilePresenter(onFolder, "own");
  presenters_.addFilePresenter(sameProcess, "other");
  presenters_.addFilePresenter(gone, "other");
  presenters_.removeFilePresenter(gone);

  EXPECT_EQ(tryWriting("folder/a"), "free");  // heard under "other" only
  auto peer = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kPeer);
    EXPECT_EQ(runProcess(arguments).exitStatus, 0);
  };
  peer({"increment", directory_.path(), file("folder/a"), "1"});
  peer({"increment", directory_.path(), file("folder2"), "1"});
  peer({"move", directory_.path(), file("folder/a"), file("folder/b")});
  peer({"delete", directory_.path(), file("folder/b")});
  peer({"increment", directory_.path(), file("folder/a"), "1"});
  peer({"move", directory_.path(), file("folder"), file("elsewhere")});
  peer({"delete", directory_.path(), file("elsewhere/a")});

  std::vector<std::string> expectedOnFile = {"changed", "moved b", "changed", "moved a"};
  EXPECT_EQ(onFile->waitFor(4), expectedOnFile);
  std::vector<std::string> expectedOnFolder = {"below changed a", "below moved a b", "below deleted b",
                                               "below changed a", "moved elsewhere"};
  EXPECT_EQ(onFolder->waitFor(5), expectedOnFolder);
  expectedOnFile.insert(expectedOnFile.begin(), "changed");
  EXPECT_EQ(sameProcess->waitFor(5), expectedOnFile);
}

}  // namespace
}  // namespace florvane
