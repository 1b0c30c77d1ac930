#pragma once

#include "platform/URLSession.h"

#include <atomic>

namespace florvane {

// Accepts a server exactly when its leaf certificate is the pinned one, byte for byte. The pin never changes: another
// certificate is another delegate, so `failed` tells of this pin alone. Thread-safe.
class PinnedHTTPSSessionDelegate : public URLSessionDelegate {
 public:
  explicit PinnedHTTPSSessionDelegate(Data trustedCertData) : trustedCertData_(std::move(trustedCertData)) {}

  // DER.
  const Data& trustedCertData() const { return trustedCertData_; }
  // The last challenge was refused.
  bool failed() const { return failed_; }

  void didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                           const ChallengeCompletion& completionHandler) override;
  using URLSessionDelegate::didReceiveChallenge;

 private:
  bool accepts(const URLAuthenticationChallenge& challenge) const;

  const Data trustedCertData_;
  std::atomic<bool> failed_ = false;
};

}  // namespace florvane
