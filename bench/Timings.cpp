#include "bench/Timings.h"

#include <cstdio>
#include <cstdlib>
#include <future>

#include <sys/resource.h>

namespace florvane::bench {

void fail(const std::string& what) {
  std::fprintf(stderr, "timings: %s\n", what.c_str());
  std::_Exit(1);
}

void report(const std::string& what, double milliseconds, std::size_t items) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("{\"what\": \"%s\", \"milliseconds\": %.3f, \"items\": %zu, \"mebibytes\": %ld}\n", what.c_str(),
              milliseconds, items, usage.ru_maxrss / 1024);
}

void report(const std::string& what, std::chrono::steady_clock::time_point since, std::size_t items) {
  report(what, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count(), items);
}

Client::Client(const std::string& accountName) {
  auto store = AccountStore::shared();
  if (!store) fail(store.error().description());
  auto account = (*store)->accountWithName(accountName);
  if (!account || !*account) fail("no account " + accountName);
  DCDocumentManager::setPurposeIdentifier("timings");
  service_ = DCService::serviceWithAccount(*account);
  manager_ = DCDocumentManager::documentManagerForService(service_);
  manager_->setCompletionHandlerQueue(SerialQueue::create("answers"));
}

Array Client::list(const std::string& path, bool waitsForServer) const {
  std::promise<Array> promise;
  if (waitsForServer) manager_->_synchronousNextContentsOfDirectory();
  manager_->contentsOfDirectoryAtPath(path, [&](DCDocumentManagerFreshnessState, const std::optional<Array>& contents,
                                                const std::optional<Error>& error) {
    if (error) fail(error->description());
    promise.set_value(contents.value_or(Array()));
  });
  return promise.get_future().get();
}

void Client::listAncestors(const std::string& path) const {
  if (path.empty()) return;
  const auto slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? std::string() : path.substr(0, slash);
  listAncestors(parent);
  list(parent, true);
}

}  // namespace florvane::bench
