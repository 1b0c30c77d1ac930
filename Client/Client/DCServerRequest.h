#pragma once

#include "Client/Client/DCConnectivityTracker.h"
#include "Client/Client/DCService.h"
#include "Client/Client/HTTPSASLClientSessionManager.h"
#include "platform/CompletionHandler.h"
#include "platform/URLSession.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// Outcome of one request: the task's identifier, the answer's head, the file URL of the body, and an error, each absent
// when there is none.
using DCServerRequestResponseHandler =
    CompletionHandler<std::optional<std::uint64_t>, std::shared_ptr<const HTTPURLResponse>, std::optional<URL>,
                      std::optional<Error>>;

// Asked when an upload's task is stored, suspended: with false nothing is sent and the task is cancelled.
using DCUploadWillStart = std::function<bool(std::uint64_t taskIdentifier)>;

// One HTTP exchange with the server: request, authentication, one task on a private session, and the outcome for the
// response handler, which is called exactly once on the service's serial queue (on the caller's thread when signing in
// failed). A request is made by make(), started once, and lives until it has ended. Its callbacks run on the service's
// serial queue.
class DCServerRequest : public URLSessionDelegate, public std::enable_shared_from_this<DCServerRequest> {
 public:
  using Ptr = std::shared_ptr<DCServerRequest>;
  using QueryItems = std::vector<URLQueryItem>;

  static Ptr make() { return Ptr(new DCServerRequest); }

  // GET; the body of the answer goes to a file, which is there while the handler runs. Null when signing in failed:
  // the handler has had the error then.
  URLSessionTaskPtr startDownloadTaskWithURI(const std::string& uri, const QueryItems& queryItems,
                                             std::shared_ptr<DCService> service, const HTTPHeaders& headers,
                                             std::optional<Data> body, DCServerRequestResponseHandler responseHandler);
  // POST with a body, as above; without a limit of time, on a connection of its own.
  URLSessionTaskPtr startBothloadTaskWithURI(const std::string& uri, const QueryItems& queryItems,
                                             std::shared_ptr<DCService> service, const HTTPHeaders& headers,
                                             std::optional<Data> body, DCServerRequestResponseHandler responseHandler);

  // POST of the file's contents by the service's background session, which goes on without this process. `transfer`
  // says what is sent, for whoever finds the task; the pin is filled in. The handler owns the file that the answer's
  // body is stored in. `willStart`, if any, is asked when the task is stored and nothing has been sent. Null when
  // signing in failed, the task could not be stored or was not to start: the handler has had the error then.
  URLSessionTaskPtr startUploadTaskWithFile(const URL& file, const std::string& uri, const QueryItems& queryItems,
                                            std::shared_ptr<DCService> service, const HTTPHeaders& headers,
                                            BackgroundTransfer transfer, DCServerRequestResponseHandler responseHandler,
                                            const DCUploadWillStart& willStart = {});
  // Takes on a task of that background session which an earlier process, or another request, started.
  void continueUploadForBackgroundURLSessionWithService(std::shared_ptr<DCService> service, URLSessionPtr session,
                                                        DCServerRequestResponseHandler responseHandler);
  bool usingBackgroundSession() const { return usingBackgroundSession_; }
  bool hasResponseHandler() const { return static_cast<bool>(responseHandler_); }
  // The one that was started; null before, after its end, and when none could be started.
  URLSessionTaskPtr task();

  // Bytes of the answer's body that a download has received so far. Any thread.
  std::int64_t totalBytesReceived() const { return totalBytesReceived_; }
  // The file that a download grows in while its bytes come, to be read only; absent before the first and after the last
  // of them. What it was is the item's local file in the end, unless that could not be linked. Any thread.
  std::optional<URL> partialFileURL();
  // Whether the whole body has gone out on a connection whose server was accepted. Any thread.
  bool hasSentBody() const { return hasSentBody_; }
  // Cancels the task; the handler hears of it. Nothing happens before a start and after the end. Thread-safe.
  void cancel();
  // What is known to have happened to this request's connection has happened to the idle ones beside it: none of them
  // is used again.
  void retireConnections() const;
  std::string description() const;

