// Another process of the container, for the notification centre's tests.
//   post FOLDER NAME COUNT    posts COUNT notifications, their index in the user info
//   answer FOLDER NAME REPLY  posts NAME and prints the user info of the REPLY that comes
//   vanish FOLDER             observes, then ends without tidying up

#include "platform/NotificationCenter.h"

#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include <unistd.h>

using florvane::Notification;
using florvane::NotificationCenter;
using florvane::Value;

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < 2) return 2;
  const std::string& command = arguments[0];
  NotificationCenter center(arguments[1]);
  if (command == "post") {
    for (int index = 0; index < std::stoi(arguments[3]); ++index) {
      center.post(arguments[2], "peer", {{"index", index}});
    }
  } else if (command == "answer") {
    std::promise<std::string> reply;
    auto observation = center.addObserver(arguments[3], [&](const Notification& notification) {
      if (!notification.missedSome) reply.set_value(Value(notification.userInfo).description());
    });
    center.post(arguments[2]);
    std::puts(reply.get_future().get().c_str());
  } else if (command == "vanish") {
    auto observation = center.addObserver("anything", [](const Notification&) {});
    _exit(0);
  }
  return 0;
}
