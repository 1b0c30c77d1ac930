#include "platform/HTTPErrors.h"

#include <algorithm>
#include <initializer_list>
#include <string>

namespace florvane {

namespace {

bool containsAny(std::string_view text, std::initializer_list<std::string_view> words) {
  return std::any_of(words.begin(), words.end(),
                     [&](std::string_view word) { return text.find(word) != std::string_view::npos; });
}

// A handshake that failed is one of three things, told apart only by OpenSSL's own words: the line broke, the server
// wants or refuses a certificate of ours, or the two could not agree.
std::int64_t handshakeCode(std::string_view detail) {
  if (containsAny(detail, {"SSL_ERROR_SYSCALL", "unexpected eof", "onnection reset", "roken pipe"})) {
    return URLErrorNetworkConnectionLost;
  }
  if (containsAny(detail, {"certificate required"})) return URLErrorClientCertificateRequired;
  if (containsAny(detail, {"alert bad certificate", "alert unsupported certificate", "alert certificate",
                           "alert unknown ca", "alert access denied"})) {
    return URLErrorClientCertificateRejected;
  }
  return URLErrorSecureConnectionFailed;
}

std::int64_t errorCode(CURLcode result, std::string_view detail, bool headReceived) {
  switch (result) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      // The scheme was looked at before: what is left is an answer that is not HTTP.
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_FILESIZE_EXCEEDED:
    case CURLE_HTTP2:
      return URLErrorCannotParseResponse;
    case CURLE_OUT_OF_MEMORY:
      // curl's word for a header line beyond its own limit.
      return headReceived ? URLErrorNetworkConnectionLost : URLErrorCannotParseResponse;
    case CURLE_URL_MALFORMAT:
    case CURLE_LOGIN_DENIED:
      return URLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URLErrorDNSLookupFailed;
    case CURLE_COULDNT_CONNECT:
    case CURLE_INTERFACE_FAILED:
    case CURLE_PROXY:
      return URLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return URLErrorTimedOut;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_ISSUER_ERROR:
      return handshakeCode(detail);
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR: {
      if (containsAny(detail, {"Too large response headers"})) return URLErrorCannotParseResponse;
      // A server of TLS 1.3 refuses our side only after the handshake.
      std::int64_t code = handshakeCode(detail);
      return code == URLErrorSecureConnectionFailed ? URLErrorNetworkConnectionLost : code;
    }
    default:
      return URLErrorNetworkConnectionLost;
  }
}

}  // namespace

Error makeURLError(std::int64_t code, const URL& url, std::string_view description) {
  return {URLErrorDomain, code,
          Dictionary{{LocalizedDescriptionKey, description}, {URLErrorFailingURLStringKey, url.absoluteString()}}};
}

Error makeTransferError(CURLcode result, const URL& url, std::string_view detail, bool headReceived) {
  return makeURLError(errorCode(result, detail, headReceived), url,
                      detail.empty() ? std::string_view(curl_easy_strerror(result)) : detail);
}

Error makeTrustError(const ServerTrust& trust, const URL& url) {
  Array certificates;
  for (const auto& certificate : trust.certificates()) certificates.append(certificate);
  Dictionary userInfo{{LocalizedDescriptionKey, "The certificate of the server \"" + trust.host() + "\" is refused."},
                      {URLErrorFailingURLStringKey, url.absoluteString()},
                      {URLErrorFailingPeerTrustKey, certificates}};
  return {URLErrorDomain, trust.errorCode(), std::move(userInfo)};
}

Error makeCancelledError(const URL& url) { return makeURLError(URLErrorCancelled, url, "cancelled"); }

}  // namespace florvane
