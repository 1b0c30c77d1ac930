#include "Client/Client/DCAgentTasks.h"
#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCUploadManager.h"
#include "platform/BackgroundURLSession.h"
#include "platform/Encoding.h"
#include "tests/client/UploadClient.h"

#include <atomic>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

using Manager = DCBackgroundSessionManager;

// Waits for an answer of cancelUpload.
bool cancelled(UploadClient& client, std::uint64_t task, const std::string& session) {
  auto promise = std::make_shared<std::promise<bool>>();
  Manager::backgroundSessionManagerForService(client.service, DCMainBundleIdentifier())
      ->cancelUpload(task, session, [promise](bool didCancel) { promise->set_value(didCancel); });
  return promise->get_future().get();
}

// An upload that the server holds until the test lets it go.
struct HeldUpload {
  HeldUpload(UploadClient& client, FaultyServer& faulty, const std::string& path) {
    faulty.setFault("write", [this](const auto&) -> std::optional<std::string> {
      arrived.raise();
      mayGo.wait();
      return std::nullopt;
    });
    EXPECT_FALSE(client.write(path, "held bytes").error);
    EXPECT_TRUE(arrived.wait());
    auto upload = client.record(path);
    task = static_cast<std::uint64_t>(upload->taskIdentifier().value_or(0));
    session = upload->sessionIdentifier().value_or("");
  }
  ~HeldUpload() { mayGo.raise(); }
  Signal arrived, mayGo;
  std::uint64_t task = 0;
  std::string session;
};

TEST(BackgroundSessionManager, IdentifiersAreTakenApartAtTheFirstAndTheLastTilde) {
  TestContainer container;
  auto service = DCService::serviceWithHostName("host", "service");
  const std::string identifier = Manager::sessionIdentifierForService(*service, "quorl~odd.bundle");
  EXPECT_EQ(identifier, "service~quorl~odd.bundle");
  EXPECT_EQ(Manager::serviceIdentifierFromBackgroundSessionIdentifier(identifier), "service");
  EXPECT_EQ(Manager::bundleIdentifierFromBackgroundSessionIdentifier(identifier), "odd.bundle");
  EXPECT_FALSE(Manager::bundleIdentifierFromBackgroundSessionIdentifier("none"));
  RecordingSystemLog log;
  EXPECT_FALSE(Manager::backgroundSessionManagerForService(nullptr, "bundle"));
  EXPECT_FALSE(Manager::backgroundSessionManagerForService(service, std::nullopt));
}

TEST(BackgroundSessionManager, CancellingEndsTheTaskAndItsRecordWhicheverApplicationMadeIt) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  HeldUpload held(client, faulty, "Files/a");
  // Not this service's, not this session's, not this task.
  auto manager = Manager::backgroundSessionManagerForService(client.service, DCMainBundleIdentifier());
  std::atomic<bool> wasAsked = false;
  manager->cancelUpload(held.task, "other~quorl.Florvane", [&](bool) { wasAsked = true; });
  EXPECT_FALSE(cancelled(client, held.task, client.service->uniqueIdentifier() + "~other.bundle"));
  EXPECT_FALSE(cancelled(client, held.task + 1, held.session));
  EXPECT_FALSE(wasAsked);
  EXPECT_TRUE(client.record("Files/a"));
  // From a manager of another application.
  auto promise = std::make_shared<std::promise<bool>>();
  Manager::backgroundSessionManagerForService(client.service, "other.bundle")
      ->cancelUpload(held.task, held.session, [promise](bool didCancel) { promise->set_value(didCancel); });
  EXPECT_TRUE(promise->get_future().get());
  EXPECT_FALSE(client.record("Files/a"));
  client.onQueue([] {});
  EXPECT_FALSE(client.manager->hasPendingUploads());
}

