#include "platform/Container.h"
#include "platform/FileSystem.h"
#include "platform/TransferAgent.h"
#include "platform/TransferFolder.h"
#include "platform/TransferLauncher.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace florvane;

int fail(const Error& error) {
  std::cerr << "florvane-transferd: " << error.localizedDescription() << "\n";
  return 1;
}

// Whoever started the agent reads until the line or the end.
void sayReady() {
  std::cout << kTransferAgentReady << std::flush;
  int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null < 0) return;
  dup2(null, STDOUT_FILENO);
  close(null);
}

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  CLI::App app(
      "The background transfer agent: sends the uploads of a container's programs, also when these have ended.",
      "florvane-transferd");
  std::string container;
  app.add_option("--container", container, "Folder that the programs share")->required()->type_name("DIR");
  app.set_version_flag("--version", FLORVANE_VERSION);
  CLI11_PARSE(app, argc, argv);

  umask(077);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  // Before any thread is there, so that none but this one takes them.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  Container::setDirectory(container);
  auto folder = Container::requireDirectory();
  if (!folder) return fail(folder.error());
  auto agent = TransferAgent::start({.container = *folder,
                                     .onIdle = [] { kill(getpid(), SIGTERM); },
                                     .inheritedSocket = TransferFolder::takeInheritedSocket()});
  if (!agent) return fail(agent.error());
  sayReady();
  int received = 0;
  while (sigwait(&ending, &received) != 0) {
  }
  (*agent)->stop();
  return 0;
}
