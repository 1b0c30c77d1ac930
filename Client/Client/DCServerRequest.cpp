#include "Client/Client/DCServerRequest.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "common/FVFQueueManager.h"
#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"

#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr Duration kTimeout = std::chrono::seconds(30);
constexpr Duration kNoTimeout = std::chrono::seconds(4294967295);
constexpr int kFirstFailureStatus = 400;

// For trace lines.
Dictionary described(const HTTPHeaders& headers) {
  Dictionary fields;
  for (const auto& [name, value] : headers.fields()) fields.set(name, value);
  return fields;
}

Array described(const DCServerRequest::QueryItems& queryItems) {
  Array items;
  for (const auto& item : queryItems) items.append(item.name + "=" + item.value.value_or(""));
  return items;
}

struct DeleteAllLocalData {
  std::mutex mutex;
  DCServerRequest::DeleteAllLocalDataHandler handler;
  static DeleteAllLocalData& shared() {
    static auto* instance = new DeleteAllLocalData;
    return *instance;
  }
};

}  // namespace

void DCServerRequest::setDeleteAllLocalDataHandler(DeleteAllLocalDataHandler handler) {
  auto& shared = DeleteAllLocalData::shared();
  std::lock_guard lock(shared.mutex);
  shared.handler = std::move(handler);
}

URLSessionTaskPtr DCServerRequest::startDownloadTaskWithURI(const std::string& uri, const QueryItems& queryItems,
                                                            std::shared_ptr<DCService> service,
                                                            const HTTPHeaders& headers, std::optional<Data> body,
                                                            DCServerRequestResponseHandler responseHandler) {
  DCLogTrace("-[DCServerRequest startDownloadTaskWithURI:queryItems:service:headers:body:responseHandler:]",
             {{"URI", uri},
              {"queryItems", described(queryItems)},
              {"service", service},
              {"headers", described(headers)},
              {"body", body}});
  return start(Kind::Download, uri, queryItems, std::move(service), headers, std::move(body),
               std::move(responseHandler));
}

URLSessionTaskPtr DCServerRequest::startBothloadTaskWithURI(const std::string& uri, const QueryItems& queryItems,
                                                            std::shared_ptr<DCService> service,
                                                            const HTTPHeaders& headers, std::optional<Data> body,
                                                            DCServerRequestResponseHandler responseHandler) {
  DCLogTrace("-[DCServerRequest startBothloadTaskWithURI:queryItems:service:headers:body:responseHandler:]",
             {{"URI", uri},
              {"queryItems", described(queryItems)},
              {"service", service},
              {"headers", described(headers)},
              {"body", body}});
  return start(Kind::Bothload, uri, queryItems, std::move(service), headers, std::move(body),
               std::move(responseHandler));
}

URLSessionTaskPtr DCServerRequest::start(Kind kind, const std::string& uri, const QueryItems& queryItems,
                                         std::shared_ptr<DCService> service, const HTTPHeaders& headers,
                                         std::optional<Data> body, DCServerRequestResponseHandler responseHandler) {
  bool isDownload = kind == Kind::Download;
  service_ = std::move(service);
  sessionManager_ = HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service_);
  connectivityTracker_ = DCConnectivityTracker::connectivityTrackerForService(service_);
  request_ = _requestForMethod(isDownload ? "GET" : "POST", uri, queryItems, headers, std::move(body),
                               isDownload ? kTimeout : kNoTimeout);
  responseHandler_ = std::move(responseHandler);

  if (auto authenticated = addAuthenticationHeadersToRequest(*request_); !authenticated) {
    DCLogInfo(isDownload ? "Could not start download task with request %@ due to error %@"
                         : "Could not start bothload task with request %@ due to error %@",
              *request_, authenticated.error());
    callResponseHandlerWithAuthError(authenticated.error());
    return nullptr;
  }
  DCLogInfo(isDownload ? "Will start download task with request: %@" : "Will start bothload task with request: %@",
            *request_);
  session_ = newDefaultSession(kind);
  URLSessionTaskPtr task = session_->downloadTask(*request_);
  {
    std::lock_guard lock(taskMutex_);
    task_ = task;
  }
  connectivityTracker_->didStartTask(session_, task);
  task->resume();
  return task;
}

URLRequest DCServerRequest::_requestForMethod(const std::string& method, const std::string& uri,
                                              const QueryItems& queryItems, const HTTPHeaders& headers,
                                              std::optional<Data> body, Duration timeoutInterval) const {
  URL base = service_->url();
  auto resolved = base.resolving(uri);
  if (!resolved) DCAssertionFailed("Client/Client/DCServerRequest", __LINE__, "resolved");
  URLRequest request(resolved.value_or(base).withQueryItems(queryItems));
  request.timeoutInterval = timeoutInterval;
  request.method = method;
  for (const auto& [name, value] : headers.fields()) request.headers.set(name, value);
  request.body = std::move(body);
  return request;
}