  void didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error) override;
  void didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  void didReceiveChallenge(SessionRef session, TaskRef task, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  void didFinishDownloadingToURL(SessionRef session, TaskRef downloadTask, const URL& location) override;
  void didWriteData(SessionRef session, TaskRef downloadTask, std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                    std::int64_t totalBytesExpectedToWrite) override;
  void didResumeAtOffset(SessionRef session, TaskRef downloadTask, std::int64_t fileOffset,
                         std::int64_t expectedTotalBytes) override;
  void didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent, std::int64_t totalBytesSent,
                       std::int64_t totalBytesExpectedToSend) override;
  void didReceiveData(SessionRef session, TaskRef dataTask, const Data& data) override;
  void didReceiveResponse(SessionRef session, TaskRef dataTask, const HTTPURLResponse& response) override;
  // Of a background session this one is told by DCBackgroundSessionManager, on whatever thread the session asks.
  void didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error) override;

  // What deletes a service's local data when a response handler finds the database beyond use; installed by whoever
  // keeps that data. Without it the process ends all the same.
  using DeleteAllLocalDataHandler = std::function<void(const std::shared_ptr<DCService>&)>;
  static void setDeleteAllLocalDataHandler(DeleteAllLocalDataHandler handler);

 private:
  enum class Kind { Download, Bothload };

  DCServerRequest() = default;
  URLSessionTaskPtr start(Kind kind, const std::string& uri, const QueryItems& queryItems,
                          std::shared_ptr<DCService> service, const HTTPHeaders& headers, std::optional<Data> body,
                          DCServerRequestResponseHandler responseHandler);
  URLRequest _requestForMethod(const std::string& method, const std::string& uri, const QueryItems& queryItems,
                               const HTTPHeaders& headers, std::optional<Data> body, Duration timeoutInterval) const;
  Result<void> addAuthenticationHeadersToRequest(URLRequest& request);
  void callResponseHandlerWithAuthError(const Error& error);
  URLSessionPtr newDefaultSession(Kind kind);
  std::string connectionPool() const;
  bool isOwnSession(SessionRef session) const;
  // The same on the network thread, where challenges arrive.
  bool isChallengedSession(SessionRef session) const;
  void answerChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                       const ChallengeCompletion& completionHandler) const;
  bool _shouldClearAuthCookieAndTrustedCertDataForError(const std::optional<Error>& error) const;
  void clearAuthCookieAndTrustedCertData();
  void updateUploadProgress(const URLSessionTask& task, std::int64_t totalBytesSent,
                            std::int64_t totalBytesExpectedToSend);
  void updateUploadCompletion(const URLSessionTask& task, const std::optional<Error>& error);
  // Absent when no body came; an error (URLErrorCannotParseResponse) when it cannot be written.
  Result<std::optional<URL>> storeResponseData() const;
  void handleUnexpectedException(const std::exception& exception, const URL& location) const;
  void dropSession();

  bool usingBackgroundSession_ = false;
  std::atomic<std::int64_t> totalBytesReceived_ = 0;
  std::atomic<bool> hasSentBody_ = false;
  std::optional<MonotonicTime> lastProgressTime_;
  std::shared_ptr<DCService> service_;
  std::shared_ptr<HTTPSASLClientSessionManager> sessionManager_;
  std::shared_ptr<DCConnectivityTracker> connectivityTracker_;
  std::optional<URLRequest> request_;
  std::optional<HTTPSASLAuthentication> authentication_;  // cookie and pin that this request travels with
  DCServerRequestResponseHandler responseHandler_;
  URLSessionPtr session_;
  const URLSession* challengedSession_ = nullptr;  // set before the task is resumed, never changed afterwards
  std::mutex taskMutex_;                           // guards task_, which cancel() reads from any thread
  std::weak_ptr<URLSessionTask> task_;
  std::shared_ptr<const HTTPURLResponse> httpResponse_;
  std::optional<std::string> responseData_;
};

}  // namespace florvane
