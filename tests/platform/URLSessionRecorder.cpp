#include "tests/platform/URLSessionRecorder.h"

namespace florvane::test {

namespace {

constexpr auto kPatience = std::chrono::seconds(30);

}  // namespace

URLSessionRecorder::Record& URLSessionRecorder::recordOf(const URLSessionTaskPtr& task) {
  auto [place, isNew] = records_.try_emplace(task.get());
  if (isNew) kept_.push_back(task);
  return place->second;
}

void URLSessionRecorder::note(SessionRef session, TaskRef task, const std::string& call,
                              const std::function<void(Record&)>& change) {
  if (onCall) onCall(call);
  std::lock_guard lock(mutex_);
  Record& record = recordOf(task);
  if (record.completions > 0 || invalid_.contains(session.get())) ++callsAfterEnd_;
  if (record.calls.empty() || record.calls.back() != call) record.calls.push_back(call);
  if (change) change(record);
  changed_.notify_all();
}

URLSessionRecorder::Record URLSessionRecorder::wait(const URLSessionTaskPtr& task) {
  std::unique_lock lock(mutex_);
  Record& record = recordOf(task);
  EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return record.completions > 0; })) << "the task does not end";
  return record;
}

void URLSessionRecorder::waitUntilInvalid(const URLSessionPtr& session) {
  std::unique_lock lock(mutex_);
  EXPECT_TRUE(changed_.wait_for(lock, kPatience, [&] { return invalid_.contains(session.get()); }))
      << "the session does not become invalid";
}

int URLSessionRecorder::challenges() const {
  std::lock_guard lock(mutex_);
  return challenges_;
}

int URLSessionRecorder::callsAfterEnd() const {
  std::lock_guard lock(mutex_);
  return callsAfterEnd_;
}

void URLSessionRecorder::didBecomeInvalidWithError(SessionRef session, const std::optional<Error>& error) {
  EXPECT_FALSE(error);
  std::lock_guard lock(mutex_);
  if (!invalid_.insert(session.get()).second) ++callsAfterEnd_;
  changed_.notify_all();
}

void URLSessionRecorder::didReceiveChallenge(SessionRef, const URLAuthenticationChallenge& challenge,
                                             const ChallengeCompletion& completionHandler) {
  {
    std::lock_guard lock(mutex_);
    ++challenges_;
  }
  URLCredential credential{challenge.serverTrust};
  completionHandler(judge ? judge(*challenge.serverTrust) : ChallengeDisposition::UseCredential, &credential);
}

std::optional<Error> URLSessionRecorder::shouldSendRequest(SessionRef, TaskRef, const ServerTrust* trust) {
  return mayBeSent ? mayBeSent(trust) : std::nullopt;
}

void URLSessionRecorder::didReceiveResponse(SessionRef session, TaskRef task, const HTTPURLResponse&) {
  note(session, task, "response");
}

void URLSessionRecorder::didReceiveData(SessionRef session, TaskRef task, const Data& data) {
  note(session, task, "data", [&](Record& record) { record.body += data.view(); });
}

void URLSessionRecorder::didWriteData(SessionRef session, TaskRef task, std::int64_t bytes, std::int64_t total,
                                      std::int64_t) {
  note(session, task, "write", [&](Record& record) {
    record.bytesWritten += bytes;
    EXPECT_EQ(record.bytesWritten, total);
  });
}

void URLSessionRecorder::didFinishDownloadingToURL(SessionRef session, TaskRef task, const URL& location) {
  std::string contents = readText(location.path());
  if (onDownload) onDownload(location);
  note(session, task, "finish", [&](Record& record) { record.body = contents; });
}

void URLSessionRecorder::didSendBodyData(SessionRef session, TaskRef task, std::int64_t bytes, std::int64_t total,
                                         std::int64_t) {
  note(session, task, "send", [&](Record& record) {
    record.bytesSent += bytes;
    EXPECT_EQ(record.bytesSent, total);
  });
}

void URLSessionRecorder::didCompleteWithError(SessionRef session, TaskRef task, const std::optional<Error>& error) {
  EXPECT_EQ(task->state(), URLSessionTaskState::Completed);
  note(session, task, "complete", [&](Record& record) {
    record.error = error;
    ++record.completions;
  });
}

URLSessionTest::~URLSessionTest() {
  for (const auto& session : sessions_) session->invalidateAndCancel();
  EXPECT_EQ(recorder_->callsAfterEnd(), 0);
}

URLSessionPtr URLSessionTest::makeSession(URLSessionConfiguration configuration) {
  configuration.downloadDirectory = directory_.path();
  sessions_.push_back(URLSession::create(std::move(configuration), recorder_));
  return sessions_.back();
}

URLRequest URLSessionTest::request(const std::string& url, const std::string& method, std::optional<std::string> body) {
  URLRequest made(URL::fromString(url).value());
  made.method = method;
  if (body) made.body = Data::fromString(*body);
  return made;
}

URLSessionRecorder::Record URLSessionTest::run(const URLSessionTaskPtr& task) {
  task->resume();
  return recorder_->wait(task);
}

URLSessionRecorder::Record URLSessionTest::get(const URLSessionPtr& session, const std::string& url) {
  return run(session->dataTask(request(url)));
}

URLSessionRecorder::Record URLSessionTest::download(const URLSessionPtr& session, const std::string& url) {
  return run(session->downloadTask(request(url)));
}

}  // namespace florvane::test
