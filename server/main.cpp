#include "server/Administration.h"
#include "server/Server.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

namespace {

using namespace florvane;

constexpr int kFailed = 1;
constexpr std::uint64_t kMaximumPasswordFileSize = 4096;

int fail(const std::string& sentence) {
  std::cerr << "florvaned: " << sentence << "\n";
  return kFailed;
}

int fail(const Error& error) { return fail(error.localizedDescription()); }

// "NAME=DIR", "NAME=DIR:ro" or "NAME=DIR:dropbox".
ShareConfiguration parseShare(const std::string& text) {
  std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw CLI::ValidationError("--share", "\"" + text + "\" is not of the form NAME=DIR[:ro|:dropbox]");
  }
  ShareConfiguration share;
  share.name = text.substr(0, equals);
  share.folder = text.substr(equals + 1);
  auto takeSuffix = [&](std::string_view suffix) {
    bool isThere = share.folder.ends_with(suffix);
    if (isThere) share.folder.resize(share.folder.size() - suffix.size());
    return isThere;
  };
  share.readOnly = takeSuffix(":ro");
  if (!share.readOnly) share.dropBox = takeSuffix(":dropbox");
  if (share.folder.empty()) throw CLI::ValidationError("--share", "\"" + text + "\" names no folder");
  return share;
}

// "HOST:PORT", an IPv6 address in brackets.
void parseListen(const std::string& text, ServerOptions& options) {
  std::size_t colon = text.rfind(':');
  std::string host = text.substr(0, colon == std::string::npos ? 0 : colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    host.clear();
  }
  const char* end = text.data() + text.size();
  const char* digits = text.data() + std::min(colon + 1, text.size());
  auto [rest, failure] = std::from_chars(digits, end, options.port);
  if (host.empty() || failure != std::errc() || rest != end) {
    throw CLI::ValidationError("--listen", "\"" + text + "\" is not of the form HOST:PORT");
  }
  options.listenHost = host;
}

// Reads a line without showing it.
std::optional<Secret> promptForPassword(const char* prompt) {
  termios shown{};
  if (tcgetattr(STDIN_FILENO, &shown) != 0) return std::nullopt;
  termios hidden = shown;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
  std::cerr << prompt << std::flush;
  std::string line;
  bool isRead = static_cast<bool>(std::getline(std::cin, line));
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown);
  std::cerr << "\n";
  Secret password(line);
  std::ranges::fill(line, '\0');
  return isRead ? std::optional(password) : std::nullopt;
}