TEST(BackgroundSessionManager, TheAgentSaysHowFarAnUploadIsToWhoeverAsks) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  HeldUpload held(client, faulty, "Files/a");
  std::int64_t sent = 0;
  // The server has it all by now; that the agent has noticed may take a moment.
  for (int turn = 0; turn < 1000 && sent == 0; ++turn) {
    auto progress = DCAgentTasks::progressOfTasksInSession(held.session);
    ASSERT_TRUE(progress);
    const auto& known = (*progress)[static_cast<std::int64_t>(held.task)];
    sent = known.bytesSent;
    EXPECT_EQ(known.bytesExpected, 10);
  }
  EXPECT_EQ(sent, 10);
}

TEST(BackgroundSessionManager, TheAgentForgetsWhatNobodyIsToBeToldOf) {
  TestServer server;
  UploadClient client(server);
  const std::string identifier = client.service->uniqueIdentifier() + "~gone.bundle";
  // Without a delegate nobody is attached, and what the task came to is kept.
  auto session = BackgroundURLSession::create(
      URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), nullptr);
  for (const char* text : {"first", "second"}) {
    auto task = session->uploadTask(URLRequest(client.service->url()), client.source(text), {text});
    ASSERT_TRUE(task);
    (*task)->cancel();
  }
  EXPECT_EQ(DCAgentTasks::numberOfTasksInSession(identifier).value_or(0), 2U);
  DCAgentTasks::forgetEndedTasksInSession(identifier);
  EXPECT_EQ(DCAgentTasks::numberOfTasksInSession(identifier).value_or(9), 0U);
}

TEST(BackgroundSessionManager, ANotificationCancelsAndOneThatSaysTooLittleDoesNot) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  HeldUpload held(client, faulty, "Files/a");
  auto& center = NotificationCenter::shared();
  center.post(DCBackgroundSessionManagerShouldCancelUploadNotification, std::nullopt,
              {{DCBackgroundSessionManagerTaskIdentifierKey, static_cast<std::int64_t>(held.task)}});
  center.post(DCBackgroundSessionManagerShouldCancelUploadNotification, std::nullopt,
              {{DCBackgroundSessionManagerTaskIdentifierKey, static_cast<std::int64_t>(held.task)},
               {DCBackgroundSessionManagerSessionIdentifierKey, "other~quorl.Florvane"}});
  Signal removed;
  auto observation =
      center.addObserver(FlorvaneDidAddOrRemoveUploadsNotification, [&](const Notification&) { removed.raise(); });
  center.post(DCBackgroundSessionManagerShouldCancelUploadNotification, std::nullopt,
              {{DCBackgroundSessionManagerTaskIdentifierKey, static_cast<std::int64_t>(held.task)},
               {DCBackgroundSessionManagerSessionIdentifierKey, held.session}});
  EXPECT_TRUE(removed.wait());
  EXPECT_FALSE(client.record("Files/a"));
}

TEST(BackgroundSessionManager, ATaskWhoseRecordIsMarkedIsCancelledAtItsNextCallback) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  Signal removed;
  std::unique_ptr<NotificationCenter::Observation> observation;
  std::promise<std::optional<Error>> waiting;
  {
    HeldUpload held(client, faulty, "Files/a");
    client.manager->startUploadingItemAtPath("Files/a",
                                             [&](const auto&, const auto& error) { waiting.set_value(error); });
    client.onQueue([] {});
    // As another process marks it, which has queued nothing in its place.
    auto upload = client.record("Files/a");
    upload->markAsCancelled();
    ASSERT_TRUE(client.database().save());
    observation = NotificationCenter::shared().addObserver(FlorvaneDidAddOrRemoveUploadsNotification,
                                                           [&](const Notification&) { removed.raise(); });
  }
  ASSERT_TRUE(removed.wait());
  client.onQueue([] {});
  EXPECT_EQ(client.countOf("Cancelling cancelled task with identifier"), 1U);
  EXPECT_FALSE(client.manager->hasPendingUploads());
  // Its answer was not taken in, and whoever waited for it is told; the next write is sent, whatever comes of it.
  EXPECT_FALSE(client.entry(client.list("Files"), "a"));
  auto told = waiting.get_future().get();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->code(), URLErrorCancelled);
  faulty.setFault("write", {});
  const std::size_t before = faulty.requestsOf("write");
  ASSERT_FALSE(client.write("Files/a", "written once more").error);
  for (int turn = 0; turn < 1000 && faulty.requestsOf("write") == before; ++turn) client.refresh("Files");
  EXPECT_GT(faulty.requestsOf("write"), before);
}

