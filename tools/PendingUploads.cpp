#include "tools/PendingUploads.h"

#include "Client/Client/DCAgentTasks.h"
#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "Client/Client/DCBackgroundSessionManager.h"
#include "Client/Client/DCUnsentFiles.h"
#include "Client/Client/DCUploadOutcome.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

constexpr Duration kLookInterval = std::chrono::seconds(1), kLookIntervalOfBar = std::chrono::milliseconds(200);
// What the service's queue, the transfer agent, and the other side of a conflict may take.
constexpr Duration kQueuePatience = std::chrono::seconds(5), kAgentPatience = std::chrono::seconds(5),
                   kConflictPatience = std::chrono::seconds(10), kStandstillPatience = std::chrono::seconds(30);
constexpr std::int64_t kPercent = 100;
constexpr char kWaitsForSignIn[] = "for signing in";

const char* nameOf(PendingUpload::State state) {
  switch (state) {
    case PendingUpload::State::Sending:
      return "sending";
    case PendingUpload::State::Waiting:
      return "waiting";
    case PendingUpload::State::Failed:
      return "failed";
    case PendingUpload::State::Conflict:
      return "conflict";
  }
  return "";
}

std::int64_t sizeOf(const std::string& path) {
  struct stat status{};
  return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

std::string programPath() { return realPath("/proc/self/exe").value_or("florvane"); }

std::vector<std::string> resumeCommand(const std::string& session) {
  return {programPath(), "--container", Container::directory().value_or(""), "uploads", "--resume", session};
}

// In a session of its own, so that neither the terminal's end nor ours ends it.
Result<void> startInBackground(std::vector<std::string> command) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawn_file_actions_addchdir_np(&actions, "/");
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (auto& word : command) words.push_back(word.data());
  words.push_back(nullptr);
  pid_t process = 0;
  const int failure = posix_spawn(&process, words[0], &actions, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return failure == 0 ? Result<void>() : Result<void>(Failure(Error::posix(failure, command.front())));
}

}  // namespace

PendingUpload PendingUpload::of(const DCManagedUpload& upload) {
  PendingUpload pending;
  pending.path = upload.path().value_or("");
  pending.localFile = upload.fileURL();
  pending.hasTask = upload.taskIdentifier().has_value();
  pending.bytesSent = upload.totalBytesSent().value_or(0);
  const std::int64_t expected = upload.totalBytesExpectedToSend().value_or(0);
  pending.size = expected > 0 || !pending.localFile ? expected : sizeOf(*pending.localFile);
  pending.reason = upload.error();
  pending.task = upload.task();
  if (upload.isConflict()) {
    pending.state = State::Conflict;
    if (auto url = upload.conflictingVersionURL()) pending.serversFile = url->path();
  } else if (pending.hasTask && pending.bytesSent > 0) {
    pending.state = State::Sending;
  } else if (pending.hasTask) {
    pending.reason = "for its turn, or for the server to answer";
  } else if (DCUploadOutcome::hasGivenUp(upload)) {
    pending.state = State::Failed;
  } else if (!pending.reason) {
    pending.reason = kWaitsForSignIn;
  }
  return pending;
}

void PendingUpload::setProgress(std::int64_t sent, std::int64_t expected) {
  if (!hasTask || state == State::Conflict || sent <= bytesSent) return;
  bytesSent = sent;
  if (expected > 0) size = expected;
  state = State::Sending;
}

std::int64_t PendingUpload::percentSent() const {
  return size > 0 ? std::clamp<std::int64_t>(bytesSent * kPercent / size, 0, kPercent) : 0;
}

