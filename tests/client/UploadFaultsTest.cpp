#include "tests/client/ClockedAgent.h"
#include "tests/client/NotificationCounter.h"
#include "tests/client/UploadClient.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::IsEmpty;

constexpr int kMinutesOfHours = 180;

// A share with the file "old" and the folder "Docs", a server in front of it that does what a test says, and who hears
// of failures.
struct Scene {
  Scene() {
    faulty.setFault("watch", [](const auto&) { return FaultyServer::refusal(500, ""); });
    client.manager->setDelegate(above, client.queue, "Files");
    client.manager->setDelegate(elsewhere, client.queue, "Library");
  }
  static TestServer& withFiles(TestServer& server) {
    writeText(server.files() + "/old", "old");
    fs::create_directory(server.files() + "/Docs");
    return server;
  }
  // Calls of failures.
  static std::size_t failuresOf(RecordingDelegate& delegate) {
    const auto events = delegate.take();
    return static_cast<std::size_t>(std::count_if(
        events.begin(), events.end(), [](const std::string& event) { return event.starts_with("failed"); }));
  }
  std::string onServer(const std::string& path) const {
    return textOf(server.files() + "/" + path.substr(path.rfind('/') + 1));
  }
  std::size_t filesOnServer() const {
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(server.files())) files += entry.is_regular_file() ? 1 : 0;
    return files;
  }
  // As an application sees it that comes back every minute.
  void anHourPasses() {
    for (int minute = 0; minute < 60; ++minute) {
      client.clock.advance(seconds(60));
      client.manager->restartUploads();
      client.onQueue([] {});
      (void)client.refresh("Files");
    }
  }

  TestServer server;
  FaultyServer faulty{withFiles(server)};
  UploadClient client{server, faulty};
  NotificationCounter failures{FlorvaneUploadDidFailNotification};
  std::shared_ptr<RecordingDelegate> above = std::make_shared<RecordingDelegate>(),
                                     elsewhere = std::make_shared<RecordingDelegate>();
};

