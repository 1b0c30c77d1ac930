#include "Client/Client/DCBackgroundSessionManager.h"
#include "tools/Commands.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <system_error>

namespace florvane::tools {

namespace {

constexpr Duration kServerPatience = std::chrono::seconds(20);
// Dates decide which of two copies is newer.
constexpr std::int64_t kToleratedSkewSeconds = 30;
// Less is as good as none: not even a listing may fit.
constexpr std::uintmax_t kLeastSpace = std::uintmax_t{1} << 20;

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
  std::error_code unknown;
  const auto space = std::filesystem::space(*directory, unknown);
  if (!unknown && space.available < kLeastSpace) {
    examination.add("space", false,
                    "the disk of " + *directory + " is full, so that nothing can be fetched or written; make room");
  }
  auto preferences = DCPreferences::preferences()->currentDataVersion();
  examination.add("preferences", preferences.has_value(),
                  preferences ? "readable"
                              : preferences.error().localizedDescription() +
                                    " Restore the file from a backup, or remove it to start with defaults.");
  return true;
}

bool isOfNewerVersion(const Error& error) { return error.is(SQLiteErrorDomain, SQLiteStoreNewerVersionError); }

// The store reads through, and what lies on the disk is what it names.
void examineCache(Examination& examination, const Account& account) {
  auto service = DCService::serviceWithAccount(account);
  const auto cache = DCCacheExamination::examinationOfService(service);
  const std::string name = account.name + ": store";
  if (cache.storeError) {
    examination.add(name, false,
                    isOfNewerVersion(*cache.storeError) ? failureForError(*cache.storeError, "", "").sentence
                                                        : cache.storeError->localizedDescription() +
                                                              "; make it anew with: florvane rebuild " + account.name);
    return;
  }
  if (cache.rebuildIsUnfinished) {
    examination.add(name, false,
                    "a rebuild of it runs, or was cut short; any command goes on with it, such as: florvane status " +
                        account.name);
    return;
  }
  std::string message =
      std::to_string(cache.knownItems) + " items, " + std::to_string(cache.pendingUploads) + " pending uploads";
  if (!cache.damagedStores.empty()) {
    message += "; a damaged one was set aside as " + cache.damagedStores.back() + ", remove it when nothing is missed";
  }
  examination.add(name, true, message);
  if (cache.orphans > 0) {
    examination.add(account.name + ": orphans", false,
                    std::to_string(cache.orphans) +
                        " documents are on the disk that no path names; clear up with: "
                        "florvane rebuild " +
                        account.name + ", and if that does not help: florvane reset " + account.name);
  }
  if (!cache.filesWithoutUpload.empty()) {
    examination.add(account.name + ": unsent", false,
                    std::to_string(cache.filesWithoutUpload.size()) +
                        " files differ from the server's and wait for no "
                        "upload, the first of them " +
                        cache.filesWithoutUpload.front().relativePath +
                        "; write them again, or keep them with: florvane reset --discard-unsent " + account.name);
  }
}

// The agent answers, unless nothing was ever handed to it.
void examineAgent(Examination& examination, const Account& account) {
  auto service = DCService::serviceWithAccount(account);
  auto tasks = DCAgentTasks::numberOfTasksInSession(DCBackgroundSessionIdentifier(*service, DCMainBundleIdentifier()));
  const auto transfersHere = DCBackgroundSessionManager::reasonForTransfersInThisProcess();
  const bool canGoOn = DCAgentTasks::isAgentInstalled() && !transfersHere;
  std::string message;
  if (tasks && canGoOn) {
    message = std::to_string(*tasks) + " transfers in progress";
  } else if (tasks) {
    message = "florvane-transferd " +
              (transfersHere ? "cannot be started: " + transfersHere->localizedDescription() : "was not found") +
              ". Uploads go on only while a command runs; install it beside florvane or in the PATH.";
  } else if (isOfNewerVersion(tasks.error())) {
    message = failureForError(tasks.error(), "", "").sentence;
  } else {
    message = tasks.error().localizedDescription() +
              " Check that florvane-transferd is installed beside florvane or in the PATH, and that the container is "
              "writable.";
  }
  examination.add(account.name + ": agent", tasks && canGoOn, message);
}

struct ServerAnswer {
  std::optional<Error> error;
  std::optional<std::string> date;
};

// Signs in where that is needed and asks for the list of shares.
ServerAnswer askServer(const std::shared_ptr<DCService>& service, Duration patience) {
  auto promise = std::make_shared<std::promise<ServerAnswer>>();
  auto future = promise->get_future();
  auto queue = FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service->uniqueIdentifier());
  queue->dispatchAsynchronousBlock([service, promise] {
    DCServerRequest::make()->startDownloadTaskWithURI(
        FVFRequestUtils::URIForContentsOfVirtualRootDirectory(), {}, service, HTTPHeaders(), std::nullopt,
        [promise](const std::optional<std::uint64_t>& /*taskIdentifier*/,
                  const std::shared_ptr<const HTTPURLResponse>& response, const std::optional<URL>& location,
                  const std::optional<Error>& error) {
          ServerAnswer answer{error, response ? response->header("Date") : std::nullopt};
          if (!error && response && response->statusCode() >= 400) {
            answer.error = Error(URLErrorDomain, response->statusCode());
          }
          if (location) (void)removeItem(location->path());
          promise->set_value(answer);
        });
  });
  if (future.wait_for(patience) == std::future_status::timeout) return {Error(URLErrorDomain, URLErrorTimedOut), {}};
  return future.get();
}

