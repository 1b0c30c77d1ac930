#pragma once

#include "platform/ServerTrust.h"

#include <functional>
#include <memory>
#include <string>

#include <openssl/ssl.h>

namespace florvane {

// Asked once a handshake, with the certificates that the server showed, whether to go on.
using HTTPPeerTrustJudge = std::function<bool(const std::shared_ptr<const ServerTrust>&)>;

// Lets the judge decide the handshakes of that TLS context (one connection's) and keeps what it was shown with the
// context. Rules out session resumption and renegotiation: after them nobody was asked. False when OpenSSL fails.
bool installPeerTrustJudge(SSL_CTX* context, std::string host, HTTPPeerTrustJudge judge);
// What the server of that connection showed; null when nobody was asked.
std::shared_ptr<const ServerTrust> peerTrustOfConnection(const SSL* connection);

}  // namespace florvane