TEST(UploadFaults, EveryRefusalIsTriedThreeTimesAndThenWaitsForSomebodyWithItsWords) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  struct Case {
    int status;
    const char* sentence;
  };
  int given = 0;
  std::string onServer = "old";
  for (const Case& each :
       {Case{403, "Not yours."}, Case{404, ""}, Case{413, "Too large."}, Case{500, "Broken: 401."}, Case{507, ""}}) {
    const std::string text =
        *each.sentence ? each.sentence : std::string(URLErrorDomain) + " - " + std::to_string(each.status);
    const std::string newPath = "Files/new-" + std::to_string(each.status);
    for (const auto& [path, command] : {std::pair(newPath, "write"), std::pair(std::string("Files/old"), "replace")}) {
      SCOPED_TRACE(path + " " + std::to_string(each.status));
      const std::string mine = "mine for " + std::to_string(each.status);
      const std::size_t before = faulty.requestsOf(command);
      faulty.setFault(command, [&](const auto&) { return FaultyServer::refusal(each.status, each.sentence); });
      ASSERT_FALSE(client.write(path, mine).error);
      above->waitFor("failed " + path + " " + std::to_string(each.status));
      const auto upload = client.record(path);
      ASSERT_TRUE(upload);
      EXPECT_EQ(upload->error(), text);
      EXPECT_EQ(upload->numberOfRetries(), 3);
      EXPECT_FALSE(upload->taskIdentifier() || upload->sessionIdentifier());
      EXPECT_EQ(failures.count(), ++given);
      const std::string line = "path='" + path + "'> failed with error " + text + ". Retry #";
      EXPECT_EQ(client.countOf(line + "1"), 1U);
      EXPECT_EQ(client.countOf(line + "2"), 1U);
      EXPECT_EQ(client.countOf(line + "3"), 0U);
      EXPECT_EQ(faulty.requestsOf(command) - before, 3U);
      // Nobody loses anything meanwhile, and nobody hammers the server.
      EXPECT_EQ(client.text(client.read(path)), mine);
      EXPECT_EQ(scene.onServer(path), path == newPath ? "(none)" : onServer);
      if (each.status == 500) scene.anHourPasses();
      EXPECT_EQ(faulty.requestsOf(command) - before, 3U);
      EXPECT_EQ(Scene::failuresOf(*above), 1U);
      faulty.setFault(command, {});
      // A fresh write begins anew, too.
      if (each.status == 404) {
        ASSERT_FALSE(client.write(path, mine).error);
      } else {
        (void)client.upload(path);
      }
      ASSERT_TRUE(client.sent(path));
      EXPECT_EQ(scene.onServer(path), mine);
    }
    onServer = "mine for " + std::to_string(each.status);
  }
  EXPECT_EQ(failures.count(), given);
  EXPECT_EQ(Scene::failuresOf(*elsewhere), 0U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, TheCounterOfTheRecordDecidesHowOftenItIsTried) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  faulty.setFault("write", [](const auto&) { return FaultyServer::refusal(500, "Broken."); });
  struct Case {
    std::int64_t retries;
    const char* error;  // of the last attempt; null while it has not been said to have failed
    std::size_t requests;
    std::int64_t after;
  };
  int number = 0;
  // A start counts the failure before it, unless that was a refused login.
  for (const Case& each : {Case{0, nullptr, 3, 3}, Case{1, nullptr, 2, 3}, Case{2, nullptr, 1, 3},
                           Case{5, nullptr, 1, 6}, Case{0, "Broken.", 2, 3}, Case{1, "Broken.", 1, 3},
                           Case{1, "URLErrorDomain - 401", 2, 3}, Case{3, "Broken.", 1, 5}}) {
    SCOPED_TRACE(std::to_string(each.retries) + (each.error ? each.error : ""));
    const std::string path = "Files/counted-" + std::to_string(++number);
    client.queueWithoutStart(path, "bytes");
    client.record(path)->setNumberOfRetries(each.retries);
    if (each.error) client.record(path)->setError(each.error);
    ASSERT_TRUE(client.database().save());
    const std::size_t before = faulty.requestsOf("write");
    auto heard = client.upload(path);
    ASSERT_TRUE(heard.error);
    EXPECT_EQ(heard.error->code(), 500);
    above->waitFor("failed " + path + " 500");
    EXPECT_EQ(faulty.requestsOf("write") - before, each.requests);
    EXPECT_EQ(client.record(path)->numberOfRetries(), each.after);
    EXPECT_EQ(client.record(path)->error(), "Broken.");
    EXPECT_EQ(failures.count(), number);
    EXPECT_EQ(Scene::failuresOf(*above), 1U);
  }
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, ALoginMayBeRefusedAtAnyMomentAndAsOftenAsItLikes) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  struct Case {
    const char* path;
    // What the server answers to the first requests; then it does as it is asked.
    std::vector<std::pair<std::string, std::vector<std::string>>> answers;
    std::size_t requests;  // of the first of these commands
  };
  const std::string refused = FaultyServer::refusal(401, ""), broken = FaultyServer::refusal(500, "Broken.");
  const std::string lost = FaultyServer::loseTheReply;
  const Case cases[] = {
      {"Files/new", {{"write", std::vector(8, refused)}}, 9},
      {"Files/old", {{"replace", std::vector(3, refused)}}, 4},
      // While it is found out what became of it.
      {"Files/lost", {{"write", {lost}}, {"ls", std::vector(3, refused)}}, 1},
      // Between failures that count: there is one of these left.
      {"Files/mixed", {{"write", {broken, refused, refused, broken, refused}}}, 6},
      {"Inbox/letter", {{"write", {refused, refused}}}, 3},
  };
  client.listFresh("Inbox");
  for (const Case& each : cases) {
    SCOPED_TRACE(each.path);
    std::vector<std::shared_ptr<std::atomic<std::size_t>>> counts;
    for (const auto& [command, answers] : each.answers) {
      auto count = counts.emplace_back(std::make_shared<std::atomic<std::size_t>>(0));
      faulty.setFault(command, [count, first = answers](const auto&) -> std::optional<std::string> {
        const std::size_t number = (*count)++;
        return number < first.size() ? std::optional(first[number]) : std::nullopt;
      });
    }
    ASSERT_FALSE(client.write(each.path, "bytes").error);
    while (client.record(each.path)) {
      const auto upload = client.record(each.path);
      EXPECT_LE(upload ? upload->numberOfRetries().value_or(0) : 0, 2);
      client.clock.advance(seconds(61));
      client.onQueue([] {});
      (void)client.refresh("");
    }
    EXPECT_EQ(*counts.front(), each.requests);
    for (const auto& [command, answers] : each.answers) faulty.setFault(command, {});
  }
  for (const char* path : {"Files/new", "Files/old", "Files/lost", "Files/mixed"}) {
    EXPECT_EQ(scene.onServer(path), "bytes") << path;
  }
  EXPECT_EQ(scene.filesOnServer(), 4U);
  EXPECT_EQ(textOf(server.inbox() + "/letter"), "bytes");
  EXPECT_EQ(failures.count(), 0);
  EXPECT_EQ(Scene::failuresOf(*above), 0U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, HoursInWhichNobodyCanSignInCostNoRetry) {
  TestServer server;
  UploadClient client(server);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  server.stop();
  DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
  ASSERT_FALSE(client.write("Files/a", "patient").error);
  auto untilAttemptsAre = [&](std::size_t attempts) {
    while (client.countOf("Uploads wait for signing in") < attempts) client.onQueue([] {});
    client.onQueue([] {});  // it has begun to wait
  };
  for (std::size_t minute = 1; minute <= kMinutesOfHours; ++minute) {
    untilAttemptsAre(minute);
    client.clock.advance(seconds(60));
  }
  untilAttemptsAre(kMinutesOfHours + 1);
  const auto upload = client.record("Files/a");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->numberOfRetries().value_or(0), 0);
  EXPECT_FALSE(upload->error());
  server.restart();
  client.clock.advance(seconds(60));
  untilSent(client, "Files/a");
  EXPECT_EQ(textOf(server.files() + "/a"), "patient");
  EXPECT_EQ(failures.count(), 0);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, AServerThatIsInNoStateToSignInAnybodyCostsNoRetryEither) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  faulty.setFault("/sasl", [](const auto&) { return FaultyServer::refusal(503, "Starting."); });
  DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
  ASSERT_FALSE(client.write("Files/a", "patient").error);
  for (std::size_t minute = 1; minute <= 60; ++minute) {
    while (client.countOf("Uploads wait for signing in") < minute) client.onQueue([] {});
    client.onQueue([] {});  // it has begun to wait
    client.clock.advance(seconds(60));
  }
  const auto upload = client.record("Files/a");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->numberOfRetries().value_or(0), 0);
  EXPECT_FALSE(upload->error());
  faulty.setFault("/sasl", {});
  while (client.record("Files/a")) {
    client.clock.advance(seconds(60));
    client.onQueue([] {});
  }
  EXPECT_EQ(textOf(server.files() + "/a"), "patient");
  EXPECT_EQ(failures.count(), 0);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, HoursWithoutAServerCostNoRetryAndWhatMayHaveArrivedIsAskedForFirst) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  ClockedAgent agent(client);
  // One whose reply got lost, and nobody can say since whether it arrived; one that nobody takes.
  std::atomic<bool> isAway = true;
  auto lose = [&](const auto&) { return std::optional<std::string>(FaultyServer::loseTheReply); };
  auto away = [&](const auto&) -> std::optional<std::string> {
    return isAway ? std::optional<std::string>(FaultyServer::loseTheRequest) : std::nullopt;
  };
  faulty.setFault("write", lose);
  faulty.setFault("replace", away);
  faulty.setFault("ls", away);
  ASSERT_FALSE(client.write("Files/new", "arrived").error);
  ASSERT_FALSE(client.write("Files/old", "newer").error);
  // No pause is longer than a minute. Time stands still while somebody asks: it must not make a request time out.
  auto untilLooksAre = [&](std::size_t looks) {
    while (client.countOf("Could not find out what became of the upload of") < looks) client.onQueue([] {});
    client.onQueue([] {});  // the next pause has begun
  };
  for (std::size_t minute = 1; minute <= kMinutesOfHours; ++minute) {
    untilLooksAre(2 * minute);
    client.clock.advance(seconds(60));
  }
  untilLooksAre(2 * (kMinutesOfHours + 1));
  // The longest pauses take three quarters of a minute at least; a few at first are shorter.
  EXPECT_LE(client.countOf("/fv/v1/ls?"), 2U * (kMinutesOfHours * 4 / 3 + 10));
  for (const char* path : {"Files/new", "Files/old"}) {
    const auto upload = client.record(path);
    ASSERT_TRUE(upload) << path;
    EXPECT_EQ(upload->numberOfRetries().value_or(0), 0) << path;
    EXPECT_FALSE(upload->error()) << path;
  }
  isAway = false;
  for (const char* path : {"Files/new", "Files/old"}) untilSent(client, path);
  EXPECT_EQ(faulty.requestsOf("write"), 1U);
  EXPECT_EQ(scene.onServer("new"), "arrived");
  EXPECT_EQ(scene.onServer("old"), "newer");
  EXPECT_EQ(scene.filesOnServer(), 2U);
  EXPECT_EQ(failures.count(), 0);
  EXPECT_EQ(Scene::failuresOf(*above), 0U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, AServerThatIsOffForHoursGetsItOnceWhenItIsBack) {
  TestServer server;
  UploadClient client(server);
  ClockedAgent agent(client);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  server.stop();
  ASSERT_FALSE(client.write("Files/a", "patient").error);
  for (int minute = 0; minute < kMinutesOfHours; ++minute) {
    client.clock.advance(seconds(60));
    (void)client.refresh("Files");
  }
  const auto upload = client.record("Files/a");
  ASSERT_TRUE(upload);
  EXPECT_TRUE(upload->taskIdentifier());
  EXPECT_FALSE(upload->error());
  server.restart();
  untilSent(client, "Files/a");
  EXPECT_EQ(textOf(server.files() + "/a"), "patient");
  EXPECT_EQ(failures.count(), 0);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, ANewCertificateIsAskedForItsPasswordBeforeItGetsAnything) {
  TestServer server;
  UploadClient client(server);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  // The server's own: it knows the password, and the login is renewed.
  server.stop();
  server.forgetCertificate();
  server.restart();
  ASSERT_FALSE(client.write("Files/a", "for the server").error);
  untilSent(client, "Files/a");
  EXPECT_EQ(textOf(server.files() + "/a"), "for the server");
  EXPECT_EQ(failures.count(), 0);
  EXPECT_GE(client.countOf("Got an authentication error. Retrying upload of file at"), 1U);
  // Somebody else's in its place gets nothing.
  const std::uint16_t port = server.port();
  server.stop();
  {
    TestServer impostor([port](ServerOptions& options) { options.port = port; });
    ASSERT_TRUE(impostor->removeUser(TestServer::user));
    ASSERT_TRUE(impostor->addUser(TestServer::user, Secret("another password")));
    ASSERT_FALSE(client.write("Files/a", "not for others").error);
    while (failures.count() == 0) client.onQueue([] {});
    EXPECT_EQ(textOf(impostor.files() + "/a"), "(none)");
    const auto upload = client.record("Files/a");
    ASSERT_TRUE(upload && upload->error());
    EXPECT_NE(*upload->error(), "");
    EXPECT_EQ(client.text(client.read("Files/a")), "not for others");
    impostor.stop();
  }
  server.restart();
  client.clock.advance(seconds(61));
  (void)client.upload("Files/a");
  ASSERT_TRUE(client.sent("Files/a"));
  EXPECT_EQ(textOf(server.files() + "/a"), "not for others");
  EXPECT_EQ(failures.count(), 1);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, ARefusedPasswordIsSaidAtOnceAndNotTriedForEver) {
  TestServer server;
  FaultyServer faulty(server);
  // Nothing else of it signs in.
  UploadClient client(server, faulty);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  ASSERT_TRUE(server->removeUser(TestServer::user));
  ASSERT_TRUE(server->addUser(TestServer::user, Secret("another password")));
  DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
  ASSERT_FALSE(client.write("Files/new", "bytes").error);
  while (failures.count() == 0) client.onQueue([] {});
  const auto upload = client.record("Files/new");
  ASSERT_TRUE(upload);
  EXPECT_EQ(upload->numberOfRetries(), 3);
  EXPECT_EQ(upload->error(), "Unauthorized");
  // The attempts that follow at once are not asked of the server again, and nobody tries by himself any more.
  const std::size_t messages = faulty.requestsOf("/sasl");
  EXPECT_LE(messages, 3U);
  for (int minute = 0; minute < 60; ++minute) {
    client.clock.advance(seconds(60));
    client.manager->restartUploads();
    client.onQueue([] {});
  }
  EXPECT_EQ(faulty.requestsOf("/sasl"), messages);
  EXPECT_EQ(failures.count(), 1);
  ASSERT_TRUE(server->removeUser(TestServer::user));
  ASSERT_TRUE(server->addUser(TestServer::user, Secret(TestServer::password)));
  (void)client.upload("Files/new");
  ASSERT_TRUE(client.sent("Files/new"));
  EXPECT_EQ(textOf(server.files() + "/new"), "bytes");
  EXPECT_EQ(faulty.requestsOf("write"), 1U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadFaults, AFolderThatIsGoneLeavesWhatWasToGoThere) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  EXPECT_FALSE(client.listFresh("Files/Docs").error);
  client.manager->setDelegate(above, client.queue, "Files/Docs");
  client.settle("Files/Docs");
  fs::remove_all(server.files() + "/Docs");
  const auto answer = client.write("Files/Docs/a", "only copy");
  ASSERT_FALSE(answer.error) << answer.error->description();
  above->waitFor("failed Files/Docs/a 404");
  EXPECT_EQ(faulty.requestsOf("write"), 3U);
  EXPECT_EQ(failures.count(), 1);
  ASSERT_TRUE(client.record("Files/Docs/a"));
  EXPECT_EQ(client.text(client.read("Files/Docs/a")), "only copy");
  // When the folder is seen to be gone its unsent bytes are kept aside.
  client.clock.advance(seconds(60));
  client.listFresh("Files");
  (void)client.refresh("Files");
  std::string kept;
  for (const auto& each : fs::recursive_directory_iterator(client.container.file("Recovered"))) {
    if (each.is_regular_file()) kept += readText(each.path());
  }
  EXPECT_EQ(kept, "only copy");
  EXPECT_FALSE(client.manager->hasPendingUploads());
}

