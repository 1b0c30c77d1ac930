#include "Client/Client/DCConnectivityTracker.h"
#include "Client/Client/DCService.h"
#include "common/FVFQueueManager.h"
#include "platform/Container.h"
#include "platform/SystemLog.h"
#include "tests/support/ManualClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using std::chrono::seconds;

// A task of which only the identity matters here.
class PlainTask final : public URLSessionTask {
 public:
  std::uint64_t taskIdentifier() const override { return 1; }
  URLSessionTaskKind kind() const override { return URLSessionTaskKind::Download; }
  URLSessionTaskState state() const override { return URLSessionTaskState::Running; }
  const URLRequest& originalRequest() const override { return request_; }
  std::shared_ptr<const HTTPURLResponse> response() const override { return nullptr; }
  void resume() override {}
  void cancel() override {}
  void cancelByProducingResumeData(std::function<void(std::optional<Data>)> handler) override { handler({}); }
  std::string description() const override { return "a task"; }

 private:
  URLRequest request_{*URL::fromString("https://host/")};
};

class RecordingLog final : public SystemLog {
 public:
  RecordingLog() { setShared(this); }
  ~RecordingLog() override { setShared(nullptr); }
  void write(const SystemLogMessage& message) override {
    std::lock_guard lock(mutex_);
    messages_.push_back(std::to_string(message.level) + " " + message.text);
  }
  bool contains(const std::string& start, const std::string& part) {
    std::lock_guard lock(mutex_);
    return std::any_of(messages_.begin(), messages_.end(), [&](const std::string& text) {
      return text.starts_with(start) && text.find(part) != std::string::npos;
    });
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

class RecordingDelegate final : public DCConnectivityTrackerDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<DCService> service) : service_(std::move(service)) {}
  const std::shared_ptr<DCService>& service() const override { return service_; }
  void didUpdateConnectionStatus(const std::shared_ptr<DCConnectivityTracker>& tracker, bool isConnected) override {
    labels_.insert(SerialQueue::currentLabel());
    connected_ = tracker->isConnected();  // the tracker may be asked from the call
    calls_.push_back(isConnected);
  }
  // What it was told by now.
  std::vector<bool> calls() {
    std::vector<bool> result;
    FVFQueueManager::sharedQueueManager()
        .queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier())
        ->dispatchSynchronousBlock([&] { result = calls_; });
    return result;
  }
  const std::set<std::string>& labels() const { return labels_; }

 private:
  std::shared_ptr<DCService> service_;
  // Only touched on the service's queue.
  std::set<std::string> labels_;
  bool connected_ = true;
  std::vector<bool> calls_;
};

class DCConnectivityTrackerTest : public testing::Test {
 protected:
  // A container is chosen once a process, so it outlives the single test.
  static void SetUpTestSuite() {
    static const test::TemporaryDirectory container;
    Container::setDirectory(container.path());
  }

  URLSessionTaskPtr startedTask() {
    auto task = std::make_shared<PlainTask>();
    tracker_->didStartTask(nullptr, task);
    return task;
  }
  void progress(const URLSessionTaskPtr& task) { tracker_->didWriteData(nullptr, task, 1, 1, 2); }
  void end(const URLSessionTaskPtr& task, std::int64_t code, const char* domain = URLErrorDomain) {
    tracker_->didCompleteWithError(nullptr, task, Error(domain, code));
  }
  void succeed(const URLSessionTaskPtr& task) { tracker_->didCompleteWithError(nullptr, task, std::nullopt); }
  bool holds(int count) const {
    return tracker_->description().find("count=" + std::to_string(count) + ",") != std::string::npos;
  }

  test::ManualClock clock_;
  std::shared_ptr<DCConnectivityTracker> tracker_ = std::make_shared<DCConnectivityTracker>("https://host:1", clock_);
};

TEST_F(DCConnectivityTrackerTest, TakesEachErrorForWhatItSaysOfTheServer) {
  EXPECT_TRUE(tracker_->isConnected());
  for (std::int64_t code : {-1006, -1001, -1004, -1005, -1009, -1202, 500}) {
    SCOPED_TRACE(code);
    end(startedTask(), code);
    EXPECT_FALSE(tracker_->isConnected());
    succeed(startedTask());
    EXPECT_TRUE(tracker_->isConnected());
  }
  for (std::int64_t code : {-999, -1017, -1100, -1102}) {
    SCOPED_TRACE(code);
    end(startedTask(), -1004);
    EXPECT_FALSE(tracker_->isConnected());
    end(startedTask(), code);
    EXPECT_TRUE(tracker_->isConnected());
  }
  RecordingLog log;
  end(startedTask(), -999, POSIXErrorDomain);
  EXPECT_FALSE(tracker_->isConnected());
  EXPECT_TRUE(log.contains("5 ", "unhandled error: "));
}

TEST_F(DCConnectivityTrackerTest, CountsOnlyTheNewestEventOfEachTask) {
  auto failed = startedTask();
  end(failed, URLErrorTimedOut);
  startedTask();
  EXPECT_FALSE(tracker_->isConnected()) << "a start alone proves nothing";

  auto restarted = startedTask();
  progress(restarted);
  EXPECT_TRUE(tracker_->isConnected());
  tracker_->didStartTask(nullptr, restarted);
  EXPECT_FALSE(tracker_->isConnected()) << "its start hides its bytes, so the failure is the newest again";

  auto response = startedTask();
  tracker_->didReceiveData(nullptr, response, Data::fromString("x"));
  tracker_->didResumeAtOffset(nullptr, response, 1, 2);
  EXPECT_FALSE(tracker_->isConnected());
  tracker_->didReceiveResponse(nullptr, response, HTTPURLResponse(*URL::fromString("https://host/"), 404, {}));
  EXPECT_TRUE(tracker_->isConnected());
  end(failed, URLErrorTimedOut);
  tracker_->didFinishDownloadingToURL(nullptr, response, URL::fileURL("/x"));
  EXPECT_TRUE(tracker_->isConnected());
}

