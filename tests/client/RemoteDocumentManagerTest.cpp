#include "Client/Client/DCRemoteDocumentManager.h"
#include "common/FVFRequestUtils.h"
#include "tests/client/RemoteClient.h"
#include "tests/support/Certificates.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestServer.h"

#include <condition_variable>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::RemoteClient;
using test::ScriptedServer;
using test::TestServer;

std::string metadataHeader(const Dictionary& metadata) {
  return std::string(DUHeaderMetadataKey) + ": " +
         *FVFMetadataUtils::headerFromMetadata(metadata, PropertyListFormat::Binary) + "\r\n";
}

std::string answer(const std::string& status, const std::string& fields, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + fields + "\r\n" + body;
}

std::string updates(const Array& pairs) {
  auto bytes = writePropertyList(pairs, PropertyListFormat::Binary);
  return answer("200 OK", "", std::string(bytes->view()));
}

// A client that is signed in to a scripted server already: its cookie and certificate are in the preferences.
struct ScriptedExchange {
  explicit ScriptedExchange(ScriptedServer::Script script)
      : certificate(test::makeCertificate()), server(std::move(script), certificate), client(server.port()) {
    auto stored = DCPreferences::preferences()->setAuthCookie(Secret("k=scripted"), certificate.der(), client.service);
    if (!stored) throw std::runtime_error(stored.error().description());
    client.sessionManager->restoreCachedCookieAndCertDataFromPreferences();
  }
  const test::Certificate certificate;
  ScriptedServer server;
  RemoteClient client;
};

// Answers by the order of requests, then by the last one again.
ScriptedServer::Script inOrder(const std::vector<std::string>& answers) {
  auto next = std::make_shared<std::atomic<std::size_t>>(0);
  return ScriptedServer::answering([answers, next](const ScriptedServer::Request&) {
    return answers[std::min(next->fetch_add(1), answers.size() - 1)];
  });
}

const std::string kName = metadataHeader({{ResourceNameKey, "a"}});
const std::string kFull = std::string(DUHeaderTransferTypeKey) + ": 1\r\n";

TEST(RemoteDocumentManager, ReadsAnAnswerAndSendsWhatTheProtocolAsks) {
  ScriptedExchange exchange(inOrder({answer("200 OK", kFull + kName + "ETag: W/\"0A1b\"\r\n", "body")}));
  Dictionary file{{FVDocumentIdentifierKey, Data("\x01\xff", 2)}};
  auto outcome = exchange.client.cat(file, Data());
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  EXPECT_EQ(outcome.body, "body");
  EXPECT_EQ(outcome.metadata->data(FVVersionIdentifierKey), Data("\x0a\x1b", 2));
  auto request = exchange.server.requests().at(0);
  EXPECT_EQ(request.target, "/fv/v1/cat?d=01ff");
  EXPECT_EQ(request.headers.at("cookie"), "k=scripted");
  EXPECT_EQ(request.headers.at("if-none-match"), "");
  EXPECT_EQ(request.headers.at("dcheaderdeviceidkey"), deviceIdentifier());
}

TEST(RemoteDocumentManager, HeadersThatAreMissingOrMalformedAreNamed) {
  struct Row {
    std::string fields;
    const char* header;
  };
  std::string etag = "ETag: 01\r\n";
  std::vector<Row> rows{
      {kName + etag, DUHeaderTransferTypeKey},
      {std::string(DUHeaderTransferTypeKey) + ":\r\n" + kName + etag, DUHeaderTransferTypeKey},
      {std::string(DUHeaderTransferTypeKey) + ": full\r\n" + kName + etag, DUHeaderTransferTypeKey},
      {kFull + etag, DUHeaderMetadataKey},
      {kFull + etag + DUHeaderMetadataKey + ": ***\r\n", DUHeaderMetadataKey},
      {kFull + etag + DUHeaderMetadataKey + ": bm8gbGlzdA==\r\n", DUHeaderMetadataKey},
      {kFull + kName, DUHeaderETagKey},
      {kFull + kName + "ETag: xyz\r\n", DUHeaderETagKey},
  };
  std::vector<std::string> answers;
  answers.reserve(rows.size());
  for (const Row& row : rows) answers.push_back(answer("200 OK", row.fields, "body"));
  ScriptedExchange exchange(inOrder(answers));
  for (const Row& row : rows) {
    auto outcome = exchange.client.root();
    ASSERT_TRUE(outcome.failedWith(DCErrorDomain, 14)) << row.fields;
    EXPECT_EQ(outcome.error->userInfo().string(DCHeaderNameKey), row.header);
  }
}

