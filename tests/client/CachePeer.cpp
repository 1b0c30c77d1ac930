// Another process of the container (named by the environment), to be killed: downloads "a", writes "b" and moves the
// unsent file with the identifier "C" between "c" and "d", for ever. Prints the number of each write that was done.

#include "Client/Client/DCCachedItemManager.h"
#include "Client/Client/DCDatabase.h"
#include "common/FVFMetadataUtils.h"
#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"

#include <cstdio>
#include <string>

using namespace florvane;

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int number = std::stoi(argv[1]);
  auto service = DCService::serviceWithHostName("host", "service");
  auto manager = DCCachedItemManager::cachedItemManagerForService(service);
  manager->setPurposeIdentifier("peer");
  auto path = [&](const std::string& name) { return DCRelativePath::relativePathWithString(name, service); };
  const std::string body = *DUTemporaryDirectory() + "/body", source = *DUTemporaryDirectory() + "/source";
  for (;; ++number) {
    const char letter = static_cast<char>('a' + number % 26);
    if (!writeFileAtomically(body, Data::fromString(std::string(65536, letter)))) return 1;
    const Dictionary metadata{{ResourceNameKey, "a"},
                              {FVDocumentIdentifierKey, Data::fromString("A")},
                              {FVVersionIdentifierKey, Data::fromString(std::to_string(number))},
                              {ResourceContentModificationDateKey, Date::fromSeconds(1'000'000'000 + number)}};
    auto a = manager->file(path("a"));
    a->prepareForDownload();
    if (!manager->updateItem(a, {URL::fileURL(body), FVFResponseContainerTransferTypeFull, metadata})) return 1;

    if (!writeFileAtomically(source, Data::fromString(std::string(8192, ' ') + std::to_string(number)))) return 1;
    if (!manager->file(path("b"))->updateFileFromURL(URL::fileURL(source))) return 1;
    std::printf("%d\n", number);
    std::fflush(stdout);

    const auto places = DCDatabase::databaseForService(service)->pathsForDocumentIdentifier(Data::fromString("C"));
    if (places.size() != 1) return 1;
    manager->moveItem(manager->file(path(places.front())), {}, {}, path(places.front() == "c" ? "d" : "c"));
  }
}
