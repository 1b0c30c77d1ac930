#include "platform/Exceptions.h"
#include "tests/client/WatchFixture.h"
#include "tests/support/FaultProxy.h"
#include "tests/support/ScriptedServer.h"

#include <cstdio>
#include <map>

#include <gmock/gmock.h>
#include <openssl/pem.h>

namespace florvane::test {
namespace {

using std::chrono::seconds;
using testing::Pair;
using testing::UnorderedElementsAre;

// A folder, one inside it and a file are watched, each by a delegate of its own; then comes an outage, during which the
// server's folder is edited, and after it nothing may be missing.
class WatchOutage : public WatchFixture {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(server.files() + "/Folder");
    writeText(server.files() + "/Folder/inner", "1");
    writeText(server.files() + "/removed", "1");
    writeText(server.files() + "/former name", "1");
    list({"", "Files", "Files/Folder"});
    folder = watch("Files");
    inner = watch("Files/Folder");
    file = watch("Files/notes");
    settle();
    untilWaiting();
  }

  void editServersFolder() const {
    writeText(server.files() + "/notes", "while nobody looked");
    writeText(server.files() + "/added", "22");
    writeText(server.files() + "/Folder/inner", "333");
    std::filesystem::remove(server.files() + "/removed");
    std::filesystem::rename(server.files() + "/former name", server.files() + "/name");
  }

  // Nothing is asked for before the delegates have heard: a listing that is asked for would find it by itself.
  void expectNothingMissed() {
    EXPECT_TRUE(folder->sees([](const Array& contents) {
      return contents.size() == 4 && sizeOfEntryNamed(contents, "notes") == 19 &&
             sizeOfEntryNamed(contents, "added") == 2 && sizeOfEntryNamed(contents, "name") == 1;
    }));
    EXPECT_TRUE(inner->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "inner") == 3; }));
    EXPECT_TRUE(file->hears("file Files/notes"));
    untilTrue([&] { return fileAt("Files/notes")->contents() == Data::fromString("while nobody looked"); });
    EXPECT_THAT(namesIn("Files"), testing::UnorderedElementsAre("Folder", "added", "name", "notes"));
    EXPECT_THAT(namesIn("Files/Folder"), testing::UnorderedElementsAre("inner"));
    // And it goes on.
    untilWaiting();
    writeText(server.files() + "/later", "4444");
    EXPECT_TRUE(folder->sees([](const Array& contents) { return sizeOfEntryNamed(contents, "later") == 4; }));
  }
  std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    const Array contents = cachedListing(path).second;
    names.reserve(contents.size());
    for (const Value& each : contents) names.push_back(each.asDictionary()->string(ResourceNameKey).value_or(""));
    return names;
  }

  // Time goes by in portions, so that every attempt of that time is made, and ends, before the next.
  void pass(Duration duration) {
    const Duration portion = std::min<Duration>(duration, seconds(10));
    for (Duration passed{0}; passed < duration; passed += portion) {
      untilEndedOrWaiting();
      clock.advance(portion);
    }
    untilEndedOrWaiting();
  }

  std::shared_ptr<RecordingDelegate> folder, inner, file;
};

struct Outage {
  seconds duration;
  seconds step;  // the longest pause between two attempts after so long a time
};

class WatchOutageOf : public WatchOutage, public testing::WithParamInterface<Outage> {};

TEST_P(WatchOutageOf, EndsWithinAStep) {
  server.stop();
  editServersFolder();
  pass(GetParam().duration);
  untilTrue([&] { return !isFetching(); });
  server.restart();
  clock.advance(GetParam().step);
  expectNothingMissed();
}

INSTANTIATE_TEST_SUITE_P(Durations, WatchOutageOf,
                         testing::Values(Outage{seconds(1), seconds(2)}, Outage{seconds(60), seconds(60)},
                                         Outage{seconds(3600), seconds(60)}),
                         [](const auto& row) { return std::to_string(row.param.duration.count()) + "Seconds"; });

TEST_F(WatchOutage, OfALoginThatTheServerHasForgottenNeedsNoStep) {
  ASSERT_TRUE(server->revokeAllSessions());
  editServersFolder();
  expectNothingMissed();
}

TEST_F(WatchOutage, OfAUserWhoMayNotSignInEndsWithinAStep) {
  ASSERT_TRUE(server->removeUser(TestServer::user));
  editServersFolder();
  untilPausesAre(1);
  ASSERT_TRUE(server->addUser(TestServer::user, Secret(TestServer::password)));
  clock.advance(seconds(8));
  expectNothingMissed();
}

TEST_F(WatchOutage, OfAServerWithAnotherCertificateEndsWithinAStep) {
  server.stop();
  server.forgetCertificate();
  editServersFolder();
  untilPausesAre(1);
  server.restart();
  clock.advance(seconds(1));
  expectNothingMissed();
}

// With something between client and server that can fail by itself.
class WatchBehindProxy : public WatchOutage {
 protected:
  std::uint16_t port() const override { return proxy.port(); }
  // The server's own, for somebody who pretends to be it.
  Certificate serversCertificate() const {
    auto open = [this](const char* name) { return std::fopen((server.stateFolder() + "/" + name).c_str(), "r"); };
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> key(open("key.pem"), &std::fclose),
        certificate(open("certificate.pem"), &std::fclose);
    return {{PEM_read_PrivateKey(key.get(), nullptr, nullptr, nullptr), EVP_PKEY_free},
            {PEM_read_X509(certificate.get(), nullptr, nullptr, nullptr), X509_free}};
  }

  FaultProxy proxy{server.port()};
};