// From the file's first line, else from the terminal.
Result<Secret> readPassword(const std::string& file) {
  if (!file.empty()) {
    auto bytes = readFile(file, kMaximumPasswordFileSize);
    if (!bytes) return Failure(bytes.error());
    std::string_view text = bytes->view();
    text = text.substr(0, text.find('\n'));
    if (text.ends_with('\r')) text.remove_suffix(1);
    return Secret(text);
  }
  auto refuse = [](const char* sentence) { return Failure(serverError(ServerErrorCode::InvalidArgument, sentence)); };
  if (isatty(STDIN_FILENO) == 0) return refuse("There is no terminal to ask for a password; use --password-file.");
  auto first = promptForPassword("Password: ");
  auto second = first ? promptForPassword("Again: ") : std::nullopt;
  if (!second) return refuse("No password was given.");
  if (!(*first == *second)) return refuse("The two passwords differ.");
  return *first;
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int serve(ServerOptions options) {
  // Before any thread starts, so that all inherit it and the signals wait for sigwait below.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGTERM);
  sigaddset(&endings, SIGINT);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  (void)std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();
  Server server(std::move(options));
  if (auto started = server.start(); !started) return fail(started.error());
  std::cout << "listening on " << server.url() << std::endl;
  int ending = 0;
  while (sigwait(&endings, &ending) != 0) {
  }
  server.stop();
  return 0;
}

struct Arguments {
  ServerOptions server;
  std::vector<std::string> shares, mechanisms = {"srp"};
  std::string listen = "127.0.0.1:10548";
  std::string user, passwordFile;
};

int administer(const Arguments& arguments, const std::function<Result<void>(Administration&)>& change) {
  auto administration = Administration::open(arguments.server.stateDirectory, Clock::system());
  if (!administration) return fail(administration.error());
  auto changed = change(**administration);
  return changed ? 0 : fail(changed.error());
}

int listUsers(Administration& administration) {
  auto names = administration.users().names();
  if (!names) return fail(names.error());
  for (const std::string& name : *names) std::cout << name << "\n";
  return 0;
}

int run(int count, char** texts) {
  Arguments arguments;
  CLI::App app("Serves folders to Florvane clients over HTTPS.", "florvaned");
  app.require_subcommand(0, 1);
  app.add_option("--state", arguments.server.stateDirectory, "folder for certificate, users, sessions and index");
  app.add_option("--share", arguments.shares, "a folder to share: NAME=DIR, with :ro or :dropbox at its end");
  app.add_option("--listen", arguments.listen, "HOST:PORT; port 0 takes a free one")->capture_default_str();
  app.add_option("--sasl", arguments.mechanisms, "mechanisms offered: srp, plain")
      ->delimiter(',')
      ->check(CLI::IsMember({"srp", "plain"}))
      ->capture_default_str();
  app.add_option("--certificate", arguments.server.certificatePath, "certificate chain to show (PEM)");
  app.add_option("--key", arguments.server.keyPath, "its private key (PEM)");
  app.add_option("--max-upload", arguments.server.maximumUploadSize, "largest upload; units as in 10G")
      ->transform(CLI::AsSizeValue(false))
      ->default_str("64G");

  auto addState = [&](CLI::App* command) {
    command->add_option("--state", arguments.server.stateDirectory, "the server's state folder")->required();
  };
  auto addUser = [&](CLI::App* command) {
    command->add_option("NAME", arguments.user, "the user")->required();
    addState(command);
  };
  CLI::App* user = app.add_subcommand("user", "adds, changes, removes and lists users")->require_subcommand(1);
  CLI::App* add = user->add_subcommand("add", "adds a user");
  CLI::App* password = user->add_subcommand("password", "changes a password and ends the user's sessions");
  CLI::App* remove = user->add_subcommand("remove", "removes a user and ends the user's sessions");
  CLI::App* list = user->add_subcommand("list", "lists the users");
  CLI::App* sessions = app.add_subcommand("sessions", "ends sessions")->require_subcommand(1);
  CLI::App* revoke = sessions->add_subcommand("revoke", "ends all sessions, or those of one user");
  for (CLI::App* command : {add, password, remove}) addUser(command);
  for (CLI::App* command : {add, password}) {
    command->add_option("--password-file", arguments.passwordFile, "file whose first line is the password");
  }
  addState(list);
  addState(revoke);
  revoke->add_option("--user", arguments.user, "only this user's");

  try {
    app.parse(count, texts);
    if (app.get_subcommands().empty()) {
      if (arguments.server.stateDirectory.empty()) throw CLI::RequiredError("--state");
      if (arguments.shares.empty()) throw CLI::RequiredError("--share");
      parseListen(arguments.listen, arguments.server);
      for (const std::string& each : arguments.shares) arguments.server.shares.push_back(parseShare(each));
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }

  if (*add || *password) {
    auto secret = readPassword(arguments.passwordFile);
    if (!secret) return fail(secret.error());
    return administer(arguments, [&](Administration& administration) {
      return *add ? administration.users().add(arguments.user, *secret)
                  : administration.setPassword(arguments.user, *secret);
    });
  }
  if (*remove) {
    return administer(arguments,
                      [&](Administration& administration) { return administration.removeUser(arguments.user); });
  }
  if (*list) {
    auto administration = Administration::open(arguments.server.stateDirectory, Clock::system());
    return administration ? listUsers(**administration) : fail(administration.error());
  }
  if (*revoke) {
    return administer(arguments, [&](Administration& administration) -> Result<void> {
      SessionStore& store = administration.sessions();
      auto ended = arguments.user.empty() ? store.revokeAll() : store.revoke(arguments.user);
      if (!ended) return Failure(ended.error());
      std::cout << *ended << (*ended == 1 ? " session" : " sessions") << " ended\n";
      return {};
    });
  }
  arguments.server.mechanisms.clear();
  for (const std::string& each : arguments.mechanisms) {
    std::string name = each == "srp" ? "SRP" : "PLAIN";
    if (std::ranges::find(arguments.server.mechanisms, name) == arguments.server.mechanisms.end()) {
      arguments.server.mechanisms.push_back(name);
    }
  }
  return serve(std::move(arguments.server));
}

}  // namespace

int main(int count, char** texts) {
  reserveStandardDescriptors();
  try {
    return run(count, texts);
  } catch (const std::exception& exception) {
    return fail(exception.what());
  }
}
