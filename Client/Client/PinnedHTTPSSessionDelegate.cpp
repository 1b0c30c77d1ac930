#include "Client/Client/PinnedHTTPSSessionDelegate.h"

#include "Client/Client/DCLog.h"

namespace florvane {

void PinnedHTTPSSessionDelegate::didReceiveChallenge(SessionRef session, const URLAuthenticationChallenge& challenge,
                                                     const ChallengeCompletion& completionHandler) {
  DCLogTrace("-[PinnedHTTPSSessionDelegate URLSession:didReceiveChallenge:completionHandler:]",
             {{"session", session}, {"challenge", challenge}});
  DCLogDebug("Delegate received challenge: %@", challenge);
  bool accepted = accepts(challenge);
  failed_ = !accepted;
  if (accepted) {
    URLCredential credential{challenge.serverTrust};
    completionHandler(ChallengeDisposition::UseCredential, &credential);
  } else {
    completionHandler(ChallengeDisposition::CancelAuthenticationChallenge, nullptr);
  }
}

bool PinnedHTTPSSessionDelegate::accepts(const URLAuthenticationChallenge& challenge) const {
  if (challenge.authenticationMethod != AuthenticationMethodServerTrust || !challenge.serverTrust) {
    DCLogInfo("Unrecognized protection space, expected server trust: %@", challenge);
    return false;
  }
  const ServerTrust& trust = *challenge.serverTrust;
  auto result = trust.evaluate();
  if (!result) {
    DCLogInfo("Evaluation of server trust failed: %@", result.error());
    return false;
  }
  DCLogInfo("Evaluation of server trust: result %u", *result);
  if (trust.certificates().empty()) {
    DCLogError("No certificates in trust");
    return false;
  }
  const Data& certificate = trust.certificates().front();
  if (certificate.empty()) {
    DCLogError("Could not read certificate data");
    return false;
  }
  DCLogDebug("cert = %@", trust);
  DCLogDebug("certData = %@", certificate);
  if (certificate != trustedCertData_) {
    DCLogError("Certificate did not match pinned: %@ != %@", certificate, trustedCertData_);
    return false;
  }
  DCLogDebug("trust = %@", trust);
  return true;
}

}  // namespace florvane
