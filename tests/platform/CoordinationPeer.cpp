// Another process of the container, for the file coordinator's tests. Its purpose identifier is "peer".
//   hold FOLDER read|write|tree PATH    says "held" and holds the item until its input ends
//   increment FOLDER PATH COUNT         adds 1 to the number in the file, COUNT times, each a coordinated write
//   delete FOLDER PATH, move FOLDER FROM TO

#include "platform/FileCoordinator.h"
#include "tests/platform/Increment.h"

#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

using florvane::FileCoordinator;
using florvane::FileCoordinatorReadingOptions;
using florvane::FilePresenters;
using florvane::NotificationCenter;
using florvane::URL;
using Writing = florvane::FileCoordinatorWritingOptions;

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < 3) return 2;
  const std::string& command = arguments[0];
  const std::string& folder = arguments[1];
  NotificationCenter center(folder + "/Notifications");
  FilePresenters presenters(center);
  FileCoordinator coordinator("peer", folder, presenters);
  URL url = URL::fileURL(arguments[2]);
  bool done = false;
  if (command == "hold") {
    url = URL::fileURL(arguments[3]);
    auto hold = [](const URL&) {
      std::puts("held");
      std::fflush(stdout);
      while (std::getchar() != EOF) {
      }
    };
    if (arguments[2] == "read") {
      done = coordinator.coordinateReadingItemAtURL(url, FileCoordinatorReadingOptions::None, hold).has_value();
    } else {
      Writing options = arguments[2] == "tree" ? Writing::ForMoving : Writing::None;
      done = coordinator.coordinateWritingItemAtURL(url, options, hold).has_value();
    }
  } else if (command == "increment") {
    done = florvane::test::incrementCoordinated(coordinator, url, std::stoi(arguments[3]));
  } else if (command == "delete") {
    done =
        coordinator
            .coordinateWritingItemAtURL(url, Writing::ForDeleting, [](const URL& item) { unlink(item.path().c_str()); })
            .has_value();
  } else if (command == "move") {
    done = coordinator
               .coordinateWritingItemAtURL(
                   url, Writing::ForMoving, URL::fileURL(arguments[3]), Writing::ForReplacing,
                   [](const URL& from, const URL& to) { std::rename(from.path().c_str(), to.path().c_str()); })
               .has_value();
  }
  return done ? 0 : 1;
}