TEST_F(DCConnectivityTrackerTest, KeepsTheLastDecisionWhenTheEventsAreGone) {
  auto task = startedTask();
  end(task, URLErrorCannotConnectToHost);
  std::weak_ptr<URLSessionTask> weak = task;
  task.reset();
  clock_.advance(seconds(60));
  EXPECT_TRUE(holds(1));
  clock_.advance(seconds(61));
  EXPECT_TRUE(holds(0));
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(tracker_->isConnected());
  startedTask();
  EXPECT_FALSE(tracker_->isConnected());
}

TEST_F(DCConnectivityTrackerTest, TellsEachDelegateOfEachChangeOnceOnItsServicesQueue) {
  auto first = std::make_shared<RecordingDelegate>(DCService::serviceWithHostName("host", "tracker-first"));
  auto second = std::make_shared<RecordingDelegate>(DCService::serviceWithHostName("host", "tracker-second"));
  tracker_->addDelegate(first);
  tracker_->addDelegate(first);
  tracker_->addDelegate(second);
  auto flip = [&] {
    end(startedTask(), URLErrorTimedOut);
    end(startedTask(), URLErrorTimedOut);
    auto task = startedTask();
    progress(task);
    progress(task);
    succeed(task);
  };
  flip();
  EXPECT_EQ(first->calls(), (std::vector{false, true}));
  EXPECT_EQ(second->calls(), (std::vector{false, true}));
  EXPECT_EQ(first->labels(), std::set<std::string>{"tracker-first"});
  EXPECT_EQ(second->labels(), std::set<std::string>{"tracker-second"});

  tracker_->removeDelegate(first.get());
  tracker_->removeDelegate(second.get());
  flip();
  EXPECT_EQ(first->calls().size(), 4U) << "added twice, removed once";
  EXPECT_EQ(second->calls().size(), 2U);
  std::weak_ptr<RecordingDelegate> weak = first;
  first.reset();
  EXPECT_TRUE(weak.expired());
  flip();
}

TEST_F(DCConnectivityTrackerTest, HoldsOneEventATaskHoweverMuchItReceives) {
  auto large = startedTask();
  std::vector<URLSessionTaskPtr> tasks;
  constexpr int kTasks = 20'000;
  tasks.reserve(kTasks);
  for (int index = 0; index < kTasks; ++index) tasks.push_back(startedTask());
  for (int index = 0; index < kTasks; ++index) {
    progress(large);
    progress(tasks[index]);
  }
  for (auto task = tasks.rbegin(); task != tasks.rend(); ++task) succeed(*task);
  EXPECT_TRUE(holds(kTasks + 1));
  clock_.advance(seconds(121));
  EXPECT_TRUE(holds(0));
  progress(large);
  EXPECT_TRUE(holds(1));
}

TEST_F(DCConnectivityTrackerTest, AddsNothingForMissingTasks) {
  RecordingLog log;
  tracker_->didStartTask(nullptr, nullptr);
  end(nullptr, URLErrorTimedOut);
  EXPECT_TRUE(tracker_->isConnected());
  EXPECT_TRUE(holds(0));
  EXPECT_TRUE(log.contains("3 bad data, eventType = TaskStarted, task = (null) [in ", "_addEvent:task:]] (<<DCConn"));
  EXPECT_TRUE(log.contains("3 bad data, eventType = ServerUnavailableError, error = Error Domain=", ", task = (null)"));
}

TEST_F(DCConnectivityTrackerTest, IsOneForEachSchemeHostAndPort) {
  auto trackerFor = [](const char* url) {
    return DCConnectivityTracker::connectivityTrackerForService(
        DCService::serviceWithURL(URL::fromString(url), "keychain item"));
  };
  auto tracker = trackerFor("https://server:10548");
  EXPECT_EQ(tracker->server(), "https://server:10548");
  EXPECT_EQ(trackerFor("https://server:10548/other"), tracker);
  EXPECT_NE(trackerFor("https://server:10549"), tracker);
  EXPECT_NE(trackerFor("https://other:10548"), tracker);
}

TEST_F(DCConnectivityTrackerTest, TellsChangesInTheirOrderWhenTasksOfManyThreadsEnd) {
  auto delegate = std::make_shared<RecordingDelegate>(DCService::serviceWithHostName("host", "tracker-threads"));
  tracker_->addDelegate(delegate);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int index = 0; index < 500; ++index) {
        auto task = startedTask();
        if (thread % 2) {
          succeed(task);
        } else {
          end(task, URLErrorNetworkConnectionLost);
        }
        tracker_->isConnected();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  auto calls = delegate->calls();
  for (std::size_t index = 0; index < calls.size(); ++index) ASSERT_EQ(calls[index], index % 2 == 1);
  EXPECT_EQ(calls.empty() || calls.back(), tracker_->isConnected());
}

}  // namespace
}  // namespace florvane
