#pragma once

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Secret.h"
#include "server/StateDirectory.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace florvane {

// Who is signed in: cookie keys to users, kept in the state folder so that a restart signs nobody out. Only a digest of
// a key is stored, so the file lets nobody in. A session lives 30 days from its last use; a user has at most 256 of
// them, and a further one replaces the one unused for longest. Other processes may change the same store meanwhile.
// Errors are in ServerErrorDomain, Database. Thread-safe.
class SessionStore {
 public:
  static Result<std::unique_ptr<SessionStore>> open(const StateDirectory& directory, Clock& clock);
  ~SessionStore();

  // A new session's cookie key, 32 random bytes.
  Result<Secret> create(const std::string& user);
  // The user of a key; absent when the session is unknown, ended or expired, or the store cannot be asked.
  std::optional<std::string> user(const Secret& key);
  // Both answer how many sessions they ended.
  Result<std::size_t> revoke(const std::string& user);
  Result<std::size_t> revokeAll();

 private:
  struct State;
  explicit SessionStore(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

inline constexpr std::size_t kCookieKeyLength = 32;

}  // namespace florvane
