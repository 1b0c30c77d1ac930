#include "Client/Client/DCAgentTasks.h"

#include "platform/BackgroundURLSession.h"
#include "platform/Container.h"
#include "platform/SQLiteStore.h"
#include "platform/TransferLauncher.h"
#include "platform/TransferStore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <utility>
#include <vector>

namespace florvane {

namespace {

constexpr auto kPatience = std::chrono::seconds(10);

using Tasks = Result<std::vector<URLSessionTaskPtr>>;

Tasks tasksOf(BackgroundURLSession& session) {
  auto promise = std::make_shared<std::promise<Tasks>>();
  auto answer = promise->get_future();
  session.getAllTasksWithCompletionHandler([promise](const Tasks& tasks) { promise->set_value(tasks); });
  if (answer.wait_for(kPatience) == std::future_status::timeout) {
    return Failure(Error(URLErrorDomain, URLErrorTimedOut, "The transfer agent does not answer."));
  }
  return answer.get();
}

// Without a delegate never attached.
BackgroundURLSessionPtr sessionNamed(const std::string& identifier,
                                     std::shared_ptr<URLSessionDelegate> delegate = nullptr) {
  return BackgroundURLSession::create(URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier),
                                      std::move(delegate));
}

// Hears everything, which is as much as acknowledging it, until that is all.
class Listener : public URLSessionDelegate {
 public:
  void didFinishEventsForBackgroundURLSession(SessionRef /*session*/) override {
    if (!hasFinished_.exchange(true)) finished.set_value();
  }
  std::promise<void> finished;

 private:
  std::atomic<bool> hasFinished_ = false;
};

}  // namespace

bool DCAgentTasks::isAgentInstalled() { return findTransferAgentProgram("").has_value(); }

Result<std::size_t> DCAgentTasks::numberOfTasksInSession(const std::string& sessionIdentifier) {
  auto container = Container::requireDirectory();
  auto checked = container ? TransferStore::check(*container) : Failure(container.error());
  // Damage is made good by the agent itself.
  if (!checked && checked.error().is(SQLiteErrorDomain, SQLiteStoreNewerVersionError)) return Failure(checked.error());
  auto session = sessionNamed(sessionIdentifier);
  auto tasks = tasksOf(*session);
  session->finishTasksAndInvalidate();
  if (!tasks) return Failure(tasks.error());
  return tasks->size();
}

Result<std::unordered_map<std::int64_t, DCAgentTasks::Progress>> DCAgentTasks::progressOfTasksInSession(
    const std::string& sessionIdentifier) {
  auto session = sessionNamed(sessionIdentifier);
  auto tasks = tasksOf(*session);
  session->finishTasksAndInvalidate();
  if (!tasks) return Failure(tasks.error());
  std::unordered_map<std::int64_t, Progress> progress;
  for (const auto& task : *tasks) {
    if (task->countOfBytesExpectedToSend() == 0) continue;
    progress[static_cast<std::int64_t>(task->taskIdentifier())] = {task->countOfBytesSent(),
                                                                   task->countOfBytesExpectedToSend()};
  }
  return progress;
}

void DCAgentTasks::forgetEndedTasksInSession(const std::string& sessionIdentifier) {
  auto listener = std::make_shared<Listener>();
  auto finished = listener->finished.get_future();
  auto session = sessionNamed(sessionIdentifier, listener);
  auto tasks = tasksOf(*session);
  if (tasks && !tasks->empty()) (void)finished.wait_for(kPatience);
  // Behind the last acknowledgement.
  (void)tasksOf(*session);
  session->finishTasksAndInvalidate();
}

Result<void> DCAgentTasks::cancelTasksInSession(const std::string& sessionIdentifier) {
  auto session = sessionNamed(sessionIdentifier);
  auto tasks = tasksOf(*session);
  if (tasks) {
    for (const auto& task : *tasks) task->cancel();
    // Asked after the others on the same way: when it is answered they have been heard.
    if (!tasks->empty()) tasks = tasksOf(*session);
  }
  session->finishTasksAndInvalidate();
  if (!tasks) return Failure(tasks.error());
  return {};
}

}  // namespace florvane
