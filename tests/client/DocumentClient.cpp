#include "tests/client/DocumentClient.h"

#include "Client/Client/DCLog.h"
#include "platform/AccountStore.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>

namespace florvane::test {

namespace {

std::shared_ptr<DCService> makeService(std::uint16_t port, const std::string& user, const std::string& password,
                                       Clock& clock) {
  Account account;
  account.name = "office";
  account.userName = user;
  account.hostName = "127.0.0.1";
  account.dataClassPortNumber = port;
  auto store = AccountStore::shared();
  if (!store) throw std::runtime_error(store.error().description());
  auto added = (*store)->add(account, Secret(password));
  if (!added) throw std::runtime_error(added.error().description());
  return DCService::serviceWithAccount(*added, clock);
}

// Waits for the handler's arguments.
template <typename T, typename Operation>
Answer<T> wait(const Operation& operation) {
  auto promise = std::make_shared<std::promise<Answer<T>>>();
  operation([promise](DCDocumentManager::State state, const std::optional<T>& value,
                      const std::optional<Error>& error) { promise->set_value({state, value, error}); });
  return promise->get_future().get();
}

}  // namespace

DocumentClient::DocumentClient(std::uint16_t port, const std::string& user, const std::string& password)
    : clock(*new ManualClock(Date::now())),
      queue(SerialQueue::create("answers")),
      service(makeService(port, user, password, clock)),
      manager(DCDocumentManager::documentManagerForService(service)) {
  manager->setCompletionHandlerQueue(queue);
  // What is downloaded is told at this level.
  dc_log_set_level(dc_log_default_category(), DCLogLevelInfo);
}

Answer<Array> DocumentClient::list(const std::string& path) {
  return wait<Array>([&](const auto& handler) { manager->contentsOfDirectoryAtPath(path, handler); });
}

Answer<Array> DocumentClient::listFresh(const std::string& path) {
  manager->_synchronousNextContentsOfDirectory();
  return list(path);
}

Answer<Dictionary> DocumentClient::attributes(const std::string& path) {
  return wait<Dictionary>([&](const auto& handler) { manager->attributesOfItemAtPath(path, handler); });
}

Answer<URL> DocumentClient::read(const std::string& path) {
  return wait<URL>([&](const auto& handler) { manager->contentsOfFileAtPath(path, handler); });
}

Answer<URL> DocumentClient::thumbnail(const std::string& path) {
  return wait<URL>([&](const auto& handler) { manager->thumbnailOfItemAtPath(path, handler); });
}

Answer<URL> DocumentClient::preview(const std::string& path) {
  return wait<URL>([&](const auto& handler) { manager->previewOfItemAtPath(path, handler); });
}

std::optional<Error> DocumentClient::refresh(const std::string& path) {
  auto promise = std::make_shared<std::promise<std::optional<Error>>>();
  manager->refreshItemAtPath(path, [promise](const std::optional<Error>& error) { promise->set_value(error); });
  return promise->get_future().get();
}

std::string DocumentClient::text(const Answer<URL>& answer) {
  if (!answer.value) return "(none)";
  auto bytes = readFile(answer.value->path());
  return bytes ? std::string(bytes->view()) : "(missing)";
}

std::vector<std::string> DocumentClient::names(const Answer<Array>& answer) {
  std::vector<std::string> names;
  if (!answer.value) return names;
  for (const Value& each : *answer.value)
    names.push_back(each.asDictionary()->string(ResourceNameKey).value_or("(none)"));
  return names;
}

std::optional<Dictionary> DocumentClient::entry(const Answer<Array>& answer, const std::string& name) {
  if (!answer.value) return std::nullopt;
  for (const Value& each : *answer.value) {
    auto fields = each.asDictionary();
    if (fields && fields->string(ResourceNameKey) == name) return fields;
  }
  return std::nullopt;
}

void DocumentClient::settle(const std::string& path) {
  (void)refresh(path);
  queue->sync([] {});
}

std::vector<SystemLogMessage> DocumentClient::messages() const {
  static std::atomic<int> number = 0;
  const std::string mark = "mark " + std::to_string(++number);
  DCLogError("%s", mark);
  (void)log.waitFor(mark);
  return log.messages();
}

std::vector<std::string> DocumentClient::assertions(const std::vector<std::string>& expected) const {
  std::vector<std::string> texts;
  const auto logged = messages();
  for (const auto& message : logged) {
    const bool isExpected = std::any_of(expected.begin(), expected.end(), [&](const std::string& part) {
      return message.text.find(part) != std::string::npos;
    });
    if (message.text.find("failed assertion") != std::string::npos && !isExpected) texts.push_back(message.text);
  }
  return texts;
}

std::size_t DocumentClient::countOf(std::string_view part) const {
  std::size_t count = 0;
  const auto logged = messages();
  for (const auto& message : logged) count += message.text.find(part) != std::string::npos ? 1 : 0;
  return count;
}

bool RecordingDelegate::respondsToSelector(std::string_view selector) const {
  std::lock_guard lock(mutex_);
  return denied_.empty() || selector != denied_;
}

void RecordingDelegate::didUpdateContentsOfDirectoryAtPath(Manager /*manager*/, const std::string& path,
                                                           const Array& contents) {
  {
    std::lock_guard lock(mutex_);
    contents_ = contents;
  }
  add("contents " + path);
}

void RecordingDelegate::didUpdateAttributesOfItemAtPath(Manager /*manager*/, const std::string& path,
                                                        const Dictionary& /*attributes*/) {
  add("attributes " + path);
}

void RecordingDelegate::didUpdateContentsOfFileAtPath(Manager /*manager*/, const std::string& path) {
  add("file " + path);
}

void RecordingDelegate::didUpdateThumbnailOfFileAtPath(Manager /*manager*/, const std::string& path,
                                                       const URL& /*url*/) {
  add("thumbnail " + path);
}

void RecordingDelegate::didFailToUpdateItemAtPath(Manager /*manager*/, const std::string& path, const Error& error) {
  add("failed " + path + " " + std::to_string(error.code()));
}

void RecordingDelegate::didStartDownloadingItemAtPath(Manager /*manager*/, const std::string& path,
                                                      const DCServerRequest::Ptr& /*task*/) {
  add("started " + path);
}

std::vector<std::string> RecordingDelegate::take() {
  std::lock_guard lock(mutex_);
  return std::exchange(events_, {});
}

void RecordingDelegate::waitFor(const std::string& event) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return std::find(all_.begin(), all_.end(), event) != all_.end(); });
}

void RecordingDelegate::deny(const std::string& selector) {
  std::lock_guard lock(mutex_);
  denied_ = selector;
}

Array RecordingDelegate::lastContents() const {
  std::lock_guard lock(mutex_);
  return contents_;
}

void RecordingDelegate::add(const std::string& event) {
  std::lock_guard lock(mutex_);
  events_.push_back(event);
  all_.push_back(event);
  changed_.notify_all();
}

}  // namespace florvane::test
