#pragma once

#include "platform/Data.h"

#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace florvane::test {

// A key and a certificate made for one test.
struct Certificate {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;
  Data der() const;
  std::string pem() const;
};

struct CertificateOptions {
  std::string commonName = "localhost";
  // As OpenSSL writes them: "DNS:localhost", "IP:127.0.0.1".
  std::vector<std::string> alternativeNames = {"DNS:localhost", "IP:127.0.0.1", "IP:::1"};
  long validFromSeconds = -3600;  // from now
  long validUntilSeconds = 86400;
  bool authority = false;
  // Signs with its own key when null.
  const Certificate* issuer = nullptr;
};

Certificate makeCertificate(const CertificateOptions& options = {});
// Of files that hold them as PEM.
Certificate readCertificate(const std::string& certificatePath, const std::string& keyPath);

}  // namespace florvane::test
