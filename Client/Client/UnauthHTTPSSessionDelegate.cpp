#include "Client/Client/UnauthHTTPSSessionDelegate.h"

#include "Client/Client/DCLog.h"

namespace florvane {

void UnauthHTTPSSessionDelegate::didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                                     const ChallengeCompletion& completionHandler) {
  DCLogTrace("-[UnauthHTTPSSessionDelegate URLSession:didReceiveChallenge:completionHandler:]",
             {{"session", session}, {"challenge", challenge}});
  if (!challenge.serverTrust) {
    completionHandler(ChallengeDisposition::PerformDefaultHandling, nullptr);
    return;
  }
  auto result = challenge.serverTrust->evaluate();
  pkiEvaluationResult_ = result.value_or(TrustResult::Invalid);
  DCLogInfo("Evaluation of server trust: status %@, result %u",
            result ? std::string("0") : result.error().description(), pkiEvaluationResult());
  DCLogInfo("pkiIsTrusted? %d", pkiIsTrusted());
  URLCredential credential{challenge.serverTrust};
  completionHandler(ChallengeDisposition::UseCredential, &credential);
}

}  // namespace florvane
