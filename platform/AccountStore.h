#pragma once

#include "platform/Error.h"
#include "platform/Secret.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// A configured account. `identifier` is a UUID made when the account is added; it names folders and sessions. `name`
// is the short word that people type.
struct Account {
  std::string identifier;
  std::string name;
  std::string userName;
  // The account's own host, and the properties that it holds for this framework's data class, which go first.
  std::optional<std::string> hostName;
  std::optional<std::string> dataClassHostName;
  std::optional<std::uint16_t> dataClassPortNumber;
};

// Where passwords live, by account identifier. Thread-safe. The container's is one property-list file of mode 0600; one
// that another user owns or could open is an error (QuilbarErrorDomain, FileReadNoPermissionError) for every call.
class CredentialStore {
 public:
  virtual ~CredentialStore() = default;
  virtual Result<std::optional<Secret>> password(std::string_view identifier) const = 0;
  virtual Result<void> setPassword(std::string_view identifier, const Secret& password) = 0;
  virtual Result<void> removePassword(std::string_view identifier) = 0;
};

// The accounts of a container, in its file "Accounts.plist", and their passwords in "Credentials.plist". Names are
// unique. Thread-safe, and safe with several processes.
class AccountStore {
 public:
  explicit AccountStore(const std::string& containerDirectory);
  ~AccountStore();
  // The store of the process's container.
  static Result<std::shared_ptr<AccountStore>> shared();

  // In the order in which they were added.
  Result<std::vector<Account>> accounts() const;
  Result<std::optional<Account>> accountWithIdentifier(std::string_view identifier) const;
  Result<std::optional<Account>> accountWithName(std::string_view name) const;
  // Makes the identifier. Errors: POSIXErrorDomain EEXIST when the name is taken, EINVAL when it is empty or holds ":"
  // or "/" or a control character.
  Result<Account> add(Account account, const Secret& password);
  // Account and password. Error: POSIXErrorDomain ENOENT when there is none of that identifier.
  Result<void> remove(std::string_view identifier);
  CredentialStore& credentials();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace florvane