TEST_F(WatchBehindProxy, EndsWithinAStepOfAServerThatFails) {
  ScriptedServer failing(
      ScriptedServer::answering([](const ScriptedServer::Request&) {
        return "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      }),
      serversCertificate());
  proxy.setTarget(failing.port());
  proxy.setFault(FaultProxy::Fault::Refuse);
  untilPausesAre(1);
  proxy.setFault(FaultProxy::Fault::None);
  editServersFolder();
  for (std::size_t answered : {2U, 3U}) {
    clock.advance(seconds(2));
    untilPausesAre(answered);
  }
  EXPECT_GE(failing.requests().size(), 2U);
  proxy.setTarget(server.port());
  // Second by second, since an attempt may still be under way to the one that fails.
  for (int i = 0; i < 4; ++i) pass(seconds(1));
  expectNothingMissed();
}

TEST_F(WatchBehindProxy, EndsWithinAStepOfALineThatLosesEverythingWithoutAWord) {
  proxy.setFault(FaultProxy::Fault::Lose);
  editServersFolder();
  clock.advance(seconds(290));
  settle();
  EXPECT_TRUE(isFetching()) << "nobody can know yet";
  // The connections of that time stay dead.
  proxy.setFault(FaultProxy::Fault::None);
  clock.advance(seconds(10));
  untilPausesAre(1);
  clock.advance(seconds(1));
  expectNothingMissed();
}

TEST_F(WatchBehindProxy, ConfirmsWhatTheCacheHoldsOnlyWhileTheServerWouldTellOfAChange) {
  clock.advance(seconds(60));
  settle();
  const std::size_t asked = downloadRequests();
  EXPECT_EQ(cachedListing("Files").first, DCDocumentManagerFreshnessStateFresh);
  settle();
  EXPECT_EQ(downloadRequests(), asked);

  // Being opened is not open, however long it takes.
  proxy.setFault(FaultProxy::Fault::Refuse);
  untilPausesAre(1);
  proxy.setFault(FaultProxy::Fault::Silence);
  clock.advance(seconds(1));
  untilTrue([&] { return isFetching(); });
  settle();
  EXPECT_EQ(cachedListing("Files").first, DCDocumentManagerFreshnessStateStale);
  proxy.setFault(FaultProxy::Fault::None);
  untilWaiting();
  untilTrue([&] { return cachedListing("Files").first == DCDocumentManagerFreshnessStateFresh; });
  // Nor is what has ended.
  manager()->removeDelegate(folder);
  settle();
  clock.advance(seconds(60));
  EXPECT_EQ(cachedListing("Files").first, DCDocumentManagerFreshnessStateStale);
}

TEST_F(WatchBehindProxy, WatchesAThousandPathsThroughOneConnection) {
  constexpr int kPaths = 1000;
  std::filesystem::create_directory(server.files() + "/Many");
  for (int i = 0; i < kPaths; ++i) writeText(server.files() + "/Many/" + std::to_string(i), "1");
  list({"Files", "Files/Many"});
  for (const char* path : {"Files", "Files/Folder", "Files/notes"}) manager()->removeDelegateForFilterPath(path);
  settle();
  std::vector<std::shared_ptr<RecordingDelegate>> delegates;
  delegates.reserve(kPaths);
  // One connection is left, on which listings were asked for.
  untilTrue([&] { return proxy.connections() == 1; });
  for (int i = 0; i < kPaths; ++i) delegates.push_back(watch("Files/Many/" + std::to_string(i)));
  settle();
  untilWaiting();
  untilTrue([&] { return proxy.connections() == 2; });
  for (std::size_t i : {0U, 500U, 999U}) {
    writeText(server.files() + "/Many/" + std::to_string(i), "22");
    EXPECT_TRUE(delegates[i]->hears("file Files/Many/" + std::to_string(i)));
  }
  untilWaiting();
  EXPECT_EQ(proxy.connections(), 2U);

  // And one is left when the others go.
  delegates[500]->forget();
  for (int i = 0; i < kPaths; ++i) {
    if (i != 500) manager()->removeDelegateForFilterPath("Files/Many/" + std::to_string(i));
  }
  writeText(server.files() + "/Many/500", "333");
  EXPECT_TRUE(delegates[500]->hears("file Files/Many/500"));
  manager()->removeDelegateForFilterPath("Files/Many/500");
  EXPECT_FALSE(isFetching());
}

// The server's time stands still, too, unless the test moves it.
class WatchBurst : public WatchFixture {
 protected:
  std::uint16_t port() const override { return burstServer.port(); }
  TestServer burstServer{{}, clock};
};

TEST_F(WatchBurst, IsAFewRequestsAndTheRightListing) {
  constexpr std::size_t kFiles = 10'000;
  list();
  auto folder = watch("Files");
  settle();
  untilWaiting();
  const std::size_t asked = watchRequests(), downloaded = downloadRequests();
  for (std::size_t i = 0; i < kFiles; ++i) writeText(burstServer.files() + "/" + std::to_string(i), "x");
  // The first edit is answered at once, the others together when the server's pause is over.
  EXPECT_TRUE(folder->hears("contents Files"));
  clock.advance(std::chrono::milliseconds(5));
  EXPECT_TRUE(folder->sees([](const Array& contents) { return contents.size() == kFiles; }));
  untilWaiting();
  for (int i = 0; i < 3; ++i) {
    clock.advance(seconds(60));
    settle();
  }
  EXPECT_LE(watchRequests() - asked, 4U);
  EXPECT_LE(downloadRequests() - downloaded, 4U);
  EXPECT_EQ(cachedListing("Files").second.size(), kFiles);
}

}  // namespace
}  // namespace florvane::test
