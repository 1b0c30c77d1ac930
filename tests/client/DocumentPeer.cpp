// Another process of the container (named by the environment) that works with its first account:
//   ls PATH     refreshes the listing of a directory, and prints its state and names
//   seen PATH   prints the listing as it is kept, without a refresh
//   cat PATH    prints state and contents of a file

#include "Client/Client/DCDocumentManager.h"
#include "platform/AccountStore.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <cstdio>
#include <future>
#include <string>
#include <vector>

using namespace florvane;

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  auto store = AccountStore::shared();
  auto accounts = store ? (*store)->accounts() : Result<std::vector<Account>>(Failure(store.error()));
  if (arguments.size() != 2 || !accounts || accounts->empty()) return 2;
  auto manager = DCDocumentManager::documentManagerForService(DCService::serviceWithAccount(accounts->front()));
  manager->setCompletionHandlerQueue(SerialQueue::create("answers"));
  std::promise<int> done;
  if (arguments[0] == "cat") {
    manager->contentsOfFileAtPath(arguments[1], [&](auto state, const auto& url, const auto& error) {
      auto bytes = url ? readFile(url->path()) : Result<Data>(Failure(Error::posix(ENOENT)));
      std::printf("%d %s", static_cast<int>(state), bytes ? std::string(bytes->view()).c_str() : "(none)");
      done.set_value(error ? 1 : 0);
    });
  } else {
    if (arguments[0] == "ls") manager->_synchronousNextContentsOfDirectory();
    manager->contentsOfDirectoryAtPath(arguments[1], [&](auto state, const auto& contents, const auto& error) {
      std::printf("%d", static_cast<int>(state));
      const Array entries = contents.value_or(Array());
      for (const Value& entry : entries) {
        std::printf(" %s", entry.asDictionary()->string(ResourceNameKey).value_or("(none)").c_str());
      }
      done.set_value(error ? 1 : 0);
    });
  }
  int status = done.get_future().get();
  // The answer comes before its date is noted: a turn of the queue that does it.
  (void)manager->hasPendingUploads();
  std::fflush(stdout);
  std::_Exit(status);
}
