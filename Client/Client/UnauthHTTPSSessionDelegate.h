#pragma once

#include "platform/URLSession.h"

#include <atomic>

namespace florvane {

// Trust while signing in: every certificate is accepted, since the exchange itself authenticates the server, and what
// the system thinks of it is kept for those who need to know. Thread-safe.
class UnauthHTTPSSessionDelegate : public URLSessionDelegate {
 public:
  // The result of the last evaluation; Invalid before the first.
  TrustResult pkiEvaluationResult() const { return pkiEvaluationResult_; }
  // The last result was Proceed or Unspecified.
  bool pkiIsTrusted() const { return isTrusted(pkiEvaluationResult()); }
  static bool isTrusted(TrustResult result) {
    return result == TrustResult::Proceed || result == TrustResult::Unspecified;
  }

  void didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  using URLSessionDelegate::didReceiveChallenge;

 private:
  std::atomic<TrustResult> pkiEvaluationResult_ = TrustResult::Invalid;
};

}  // namespace florvane
