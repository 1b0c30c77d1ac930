#pragma once

#include "platform/Data.h"

#include <memory>

#include <openssl/x509.h>

namespace florvane {

// The system's certificate anchors ($SSL_CERT_FILE and $SSL_CERT_DIR honoured), loaded once and again when the file or
// the variables change; null when they cannot be loaded. Thread-safe.
std::shared_ptr<X509_STORE> systemTrustAnchors();
// Whether that very certificate (DER) stands in a PEM file of the container's folder "Trusted Certificates".
// Thread-safe.
bool isTrustedByUser(const Data& certificate);

}  // namespace florvane
