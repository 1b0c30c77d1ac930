// Another process of the container (named by the environment), for the tests of the metadata database.
//   retries COUNT  sets the retry count of the upload of "shared" to 1, 2, ... COUNT, a save each
//   paths COUNT    gives the paths "path-0" ... an identifier each
//   slow NAME      queues the upload NAME; prints "waiting", and reads a line, before each wait for the disk
//   queue NAME     queues uploads "NAME-0", "NAME-1", ... for ever and prints the number of each that is saved

#include "Client/Client/DCDatabase.h"

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

using namespace florvane;

namespace {

bool isSlow = false;

}  // namespace

// In place of the C library's, also for what SQLite calls.
extern "C" int fdatasync(int descriptor) {
  if (isSlow) {
    std::cout << "waiting" << std::endl;
    std::string line;
    std::getline(std::cin, line);
  }
  return static_cast<int>(syscall(SYS_fdatasync, descriptor));
}

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
  } else if (command == "slow") {
    isSlow = true;
    saved = database->saveUploadFileURL(URL::fileURL("/file"), arguments[1]).has_value();
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
