#include "platform/NotificationCenter.h"
#include "platform/SoftAssertion.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace florvane {
namespace {

using test::runProcess;
using test::runPython;
using test::TemporaryDirectory;

const std::string kPeer = std::string(FLORVANE_BIN_DIR) + "/notification_peer";

std::atomic<int> assertions = 0;

// Notifications in the order of their delivery, to wait for without a clock.
class Received {
 public:
  void add(const Notification& notification) {
    std::lock_guard lock(mutex_);
    list_.push_back(notification);
    changed_.notify_all();
  }
  template <typename Condition>
  std::vector<Notification> waitUntil(Condition condition) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return condition(list_); });
    return list_;
  }
  std::vector<Notification> waitFor(std::size_t count) {
    return waitUntil([count](const auto& list) { return list.size() >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Notification> list_;
};

class NotificationCenterTest : public testing::Test {
 protected:
  NotificationCenterTest() {
    assertions = 0;
    setSoftAssertionHandler([](std::string_view, unsigned, std::string_view) { ++assertions; });
  }
  ~NotificationCenterTest() override { setSoftAssertionHandler(nullptr); }
  auto observe(NotificationCenter& center, std::string_view name, Received& received) {
    return center.addObserver(name, [&received](const Notification& notification) { received.add(notification); });
  }
  std::vector<std::string> sockets() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      if (entry.is_socket()) names.push_back(entry.path().filename());
    }
    return names;
  }

  TemporaryDirectory directory_;
  // Longer than a socket's address may be.
  std::string folder_ = directory_.file(std::string(90, 'd')) + "/" + std::string(90, 'e') + "/Notifications";
};

