// Lists a folder of an account that was added with "florvane account add": at once what the cache has, and then what
// the server says. Run it as: list-folder ACCOUNT [PATH]

#include "Client/Client/Florvane.h"

#include <algorithm>
#include <cstdio>

using namespace florvane;

namespace {

// Prints names, and the state: 1 from the cache, a refresh is under way; 2 nobody knows how fresh; 4 as the server has
// it.
void print(DCDocumentManager::State state, const std::optional<Array>& contents, const std::optional<Error>& error) {
  if (error) std::printf("%s\n", error->localizedDescription().c_str());
  const Array entries = contents.value_or(Array());
  std::printf("state %d, %zu item(s)\n", static_cast<int>(state), entries.size());
  for (const Value& entry : entries) {
    std::printf("  %s\n", entry.asDictionary()->string(ResourceNameKey).value_or("").c_str());
  }
}

// Asks the server for every folder on the way to the path: a path is known once the folder above it was listed.
void refresh(const DCDocumentManager::Ptr& manager, const std::string& path, std::size_t end) {
  manager->refreshItemAtPath(path.substr(0, end), [=](const std::optional<Error>& error) {
    if (error) std::printf("%s\n", error->localizedDescription().c_str());
    if (end < path.size()) return refresh(manager, path, std::min(path.find('/', end + 1), path.size()));
    manager->contentsOfDirectoryAtPath(path, [](auto state, const auto& contents, const auto& failure) {
      print(state, contents, failure);
      stopMainQueue(failure ? 1 : 0);
    });
  });
}

}  // namespace

int main(int argc, char** argv) {
  auto store = AccountStore::shared();
  auto account = store && argc > 1 ? (*store)->accountWithName(argv[1]) : Result<std::optional<Account>>(std::nullopt);
  if (!account || !*account) {
    std::fprintf(stderr, "usage: list-folder ACCOUNT [PATH]\n");
    return 2;
  }
  const std::string path = argc > 2 ? argv[2] : "";
  auto manager = DCDocumentManager::documentManagerForService(DCService::serviceWithAccount(*account));
  manager->contentsOfDirectoryAtPath(path, print);
  refresh(manager, path, 0);
  return runMainQueue();  // where handlers arrive, unless another queue is set
}