// Seconds by which this machine's clock is ahead; absent when the server says no time that can be read.
std::optional<std::int64_t> clockSkew(const std::optional<std::string>& date) {
  tm calendar{};
  const char* rest = date ? strptime(date->c_str(), "%a, %d %b %Y %H:%M:%S", &calendar) : nullptr;
  if (!rest) return std::nullopt;
  return std::int64_t{std::time(nullptr)} - std::int64_t{timegm(&calendar)};
}

void examineServer(Examination& examination, const Output& output, const Account& account) {
  auto service = DCService::serviceWithAccount(account);
  URL url = service->url();
  const std::string server = bracketedHost(url.host()) + ":" + std::to_string(url.effectivePort());
  const Duration patience = output.options().timeout.value_or(kServerPatience);
  auto answer = askServer(service, patience);
  // A cookie that the server has forgotten is gone now.
  if (answer.error && answer.error->is(URLErrorDomain, 401)) answer = askServer(service, patience);
  auto failure = answer.error ? std::optional(failureForError(*answer.error, server, "")) : std::nullopt;
  const bool isOfServer = failure && failure->status != ExitStatus::SigningInFailed;
  const bool isAway = failure && failure->status == ExitStatus::Offline;
  std::string message = server + " answers";
  if (isAway) message = failure->sentence;
  if (isOfServer && !isAway)
    message += ", but not as it should: " + endedSentence(failure->sentence) + " See the server's own log.";
  examination.add(account.name + ": server", !isOfServer, message);
  if (isOfServer) return;
  examination.add(account.name + ": sign-in", !failure, failure ? failure->sentence : "signed in");
  auto skew = clockSkew(answer.date);
  if (!skew) return;
  bool isNear = std::abs(*skew) <= kToleratedSkewSeconds;
  examination.add(account.name + ": clock", isNear,
                  isNear ? "agrees with the server's"
                         : "is " + std::to_string(std::abs(*skew)) + " seconds " + (*skew > 0 ? "ahead of" : "behind") +
                               " the server's; set this machine's clock, or have the server's set");
}

void examineAccount(Examination& examination, const Output& output, AccountStore& store, const Account& account) {
  examineCache(examination, account);
  examineAgent(examination, account);
  auto password = store.credentials().password(account.identifier);
  bool hasPassword = password && *password;
  examination.add(account.name + ": password", hasPassword,
                  hasPassword ? "stored"
                  : password  ? "missing; remove the account and add it again"
                              : password.error().localizedDescription());
  if (!hasPassword) return;
  examineServer(examination, output, account);
}

void examineRecovered(Examination& examination) {
  auto folder = DCUnsentFiles::directory();
  std::size_t files = 0;
  std::error_code error;
  std::filesystem::recursive_directory_iterator entries(folder.value_or(""), error), end;
  while (!error && entries != end) {
    files += entries->is_regular_file(error) ? 1 : 0;
    entries.increment(error);
  }
  if (files > 0) {
    examination.add("recovered", true,
                    std::to_string(files) + " files that were never sent lie in " + *folder +
                        "; put back what you need, and remove the rest");
  }
}

}  // namespace

ExitStatus examine(const Output& output) {
  Examination examination(output);
  if (!examineContainer(examination)) return examination.finish();
  auto store = AccountStore::shared();
  auto accounts = store ? (*store)->accounts() : Result<std::vector<Account>>(Failure(store.error()));
  if (!accounts) {
    examination.add("accounts", false,
                    accounts.error().localizedDescription() +
                        " Restore the file from a backup, or remove it and add the accounts again.");
    return examination.finish();
  }
  examination.add("accounts", true,
                  accounts->empty() ? "none yet; add one with: florvane account add NAME HOST[:PORT] --user USER"
                                    : std::to_string(accounts->size()));
  std::vector<std::string> identifiers;
  identifiers.reserve(accounts->size());
  for (const auto& account : *accounts) {
    identifiers.push_back(account.identifier);
    examineAccount(examination, output, **store, account);
  }
  for (const auto& folder : DCCacheExamination::foldersOfOtherServices(identifiers)) {
    examination.add("leftovers", false, folder + " belongs to no account; look what is in it, and remove it");
  }
  examineRecovered(examination);
  return examination.finish();
}

}  // namespace florvane::tools
