#include "platform/URLSession.h"

#include "platform/Format.h"
#include "platform/HTTPNetworkThread.h"
#include "platform/NetworkURLSession.h"

namespace florvane {

void URLSessionDelegate::didBecomeInvalidWithError(SessionRef, const std::optional<Error>&) {}

void URLSessionDelegate::didReceiveChallenge(SessionRef, const URLAuthenticationChallenge&,
                                             const ChallengeCompletion& completionHandler) {
  completionHandler(ChallengeDisposition::PerformDefaultHandling, nullptr);
}

void URLSessionDelegate::didReceiveChallenge(SessionRef session, TaskRef, const URLAuthenticationChallenge& challenge,
                                             const ChallengeCompletion& completionHandler) {
  didReceiveChallenge(session, challenge, completionHandler);
}

std::optional<Error> URLSessionDelegate::shouldSendRequest(SessionRef, TaskRef, const ServerTrust*) {
  return std::nullopt;
}

void URLSessionDelegate::didReceiveResponse(SessionRef, TaskRef, const HTTPURLResponse&) {}
void URLSessionDelegate::didReceiveData(SessionRef, TaskRef, const Data&) {}
void URLSessionDelegate::didWriteData(SessionRef, TaskRef, std::int64_t, std::int64_t, std::int64_t) {}
void URLSessionDelegate::didResumeAtOffset(SessionRef, TaskRef, std::int64_t, std::int64_t) {}
void URLSessionDelegate::didFinishDownloadingToURL(SessionRef, TaskRef, const URL&) {}
void URLSessionDelegate::didSendBodyData(SessionRef, TaskRef, std::int64_t, std::int64_t, std::int64_t) {}
void URLSessionDelegate::didCompleteWithError(SessionRef, TaskRef, const std::optional<Error>&) {}
void URLSessionDelegate::didFinishEventsForBackgroundURLSession(SessionRef) {}

URLSessionPtr URLSession::create(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
                                 std::shared_ptr<SerialQueue> delegateQueue) {
  if (!delegateQueue) delegateQueue = SerialQueue::create("florvane.urlsession");
  return std::make_shared<NetworkURLSession>(std::move(configuration), std::move(delegate), std::move(delegateQueue));
}

std::string URLSession::description() const { return baseDescription("URLSession", this); }

void URLSession::retireConnections(const std::string& connectionPool) {
  if (!connectionPool.empty()) HTTPNetworkThread::shared().retire(connectionPool);
}

}  // namespace florvane
