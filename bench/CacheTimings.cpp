// Times what an application waits for, inside the process: from an operation of the document manager to its handler.
// bench/compare holds the figures against other programs. Prints one JSON object a line: milliseconds, and the peak of
// the process's memory in mebibytes.
//   cache_timings CONTAINER ACCOUNT list PATH    a listing confirmed by the server
//   cache_timings CONTAINER ACCOUNT cached PATH  the first answer of a listing, from the disk
//   cache_timings CONTAINER ACCOUNT stat PATH    the first answer about an item, the opening of the container included
//   cache_timings CONTAINER ACCOUNT walk PATH    a listing of every directory below, one after the other
//   cache_timings CONTAINER ACCOUNT read PATH    every file of a directory, all asked for at once; then once more

#include "Client/Client/Florvane.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <latch>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace {

using namespace florvane;  // NOLINT(google-build-using-namespace): a small program
using Moment = std::chrono::steady_clock::time_point;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "cache_timings: %s\n", what.c_str());
  std::_Exit(1);
}

double millisecondsSince(Moment begin) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

void report(const char* what, double milliseconds, std::size_t items) {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("{\"what\": \"%s\", \"milliseconds\": %.3f, \"items\": %zu, \"mebibytes\": %ld}\n", what, milliseconds,
              items, usage.ru_maxrss / 1024);
}

class Timings {
 public:
  explicit Timings(const std::string& accountName) {
    auto store = AccountStore::shared();
    if (!store) fail(store.error().description());
    auto account = (*store)->accountWithName(accountName);
    if (!account || !*account) fail("no account " + accountName);
    DCDocumentManager::setPurposeIdentifier("timings");
    manager_ = DCDocumentManager::documentManagerForService(DCService::serviceWithAccount(*account));
    manager_->setCompletionHandlerQueue(SerialQueue::create("answers"));
  }

  Array list(const std::string& path, bool waitsForServer) {
    std::promise<Array> promise;
    if (waitsForServer) manager_->_synchronousNextContentsOfDirectory();
    manager_->contentsOfDirectoryAtPath(path, [&](DCDocumentManagerFreshnessState, const std::optional<Array>& contents,
                                                  const std::optional<Error>& error) {
      if (error) fail(error->description());
      promise.set_value(contents.value_or(Array()));
    });
    return promise.get_future().get();
  }

  // The directories above a path have to be known before it can be asked for.
  void listAncestors(const std::string& path) {
    if (path.empty()) return;
    const auto slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : path.substr(0, slash);
    listAncestors(parent);
    list(parent, true);
  }

  std::size_t walk(const std::string& path) {
    const Array items = list(path, true);
    std::size_t count = items.size();
    for (const Value& each : items) {
      const auto item = each.asDictionary();
      if (item->string(ResourceFileResourceTypeKey) != ResourceTypeDirectory) continue;
      count += walk(path + "/" + item->string(ResourceNameKey).value_or(""));
    }
    return count;
  }

  void stat(const std::string& path) {
    std::promise<void> promise;
    manager_->attributesOfItemAtPath(path, [&](DCDocumentManagerFreshnessState, const std::optional<Dictionary>&,
                                               const std::optional<Error>& error) {
      if (error) fail(error->description());
      promise.set_value();
    });
    promise.get_future().get();
  }

  void readAll(const std::string& path, const Array& files) {
    std::latch left(static_cast<std::ptrdiff_t>(files.size()));
    for (const Value& file : files) {
      manager_->contentsOfFileAtPath(
          path + "/" + file.asDictionary()->string(ResourceNameKey).value_or(""),
          [&](DCDocumentManagerFreshnessState, const std::optional<URL>& url, const std::optional<Error>& error) {
            if (error || !url) fail(error ? error->description() : "no contents");
            left.count_down();
          });
    }
    left.wait();
  }

 private:
  DCDocumentManager::Ptr manager_;
};

void run(const std::string& account, const std::string& command, const std::string& path) {
  const Moment begin = std::chrono::steady_clock::now();
  Timings timings(account);
  if (command == "stat") {
    timings.stat(path);
    report("stat", millisecondsSince(begin), 1);
    return;
  }
  if (command != "cached") timings.listAncestors(path);
  const Moment asked = std::chrono::steady_clock::now();
  if (command == "walk") {
    const std::size_t count = timings.walk(path);
    report("walk", millisecondsSince(asked), count);
    return;
  }
  const Array items = timings.list(path, command != "cached");
  if (command != "read") {
    report(command.c_str(), millisecondsSince(asked), items.size());
    return;
  }
  for (const char* what : {"read", "read again"}) {
    const Moment reading = std::chrono::steady_clock::now();
    timings.readAll(path, items);
    report(what, millisecondsSince(reading), items.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) fail("usage: cache_timings CONTAINER ACCOUNT list|cached|stat|walk|read PATH");
  Container::setDirectory(argv[1]);
  run(argv[2], argv[3], argv[4]);
  (void)std::fflush(nullptr);
  std::_Exit(0);
}