Result<void> DCServerRequest::addAuthenticationHeadersToRequest(URLRequest& request) {
  const auto& clientSession = sessionManager_->clientSession();
  // A cookie that another request's refusal takes away between the two steps is asked for again.
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (!clientSession->authenticatedCookie()) {
      if (auto result = sessionManager_->authenticateClientSessionWithError(); !result) return result;
    }
    authentication_ = clientSession->addAuthenticationToRequest(request);
    if (authentication_) return {};
  }
  return Failure(Error(URLErrorDomain, 401));
}

void DCServerRequest::callResponseHandlerWithAuthError(const Error& error) {
  if (auto handler = std::move(responseHandler_)) handler(std::nullopt, nullptr, std::nullopt, error);
}

URLSessionPtr DCServerRequest::newDefaultSession(Kind kind) {
  auto configuration = URLSessionConfiguration::defaultConfiguration();
  configuration.sharedContainerIdentifier = DCAppGroupIdentifier;
  configuration.connectionPool = connectionPool();
  configuration.downloadDirectory = DUTemporaryDirectory().value_or("");
  if (kind == Kind::Bothload) {
    configuration.timeoutIntervalForRequest = configuration.timeoutIntervalForResource;
    configuration.longPoll = true;
  }
  auto queue = FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service_->uniqueIdentifier());
  auto session = URLSession::create(std::move(configuration), shared_from_this(), queue->queue());
  challengedSession_ = session.get();
  return session;
}

// Connections are shared by requests of the same service, cookie and pin: only there has the one who accepted the
// server's certificate compared it with this request's own pin.
std::string DCServerRequest::connectionPool() const {
  Digest digest(DigestAlgorithm::SHA256);
  digest.update(authentication_->cookie.reveal()).update(std::string_view("\0", 1));
  if (authentication_->sessionDelegate) digest.update(authentication_->sessionDelegate->trustedCertData().span());
  return service_->uniqueIdentifier() + " " + hexEncode(digest.finish());
}

URLSessionTaskPtr DCServerRequest::task() {
  std::lock_guard lock(taskMutex_);
  return task_.lock();
}

std::optional<URL> DCServerRequest::partialFileURL() {
  auto task = this->task();
  auto path = task ? task->partialFile() : std::nullopt;
  return path ? std::optional(URL::fileURL(*path)) : std::nullopt;
}

void DCServerRequest::cancel() {
  if (auto task = this->task()) {
    task->cancelByProducingResumeData([](const std::optional<Data>&) {});
  }
}

void DCServerRequest::retireConnections() const {
  if (authentication_) URLSession::retireConnections(connectionPool());
}

std::string DCServerRequest::description() const {
  return format("%@<%p>{ url=%@ }", "DCServerRequest", static_cast<const void*>(this),
                request_ ? std::optional(request_->url.absoluteString()) : std::nullopt);
}

bool DCServerRequest::isOwnSession(SessionRef session) const {
  if (session == session_) return true;
  DCLogDebug("Delegate session %@ is NOT the same as our session %@", session, session_);
  return false;
}

bool DCServerRequest::isChallengedSession(SessionRef session) const {
  if (session.get() == challengedSession_) return true;
  DCLogDebug("Delegate session %@ is NOT the same as our session %@", session,
             baseDescription("URLSession", challengedSession_));
  return false;
}

void DCServerRequest::didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error) {
  DCLogTrace("-[DCServerRequest URLSession:didBecomeInvalidWithError:]", {{"session", session}, {"error", error}});
  if (!isOwnSession(session)) return;
  if (auto handler = std::move(responseHandler_)) handler(std::nullopt, nullptr, std::nullopt, error);
  dropSession();
}

void DCServerRequest::didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                          const ChallengeCompletion& completionHandler) {
  DCLogTrace("-[DCServerRequest URLSession:didReceiveChallenge:completionHandler:]",
             {{"session", session}, {"challenge", challenge}});
  if (!isChallengedSession(session)) return;
  answerChallenge(session, challenge, completionHandler);
}

void DCServerRequest::didReceiveChallenge(SessionRef session, TaskRef task, const URLAuthenticationChallenge& challenge,
                                          const ChallengeCompletion& completionHandler) {
  DCLogTrace("-[DCServerRequest URLSession:task:didReceiveChallenge:completionHandler:]",
             {{"session", session}, {"task", task}, {"challenge", challenge}});
  if (!isChallengedSession(session)) return;
  answerChallenge(session, challenge, completionHandler);
}