TEST(RemoteDocumentManager, StatusesBodiesAndLimitsBecomeErrors) {
  ScriptedExchange exchange(inOrder(
      {answer("404 Not Found", "", "It is gone."), answer("500 X", "", "\xff\xfe"), answer("304 Not Modified", "", ""),
       answer("200 OK", kFull + kName + "ETag: 01\r\nX-Long: " + std::string(std::size_t{300} * 1024, 'x') + "\r\n",
              ""),
       answer("302 Found", "Location: https://elsewhere.example/\r\n", "")}));
  auto& client = exchange.client;
  auto missing = client.root();
  ASSERT_TRUE(missing.failedWith(URLErrorDomain, 404));
  EXPECT_EQ(missing.error->localizedDescription(), "It is gone.");
  auto noText = client.root();
  ASSERT_TRUE(noText.failedWith(URLErrorDomain, 500));
  EXPECT_FALSE(noText.error->userInfo().contains(LocalizedDescriptionKey));
  EXPECT_TRUE(client.root().isNotModified());
  EXPECT_TRUE(client.root().failedWith(URLErrorDomain, URLErrorCannotParseResponse));
  EXPECT_TRUE(client.root().error);
  for (const auto& request : exchange.server.requests()) EXPECT_EQ(request.headers.at("cookie"), "k=scripted");
}

TEST(RemoteDocumentManager, ABodyShorterThanAnnouncedIsNoBody) {
  ScriptedExchange exchange([](ScriptedServer::Connection& connection) {
    if (!connection.read()) return;
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n" + kFull + kName + "ETag: 01\r\n\r\nshort");
    connection.cut();
  });
  EXPECT_TRUE(exchange.client.root().failedWith(URLErrorDomain, URLErrorNetworkConnectionLost));
}

