#include "Client/Client/DCServerRequest.h"
#include "tests/client/RemoteClient.h"
#include "tests/support/TestServer.h"

#include <future>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::RemoteClient;
using test::TestServer;

TEST(DCServerRequest, CallbacksOfAForeignSessionChangeNothing) {
  TestServer server;
  RemoteClient client(server.port());
  ASSERT_FALSE(client.root().error);  // signed in
  auto request = DCServerRequest::make();
  std::promise<std::pair<int, std::optional<Error>>> outcome;
  bool challengeAnswered = false;
  client.activityInfo->queue()->dispatchSynchronousBlock([&] {
    request->startDownloadTaskWithURI(
        "fv/v1/root", {}, client.service, HTTPHeaders(), std::nullopt,
        [&](const std::optional<std::uint64_t>& /*taskIdentifier*/,
            const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& /*location*/,
            const std::optional<Error>& error) { outcome.set_value({response ? response->statusCode() : 0, error}); });
    auto foreign = URLSession::create(URLSessionConfiguration::defaultConfiguration(), nullptr);
    auto task = foreign->dataTask(URLRequest(client.service->url()));
    URLAuthenticationChallenge challenge{AuthenticationMethodServerTrust, "127.0.0.1", server.port(), nullptr};
    request->didReceiveChallenge(foreign, task, challenge, [&](auto...) { challengeAnswered = true; });
    request->didReceiveData(foreign, task, Data::fromString("not ours"));
    request->didCompleteWithError(foreign, task, Error(URLErrorDomain, 401));
    request->didBecomeInvalidWithError(foreign, Error(URLErrorDomain, URLErrorTimedOut));
    foreign->invalidateAndCancel();
  });
  auto [status, error] = outcome.get_future().get();
  EXPECT_EQ(status, 200);
  EXPECT_FALSE(error);
  EXPECT_FALSE(challengeAnswered);
  EXPECT_TRUE(client.sessionManager->clientSession()->authenticatedCookie());
}

}  // namespace
}  // namespace florvane