nlohmann::ordered_json uploadObject(const PendingUpload& upload, const std::string& account) {
  nlohmann::ordered_json object = {
      {"account", account},       {"path", upload.path}, {"state", nameOf(upload.state)},
      {"sent", upload.bytesSent}, {"size", upload.size}, {"percent", upload.percentSent()}};
  if (upload.reason && upload.state != PendingUpload::State::Sending) object["reason"] = *upload.reason;
  if (upload.state == PendingUpload::State::Conflict) {
    if (upload.localFile) object["localFile"] = *upload.localFile;
    if (upload.serversFile) object["serversFile"] = *upload.serversFile;
  }
  return object;
}

std::string uploadLine(const PendingUpload& upload, const std::string& account) {
  std::string line = printable(account + ":" + upload.path) + "\t" + std::to_string(upload.percentSent()) + "% of " +
                     humanSize(upload.size) + "\t" + nameOf(upload.state);
  if (upload.reason && upload.state == PendingUpload::State::Waiting) line += " " + printable(*upload.reason);
  if (upload.reason && upload.state == PendingUpload::State::Failed) line += ": " + printable(*upload.reason);
  if (upload.serversFile) line += "; the server's version: " + printable(*upload.serversFile);
  return line;
}

// Until a new attempt has begun, a record looks as the last one left it.
struct PendingUploads::Retries {
  std::mutex mutex;
  std::set<std::string> paths;
};

PendingUploads::PendingUploads(CachedTree tree, std::string account)
    : tree_(std::move(tree)), account_(std::move(account)), retries_(std::make_shared<Retries>()) {}

std::string PendingUploads::sessionIdentifier() const {
  return DCBackgroundSessionIdentifier(*tree_.service(), DCMainBundleIdentifier());
}

std::vector<PendingUpload> PendingUploads::all() const {
  using Records = std::vector<std::shared_ptr<DCManagedUpload>>;
  auto promise = std::make_shared<std::promise<Records>>();
  auto future = promise->get_future();
  tree_.manager()->allPendingUploadsWithCompletionHandler(
      [promise](Records records) { promise->set_value(std::move(records)); });
  // A request that gets no answer may keep the queue; the records can be read all the same.
  const Records records = future.wait_for(kQueuePatience) == std::future_status::ready
                              ? future.get()
                              : DCDatabase::databaseForService(tree_.service())->allUploads();
  std::vector<PendingUpload> all;
  all.reserve(records.size());
  std::transform(records.rbegin(), records.rend(), std::back_inserter(all),
                 [](const auto& record) { return PendingUpload::of(*record); });
  const bool isSignedIn = DCPreferences::preferences()->authCookieForService(tree_.service()).has_value();
  std::lock_guard lock(retries_->mutex);
  for (PendingUpload& upload : all) {
    if (isSignedIn && upload.reason == kWaitsForSignIn) upload.reason = "for the next attempt";
    if (upload.state == PendingUpload::State::Failed && retries_->paths.contains(upload.path)) {
      upload.state = PendingUpload::State::Waiting;
    }
  }
  return all;
}

std::vector<PendingUpload> PendingUploads::allWithProgress() const {
  std::vector<PendingUpload> uploads = all();
  std::map<std::string, std::unordered_map<std::int64_t, DCAgentTasks::Progress>> sessions;
  for (PendingUpload& upload : uploads) {
    if (!upload.task) continue;
    const auto [session, isNew] = sessions.try_emplace(upload.task->sessionIdentifier);
    if (isNew) {
      // What the agent does not say is as the records have it.
      if (auto asked = DCAgentTasks::progressOfTasksInSession(session->first)) session->second = std::move(*asked);
    }
    auto progress = session->second.find(upload.task->taskIdentifier);
    if (progress != session->second.end()) {
      upload.setProgress(progress->second.bytesSent, progress->second.bytesExpected);
    }
  }
  return uploads;
}

