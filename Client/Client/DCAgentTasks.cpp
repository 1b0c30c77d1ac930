#include "Client/Client/DCAgentTasks.h"

#include "platform/BackgroundURLSession.h"
#include "platform/Container.h"
#include "platform/SQLiteStore.h"
#include "platform/TransferStore.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
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

// Without a delegate, and so never attached.
BackgroundURLSessionPtr sessionNamed(const std::string& identifier) {
  return BackgroundURLSession::create(URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier),
                                      nullptr);
}

}  // namespace

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
