#include "tools/Commands.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace florvane::tools {

namespace {

CommandFailure usage(const std::string& sentence) { return {ExitStatus::Usage, sentence, std::nullopt}; }

struct HostAndPort {
  std::string host;
  std::optional<std::uint16_t> port;
};

// "HOST", "HOST:PORT", "[::1]:PORT", or a bare IPv6 address.
std::optional<HostAndPort> parseHostAndPort(const std::string& text) {
  HostAndPort result;
  std::size_t colon = text.rfind(':');
  bool bareIPv6 = !text.starts_with('[') && text.find(':') != colon;
  bool hasPort = colon != std::string::npos && !bareIPv6 && text.find(']', colon) == std::string::npos;
  result.host = hasPort ? text.substr(0, colon) : text;
  if (hasPort) {
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    auto [stop, failure] = std::from_chars(text.data() + colon + 1, end, port);
    if (failure != std::errc() || stop != end || port == 0) return std::nullopt;
    result.port = port;
  }
  if (result.host.starts_with('[') && result.host.ends_with(']')) {
    result.host = result.host.substr(1, result.host.size() - 2);
  }
  auto url = URL::fromString("https://" + bracketedHost(result.host));
  if (!url || url->host() != result.host || !url->path().empty() || url->query()) return std::nullopt;
  return result;
}

std::string firstLine(std::string text) {
  text.resize(std::min(text.find_first_of("\r\n"), text.size()));
  return text;
}

// Where a signal that comes while a password is typed leaves its number, for the thread that waits at the terminal: the
// signal itself may reach any other.
int signalPipe[2] = {-1, -1};

extern "C" void noteSignal(int signal) {
  auto number = static_cast<unsigned char>(signal);
  (void)!::write(signalPipe[1], &number, 1);
}

// One line from the terminal; absent, with the signal's number, when one came first.
std::optional<std::string> readLine(int& signal) {
  std::string line;
  pollfd ready[] = {{STDIN_FILENO, POLLIN, 0}, {signalPipe[0], POLLIN, 0}};
  while (true) {
    if (::poll(ready, 2, -1) < 0) continue;  // only ever interrupted, and then there is something in the pipe
    unsigned char byte = 0;
    if (ready[1].revents != 0 && ::read(signalPipe[0], &byte, 1) == 1) {
      signal = byte;
      return std::nullopt;
    }
    if (ready[0].revents == 0) continue;
    if (::read(STDIN_FILENO, &byte, 1) != 1 || byte == '\n') return line;
    line += static_cast<char>(byte);
  }
}

// One line from the terminal, its echo off while it is typed, and on again when a signal ends the program meanwhile.
CommandResult<Secret> promptForPassword(const std::string& userName, const std::string& host) {
  std::fprintf(console(), "Password of %s at %s: ", printable(userName).c_str(), printable(host).c_str());
  if (::pipe2(signalPipe, O_CLOEXEC) != 0) return tl::unexpected(failureForError(Error::posix(errno), "", ""));
  termios before{};
  tcgetattr(STDIN_FILENO, &before);
  for (int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) (void)std::signal(each, noteSignal);
  termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  int signal = 0;
  auto line = readLine(signal);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  for (int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) (void)std::signal(each, SIG_DFL);
  std::fputc('\n', console());
  if (!line) (void)::kill(::getpid(), signal);  // ends this process as it would have without us
  if (!line || line->empty()) return tl::unexpected(usage("No password was typed."));
  return Secret(*line);
}

CommandResult<Secret> readPassword(const AccountAddOptions& options) {
  if (!options.passwordFile) {
    if (isatty(STDIN_FILENO)) return promptForPassword(options.userName, options.hostAndPort);
    return tl::unexpected(
        usage("There is no terminal to ask for the password. Give it in a file: --password-file FILE"));
  }
  constexpr std::uint64_t kMaximumPasswordBytes = std::uint64_t{64} * 1024;
  auto bytes = *options.passwordFile == "-" ? readAll(STDIN_FILENO, "standard input", kMaximumPasswordBytes)
                                            : readFile(*options.passwordFile, kMaximumPasswordBytes);
  if (!bytes) return tl::unexpected(failureForError(bytes.error(), "", "Could not read the password"));
  Secret password(firstLine(std::string(bytes->view())));
  if (password.empty()) return tl::unexpected(usage("The password file is empty: " + *options.passwordFile));
  return password;
}

std::string hostOf(const Account& account) {
  std::string host = account.dataClassHostName.value_or(account.hostName.value_or(""));
  return bracketedHost(host) + ":" + std::to_string(account.dataClassPortNumber.value_or(DCServerDefaultPortNumber));
}

nlohmann::ordered_json describe(const Account& account) {
  return {{"name", account.name},
          {"host", hostOf(account)},
          {"user", account.userName},
          {"identifier", account.identifier}};
}

}  // namespace

