#include "tools/Commands.h"
#include "tools/RemoteTree.h"

namespace florvane::tools {

namespace {

constexpr Duration kServerPatience = std::chrono::seconds(20);

// The checks of one run: what was looked at, whether it is well, and what to do if not.
class Examination {
 public:
  explicit Examination(const Output& output) : output_(output) {}

  void add(const std::string& name, bool well, const std::string& message) {
    checks_.push_back({{"name", name}, {"ok", well}, {"message", message}});
    allWell_ = allWell_ && well;
    if (!output_.options().json)
      output_.line((well ? "ok    " : "FAIL  ") + printable(name) + ": " + printable(message));
  }
  ExitStatus finish() {
    if (output_.options().json) output_.object({{"ok", allWell_}, {"checks", checks_}});
    return allWell_ ? ExitStatus::Done : ExitStatus::Failed;
  }

 private:
  const Output& output_;
  nlohmann::ordered_json checks_ = nlohmann::ordered_json::array();
  bool allWell_ = true;
};

bool examineContainer(Examination& examination) {
  auto directory = Container::requireDirectory();
  examination.add("container", directory.has_value(),
                  directory ? *directory
                            : directory.error().localizedDescription() +
                                  " Make the folder writable for you alone, or name another with --container.");
  if (!directory) return false;
  auto preferences = DCPreferences::preferences()->currentDataVersion();
  examination.add("preferences", preferences.has_value(),
                  preferences ? "readable"
                              : preferences.error().localizedDescription() +
                                    " Restore the file from a backup, or remove it to start with defaults.");
  return true;
}

void examineAccount(Examination& examination, const Output& output, AccountStore& store, const Account& account) {
  auto password = store.credentials().password(account.identifier);
  bool hasPassword = password && *password;
  examination.add(account.name + ": password", hasPassword,
                  hasPassword ? "stored"
                  : password  ? "missing; remove the account and add it again"
                              : password.error().localizedDescription());
  if (!hasPassword) return;
  CommonOptions options = output.options();
  if (!options.timeout) options.timeout = kServerPatience;
  auto tree = RemoteTree::open(account.name, options);
  if (!tree) {
    examination.add(account.name + ": account", false, tree.error().sentence);
    return;
  }
  auto shares = tree->list("");
  examination.add(account.name + ": server", shares.has_value(),
                  shares
                      ? tree->server() + " answers, signed in, " + std::to_string(shares->children.size()) + " shares"
                      : shares.error().sentence);
}

}  // namespace

ExitStatus examine(const Output& output) {
  Examination examination(output);
  if (!examineContainer(examination)) return examination.finish();
  auto store = AccountStore::shared();
  auto accounts = store ? (*store)->accounts() : Result<std::vector<Account>>(Failure(store.error()));
  if (!accounts) {
    examination.add("accounts", false, accounts.error().localizedDescription());
    return examination.finish();
  }
  examination.add("accounts", true,
                  accounts->empty() ? "none yet; add one with: florvane account add NAME HOST[:PORT] --user USER"
                                    : std::to_string(accounts->size()));
  for (const auto& account : *accounts) examineAccount(examination, output, **store, account);
  return examination.finish();
}

}  // namespace florvane::tools
