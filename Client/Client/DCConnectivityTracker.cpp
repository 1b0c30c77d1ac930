#include "Client/Client/DCConnectivityTracker.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCService.h"
#include "Client/Client/DCServiceRegistry.h"
#include "common/FVFQueueManager.h"

#include <utility>
#include <vector>

namespace florvane {

namespace {

constexpr FVFObjectLifetime kEventLifetime = std::chrono::seconds(60);

// Absent for an event that decides nothing.
std::optional<bool> connectedByEvent(std::string_view eventType) {
  if (eventType == DCConnectivityEventBytesReceived || eventType == DCConnectivityEventTaskCompleted) return true;
  if (eventType == DCConnectivityEventServerUnavailableError ||
      eventType == DCConnectivityEventNetworkUnavailableError) {
    return false;
  }
  return std::nullopt;
}

}  // namespace

std::string DCConnectivityTracker::serverFromURL(const URL& url) {
  DCLogTrace("+[DCConnectivityTracker serverFromURL:]", {{"url", url}});
  return format("%@://%@:%@", url.scheme(), url.host(), url.effectivePort());
}

std::shared_ptr<DCConnectivityTracker> DCConnectivityTracker::connectivityTrackerForService(
    const std::shared_ptr<DCService>& service) {
  DCLogTrace("+[DCConnectivityTracker connectivityTrackerForService:]", {{"service", service}});
  // Never destroyed: transfers may end while the process does.
  static auto& registry = *new DCServiceRegistry<DCConnectivityTracker>;
  std::string server = serverFromURL(service->url());
  return registry.objectForKey(server,
                               [&] { return std::make_shared<DCConnectivityTracker>(server, service->clock()); });
}

DCConnectivityTracker::DCConnectivityTracker(std::string server, Clock& clock)
    : server_(std::move(server)), clock_(clock), events_(std::make_unique<Events>(kEventLifetime, clock)) {
  DCLogTrace("-[DCConnectivityTracker initWithServer:]", {{"server", server_}});
}

void DCConnectivityTracker::addDelegate(const std::shared_ptr<DCConnectivityTrackerDelegate>& delegate) {
  DCLogTrace("-[DCConnectivityTracker addDelegate:]", {{"delegate", baseDescription("Delegate", delegate.get())}});
  std::lock_guard lock(mutex_);
  DelegateEntry& entry = delegates_[delegate.get()];
  entry.delegate = delegate;
  ++entry.count;
}

void DCConnectivityTracker::removeDelegate(const DCConnectivityTrackerDelegate* delegate) {
  DCLogTrace("-[DCConnectivityTracker removeDelegate:]", {{"delegate", baseDescription("Delegate", delegate)}});
  std::lock_guard lock(mutex_);
  auto entry = delegates_.find(delegate);
  if (entry != delegates_.end() && --entry->second.count == 0) delegates_.erase(entry);
}

bool DCConnectivityTracker::isConnected() const {
  DCLogTrace("-[DCConnectivityTracker isConnected]");
  std::lock_guard lock(mutex_);
  return isConnected_;
}

void DCConnectivityTracker::didStartTask(const URLSessionPtr& session, const URLSessionTaskPtr& task) {
  DCLogTrace("-[DCConnectivityTracker URLSession:didStartTask:]", {{"session", session}, {"task", task}});
  _addEvent(DCConnectivityEventTaskStarted, task);
}

void DCConnectivityTracker::didWriteData(const URLSessionPtr& session, const URLSessionTaskPtr& downloadTask,
                                         std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                         std::int64_t totalBytesExpectedToWrite) {
  DCLogTrace(
      "-[DCConnectivityTracker URLSession:downloadTask:didWriteData:totalBytesWritten:totalBytesExpectedToWrite:]",
      {{"session", session},
       {"downloadTask", downloadTask},
       {"bytesWritten", bytesWritten},
       {"totalBytesWritten", totalBytesWritten},
       {"totalBytesExpectedToWrite", totalBytesExpectedToWrite}});
  _addEvent(DCConnectivityEventBytesReceived, downloadTask);
}

void DCConnectivityTracker::didResumeAtOffset(const URLSessionPtr& session, const URLSessionTaskPtr& downloadTask,
                                              std::int64_t fileOffset, std::int64_t expectedTotalBytes) {
  DCLogTrace("-[DCConnectivityTracker URLSession:downloadTask:didResumeAtOffset:expectedTotalBytes:]",
             {{"session", session},
              {"downloadTask", downloadTask},
              {"fileOffset", fileOffset},
              {"expectedTotalBytes", expectedTotalBytes}});
}

void DCConnectivityTracker::didReceiveData(const URLSessionPtr& session, const URLSessionTaskPtr& dataTask,
                                           const Data& data) {
  DCLogTrace("-[DCConnectivityTracker URLSession:dataTask:didReceiveData:]",
             {{"session", session}, {"dataTask", dataTask}, {"data", data.description()}});
}

void DCConnectivityTracker::didReceiveResponse(const URLSessionPtr& session, const URLSessionTaskPtr& dataTask,
                                               const HTTPURLResponse& response) {
  DCLogTrace("-[DCConnectivityTracker URLSession:dataTask:didReceiveResponse:completionHandler:]",
             {{"session", session}, {"dataTask", dataTask}, {"response", response}});
  _addEvent(DCConnectivityEventBytesReceived, dataTask);
}

void DCConnectivityTracker::didFinishDownloadingToURL(const URLSessionPtr& session,
                                                      const URLSessionTaskPtr& downloadTask, const URL& location) {
  DCLogTrace("-[DCConnectivityTracker URLSession:downloadTask:didFinishDownloadingToURL:]",
             {{"session", session}, {"downloadTask", downloadTask}, {"location", location}});
  _addEvent(DCConnectivityEventTaskCompleted, downloadTask);
}

void DCConnectivityTracker::didCompleteWithError(const URLSessionPtr& session, const URLSessionTaskPtr& task,
                                                 const std::optional<Error>& error) {
  DCLogTrace("-[DCConnectivityTracker URLSession:task:didCompleteWithError:]",
             {{"session", session}, {"task", task}, {"error", error}});
  if (error) {
    _addEventWithError(error, task);
  } else {
    _addEvent(DCConnectivityEventTaskCompleted, task);
  }
}

std::string_view DCConnectivityTracker::_eventTypeForError(const Error& error) const {
  if (error.domain() == URLErrorDomain) {
    switch (error.code()) {
      // A cancelled task or a local file says nothing against the server.
      case URLErrorCancelled:
      case URLErrorCannotParseResponse:
      case URLErrorFileDoesNotExist:
      case URLErrorNoPermissionsToReadFile:
        return DCConnectivityEventTaskCompleted;
      case URLErrorDNSLookupFailed:
        return DCConnectivityEventNetworkUnavailableError;
      case URLErrorTimedOut:
      case URLErrorCannotConnectToHost:
      case URLErrorNetworkConnectionLost:
        return DCConnectivityEventServerUnavailableError;
      default:
        break;
    }
  }
  DCLogNotice("%@ unhandled error: %@", *this, error);
  return DCConnectivityEventServerUnavailableError;
}

void DCConnectivityTracker::_addEventWithError(const std::optional<Error>& error, const URLSessionTaskPtr& task) {
  std::optional<std::string_view> eventType;
  if (error) eventType = _eventTypeForError(*error);
  if (!eventType || !task) {
    DCLogError("bad data, eventType = %@, error = %@, task = %@ [in %s] (%@)", eventType, error, task,
               "-[DCConnectivityTracker _addEventWithError:task:]", *this);
    return;
  }
  _addEvent(eventType, task);
}

void DCConnectivityTracker::_addEvent(std::optional<std::string_view> eventType, const URLSessionTaskPtr& task) {
  if (!eventType || !task) {
    DCLogError("bad data, eventType = %@, task = %@ [in %s] (%@)", eventType, task,
               "-[DCConnectivityTracker _addEvent:task:]", *this);
    return;
  }
  std::lock_guard lock(mutex_);
  bool replaces = forgetEventOfTask(task.get());
  newestByTask_.insert_or_assign(task.get(), events_->addObject(*eventType, task));
  forgetExpiredTasks();
  // An undecided event that hides no other leaves everything as it is, so many tasks may start one after the other
  // without each walking past those before it.
  if (replaces || connectedByEvent(*eventType)) _recomputeConnectivityState();
}

// Since a task has only its newest event, the first that decides anything is the answer.
void DCConnectivityTracker::_recomputeConnectivityState() {
  std::optional<bool> connected;
  std::optional<Events::Entry> bad;
  events_->forEachFromNewest([&](const Events::Entry& event) {
    if (!event.metadata || !*event.metadata || event.object.empty()) {
      bad = event;
      return false;
    }
    connected = connectedByEvent(event.object);
    return !connected;
  });
  if (bad) {
    DCLogError("bad data, eventType = %@, eventDate = %@, task = %@ (%@)", bad->object, bad->date, bad->metadata,
               describe(events_->description()));
    events_ = std::make_unique<Events>(kEventLifetime, clock_);
    newestByTask_.clear();
    return;
  }
  if (!connected || *connected == isConnected_) return;
  isConnected_ = *connected;
  notifyDelegates();
}

// Posted under the lock, so that each delegate hears of the changes in their order; called on its service's queue.
void DCConnectivityTracker::notifyDelegates() {
  for (const auto& [address, entry] : delegates_) {
    auto delegate = entry.delegate.lock();
    if (!delegate) continue;
    auto queue = FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(
        delegate->service()->uniqueIdentifier());
    // The item takes the reference along: were it the last, the delegate must not go here, under the lock that its
    // destructor takes.
    queue->dispatchAsynchronousBlock(
        [tracker = shared_from_this(), delegate = std::move(delegate), connected = isConnected_] {
          DCLogCallback(DCLogLevelInfo, "%@: Calling delegate %@ using %@ at %s:%u", *tracker,
                        baseDescription("Delegate", delegate.get()),
                        "connectivityTracker:didUpdateConnectionStatus:", "notifyDelegates", __LINE__);
          delegate->didUpdateConnectionStatus(tracker, connected);
        });
  }
}

bool DCConnectivityTracker::forgetEventOfTask(const URLSessionTask* task) {
  auto newest = newestByTask_.find(task);
  return newest != newestByTask_.end() && events_->removeEntry(newest->second);
}

void DCConnectivityTracker::forgetExpiredTasks() {
  constexpr std::size_t kSlack = 64;
  if (newestByTask_.size() <= events_->count() + events_->count() / 4 + kSlack) return;
  auto oldest = events_->firstIdentifier();
  std::erase_if(newestByTask_, [&](const auto& newest) { return !oldest || newest.second < *oldest; });
}

std::string DCConnectivityTracker::describe(const std::string& events) const {
  Array delegates;
  for (const auto& [address, entry] : delegates_) delegates.append(baseDescription("Delegate", address));
  return format("<%@ server=%@, delegates=%@, events=%@, isConnected=%@>",
                baseDescription("DCConnectivityTracker", this), server_, DCStringFromCollection(delegates), events,
                isConnected_ ? "YES" : "NO");
}

std::string DCConnectivityTracker::description() const {
  std::lock_guard lock(mutex_);
  return describe(events_->description());
}

std::string DCConnectivityTracker::debugDescription() const {
  std::lock_guard lock(mutex_);
  return describe(events_->debugDescription());
}

}  // namespace florvane
