#pragma once

#include "platform/Error.h"
#include "platform/ServerTrust.h"
#include "platform/URL.h"

#include <string_view>

#include <curl/curl.h>

namespace florvane {

// An error in URLErrorDomain about that URL.
Error makeURLError(std::int64_t code, const URL& url, std::string_view description);
// What a failed transfer means to its caller. `detail` is curl's own text for it, `headReceived` whether the answer's
// head had come.
Error makeTransferError(CURLcode result, const URL& url, std::string_view detail, bool headReceived);
// The server was refused: the code says why, the certificates stand under URLErrorFailingPeerTrustKey.
Error makeTrustError(const ServerTrust& trust, const URL& url);
Error makeCancelledError(const URL& url);

}  // namespace florvane