ExitStatus accountAdd(const Output& output, const AccountAddOptions& options) {
  auto address = parseHostAndPort(options.hostAndPort);
  if (!address) return output.fail(usage("Not a host, or HOST:PORT: " + options.hostAndPort));
  auto store = AccountStore::shared();
  if (!store) return output.fail(failureForError(store.error(), "", ""));
  auto password = readPassword(options);
  if (!password) return output.fail(password.error());
  Account account;
  account.name = options.name;
  account.userName = options.userName;
  account.hostName = address->host;
  account.dataClassPortNumber = address->port;
  auto added = (*store)->add(account, *password);
  if (!added && added.error().is(POSIXErrorDomain, EEXIST)) {
    return output.fail(
        {ExitStatus::Failed,
         "There is an account named \"" + options.name + "\" already. Remove it first, or take another name.",
         added.error()});
  }
  if (!added && added.error().is(POSIXErrorDomain, EINVAL)) {
    return output.fail({ExitStatus::Usage,
                        "An account's name must not be empty or hold \":\", \"/\" or control characters.",
                        added.error()});
  }
  if (!added) return output.fail(failureForError(added.error(), "", "Could not add the account"));
  if (output.options().json) output.object(describe(*added));
  output.note("Added " + options.name + ". See what it offers with: florvane ls " + options.name);
  return ExitStatus::Done;
}

ExitStatus accountList(const Output& output) {
  auto store = AccountStore::shared();
  if (!store) return output.fail(failureForError(store.error(), "", ""));
  auto accounts = (*store)->accounts();
  if (!accounts) return output.fail(failureForError(accounts.error(), "", "Could not read the accounts"));
  auto list = nlohmann::ordered_json::array();
  for (const auto& account : *accounts) {
    list.push_back(describe(account));
    if (!output.options().json) {
      output.line(printable(account.name) + "\t" + printable(account.userName) + "@" + printable(hostOf(account)));
    }
  }
  if (output.options().json) output.object({{"accounts", list}});
  if (accounts->empty())
    output.note("There are no accounts. Add one with: florvane account add NAME HOST[:PORT] --user USER");
  return ExitStatus::Done;
}

ExitStatus accountRemove(const Output& output, const std::string& name) {
  auto store = AccountStore::shared();
  if (!store) return output.fail(failureForError(store.error(), "", ""));
  auto account = (*store)->accountWithName(name);
  if (!account) return output.fail(failureForError(account.error(), "", "Could not read the accounts"));
  if (!*account) {
    return output.fail({ExitStatus::NoSuchItem, "There is no account named \"" + name + "\".", std::nullopt});
  }
  auto service = DCService::serviceWithAccount(*account);
  if (auto newer = DCDatabase::databaseForService(service)->newerVersionError()) {
    return output.fail(failureForError(*newer, "", ""));
  }
  DCDocumentManager::setPurposeIdentifier(kPurposeIdentifier);
  const auto unsent = DCCacheExamination::examinationOfService(service).unsentFiles;
  DCDocumentManager::documentManagerForService(service)->deleteAllLocalData();
  if (auto cleared = DCPreferences::preferences()->clearAuthCookieAndTrustedCertDataForService(service); !cleared) {
    return output.fail(failureForError(cleared.error(), "", "Could not sign out"));
  }
  if (auto removed = (*store)->remove((*account)->identifier); !removed) {
    return output.fail(failureForError(removed.error(), "", "Could not remove the account"));
  }
  if (output.options().json) output.object({{"removed", name}});
  output.note("Removed " + name + "." +
              (unsent.empty() ? ""
                              : " " + std::to_string(unsent.size()) + " files that were never sent are kept in " +
                                    DCUnsentFiles::directory().value_or("") + "."));
  return ExitStatus::Done;
}

}  // namespace florvane::tools