// What the handler of a watch and its owner were told, in order.
class Heard {
 public:
  void operator()(std::string event) {
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

void startWatch(RemoteClient& client, Heard& heard, const DCVersionIdentifiers& versions) {
  client.manager->setWatchDidEndHandler([&heard](const std::optional<Error>& error) {
    heard(error ? "ended " + std::to_string(error->code()) : "ended");
  });
  client.activityInfo->queue()->dispatchAsynchronousBlock([&client, &heard, versions] {
    client.manager->startFetchingUpdatesOfDocumentIdentifiersAndVersionIdentifiers(
        versions, client.activityInfo,
        [&heard](const std::optional<Data>& document, const std::optional<Data>& version,
                 const std::optional<Error>& error) {
          heard(error ? "error " + std::to_string(error->code()) : hexEncode(*document) + "=" + hexEncode(*version));
        });
  });
}

const Data kOne("\x01", 1), kTwo("\x02", 1), kThree("\x03", 1);

TEST(RemoteDocumentManager, AWatchGoesOnWithExactlyThePairsThatItWasTold) {
  ScriptedExchange exchange(inOrder({updates({kOne, kTwo, kThree, kOne}), updates({kThree, kTwo}), updates({})}));
  Heard heard;
  startWatch(exchange.client, heard, {{kOne, kOne}, {kTwo, kTwo}, {kThree, kThree}});
  auto events = heard.waitFor(4);
  EXPECT_EQ(events, (std::vector<std::string>{"01=02", "03=01", "03=02", "ended"}));
  auto requests = exchange.server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_FALSE(requests[0].headers.contains("dcheaderdeviceidkey"));
  EXPECT_EQ(readPropertyList(Data::fromString(requests[0].body)), Value(Array{kOne, kOne, kTwo, kTwo, kThree, kThree}));
  EXPECT_EQ(readPropertyList(Data::fromString(requests[1].body)), Value(Array{kOne, kTwo, kThree, kOne}));
  EXPECT_FALSE(exchange.client.manager->isFetchingUpdates());
}

TEST(RemoteDocumentManager, AnswersThatAreNoListOfPairsEndTheWatch) {
  struct Row {
    std::string answer;
    std::vector<std::string> events;
  };
  std::vector<Row> rows{
      {updates({kOne}), {"error 13", "ended 13"}},          {updates({kOne, "text"}), {"error 13", "ended 13"}},
      {answer("200 OK", "", ""), {"error 13", "ended 13"}}, {answer("200 OK", "", "no list"), {"error 13", "ended 13"}},
      {answer("404 X", "", "gone"), {"ended 404"}},         {answer("401 X", "", ""), {"error 401", "ended 401"}},
  };
  std::vector<std::string> answers;
  answers.reserve(rows.size());
  for (const Row& row : rows) answers.push_back(row.answer);
  ScriptedExchange exchange(inOrder(answers));
  for (const Row& row : rows) {
    Heard heard;
    startWatch(exchange.client, heard, {{kOne, kOne}});
    EXPECT_EQ(heard.waitFor(row.events.size()), row.events);
  }
}

TEST(RemoteDocumentManager, AFinishedOrReplacedWatchIsSilent) {
  test::Signal asked, answerNow;
  ScriptedExchange exchange([&](ScriptedServer::Connection& connection) {
    while (auto request = connection.read()) {
      if (request->target.starts_with("/fv/v1/root")) {
        connection.send(answer("200 OK", kFull + kName + "ETag: 01\r\n", ""));
        continue;
      }
      asked.raise();
      answerNow.wait();
      connection.send(updates({kOne, kTwo}));
    }
  });
  Heard heard;
  startWatch(exchange.client, heard, {{kOne, kOne}});
  ASSERT_TRUE(asked.wait());
  exchange.client.manager->finishFetchingUpdates();
  answerNow.raise();
  // What the first watch was answered is behind this request's answer on the same queue.
  exchange.client.root();
  exchange.client.root();
  EXPECT_TRUE(heard.waitFor(0).empty());
}

TEST(RemoteDocumentManager, AWatchMayBeFinishedWhileItStarts) {
  TestServer server;
  RemoteClient client(server.port());
  auto share = client.share("Files");
  DCVersionIdentifiers versions{
      {*share.metadata->data(FVDocumentIdentifierKey), *share.metadata->data(FVVersionIdentifierKey)}};
  Heard heard;
  for (int i = 0; i < 20; ++i) {
    startWatch(client, heard, versions);
    while (!client.manager->isFetchingUpdates()) std::this_thread::yield();
    client.manager->finishFetchingUpdates();
  }
  client.root();
  EXPECT_TRUE(heard.waitFor(0).empty());
  EXPECT_FALSE(client.manager->isFetchingUpdates());
}

TEST(RemoteDocumentManager, ARealServersWatchTellsOfAnEdit) {
  TestServer server;
  test::writeText(server.files() + "/a.txt", "one");
  RemoteClient client(server.port());
  auto share = client.share("Files");
  Dictionary file = client.entry(share, "a.txt");
  Heard heard;
  startWatch(client, heard,
             {{*file.data(FVDocumentIdentifierKey), *file.data(FVVersionIdentifierKey)},
              {*share.metadata->data(FVDocumentIdentifierKey), *share.metadata->data(FVVersionIdentifierKey)}});
  test::writeText(server.files() + "/a.txt", "another");
  ASSERT_GE(heard.waitFor(2).size(), 2U);
  EXPECT_EQ(client.cat(file, file.data(FVVersionIdentifierKey)).body, "another");
  client.manager->finishFetchingUpdates();
}

TEST(RemoteDocumentManager, WhatTheProtocolDoesNotKnowCallsNobody) {
  TestServer server;
  RemoteClient client(server.port());
  auto never = [](const FVFResponseContainer::Ptr&, const std::optional<Error>&) { FAIL(); };
  EXPECT_FALSE(client.manager->rootDocumentIdentifier());
  EXPECT_FALSE(client.manager->createDirectoryWithName("a", kOne, {}, std::nullopt, never));
  EXPECT_FALSE(client.manager->versionListForFileWithDocumentIdentifier(kOne, client.activityInfo, never));
  EXPECT_FALSE(
      client.manager->restoreVersionOfFileWithDocumentIdentifier(kOne, kTwo, std::nullopt, client.activityInfo, never));
  EXPECT_TRUE(client.manager->isServiceAvailable());
}

// Fifty requests at a time, cancelled at random moments, while sessions are revoked under them: every handler once.
TEST(RemoteDocumentManager, EveryHandlerIsCalledOnceWhateverIsCancelled) {
  TestServer server;
  for (int i = 0; i < 20; ++i) test::writeText(server.files() + "/" + std::to_string(i), std::string(20000, 'x'));
  RemoteClient client(server.port());
  auto share = client.share("Files");
  constexpr int kRequests = 300, kAtOnce = 50;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<int> calls(kRequests);
  int inFlight = 0;
  std::minstd_rand random(20261122);
  for (int i = 0; i < kRequests; ++i) {
    {
      std::unique_lock lock(mutex);
      ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(60), [&] { return inFlight < kAtOnce; }));
      ++inFlight;
    }
    auto done = [&, i](const FVFResponseContainer::Ptr&, const std::optional<Error>&) {
      std::lock_guard lock(mutex);
      ++calls[static_cast<std::size_t>(i)];
      --inFlight;
      changed.notify_all();
    };
    Dictionary file = client.entry(share, std::to_string(i % 20));
    auto request = client.manager->contentsOfFileWithDocumentIdentifier(*file.data(FVDocumentIdentifierKey),
                                                                        std::nullopt, client.activityInfo, done);
    if (random() % 3 == 0) request->cancel();
    if (i % 100 == 50) {
      ASSERT_TRUE(server->revokeAllSessions());
    }
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(60), [&] { return inFlight == 0; }));
  for (int count : calls) EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace florvane