std::optional<CommandFailure> PendingUploads::failureOfEnded(const std::string& path) const {
  auto database = DCDatabase::databaseForService(tree_.service());
  database->refresh();
  const std::string what = account_ + ":" + path;
  CommandFailure removed{ExitStatus::Failed,
                         what + ": It has been removed on the server. What was not sent is kept in " +
                             DCUnsentFiles::directory().value_or("the container") + ".",
                         std::nullopt};
  CommandFailure cancelled{ExitStatus::Failed, what + ": Its upload was cancelled. Put it once more to send it.",
                           std::nullopt};
  const auto relativePath = DCRelativePath::relativePathWithString(path, tree_.service());
  const auto folder = relativePath->relativePathByDeletingLastPathComponent();
  if (DCCachedItemManager::fileResourceTypeAtRelativePath(folder) != ResourceTypeDirectory) return removed;
  const auto directory = DCCachedItemManager::directoryAtRelativePath(folder);
  if (!directory || !directory->documentIdentifier()) return removed;
  if (directory->isDropBox()) {
    // Of what it has taken nothing is kept.
    auto staged = tree_.manager()->fileURLOfItemAtPath(path);
    return staged && fileExists(staged->path()) ? std::optional(cancelled) : std::nullopt;
  }
  if (DCCachedItemManager::fileResourceTypeAtRelativePath(relativePath) != ResourceTypeRegular) return removed;
  const auto file = DCCachedItemManager::fileAtRelativePath(relativePath);
  if (!file || !file->existsOnDisk()) return removed;
  return file->isUnsent() ? std::optional(cancelled) : std::nullopt;
}

void PendingUploads::attach() {
  DCBackgroundSessionManager::setRelaunchCommand(resumeCommand(sessionIdentifier()));
  (void)DCBackgroundSessionManager::backgroundSessionManagerForService(tree_.service(), DCMainBundleIdentifier());
}

void PendingUploads::restart() { tree_.manager()->restartUploads(); }

void PendingUploads::retry() {
  for (const PendingUpload& upload : all()) {
    if (upload.state != PendingUpload::State::Failed) continue;
    {
      std::lock_guard lock(retries_->mutex);
      retries_->paths.insert(upload.path);
    }
    tree_.manager()->startUploadingItemAtPath(
        upload.path, [retries = retries_, path = upload.path](const std::optional<URL>&, const std::optional<Error>&) {
          std::lock_guard lock(retries->mutex);
          retries->paths.erase(path);
        });
  }
  restart();
}

bool PendingUploads::leave(const Output& output) const {
  const auto uploads = all();
  const bool isUnderWay =
      std::any_of(uploads.begin(), uploads.end(), [](const PendingUpload& upload) { return upload.isUnderWay(); });
  // The part of the transfer agent that this process took on ends with it.
  if (const auto reason = DCBackgroundSessionManager::reasonForTransfersInThisProcess(); reason && isUnderWay) {
    output.note(
        "florvane: The transfer agent (florvane-transferd) cannot be started: " + reason->localizedDescription() +
        ". What is not sent yet is safe here; it is sent by the next command that finds the agent, or while "
        "\"florvane uploads --wait\" runs.");
    return false;
  }
  const bool isLeft = std::any_of(uploads.begin(), uploads.end(),
                                  [](const PendingUpload& upload) { return upload.isUnderWay() && !upload.hasTask; });
  if (!isLeft) return true;
  auto started = startInBackground(resumeCommand(sessionIdentifier()));
  if (!started) {
    output.note("florvane: " + started.error().localizedDescription() +
                " The files are sent with the next \"florvane uploads --retry\".");
  }
  return started.has_value();
}

void PendingUploads::settle() const {
  auto promise = std::make_shared<std::promise<void>>();
  auto future = promise->get_future();
  DCBackgroundSessionManager::backgroundSessionManagerForService(tree_.service(), DCMainBundleIdentifier())
      ->tasksOfSession(sessionIdentifier(), [promise](const auto&) { promise->set_value(); });
  (void)future.wait_for(kAgentPatience);
}

struct UploadChanges::State {
  std::mutex mutex;
  std::condition_variable condition;
  bool changed = false;
};