TEST_F(NotificationCenterTest, ReachesTheOwnProcessAsynchronouslyAndOnlyTheObserversOfThatName) {
  NotificationCenter center(folder_);
  Received received, others;
  std::thread::id calledOn;
  auto observation = center.addObserver("name", [&](const Notification& notification) {
    calledOn = std::this_thread::get_id();
    received.add(notification);
    if (notification.userInfo.contains("first")) center.post("name", "again");  // a handler may post
  });
  auto other = observe(center, "other", others);
  center.post("name", "object", {{"first", true}});
  center.post("other");
  auto list = received.waitFor(2);
  EXPECT_EQ(list[0].name, "name");
  EXPECT_EQ(list[0].object, "object");
  EXPECT_EQ(list[0].userInfo.boolean("first"), true);
  EXPECT_EQ(list[1].object, "again");
  EXPECT_NE(calledOn, std::this_thread::get_id());
  EXPECT_EQ(others.waitFor(1)[0].object, std::nullopt);

  struct stat status{};
  ASSERT_EQ(stat(folder_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700U);
  ASSERT_EQ(sockets().size(), 1U);
  ASSERT_EQ(stat((folder_ + "/" + sockets()[0]).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(NotificationCenterTest, SpeaksWithAnotherProcessBothWays) {
  NotificationCenter center(folder_);
  Received received;
  auto observation = center.addObserver("question", [&](const Notification& notification) {
    center.post("reply", std::nullopt, {{"date", Date::fromMicroseconds(1'700'000'000'123'456)}});
    received.add(notification);
  });
  auto peer = runProcess({kPeer, "answer", folder_, "question", "reply"});
  EXPECT_EQ(peer.exitStatus, 0);
  EXPECT_NE(peer.standardOutput.find("2023-11-14T22:13:20.123456Z"), std::string::npos) << peer.standardOutput;
  received.waitFor(1);

  Received posts;
  auto second = observe(center, "post", posts);
  runProcess({kPeer, "post", folder_, "post", "5"});
  auto list = posts.waitFor(5);
  for (int index = 0; index < 5; ++index) {
    EXPECT_EQ(list[index].userInfo.integer("index"), index);
    EXPECT_EQ(list[index].object, "peer");
  }
  EXPECT_EQ(assertions, 0);
}

TEST_F(NotificationCenterTest, NeverBlocksAPosterAndTellsEveryObserverThatSomeWereMissed) {
  NotificationCenter center(folder_), bystander(folder_);
  std::promise<void> gate;
  Received received, other, elsewhere;
  auto held = center.addObserver("hold", [open = gate.get_future().share()](const Notification&) { open.wait(); });
  auto observation = observe(center, "name", received);
  auto third = observe(center, "unrelated", other);
  auto fourth = observe(bystander, "name", elsewhere);
  center.post("hold");
  constexpr int kPosts = 3000;
  runProcess({kPeer, "post", folder_, "name", std::to_string(kPosts)});  // ends although nobody reads
  gate.set_value();

  auto missed = [](const auto& list) { return !list.empty() && list.back().missedSome; };
  auto list = received.waitUntil(missed);
  EXPECT_LT(list.size(), static_cast<std::size_t>(kPosts));
  for (std::size_t index = 0; index + 1 < list.size(); ++index) {
    EXPECT_EQ(list[index].userInfo.integer("index"), static_cast<std::int64_t>(index)) << "order";
  }
  EXPECT_EQ(other.waitUntil(missed).size(), 1U);
  EXPECT_EQ(other.waitUntil(missed)[0].name, "unrelated");

  // Whoever was slow, the next post is whole again.
  bystander.post("name", "after");
  auto isAfter = [](const auto& posts) { return posts.back().object == "after"; };
  EXPECT_TRUE(isAfter(received.waitUntil(isAfter)));
  EXPECT_TRUE(isAfter(elsewhere.waitUntil(isAfter)));
}

TEST_F(NotificationCenterTest, RemovesTheSocketsOfProcessesThatVanished) {
  runProcess({kPeer, "vanish", folder_});
  ASSERT_EQ(sockets().size(), 1U);
  NotificationCenter(folder_).post("anything");
  EXPECT_TRUE(sockets().empty());

  runProcess({kPeer, "vanish", folder_});
  {
    NotificationCenter center(folder_);
    Received received;
    auto observation = observe(center, "name", received);
    EXPECT_EQ(sockets().size(), 1U) << "only its own";
  }
  EXPECT_TRUE(sockets().empty());
}

TEST_F(NotificationCenterTest, IgnoresWhatIsNoNotificationAndRefusesWhatCannotTravel) {
  NotificationCenter center(folder_), peer(folder_);
  Received received, local;
  auto observation = observe(center, "name", received);
  auto result = runPython(R"(
import os, plistlib, socket, sys
os.chdir(sys.argv[1])
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
for message in [b"garbage", plistlib.dumps([1], fmt=plistlib.FMT_BINARY), plistlib.dumps({"Name": 3}),
                plistlib.dumps({"Name": "name", "UserInfo": {}}) + b" " * 70000]:
    s.sendto(message, sys.argv[2])
)",
                          {folder_, sockets().at(0)});
  ASSERT_EQ(result.exitStatus, 0) << result.standardError;
  auto peerObservation = observe(peer, "name", local);
  peer.post("name", "null", {{"null", Value()}});
  peer.post("name", "large", {{"large", Data::fromString(std::string(65'536, 'x'))}});
  peer.post("name", "largest", {{"large", Data::fromString(std::string(65'000, 'x'))}});
  auto list = received.waitFor(1);
  EXPECT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].object, "largest");
  EXPECT_EQ(list[0].userInfo.data("large")->size(), 65'000U);
  EXPECT_EQ(assertions, 6);
  EXPECT_EQ(local.waitFor(3)[1].object, "large") << "its own process hears of all";
}

TEST_F(NotificationCenterTest, EndsAnObservationOnlyWhenItsCallHasEndedSaveFromTheCallItself) {
  NotificationCenter center(folder_);
  std::promise<void> running, gate;
  bool finished = false;  // plain: that the wait orders it is what is tested
  auto observation = center.addObserver("name", [&](const Notification&) {
    running.set_value();
    gate.get_future().wait();
    finished = true;
  });
  center.post("name");
  running.get_future().wait();
  std::thread opener([&] { gate.set_value(); });
  observation.reset();
  EXPECT_TRUE(finished);
  opener.join();

  std::unique_ptr<NotificationCenter::Observation> self;
  int calls = 0;
  std::promise<void> assigned;
  self = center.addObserver("self", [&, ready = assigned.get_future().share()](const Notification&) {
    ready.wait();
    ++calls;
    self.reset();
  });
  assigned.set_value();
  Received last;
  auto after = observe(center, "last", last);
  center.post("self");
  center.post("self");
  center.post("last");
  last.waitFor(1);
  EXPECT_EQ(calls, 1);
}

TEST_F(NotificationCenterTest, WorksWithinTheProcessWhenThereIsNoFolder) {
  test::writeText(directory_.file("file"), "");
  NotificationCenter center(directory_.file("file") + "/Notifications");
  Received received;
  auto observation = observe(center, "name", received);
  EXPECT_EQ(assertions, 1);
  center.post("name");
  received.waitFor(1);
}

}  // namespace
}  // namespace florvane
