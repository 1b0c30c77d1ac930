#pragma once

#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCError.h"
#include "tests/support/ManualClock.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane::test {

// What an operation of the facade answered.
template <typename T>
struct Answer {
  std::int64_t state = 0;
  std::optional<T> value;
  std::optional<Error> error;
  bool failedWith(std::int64_t code) const { return error && error->is(DCErrorDomain, code); }
};

// A container, an account in it, and that account's document manager with a clock that the test moves; for tests that
// wait for answers. Answers come on a queue of its own.
class DocumentClient {
 public:
  explicit DocumentClient(std::uint16_t port, const std::string& user = "ada",
                          const std::string& password = "Notes by the Translator: G");

  Answer<Array> list(const std::string& path);
  // The listing that follows a refresh.
  Answer<Array> listFresh(const std::string& path);
  Answer<Dictionary> attributes(const std::string& path);
  Answer<URL> read(const std::string& path);
  Answer<URL> thumbnail(const std::string& path);
  Answer<URL> preview(const std::string& path);
  std::optional<Error> refresh(const std::string& path);
  // The bytes at a local URL.
  static std::string text(const Answer<URL>& answer);
  static std::vector<std::string> names(const Answer<Array>& answer);
  static std::optional<Dictionary> entry(const Answer<Array>& answer, const std::string& name);
  // Everything that is on its way has ended when this returns: refreshes that were started, and their delegates' calls.
  void settle(const std::string& path);
  // What was logged until now; messages take a turn of the log's queue to arrive.
  std::vector<SystemLogMessage> messages() const;
  // Soft assertions that were logged, with those of the texts left out.
  std::vector<std::string> assertions(const std::vector<std::string>& expected = {}) const;
  std::size_t countOf(std::string_view part) const;

  RecordingSystemLog log;
  const TestContainer container;
  // Kept for the life of the process, since what is made for a service is, too.
  ManualClock& clock;
  std::shared_ptr<SerialQueue> queue;
  std::shared_ptr<DCService> service;
  DCDocumentManager::Ptr manager;
};

// Keeps what it is told, each as "word path".
class RecordingDelegate : public DCDocumentManagerDelegate {
 public:
  bool respondsToSelector(std::string_view selector) const override;
  void didUpdateContentsOfDirectoryAtPath(Manager manager, const std::string& path, const Array& contents) override;
  void didUpdateAttributesOfItemAtPath(Manager manager, const std::string& path, const Dictionary& attributes) override;
  void didUpdateContentsOfFileAtPath(Manager manager, const std::string& path) override;
  void didUpdateThumbnailOfFileAtPath(Manager manager, const std::string& path, const URL& url) override;
  void didFailToUpdateItemAtPath(Manager manager, const std::string& path, const Error& error) override;
  void didStartDownloadingItemAtPath(Manager manager, const std::string& path,
                                     const DCServerRequest::Ptr& task) override;

  // What came since the last call.
  std::vector<std::string> take();
  void waitFor(const std::string& event);
  void deny(const std::string& selector);
  Array lastContents() const;

 private:
  void add(const std::string& event);
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
  std::vector<std::string> all_;
  std::string denied_;
  Array contents_;
};

}  // namespace florvane::test
