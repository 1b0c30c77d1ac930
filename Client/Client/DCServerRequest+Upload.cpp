#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "Client/Client/DCServerRequest.h"

#include <cstdio>

namespace florvane {

namespace {

constexpr Duration kTimeout = std::chrono::seconds(30);

}  // namespace

URLSessionTaskPtr DCServerRequest::startUploadTaskWithFile(const URL& file, const std::string& uri,
                                                           const QueryItems& queryItems,
                                                           std::shared_ptr<DCService> service,
                                                           const HTTPHeaders& headers, BackgroundTransfer transfer,
                                                           DCServerRequestResponseHandler responseHandler,
                                                           const DCUploadWillStart& willStart) {
  DCLogTrace("-[DCServerRequest startUploadTaskWithFile:URI:queryItems:service:headers:responseHandler:]",
             {{"file", file}, {"URI", uri}, {"service", service}});
  usingBackgroundSession_ = true;
  service_ = std::move(service);
  sessionManager_ = HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service_);
  connectivityTracker_ = DCConnectivityTracker::connectivityTrackerForService(service_);
  request_ = _requestForMethod("POST", uri, queryItems, headers, std::nullopt, kTimeout);
  responseHandler_ = std::move(responseHandler);

  auto couldNotStart = [&](const Error& error) -> URLSessionTaskPtr {
    DCLogInfo("Could not start upload task with request %@ due to error %@", *request_, error);
    callResponseHandlerWithAuthError(error);
    return nullptr;
  };
  if (auto authenticated = addAuthenticationHeadersToRequest(*request_); !authenticated) {
    return couldNotStart(authenticated.error());
  }
  DCLogInfo("Will start upload task with request: %@", *request_);
  std::fprintf(stderr, "%s\n", format("Will start upload task with request: %@", *request_).c_str());
  auto manager = DCBackgroundSessionManager::backgroundSessionManagerForService(service_, DCMainBundleIdentifier());
  auto session = manager->backgroundSession();
  session_ = session;
  challengedSession_ = session.get();
  if (authentication_->sessionDelegate) {
    transfer.pinnedCertificate = authentication_->sessionDelegate->trustedCertData();
  }
  auto task = session->uploadTask(*request_, file, std::move(transfer));
  if (!task) return couldNotStart(task.error());
  if (willStart && !willStart((*task)->taskIdentifier())) {
    (*task)->cancel();
    return couldNotStart(Error(URLErrorDomain, URLErrorCancelled));
  }
  {
    std::lock_guard lock(taskMutex_);
    task_ = *task;
  }
  manager->setServerRequest(shared_from_this(), (*task)->taskIdentifier());
  connectivityTracker_->didStartTask(session_, *task);
  (*task)->resume();
  return *task;
}

void DCServerRequest::continueUploadForBackgroundURLSessionWithService(std::shared_ptr<DCService> service,
                                                                       URLSessionPtr session,
                                                                       DCServerRequestResponseHandler responseHandler) {
  DCLogTrace("-[DCServerRequest continueUploadForBackgroundURLSessionWithService:session:responseHandler:]",
             {{"service", service}, {"session", session}});
  service_ = std::move(service);
  sessionManager_ = HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service_);
  connectivityTracker_ = DCConnectivityTracker::connectivityTrackerForService(service_);
  responseHandler_ = std::move(responseHandler);
  session_ = std::move(session);
  challengedSession_ = session_.get();
  usingBackgroundSession_ = true;
}

}  // namespace florvane