TEST(UploadFaults, BodiesThatAreCutAreNeitherTakenNorSentTwice) {
  Scene scene;
  auto& [server, faulty, client, failures, above, elsewhere] = scene;
  client.listFresh("Inbox");
  const std::string large(std::size_t{3} << 20, 'x');
  // The server has stored what it answers by then: that is found in the listing.
  for (const std::string fault : {FaultyServer::cutTheReply, FaultyServer::loseTheReply}) {
    for (const auto& [path, command] :
         {std::pair("Files/new-" + fault, "write"), std::pair(std::string("Files/old"), "replace")}) {
      const std::size_t before = faulty.requestsOf(command);
      const std::string mine = "mine, with the answer " + fault;
      faulty.setFault(command, [&](const auto&) { return std::optional(fault); });
      ASSERT_FALSE(client.write(path, mine).error);
      untilSent(client, path);
      EXPECT_EQ(faulty.requestsOf(command) - before, 1U);
      EXPECT_EQ(scene.onServer(path), mine);
      EXPECT_EQ(client.text(client.read(path)), mine);
      faulty.setFault(command, {});
    }
  }
  // Of a request that was cut it has kept nothing, and it is sent again, without a listing into a drop box.
  for (const auto& [path, command] :
       {std::pair("Files/large", "write"), std::pair("Files/old", "replace"), std::pair("Inbox/large", "write")}) {
    const std::size_t before = faulty.requestsOf(command);
    faulty.cutRequestsOf(command, 3);
    ASSERT_FALSE(client.write(path, large + path).error);
    untilSent(client, path);
    EXPECT_EQ(faulty.requestsOf(command) - before, 4U) << path;
  }
  for (const char* path : {"Files/large", "Files/old"}) EXPECT_EQ(scene.onServer(path), large + path);
  EXPECT_EQ(textOf(server.inbox() + "/large"), large + "Inbox/large");
  std::size_t dropped = 0;
  for (const auto& each : fs::directory_iterator(server.inbox())) dropped += each.is_regular_file() ? 1 : 0;
  EXPECT_EQ(dropped, 1U);
  EXPECT_EQ(scene.filesOnServer(), 4U);
  EXPECT_EQ(failures.count(), 0);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test
