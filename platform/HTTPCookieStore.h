#pragma once

#include "platform/Date.h"
#include "platform/Secret.h"
#include "platform/URLRequest.h"

#include <optional>
#include <string>
#include <vector>

namespace florvane {

// The cookies of one ephemeral session, in memory only. Each goes back to the very host that set it, under its path,
// and one marked Secure only over TLS. At most 50, of at most 4096 bytes. For one thread at a time.
class HTTPCookieStore {
 public:
  // Keeps, replaces or deletes what the Set-Cookie fields of an answer from that URL say.
  void store(const HTTPHeaders& answerHeaders, const URL& url, Date now);
  // "a=1; b=2", longest path first; absent when there is none for that URL.
  std::optional<std::string> cookieField(const URL& url, Date now);

 private:
  struct Cookie {
    std::string host, path, name;
    Secret value;
    bool secure = false;
    std::optional<Date> expires;
  };
  void storeOne(std::string_view text, const URL& url, Date now);
  std::vector<Cookie> cookies_;
};

}  // namespace florvane
