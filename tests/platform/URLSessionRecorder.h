#pragma once

#include "platform/URLSession.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>

#include <gtest/gtest.h>

namespace florvane::test {

// A delegate that keeps what it is told, task by task, and notes calls that must not happen.
class URLSessionRecorder : public URLSessionDelegate {
 public:
  using URLSessionDelegate::didReceiveChallenge;

  struct Record {
    std::vector<std::string> calls;  // by name, a run of the same one once
    std::string body;                // received data, or the downloaded file's contents
    std::int64_t bytesSent = 0, bytesWritten = 0;
    std::optional<Error> error;
    int completions = 0;

    std::int64_t code() const { return error ? error->code() : 0; }
  };

  // Decide on the network thread; by default every certificate is accepted and every request sent.
  std::function<ChallengeDisposition(const ServerTrust&)> judge;
  std::function<std::optional<Error>(const ServerTrust*)> mayBeSent;
  // Called on the delegate queue before a call is recorded.
  std::function<void(const std::string& call)> onCall;
  std::function<void(const URL& location)> onDownload;

  // Waits for the task's last call; its record is complete then.
  Record wait(const URLSessionTaskPtr& task);
  void waitUntilInvalid(const URLSessionPtr& session);
  int challenges() const;
  int callsAfterEnd() const;

  void didBecomeInvalidWithError(SessionRef, const std::optional<Error>& error) override;
  void didReceiveChallenge(SessionRef, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  std::optional<Error> shouldSendRequest(SessionRef, TaskRef, const ServerTrust* trust) override;
  void didReceiveResponse(SessionRef, TaskRef task, const HTTPURLResponse&) override;
  void didReceiveData(SessionRef, TaskRef task, const Data& data) override;
  void didWriteData(SessionRef, TaskRef task, std::int64_t bytes, std::int64_t total, std::int64_t) override;
  void didFinishDownloadingToURL(SessionRef, TaskRef task, const URL& location) override;
  void didSendBodyData(SessionRef, TaskRef task, std::int64_t bytes, std::int64_t total, std::int64_t) override;
  void didCompleteWithError(SessionRef, TaskRef task, const std::optional<Error>& error) override;

 private:
  Record& recordOf(const URLSessionTaskPtr& task);
  void note(SessionRef session, TaskRef task, const std::string& call, const std::function<void(Record&)>& change = {});

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<const URLSessionTask*, Record> records_;
  std::vector<URLSessionTaskPtr> kept_;  // so that no two tasks ever have the same address
  int challenges_ = 0, callsAfterEnd_ = 0;
  std::set<const URLSession*> invalid_;
};

// A recorder, a session of it and a folder for its downloads.
class URLSessionTest : public ::testing::Test {
 protected:
  ~URLSessionTest() override;
  URLSessionPtr makeSession(URLSessionConfiguration configuration = {});
  URLRequest request(const std::string& url, const std::string& method = "GET",
                     std::optional<std::string> body = std::nullopt);
  // Runs one task to its end.
  URLSessionRecorder::Record get(const URLSessionPtr& session, const std::string& url);
  URLSessionRecorder::Record download(const URLSessionPtr& session, const std::string& url);
  URLSessionRecorder::Record run(const URLSessionTaskPtr& task);

  TemporaryDirectory directory_;
  std::shared_ptr<URLSessionRecorder> recorder_ = std::make_shared<URLSessionRecorder>();
  std::vector<URLSessionPtr> sessions_;
};

}  // namespace florvane::test