void DCServerRequest::answerChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                      const ChallengeCompletion& completionHandler) const {
  // A task of an earlier process goes with whatever login there is.
  auto pinned = authentication_ ? authentication_->sessionDelegate
                                : sessionManager_->clientSession()->authenticatedSessionDelegate();
  if (pinned) {
    pinned->didReceiveChallenge(session, challenge, completionHandler);
  } else {
    completionHandler(ChallengeDisposition::PerformDefaultHandling, nullptr);
  }
}

void DCServerRequest::didFinishDownloadingToURL(SessionRef session, TaskRef downloadTask, const URL& location) {
  DCLogTrace("-[DCServerRequest URLSession:downloadTask:didFinishDownloadingToURL:]",
             {{"session", session}, {"downloadTask", downloadTask}, {"location", location}});
  if (!isOwnSession(session)) return;
  connectivityTracker_->didFinishDownloadingToURL(session, downloadTask, location);
  DCLogInfo("%@ finished download", downloadTask);
  httpResponse_ = downloadTask->response();
  if (!httpResponse_) DCAssertionFailed("Client/Client/DCServerRequest", __LINE__, "0");
  auto handler = std::move(responseHandler_);
  if (!handler) return;
  try {
    handler(downloadTask->taskIdentifier(), httpResponse_, location, std::nullopt);
  } catch (const std::exception& exception) {
    handleUnexpectedException(exception, location);
  }
}

void DCServerRequest::handleUnexpectedException(const std::exception& exception, const URL& location) const {
  DCLogError("Unexpected exception processing download of '%@': %@", location.path(), exception.what());
  const auto* inconsistency = dynamic_cast<const InternalInconsistencyException*>(&exception);
  if (!inconsistency || !inconsistency->reason().starts_with("Document identifier")) return;
  // The database contradicts itself. Its data is deleted, and the process ends by the exception, raised again where
  // nobody catches it, so that nothing goes on with what it remembers of that data.
  std::thread([service = service_, inconsistent = *inconsistency] {
    _DCLog(dc_log_default_category(), DCLogLevelCritical, "Deleting database due to exception: %@",
           inconsistent.reason());
    DeleteAllLocalDataHandler deleteAllLocalData;
    {
      auto& shared = DeleteAllLocalData::shared();
      std::lock_guard lock(shared.mutex);
      deleteAllLocalData = shared.handler;
    }
    if (deleteAllLocalData) deleteAllLocalData(service);
    throw InternalInconsistencyException(inconsistent);
  }).detach();
}

void DCServerRequest::didWriteData(SessionRef session, TaskRef downloadTask, std::int64_t bytesWritten,
                                   std::int64_t totalBytesWritten, std::int64_t totalBytesExpectedToWrite) {
  DCLogTrace("-[DCServerRequest URLSession:downloadTask:didWriteData:totalBytesWritten:totalBytesExpectedToWrite:]",
             {{"session", session},
              {"downloadTask", downloadTask},
              {"bytesWritten", bytesWritten},
              {"totalBytesWritten", totalBytesWritten},
              {"totalBytesExpectedToWrite", totalBytesExpectedToWrite}});
  totalBytesReceived_ = totalBytesWritten;
  connectivityTracker_->didWriteData(session, downloadTask, bytesWritten, totalBytesWritten, totalBytesExpectedToWrite);
}

void DCServerRequest::didResumeAtOffset(SessionRef session, TaskRef downloadTask, std::int64_t fileOffset,
                                        std::int64_t expectedTotalBytes) {
  DCLogTrace("-[DCServerRequest URLSession:downloadTask:didResumeAtOffset:expectedTotalBytes:]",
             {{"session", session},
              {"downloadTask", downloadTask},
              {"fileOffset", fileOffset},
              {"expectedTotalBytes", expectedTotalBytes}});
  connectivityTracker_->didResumeAtOffset(session, downloadTask, fileOffset, expectedTotalBytes);
}

void DCServerRequest::didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytesSent,
                                      std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) {
  DCLogTrace("-[DCServerRequest URLSession:task:didSendBodyData:totalBytesSent:totalBytesExpectedToSend:]",
             {{"session", session},
              {"task", task},
              {"bytesSent", bytesSent},
              {"totalBytesSent", totalBytesSent},
              {"totalBytesExpectedToSend", totalBytesExpectedToSend}});
  if (!isOwnSession(session)) return;
  DCLogInfo("Session task %@ did send data: %lld of %lld", task, totalBytesSent, totalBytesExpectedToSend);
  if (request_ && request_->body) hasSentBody_ = std::cmp_greater_equal(totalBytesSent, request_->body->size());
  if (task->kind() == URLSessionTaskKind::Upload) {
    updateUploadProgress(*task, totalBytesSent, totalBytesExpectedToSend);
  }
}

