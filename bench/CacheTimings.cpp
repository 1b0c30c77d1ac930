// Times what an application waits for, inside the process: from an operation of the document manager to its handler.
// bench/compare holds the figures against other programs. Prints one JSON object a line: milliseconds, and the peak of
// the process's memory in mebibytes.
//   cache_timings CONTAINER ACCOUNT list PATH    a listing confirmed by the server
//   cache_timings CONTAINER ACCOUNT cached PATH  the first answer of a listing, from the disk
//   cache_timings CONTAINER ACCOUNT stat PATH    the first answer about an item, the opening of the container included
//   cache_timings CONTAINER ACCOUNT walk PATH    a listing of every directory below, one after the other
//   cache_timings CONTAINER ACCOUNT read PATH    every file of a directory, all asked for at once; then once more

#include "bench/Timings.h"

#include <cstdio>
#include <cstdlib>
#include <future>
#include <latch>
#include <string>

namespace {

using namespace florvane;         // NOLINT(google-build-using-namespace): a small program
using namespace florvane::bench;  // NOLINT(google-build-using-namespace)
using Moment = std::chrono::steady_clock::time_point;

class Timings : public Client {
 public:
  using Client::Client;

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
    manager().attributesOfItemAtPath(path, [&](DCDocumentManagerFreshnessState, const std::optional<Dictionary>&,
                                               const std::optional<Error>& error) {
      if (error) fail(error->description());
      promise.set_value();
    });
    promise.get_future().get();
  }

  void readAll(const std::string& path, const Array& files) {
    std::latch left(static_cast<std::ptrdiff_t>(files.size()));
    for (const Value& file : files) {
      manager().contentsOfFileAtPath(
          path + "/" + file.asDictionary()->string(ResourceNameKey).value_or(""),
          [&](DCDocumentManagerFreshnessState, const std::optional<URL>& url, const std::optional<Error>& error) {
            if (error || !url) fail(error ? error->description() : "no contents");
            left.count_down();
          });
    }
    left.wait();
  }
};

void run(const std::string& account, const std::string& command, const std::string& path) {
  const Moment begin = std::chrono::steady_clock::now();
  Timings timings(account);
  if (command == "stat") {
    timings.stat(path);
    report("stat", begin, 1);
    return;
  }
  if (command != "cached") timings.listAncestors(path);
  const Moment asked = std::chrono::steady_clock::now();
  if (command == "walk") {
    const std::size_t count = timings.walk(path);
    report("walk", asked, count);
    return;
  }
  const Array items = timings.list(path, command != "cached");
  if (command != "read") {
    report(command, asked, items.size());
    return;
  }
  for (const char* what : {"read", "read again"}) {
    const Moment reading = std::chrono::steady_clock::now();
    timings.readAll(path, items);
    report(what, reading, items.size());
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