UploadChanges::UploadChanges() : state_(std::make_shared<State>()) {
  for (const char* name : {FlorvaneDidAddOrRemoveUploadsNotification, FlorvaneUploadDidFailNotification}) {
    observations_.push_back(NotificationCenter::shared().addObserver(name, [this](const Notification&) { notify(); }));
  }
}

UploadChanges::~UploadChanges() = default;

void UploadChanges::notify() {
  std::lock_guard lock(state_->mutex);
  state_->changed = true;
  state_->condition.notify_all();
}

void UploadChanges::wait(Duration atMost) {
  std::unique_lock lock(state_->mutex);
  state_->condition.wait_for(lock, atMost, [this] { return state_->changed; });
  state_->changed = false;
}

bool waitForUploads(const Output& output, const std::function<std::vector<PendingUpload>()>& look,
                    const std::function<void()>& restart) {
  UploadChanges changes;
  ProgressBar bar(output);
  const Duration interval = bar.isShown() ? kLookIntervalOfBar : kLookInterval;
  const auto begin = std::chrono::steady_clock::now();
  const auto& timeout = output.options().timeout;
  std::optional<MonotonicTime> conflictSince;
  std::int64_t total = 0, leftBefore = -1;
  auto lastMove = begin;
  while (true) {
    const auto uploads = look();
    const auto now = std::chrono::steady_clock::now();
    const auto underWay =
        std::count_if(uploads.begin(), uploads.end(), [](const auto& each) { return each.isUnderWay(); });
    // The other side of a conflict is fetched when it is known.
    const bool isFetching = std::any_of(uploads.begin(), uploads.end(), [](const PendingUpload& each) {
      return each.state == PendingUpload::State::Conflict && !each.serversFile;
    });
    if (!isFetching) conflictSince.reset();
    if (isFetching && !conflictSince) conflictSince = now;
    if (underWay == 0 && (!isFetching || now - *conflictSince > kConflictPatience)) return true;
    if (timeout && now - begin >= *timeout) return underWay == 0;
    std::int64_t left = 0;
    for (const auto& each : uploads) left += each.isUnderWay() ? each.size - each.bytesSent : 0;
    total = std::max(total, left);
    if (std::exchange(leftBefore, left) != left) lastMove = now;
    if (now - lastMove >= kStandstillPatience) {
      lastMove = now;
      restart();
    }
    bar.show(underWay == 1 ? "1 file" : std::to_string(underWay) + " files", total - left, total);
    Duration pause = interval;
    if (timeout) pause = std::min(pause, std::chrono::duration_cast<Duration>(begin + *timeout - now));
    changes.wait(pause);
  }
}

CommandFailure failureOfUpload(const PendingUpload& upload, PendingUploads& uploads) {
  const std::string what = uploads.account() + ":" + upload.path;
  if (upload.state == PendingUpload::State::Conflict) {
    return {ExitStatus::Conflict,
            what + ": Somebody else has changed it on the server, so nothing was replaced there. Yours is " +
                upload.localFile.value_or("kept") +
                (upload.serversFile ? ", the server's " + *upload.serversFile : std::string()) +
                ". Put the one that is to stay once more.",
            std::nullopt};
  }
  // A record keeps only the words of a failure; whether it was the login is known to who tries it.
  auto reached = uploads.tree().reach();
  if (!reached && reached.error().status == ExitStatus::SigningInFailed) return reached.error();
  return {ExitStatus::Failed,
          what + ": " + endedSentence(upload.reason.value_or("The upload failed.")) +
              " Try again with: florvane uploads --retry " + uploads.account(),
          std::nullopt};
}

CommandFailure notSentInTime(std::size_t count, const PendingUploads& uploads) {
  return {ExitStatus::Offline,
          std::to_string(count) + (count == 1 ? " file was" : " files were") + " not sent to " + uploads.account() +
              " in time, but safe here and on the way. See: florvane uploads " + uploads.account(),
          std::nullopt};
}

}  // namespace florvane::tools
