#include "platform/AccountStore.h"

#include "platform/Container.h"
#include "platform/Encoding.h"
#include "platform/Format.h"
#include "platform/PreferencesStore.h"
#include "platform/PropertyListFile.h"

#include <algorithm>
#include <cerrno>
#include <mutex>

namespace florvane {

namespace {

constexpr char kAccountsFile[] = "Accounts.plist";
constexpr char kCredentialsFile[] = "Credentials.plist";

// Keys of an account in the file, where it stands under its identifier.
constexpr char kNameKey[] = "Name";
constexpr char kUserNameKey[] = "UserName";
constexpr char kHostNameKey[] = "HostName";
constexpr char kDataClassHostNameKey[] = "DataClassHostName";
constexpr char kDataClassPortNumberKey[] = "DataClassPortNumber";

class FileCredentialStore : public CredentialStore {
 public:
  // Binary, so that no password can be read over a shoulder; read anew each time, so that none stays in memory.
  explicit FileCredentialStore(std::string path)
      : file_(std::move(path), PropertyListFormat::Binary, PropertyListFile::Readers::OnlyOwner) {}

  Result<std::optional<Secret>> password(std::string_view identifier) const override {
    auto version = file_.read();
    if (!version) return Failure(version.error());
    auto bytes = version->contents.data(identifier);
    return bytes ? std::optional(Secret(bytes->view())) : std::nullopt;
  }

  Result<void> setPassword(std::string_view identifier, const Secret& password) override {
    return file_.update([&](Dictionary& passwords) { passwords.set(identifier, password.revealData()); });
  }

  Result<void> removePassword(std::string_view identifier) override {
    return file_.update([&](Dictionary& passwords) { passwords.remove(identifier); });
  }

 private:
  const PropertyListFile file_;
};

bool isLegalName(std::string_view name) {
  return !name.empty() && isValidUTF8(name) && std::none_of(name.begin(), name.end(), [](char character) {
    auto byte = static_cast<unsigned char>(character);
    return byte == ':' || byte == '/' || byte < 0x20 || byte == 0x7f;
  });
}

Dictionary dictionaryFromAccount(const Account& account) {
  Dictionary record = {{kNameKey, account.name}, {kUserNameKey, account.userName}};
  if (account.hostName) record.set(kHostNameKey, *account.hostName);
  if (account.dataClassHostName) record.set(kDataClassHostNameKey, *account.dataClassHostName);
  if (account.dataClassPortNumber) record.set(kDataClassPortNumberKey, *account.dataClassPortNumber);
  return record;
}

Result<Account> accountFromEntry(const Dictionary::Entry& entry) {
  auto damaged = [&](const char* key) {
    return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError,
                         format("%s: account \"%s\" is damaged at \"%s\".", kAccountsFile, entry.key.text(), key)));
  };
  // The identifier becomes a part of paths.
  auto record = entry.value.asDictionary();
  if (!record || !isUUID(entry.key.text())) return damaged("identifier");
  Account account;
  account.identifier = entry.key.text();
  auto name = record->string(kNameKey), userName = record->string(kUserNameKey);
  if (!name || !isLegalName(*name)) return damaged(kNameKey);
  if (!userName) return damaged(kUserNameKey);
  account.name = std::move(*name);
  account.userName = std::move(*userName);
  account.hostName = record->string(kHostNameKey);
  account.dataClassHostName = record->string(kDataClassHostNameKey);
  if (const Value* port = record->find(kDataClassPortNumberKey)) {
    auto number = port->asInteger();
    if (!number || *number < 0 || *number > UINT16_MAX) return damaged(kDataClassPortNumberKey);
    account.dataClassPortNumber = static_cast<std::uint16_t>(*number);
  }
  return account;
}

Result<std::vector<Account>> accountsFromDictionary(const Dictionary& contents) {
  std::vector<Account> accounts;
  accounts.reserve(contents.size());
  for (const auto& entry : contents) {
    auto account = accountFromEntry(entry);
    if (!account) return Failure(account.error());
    accounts.push_back(std::move(*account));
  }
  return accounts;
}

Error posixError(int errorNumber, std::string_view description) { return {POSIXErrorDomain, errorNumber, description}; }

template <typename Matches>
Result<std::optional<Account>> firstAccount(const Result<std::vector<Account>>& accounts, Matches matches) {
  if (!accounts) return Failure(accounts.error());
  auto found = std::find_if(accounts->begin(), accounts->end(), matches);
  return found == accounts->end() ? std::nullopt : std::optional(*found);
}

}  // namespace

struct AccountStore::State {
  explicit State(const std::string& directory)
      : accounts(directory + "/" + kAccountsFile), credentials(directory + "/" + kCredentialsFile) {}

  // An account and its password change together under the lock of the accounts' file.
  PreferencesStore accounts;
  FileCredentialStore credentials;
};

AccountStore::AccountStore(const std::string& containerDirectory)
    : state_(std::make_unique<State>(containerDirectory)) {}

AccountStore::~AccountStore() = default;

Result<std::shared_ptr<AccountStore>> AccountStore::shared() {
  static std::mutex mutex;  // guards both
  static std::string directory;
  static std::shared_ptr<AccountStore> store;
  auto container = Container::requireDirectory();
  if (!container) return Failure(container.error());
  std::lock_guard lock(mutex);
  if (!store || directory != *container) {
    store = std::make_shared<AccountStore>(*container);
    directory = *container;
  }
  return store;
}

Result<std::vector<Account>> AccountStore::accounts() const {
  auto contents = state_->accounts.snapshot();
  if (!contents) return Failure(contents.error());
  return accountsFromDictionary(*contents);
}

Result<std::optional<Account>> AccountStore::accountWithIdentifier(std::string_view identifier) const {
  return firstAccount(accounts(), [&](const Account& account) { return account.identifier == identifier; });
}

Result<std::optional<Account>> AccountStore::accountWithName(std::string_view name) const {
  return firstAccount(accounts(), [&](const Account& account) { return account.name == name; });
}

Result<Account> AccountStore::add(Account account, const Secret& password) {
  if (!isLegalName(account.name)) {
    return Failure(
        posixError(EINVAL, "An account's name must not be empty nor hold \":\", \"/\" or control characters."));
  }
  account.identifier = makeUUID();
  // The password goes first: an account that others see has one.
  Result<void> checked;
  auto written = state_->accounts.update([&](Dictionary& contents) {
    auto present = firstAccount(accountsFromDictionary(contents),
                                [&](const Account& other) { return other.name == account.name; });
    if (!present) {
      checked = Failure(present.error());
    } else if (*present) {
      checked = Failure(posixError(EEXIST, "There is an account named \"" + account.name + "\" already."));
    } else {
      checked = state_->credentials.setPassword(account.identifier, password);
    }
    if (checked) contents.set(account.identifier, dictionaryFromAccount(account));
  });
  if (!checked) return Failure(checked.error());
  if (!written) {
    // What could not be written is what is reported, whether the password goes or stays without an account.
    static_cast<void>(state_->credentials.removePassword(account.identifier));
    return Failure(written.error());
  }
  return account;
}

Result<void> AccountStore::remove(std::string_view identifier) {
  Result<void> checked;
  auto written = state_->accounts.update([&](Dictionary& contents) {
    if (!contents.contains(identifier)) {
      checked = Failure(posixError(ENOENT, "There is no such account."));
      return;
    }
    checked = state_->credentials.removePassword(identifier);
    if (checked) contents.remove(identifier);
  });
  return checked ? written : checked;
}

CredentialStore& AccountStore::credentials() { return state_->credentials; }

}  // namespace florvane
