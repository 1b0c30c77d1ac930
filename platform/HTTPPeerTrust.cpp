#include "platform/HTTPPeerTrust.h"

#include <exception>
#include <vector>

#include <openssl/err.h>

namespace florvane {

namespace {

struct PeerTrust {
  std::string host;
  HTTPPeerTrustJudge judge;
  std::shared_ptr<const ServerTrust> trust;
};

int contextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(
      0, nullptr, nullptr, nullptr, [](void* /*parent*/, void* stored, CRYPTO_EX_DATA*, int, long, void*) {
        delete static_cast<PeerTrust*>(stored);
      });
  return index;
}

PeerTrust* peerTrust(const SSL* connection) {
  return connection ? static_cast<PeerTrust*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), contextIndex()))
                    : nullptr;
}

std::vector<Data> shownCertificates(X509_STORE_CTX* verification) {
  std::vector<Data> certificates;
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_untrusted(verification);
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    unsigned char* der = nullptr;
    int size = i2d_X509(sk_X509_value(chain, i), &der);
    if (size <= 0) return {};
    certificates.emplace_back(der, static_cast<std::size_t>(size));
    OPENSSL_free(der);
  }
  return certificates;
}

int verify(X509_STORE_CTX* verification, void* /*unused*/) {
  auto* connection = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(verification, SSL_get_ex_data_X509_STORE_CTX_idx()));
  PeerTrust* peer = peerTrust(connection);
  bool accepted = false;
  // Whatever the judge does with OpenSSL must leave no mark on the handshake's own error queue.
  ERR_set_mark();
  try {
    if (peer) {
      peer->trust = std::make_shared<const ServerTrust>(peer->host, shownCertificates(verification));
      accepted = peer->judge && peer->judge(peer->trust);
      peer->judge = nullptr;
    }
  } catch (const std::exception&) {
    accepted = false;
  }
  ERR_pop_to_mark();
  X509_STORE_CTX_set_error(verification, accepted ? X509_V_OK : X509_V_ERR_CERT_REJECTED);
  return accepted ? 1 : 0;
}

}  // namespace

bool installPeerTrustJudge(SSL_CTX* context, std::string host, HTTPPeerTrustJudge judge) {
  auto* peer = new PeerTrust{std::move(host), std::move(judge), nullptr};
  if (SSL_CTX_set_ex_data(context, contextIndex(), peer) != 1) {
    delete peer;
    return false;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(context, verify, nullptr);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  return true;
}

std::shared_ptr<const ServerTrust> peerTrustOfConnection(const SSL* connection) {
  PeerTrust* peer = peerTrust(connection);
  return peer ? peer->trust : nullptr;
}

}  // namespace florvane
