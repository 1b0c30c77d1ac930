#include "Client/Client/DCAgentTasks.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "tools/Commands.h"
#include "tools/PendingUploads.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace florvane::tools {

namespace {

// How long a process that nobody waits for stays while nothing moves and the transfer agent has everything.
constexpr Duration kIdlePatience = std::chrono::seconds(10);
constexpr char kResumeFolder[] = "Resume";

using AllUploads = std::vector<std::unique_ptr<PendingUploads>>;

CommandResult<std::vector<Account>> allAccounts() {
  auto store = AccountStore::shared();
  if (!store) return tl::unexpected(failureForError(store.error(), "", ""));
  auto accounts = (*store)->accounts();
  if (!accounts) return tl::unexpected(failureForError(accounts.error(), "", "Could not read the accounts"));
  return *accounts;
}

CommandResult<AllUploads> uploadsToShow(const Output& output, const std::optional<std::string>& account) {
  std::vector<std::string> names;
  if (account) {
    names = {*account};
  } else {
    auto accounts = allAccounts();
    if (!accounts) return tl::unexpected(accounts.error());
    for (const Account& each : *accounts) names.push_back(each.name);
  }
  AllUploads all;
  for (const std::string& name : names) {
    auto tree = CachedTree::open(name, output.options(), Freshness::Preferred);
    if (!tree) return tl::unexpected(tree.error());
    all.push_back(std::make_unique<PendingUploads>(std::move(*tree), name));
  }
  return all;
}

void print(const Output& output, const AllUploads& all) {
  for (const auto& uploads : all) {
    for (const PendingUpload& upload : uploads->allWithProgress()) {
      if (output.options().json) {
        output.object(uploadObject(upload, uploads->account()));
      } else {
        output.line(uploadLine(upload, uploads->account()));
      }
    }
  }
}

ExitStatus waitForAll(const Output& output, const AllUploads& all) {
  auto look = [&all] {
    std::vector<PendingUpload> pending;
    for (const auto& uploads : all) {
      for (auto& upload : uploads->all()) pending.push_back(std::move(upload));
    }
    return pending;
  };
  const bool isInTime = waitForUploads(output, look, [&all] {
    for (const auto& uploads : all) uploads->restart();
  });
  ExitStatus status = ExitStatus::Done;
  for (const auto& uploads : all) {
    uploads->settle();
    std::size_t underWay = 0;
    for (const PendingUpload& upload : uploads->all()) {
      if (upload.isUnderWay()) {
        ++underWay;
        continue;
      }
      const ExitStatus failed = output.fail(failureOfUpload(upload, *uploads));
      if (status == ExitStatus::Done || failed == ExitStatus::Conflict) status = failed;
    }
    if (isInTime || underWay == 0) continue;
    const ExitStatus late = output.fail(notSentInTime(underWay, *uploads));
    if (status == ExitStatus::Done) status = late;
  }
  return status;
}

// What the transfer agent, or a command that did not wait, has started this program for: takes in what has ended,
// starts what is due, and goes when nothing is left that needs a process.
class Resumption {
 public:
  Resumption(PendingUploads& uploads, std::string session, bool wasStartedByAgent)
      : uploads_(uploads), session_(std::move(session)), eventsAreFinished_(!wasStartedByAgent) {}

  void run() {
    uploads_.attach();
    uploads_.tree().manager()->handleEventsForBackgroundURLSession(session_, [this] {
      eventsAreFinished_ = true;
      changes_.notify();
    });
    uploads_.restart();
    auto lastChange = std::chrono::steady_clock::now();
    std::string before;
    while (true) {
      changes_.wait(std::chrono::seconds(1));
      const auto all = uploads_.all();
      std::string now;
      bool isUnderWay = false, needsProcess = false;
      for (const PendingUpload& each : all) {
        now += uploadObject(each, "").dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        isUnderWay =
            isUnderWay || each.isUnderWay() || (each.state == PendingUpload::State::Conflict && !each.serversFile);
        needsProcess = needsProcess || (each.isUnderWay() && !each.hasTask);
      }
      if (now != before) lastChange = std::chrono::steady_clock::now();
      before = std::move(now);
      if (eventsAreFinished_ && !isUnderWay) break;
      if (!needsProcess && std::chrono::steady_clock::now() - lastChange > kIdlePatience) break;
    }
    uploads_.settle();
  }

 private:
  PendingUploads& uploads_;
  const std::string session_;
  UploadChanges changes_;
  std::atomic<bool> eventsAreFinished_;
};

ExitStatus resume(const Output& output, const std::string& session) {
  const auto service = DCBackgroundSessionManager::serviceIdentifierFromBackgroundSessionIdentifier(session);
  auto accounts = allAccounts();
  if (!accounts) return output.fail(accounts.error());
  auto account =
      std::find_if(accounts->begin(), accounts->end(), [&](const Account& each) { return each.identifier == service; });
  if (account == accounts->end()) {
    // Removed meanwhile, with all that it had to send; the agent would start us for it again and again.
    DCAgentTasks::forgetEndedTasksInSession(session);
    return ExitStatus::Done;
  }
  const std::string folder = Container::directory().value_or("") + "/" + kResumeFolder;
  if (auto made = createDirectories(folder, 0700); !made) return output.fail(failureForError(made.error(), "", ""));
  const char* named = std::getenv("FLORVANE_BACKGROUND_SESSION");
  bool wasStartedByAgent = named && session == named;
  while (true) {
    // One process is enough, and two would send a file that neither has recorded yet twice.
    auto lock = FileLock::tryAcquire(folder + "/" + account->identifier, true);
    if (!lock) return output.fail(failureForError(lock.error(), "", ""));
    if (!*lock) return ExitStatus::Done;
    auto tree = CachedTree::open(account->name, output.options(), Freshness::Preferred);
    if (!tree) return output.fail(tree.error());
    PendingUploads uploads(std::move(*tree), account->name);
    Resumption(uploads, session, wasStartedByAgent).run();
    lock->reset();
    wasStartedByAgent = false;
    // Somebody may have come while we were about to leave, and gone again because we were there.
    const auto left = uploads.all();
    const bool isNeeded = std::any_of(left.begin(), left.end(),
                                      [](const PendingUpload& each) { return each.isUnderWay() && !each.hasTask; });
    if (!isNeeded) return ExitStatus::Done;
  }
}

}  // namespace

ExitStatus showUploads(const Output& output, const UploadsOptions& options) {
  if (options.session) return resume(output, *options.session);
  auto all = uploadsToShow(output, options.account);
  if (!all) return output.fail(all.error());
  if (!options.wait && !options.retry) {
    print(output, *all);
    return ExitStatus::Done;
  }
  for (const auto& uploads : *all) {
    uploads->attach();
    if (options.retry) {
      uploads->retry();
    } else {
      uploads->restart();
    }
  }
  ExitStatus status = options.wait ? waitForAll(output, *all) : ExitStatus::Done;
  for (const auto& uploads : *all) (void)uploads->leave(output);
  return status;
}

}  // namespace florvane::tools
