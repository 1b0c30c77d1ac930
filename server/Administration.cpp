#include "server/Administration.h"

namespace florvane {

Administration::Administration(StateDirectory directory, UserStore users, std::unique_ptr<SessionStore> sessions)
    : directory_(std::move(directory)), users_(std::move(users)), sessions_(std::move(sessions)) {}

Result<std::unique_ptr<Administration>> Administration::open(const std::string& stateDirectory, Clock& clock) {
  auto directory = StateDirectory::open(stateDirectory);
  if (!directory) return Failure(directory.error());
  auto users = UserStore::open(*directory);
  if (!users) return Failure(users.error());
  auto sessions = SessionStore::open(*directory, clock);
  if (!sessions) return Failure(sessions.error());
  return std::unique_ptr<Administration>(new Administration(*directory, *users, std::move(*sessions)));
}

Result<void> Administration::setPassword(const std::string& user, const Secret& password) {
  if (auto set = users_.setPassword(user, password); !set) return set;
  if (auto revoked = sessions_->revoke(user); !revoked) return Failure(revoked.error());
  return {};
}

Result<void> Administration::removeUser(const std::string& user) {
  if (auto removed = users_.remove(user); !removed) return removed;
  if (auto revoked = sessions_->revoke(user); !revoked) return Failure(revoked.error());
  return {};
}

}  // namespace florvane
