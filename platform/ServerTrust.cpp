#include "platform/ServerTrust.h"

#include "platform/Format.h"
#include "platform/TrustAnchors.h"

#include <mutex>
#include <optional>

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace florvane {

namespace {

struct Judgement {
  TrustResult result;
  std::int64_t errorCode;
};

// How each of OpenSSL's verdicts reads here. What a person may overrule knowingly is recoverable; a broken or revoked
// chain is not.
Judgement judge(int verdict) {
  switch (verdict) {
    case X509_V_OK:
      return {TrustResult::Unspecified, 0};
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return {TrustResult::RecoverableTrustFailure, URLErrorServerCertificateHasBadDate};
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return {TrustResult::RecoverableTrustFailure, URLErrorServerCertificateNotYetValid};
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_UNTRUSTED:
      return {TrustResult::RecoverableTrustFailure, URLErrorServerCertificateHasUnknownRoot};
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return {TrustResult::RecoverableTrustFailure, URLErrorServerCertificateUntrusted};
    case X509_V_ERR_CERT_REJECTED:
      return {TrustResult::Deny, URLErrorServerCertificateUntrusted};
    case X509_V_ERR_UNSPECIFIED:
    case X509_V_ERR_OUT_OF_MEM:
      return {TrustResult::OtherError, URLErrorServerCertificateUntrusted};
    default:
      return {TrustResult::FatalTrustFailure, URLErrorServerCertificateUntrusted};
  }
}

using CertificateRef = std::unique_ptr<X509, decltype(&X509_free)>;

CertificateRef parseCertificate(const Data& der) {
  const unsigned char* cursor = der.bytes();
  CertificateRef certificate(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())), &X509_free);
  if (certificate && cursor != der.end()) certificate.reset();
  return certificate;
}

Failure cannotEvaluate(std::string_view why) {
  return Failure(Error(URLErrorDomain, URLErrorServerCertificateUntrusted, why));
}

Result<Judgement> evaluateChain(const std::string& host, const std::vector<Data>& certificates) {
  if (certificates.empty()) return cannotEvaluate("The server showed no certificate.");
  CertificateRef leaf = parseCertificate(certificates.front());
  if (!leaf) return cannotEvaluate("The server's certificate cannot be read.");
  if (isTrustedByUser(certificates.front())) return Judgement{TrustResult::Proceed, 0};

  std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> others(
      sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); });
  for (std::size_t i = 1; i < certificates.size(); ++i) {
    CertificateRef other = parseCertificate(certificates[i]);
    // One that cannot be read is of no use to the chain; the others may do without it.
    if (other && sk_X509_push(others.get(), other.get()) > 0) X509_up_ref(other.get());
  }
  auto anchors = systemTrustAnchors();
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(), &X509_STORE_CTX_free);
  if (!anchors || !context || X509_STORE_CTX_init(context.get(), anchors.get(), leaf.get(), others.get()) != 1 ||
      X509_STORE_CTX_set_default(context.get(), "ssl_server") != 1) {
    return cannotEvaluate("The certificate chain cannot be evaluated.");
  }
  X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) != 1 &&
      X509_VERIFY_PARAM_set1_host(parameters, host.data(), host.size()) != 1) {
    return cannotEvaluate("The host's name cannot be compared with a certificate.");
  }
  if (host.empty()) return judge(X509_V_ERR_HOSTNAME_MISMATCH);
  if (X509_verify_cert(context.get()) == 1) return judge(X509_V_OK);
  return judge(X509_STORE_CTX_get_error(context.get()));
}

}  // namespace

struct ServerTrust::Evaluation {
  std::once_flag once;
  std::optional<Result<Judgement>> outcome;

  const Result<Judgement>& of(const ServerTrust& trust) {
    std::call_once(once, [&] {
      // OpenSSL's error queue belongs to the handshake that waits for this answer and must look untouched to it.
      ERR_set_mark();
      outcome = evaluateChain(trust.host_, trust.certificates_);
      ERR_pop_to_mark();
    });
    return *outcome;
  }
};

ServerTrust::ServerTrust(std::string host, std::vector<Data> certificates)
    : host_(std::move(host)), certificates_(std::move(certificates)), evaluation_(std::make_shared<Evaluation>()) {}

Result<TrustResult> ServerTrust::evaluate() const {
  return evaluation_->of(*this).map([](const Judgement& judgement) { return judgement.result; });
}

std::int64_t ServerTrust::errorCode() const {
  const auto& outcome = evaluation_->of(*this);
  // A chain in which nothing is wrong can still be refused: it is not the one that was expected.
  return outcome && outcome->errorCode != 0 ? outcome->errorCode : URLErrorServerCertificateUntrusted;
}

std::string ServerTrust::description() const {
  return format("%@ { host: %@, certificates: %lu }", baseDescription("ServerTrust", this), host_,
                certificates_.size());
}

std::string URLAuthenticationChallenge::description() const {
  return format("<URLAuthenticationChallenge: %@, %@:%u, %@>", authenticationMethod, host, port, serverTrust);
}

}  // namespace florvane
