// Another process of the container (named by the environment), for the tests of the metadata database.
//   retries COUNT  sets the retry count of the upload of "shared" to 1, 2, ... COUNT, a save each
//   paths COUNT    gives the paths "path-0" ... an identifier each
//   queue NAME     queues uploads "NAME-0", "NAME-1", ... for ever and prints the number of each that is saved

#include "Client/Client/DCDatabase.h"

#include <cstdio>
#include <string>
#include <vector>

using namespace florvane;

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 2) return 2;
  const std::string& command = arguments[0];
  auto database = DCDatabase::databaseForService(DCService::serviceWithHostName("host", "service"));
  bool saved = true;
  if (command == "retries") {
    auto upload = database->uploadForPath("shared");
    for (int i = 1; upload && i <= std::stoi(arguments[1]); ++i) {
      upload->setNumberOfRetries(i);
      saved = database->save().has_value() && saved;
    }
  } else if (command == "paths") {
    for (int i = 0; i < std::stoi(arguments[1]); ++i) {
      saved = database->setDocumentIdentifier(Data::fromString("peer"), "path-" + std::to_string(i)) && saved;
    }
  } else if (command == "queue") {
    for (int i = 0;; ++i) {
      const std::string path = arguments[1] + "-" + std::to_string(i);
      if (!database->saveUploadFileURL(URL::fileURL("/file"), path)) return 1;
      std::printf("%d\n", i);
      std::fflush(stdout);
    }
  }
  return saved ? 0 : 1;
}
