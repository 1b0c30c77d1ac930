#pragma once

#include "platform/Error.h"
#include "platform/Secret.h"
#include "server/StateDirectory.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// Who may sign in: a verifier record of mode 0600 for each user, in the state folder's "users". Every question reads
// the folder anew, so that a change made beside a running server counts at once. Names are 1 to 80 bytes of UTF-8
// without control characters, compared byte by byte. Thread-safe, also between processes.
class UserStore {
 public:
  static Result<UserStore> open(const StateDirectory& directory);

  // Errors of the three in ServerErrorDomain: InvalidArgument for a name or an empty password, AlreadyExists, NotFound.
  // The first two compute for as long as a sign-in does.
  Result<void> add(const std::string& name, const Secret& password);
  Result<void> setPassword(const std::string& name, const Secret& password);
  Result<void> remove(const std::string& name);
  // In the order of their bytes.
  Result<std::vector<std::string>> names() const;

  // The verifier record; nothing when there is no such user.
  Result<std::optional<Data>> record(std::string_view name) const;
  // Whether the password is the user's; takes as long for a user that there is not.
  bool verify(std::string_view name, const Secret& password) const;
  // From which answers to unknown users are made; kept, so that they stay the same.
  const Secret& unknownUserSecret() const { return unknownUserSecret_; }

 private:
  explicit UserStore(const StateDirectory& directory);
  std::string path(std::string_view name) const;
  Result<void> store(const std::string& name, const Secret& password, bool exists);

  std::string folder_, lockPath_;
  Secret unknownUserSecret_;
};

}  // namespace florvane