TEST(BackgroundSessionManager, ThatEventsAreFinishedIsToldOnceAndRememberedForALateHandler) {
  TestServer server;
  UploadClient client(server);
  auto manager = Manager::backgroundSessionManagerForService(client.service, "relaunched.bundle");
  Signal posted;
  std::atomic<int> posts = 0;
  auto observation = NotificationCenter::shared().addObserver(
      DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler, [&](const Notification&) {
        ++posts;
        posted.raise();
      });
  client.onQueue([&] { manager->didFinishEventsForBackgroundURLSession(manager->backgroundSession()); });
  ASSERT_TRUE(posted.wait());
  // The handler comes late.
  int calls = 0;
  manager->setBackgroundEventsCompletionHandler([&] { ++calls; });
  EXPECT_EQ(calls, 1);
  // The handler is there: it is called, and nothing is posted.
  manager->setBackgroundEventsCompletionHandler([&] { ++calls; });
  EXPECT_EQ(calls, 1);
  client.onQueue([&] { manager->didFinishEventsForBackgroundURLSession(manager->backgroundSession()); });
  EXPECT_EQ(calls, 2);
  // Another process says so.
  Signal called;
  manager->setBackgroundEventsCompletionHandler([&] { called.raise(); });
  NotificationCenter::shared().post(DCBackgroundSessionManagerShouldCallBackgroundEventsCompletionHandler);
  EXPECT_TRUE(called.wait());
}

TEST(BackgroundSessionManager, ATaskOfAKilledProcessIsAdoptedByPathAndGeneration) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  // Two writes whose tasks were made and never entered in the records.
  auto staged = client.queueWithoutStart("Files/a", "adopted bytes");
  auto manager = Manager::backgroundSessionManagerForService(client.service, DCMainBundleIdentifier());
  auto makeTask = [&](const std::string& name, const URL& source) {
    auto file = DCCachedItemManager::fileAtRelativePath(
        DCRelativePath::relativePathWithString("Files/" + name, client.service));
    // The request itself is the one that the upload manager would make.
    auto parent = file->parent()->documentIdentifier();
    URLRequest post(*client.service->url().resolving("/fv/v1/write"));
    post.method = "POST";
    std::string hex = hexEncode(*parent);
    post.url = post.url.withQueryItems({{"n", name}, {"D", hex}, {"s", hex}});
    (void)HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(client.service)
        ->clientSession()
        ->addAuthenticationToRequest(post);
    const auto generation = file->_localGenerationIdentifier();
    client.record("Files/" + name)->addAttempt({13, Date::now(), *generation});
    return manager->backgroundSession()->uploadTask(post, source, {"Files/" + name, generation, std::nullopt});
  };
  Result<URLSessionTaskPtr> task = Failure(Error(URLErrorDomain, 0));
  client.onQueue([&] { task = makeTask("a", staged); });
  ASSERT_TRUE(task);
  client.manager->restartUploads();
  for (int turn = 0; turn < 1000 && client.record("Files/a"); ++turn) client.refresh("Files");
  EXPECT_FALSE(client.record("Files/a"));
  EXPECT_EQ(textOf(server.files() + "/a"), "adopted bytes");
  EXPECT_EQ(faulty.requestsOf("write"), 1U);
  EXPECT_EQ(client.text(client.read("Files/a")), "adopted bytes");

  // This one has ended before anybody asks for tasks.
  staged = client.queueWithoutStart("Files/b", "and its end, too");
  client.onQueue([&] { task = makeTask("b", staged); });
  ASSERT_TRUE(task);
  (*task)->resume();
  for (int turn = 0; turn < 1000 && client.record("Files/b"); ++turn) client.refresh("Files");
  EXPECT_FALSE(client.record("Files/b"));
  EXPECT_EQ(textOf(server.files() + "/b"), "and its end, too");
  EXPECT_EQ(faulty.requestsOf("write"), 2U);
}

}  // namespace
}  // namespace florvane::test
