#include "tools/Commands.h"

#include <filesystem>

namespace florvane::tools {

namespace {

// How long "status" waits for a server, unless told.
constexpr Duration kServerPatience = std::chrono::seconds(5);

CommandResult<std::vector<Account>> accountsToShow(const std::optional<std::string>& name) {
  auto store = AccountStore::shared();
  if (!store) return tl::unexpected(failureForError(store.error(), "", ""));
  auto accounts = (*store)->accounts();
  if (!accounts) return tl::unexpected(failureForError(accounts.error(), "", "Could not read the accounts"));
  if (!name) return *accounts;
  for (const auto& account : *accounts) {
    if (account.name == *name) return std::vector<Account>{account};
  }
  return tl::unexpected(
      CommandFailure{ExitStatus::NoSuchItem, "There is no account named \"" + *name + "\".", std::nullopt});
}

std::string count(std::size_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

}  // namespace

ExitStatus showStatus(const Output& output, const std::optional<std::string>& accountName) {
  auto accounts = accountsToShow(accountName);
  if (!accounts) return output.fail(accounts.error());
  CommonOptions options = output.options();
  if (!options.timeout) options.timeout = kServerPatience;
  auto list = nlohmann::ordered_json::array();
  for (const auto& account : *accounts) {
    auto tree = CachedTree::open(account.name, options, Freshness::Preferred);
    if (!tree) return output.fail(tree.error());
    auto reached = tree->reach();
    const auto examination = DCCacheExamination::examinationOfService(tree->service());
    if (examination.storeError) return output.fail(failureForError(*examination.storeError, "", account.name));
    auto version = DCPreferences::preferences()->currentDataVersionNumber();
    nlohmann::ordered_json object = {{"name", account.name},
                                     {"connected", reached.has_value()},
                                     {"items", examination.knownItems},
                                     {"pendingUploads", examination.pendingUploads},
                                     {"unsent", examination.unsentFiles.size()}};
    if (version) object["dataVersion"] = *version;
    list.push_back(object);
    if (output.options().json) continue;
    output.line(printable(account.name) + ": " + (reached ? "connected" : "not connected") + ", " +
                count(examination.knownItems, "item") + ", " + count(examination.pendingUploads, "pending upload") +
                ", data version " + version.value_or("unknown"));
    if (!reached) output.note("florvane: " + reached.error().sentence);
  }
  if (output.options().json) output.object({{"accounts", list}});
  return ExitStatus::Done;
}

ExitStatus rebuildCache(const Output& output, const std::string& accountName) {
  auto tree = CachedTree::open(accountName, output.options(), Freshness::Preferred);
  if (!tree) return output.fail(tree.error());
  auto rebuilt = std::make_shared<std::promise<void>>();
  tree->manager()->rebuildDatabaseWithCompletionHandler([rebuilt] { rebuilt->set_value(); });
  rebuilt->get_future().wait();
  if (auto error = tree->manager()->rebuildError()) {
    return output.fail(failureForError(*error, "", "The database of " + accountName + " is as it was"));
  }
  const auto examination = DCCacheExamination::examinationOfService(tree->service());
  if (examination.storeError) return output.fail(failureForError(*examination.storeError, "", accountName));
  if (output.options().json) {
    output.object(
        {{"rebuilt", accountName}, {"items", examination.knownItems}, {"pendingUploads", examination.pendingUploads}});
  }
  output.note("Rebuilt the database of " + accountName + ": " + count(examination.knownItems, "item") + ", " +
              count(examination.pendingUploads, "pending upload") + ".");
  return ExitStatus::Done;
}

ExitStatus resetCache(const Output& output, const ResetOptions& options) {
  auto tree = CachedTree::open(options.account, output.options(), Freshness::Preferred);
  if (!tree) return output.fail(tree.error());
  const auto before = DCCacheExamination::examinationOfService(tree->service());
  if (before.storeError && !options.discardUnsent) {
    return output.fail({ExitStatus::Failed,
                        "The database of " + options.account + " cannot be read (" +
                            before.storeError->localizedDescription() +
                            "), so nobody knows what the server does not have yet. Try florvane rebuild " +
                            options.account + " first, or say --discard-unsent.",
                        before.storeError});
  }
  if (!before.unsentFiles.empty() && !options.discardUnsent) {
    return output.fail({ExitStatus::Failed,
                        options.account + " has " + count(before.unsentFiles.size(), "file") +
                            " that the server does not have yet. Send them first, or say --discard-unsent to keep "
                            "them in the container's Recovered folder only.",
                        std::nullopt});
  }
  tree->manager()->deleteAllLocalData();
  // Whatever could not be moved away is still in its place, and so is everything else.
  auto database = DCDatabase::databaseForService(tree->service());
  const auto left = DCUnsentFiles::unsentFilesOfService(tree->service(), *database);
  if (!left.empty()) {
    return output.fail({ExitStatus::Failed,
                        "Nothing was removed, since what was never sent could not be moved to " +
                            DCUnsentFiles::directory().value_or("the Recovered folder") +
                            ". Make room, or the folder writable, and try again.",
                        std::nullopt});
  }
  if (output.options().json) {
    output.object({{"reset", options.account}, {"recovered", before.unsentFiles.size()}});
  }
  output.note("Reset " + options.account + "." +
              (before.unsentFiles.empty() ? ""
                                          : " " + count(before.unsentFiles.size(), "file") + " moved to " +
                                                DCUnsentFiles::directory().value_or("") + "."));
  return ExitStatus::Done;
}

}  // namespace florvane::tools
