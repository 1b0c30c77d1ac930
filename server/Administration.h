#pragma once

#include "platform/Clock.h"
#include "server/SessionStore.h"
#include "server/StateDirectory.h"
#include "server/UserStore.h"

#include <memory>
#include <string>

namespace florvane {

// Users and sessions of a state folder, whether or not a server runs on it. Thread-safe.
class Administration {
 public:
  static Result<std::unique_ptr<Administration>> open(const std::string& stateDirectory, Clock& clock);

  const StateDirectory& directory() const { return directory_; }
  UserStore& users() { return users_; }
  SessionStore& sessions() { return *sessions_; }
  // As the store's operations of these names, but the user's sessions end as well.
  Result<void> setPassword(const std::string& user, const Secret& password);
  Result<void> removeUser(const std::string& user);

 private:
  Administration(StateDirectory directory, UserStore users, std::unique_ptr<SessionStore> sessions);
  StateDirectory directory_;
  UserStore users_;
  std::unique_ptr<SessionStore> sessions_;
};

}  // namespace florvane
