// Times what an application waits for when it writes, inside the process. bench/compare holds the figures against other
// programs. Prints one JSON object a line: milliseconds, and the peak of the process's memory in mebibytes.
//   upload_timings CONTAINER ACCOUNT put LOCAL PATH    writes every file below the folder LOCAL, each when the one
//                                                      before has been answered, to the folders of the same names below
//                                                      PATH; then waits until all are on the server
//   upload_timings CONTAINER ACCOUNT queue LOCAL PATH  the same with folders that are known already, and no waiting
//   upload_timings CONTAINER ACCOUNT drain             goes on with what earlier processes wrote, until all is sent;
//   the
//                                                      server answers again

#include "Client/Client/DCBackgroundSessionManager.h"
#include "bench/Timings.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace florvane;         // NOLINT(google-build-using-namespace): a small program
using namespace florvane::bench;  // NOLINT(google-build-using-namespace)
using Clock = std::chrono::steady_clock;

constexpr auto kLookInterval = std::chrono::milliseconds(20);

// Relative to the folder, sorted.
std::vector<std::string> filesBelow(const std::string& folder) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path().lexically_relative(folder).string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void write(const Client& client, const std::string& local, const std::string& path) {
  std::promise<void> answered;
  client.manager().writeToFileAtPath(path, URL::fileURL(local),
                                     [&](const std::optional<URL>&, const std::optional<Error>& error) {
                                       if (error) fail(path + ": " + error->description());
                                       answered.set_value();
                                     });
  answered.get_future().get();
}

void waitUntilSent(const Client& client) {
  const auto database = DCDatabase::databaseForService(client.service());
  while (database->numberOfPendingUploads() > 0) std::this_thread::sleep_for(kLookInterval);
}

void put(const Client& client, const std::string& local, const std::string& path, bool waits) {
  const auto files = filesBelow(local);
  const std::string localPrefix = local + "/", prefix = path + "/";
  if (waits) {
    client.listAncestors(path);
    client.list(path, true);
  }
  std::vector<double> answers;
  answers.reserve(files.size());
  const auto begin = Clock::now();
  for (const std::string& file : files) {
    const auto asked = Clock::now();
    write(client, localPrefix + file, prefix + file);
    answers.push_back(std::chrono::duration<double, std::milli>(Clock::now() - asked).count());
  }
  report("written", begin, files.size());
  if (waits) {
    waitUntilSent(client);
    report("sent", begin, files.size());
  }
  std::nth_element(answers.begin(), answers.begin() + static_cast<std::ptrdiff_t>(answers.size() / 2), answers.end());
  report("answered", answers[answers.size() / 2], answers.size());
}

void drain(const Client& client) {
  const auto begin = Clock::now();
  const std::size_t count = DCDatabase::databaseForService(client.service())->numberOfPendingUploads();
  client.manager().restartUploads();
  const URL url = client.service()->url();
  DCBackgroundSessionManager::backgroundSessionManagerForService(client.service(), DCMainBundleIdentifier())
      ->backgroundSession()
      ->retryWaitingTasks(url.host(), url.effectivePort());
  waitUntilSent(client);
  report("drained", begin, count);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 3 ? argv[3] : "";
  const bool puts = argc == 6 && (command == "put" || command == "queue");
  const bool drains = argc == 4 && command == "drain";
  if (!puts && !drains) {
    fail("usage: upload_timings CONTAINER ACCOUNT put LOCAL PATH | queue LOCAL PATH | drain");
  }
  Container::setDirectory(argv[1]);
  const Client client(argv[2]);
  if (puts) {
    put(client, argv[4], argv[5], command == "put");
  } else {
    drain(client);
  }
  (void)std::fflush(nullptr);
  std::_Exit(0);
}