void DCServerRequest::didReceiveData(SessionRef session, TaskRef dataTask, const Data& data) {
  DCLogTrace("-[DCServerRequest URLSession:dataTask:didReceiveData:]",
             {{"session", session}, {"dataTask", dataTask}, {"data", data.description()}});
  if (!isOwnSession(session)) return;
  connectivityTracker_->didReceiveData(session, dataTask, data);
  if (!responseData_) responseData_.emplace();
  responseData_->append(data.view());
}

void DCServerRequest::didReceiveResponse(SessionRef session, TaskRef dataTask, const HTTPURLResponse& response) {
  DCLogTrace("-[DCServerRequest URLSession:dataTask:didReceiveResponse:completionHandler:]",
             {{"session", session}, {"dataTask", dataTask}, {"response", response}});
  if (!isOwnSession(session)) return;
  connectivityTracker_->didReceiveResponse(session, dataTask, response);
  responseData_.reset();
  httpResponse_ = dataTask->response();
}

void DCServerRequest::didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error) {
  DCLogTrace("-[DCServerRequest URLSession:task:didCompleteWithError:]",
             {{"session", session}, {"task", task}, {"error", error}});
  if (!isOwnSession(session)) return;
  connectivityTracker_->didCompleteWithError(session, task, error);
  DCLogInfo("%@ finished with error %@", task, error);
  if (!request_) request_ = task->originalRequest();
  if (!httpResponse_) httpResponse_ = task->response();

  std::optional<Error> outcome = error;
  if (_shouldClearAuthCookieAndTrustedCertDataForError(error)) {
    clearAuthCookieAndTrustedCertData();
    outcome = Error(URLErrorDomain, 401);
  }
  auto body = storeResponseData();
  // An answer that cannot be kept is one that did not come; a refusal says enough without its words.
  const bool isRefusal = httpResponse_ && httpResponse_->statusCode() >= kFirstFailureStatus;
  if (!body && !outcome && !isRefusal) outcome = body.error();
  if (task->kind() == URLSessionTaskKind::Upload) updateUploadCompletion(*task, outcome);
  // Also when the handler throws: a session that is not dropped would keep this request for ever.
  struct SessionDropper {
    DCServerRequest& request;
    ~SessionDropper() { request.dropSession(); }
  } dropper{*this};
  if (auto handler = std::move(responseHandler_)) {
    handler(task->taskIdentifier(), httpResponse_, body.value_or(std::nullopt), outcome);
  }
}

bool DCServerRequest::_shouldClearAuthCookieAndTrustedCertDataForError(const std::optional<Error>& error) const {
  if (httpResponse_ && httpResponse_->statusCode() == 401) return true;
  if (authentication_ && authentication_->sessionDelegate && authentication_->sessionDelegate->failed()) return true;
  if (error && error->domain() == URLErrorDomain && error->userInfo().contains(URLErrorFailingPeerTrustKey))
    return true;
  // What a background task brought is the server's word, also when the login that it went with is gone by now.
  if (usingBackgroundSession_ && httpResponse_ && !error) return false;
  return !sessionManager_->clientSession()->authenticatedCookie();
}

void DCServerRequest::clearAuthCookieAndTrustedCertData() {
  if (!authentication_) return;
  sessionManager_->clearAuthentication(authentication_->cookie);
  URLSession::retireConnections(connectionPool());
}

Result<std::optional<URL>> DCServerRequest::storeResponseData() const {
  if (!responseData_) return std::nullopt;
  std::string path = DUTemporaryDirectory().value_or("/tmp") + "/upload-response-XXXXXXXXX";
  FileDescriptor file(mkostemp(path.data(), O_CLOEXEC));
  const Data bytes = Data::fromString(*responseData_);
  auto stored =
      file.valid() ? writeAll(file.get(), bytes.span(), path) : Result<void>(Failure(Error::fileWrite(errno, path)));
  if (stored) return URL::fileURL(path);
  DCLogError("Could not store response data: %@", stored.error());
  if (file.valid()) (void)removeItem(path);
  return Failure(Error(URLErrorDomain, URLErrorCannotParseResponse, stored.error().localizedDescription())
                     .withUnderlyingError(stored.error()));
}

void DCServerRequest::dropSession() {
  if (usingBackgroundSession_) {
    session_ = nullptr;
    return;
  }
  if (auto session = std::exchange(session_, nullptr)) session->invalidateAndCancel();
}

}  // namespace florvane
