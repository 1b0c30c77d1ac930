// Lists a folder of an account that was added with "florvane account add": at once what the cache has, and then what
// the server says. Run it as: list-folder ACCOUNT [PATH]

#include "Client/Client/Florvane.h"

#include <cstdio>

using namespace florvane;

static void print(DCDocumentManager::State state, const std::optional<Array>& contents,
                  const std::optional<Error>& error) {
  std::puts(error ? error->localizedDescription().c_str() : state == 4 ? "On the server:" : "In the cache:");
  for (std::size_t i = 0; contents && i < contents->size(); ++i) {
    std::printf("  %s\n", (*contents)[i].asDictionary()->string(ResourceNameKey).value_or("").c_str());
  }
}

// Asks the server for every folder on the way: a path is known once the folder above it was listed.
static void refresh(const DCDocumentManager::Ptr& manager, const std::string& path, std::size_t end) {
  manager->refreshItemAtPath(path.substr(0, end), [=](const std::optional<Error>& error) {
    if (!error && end < path.size()) return refresh(manager, path, std::min(path.find('/', end + 1), path.size()));
    manager->contentsOfDirectoryAtPath(path, [=](auto state, const auto& contents, const auto& failure) {
      print(state, contents, error ? error : failure);
      stopMainQueue(error || failure ? 1 : 0);
    });
  });
}

int main(int argc, char** argv) {
  auto store = AccountStore::shared();
  auto account =
      store.and_then([&](const auto& accounts) { return accounts->accountWithName(argc > 1 ? argv[1] : ""); });
  if (!account || !*account) return std::puts("Usage: list-folder ACCOUNT [PATH]"), 2;
  auto manager = DCDocumentManager::documentManagerForService(DCService::serviceWithAccount(*account));
  const std::string path = argc > 2 ? argv[2] : "";
  manager->contentsOfDirectoryAtPath(path, print);
  refresh(manager, path, 0);
  return runMainQueue();  // where handlers arrive, unless another queue is set
}
