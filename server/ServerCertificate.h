#pragma once

#include "platform/Error.h"

#include <string>

namespace florvane {

// Where a server's certificate chain and its private key lie, both PEM, and the leaf's DER bytes, which clients pin.
struct ServerCertificate {
  std::string certificatePath;
  std::string keyPath;
  Data der;

  // Reads the leaf and checks that the key belongs to it. Errors: ServerErrorDomain, Certificate.
  static Result<ServerCertificate> load(const std::string& certificatePath, const std::string& keyPath);
  // As load, after making a self-signed pair (P-256, ten years, for localhost, its addresses and the given host) when
  // there is no certificate. The key has mode 0600. A certificate without its key is an error: it is not replaced,
  // since clients have pinned it.
  static Result<ServerCertificate> loadOrMake(const std::string& certificatePath, const std::string& keyPath,
                                              const std::string& host);
};

}  // namespace florvane
