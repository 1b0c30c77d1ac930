#include "tools/Commands.h"

#include <charconv>
#include <csignal>
#include <cstdio>

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

termios terminalBeforePrompt;

// A prompt that is interrupted leaves the terminal as it was.
extern "C" void restoreTerminalAndEnd(int signal) {
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &terminalBeforePrompt);
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);  // takes effect when this returns
}

// One line from the terminal, its echo off while it is typed.
CommandResult<Secret> promptForPassword(const std::string& userName, const std::string& host) {
  std::fprintf(stderr, "Password of %s at %s: ", printable(userName).c_str(), printable(host).c_str());
  tcgetattr(STDIN_FILENO, &terminalBeforePrompt);
  struct sigaction restore{};
  restore.sa_handler = restoreTerminalAndEnd;
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(signal, &restore, nullptr);
  termios silent = terminalBeforePrompt;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  std::string line;
  char character = 0;
  while (::read(STDIN_FILENO, &character, 1) == 1 && character != '\n') line += character;
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &terminalBeforePrompt);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) (void)std::signal(signal, SIG_DFL);
  std::fputc('\n', stderr);
  if (line.empty()) return tl::unexpected(usage("No password was typed."));
  return Secret(line);
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
  if (auto cleared = DCPreferences::preferences()->clearAuthCookieAndTrustedCertDataForService(service); !cleared) {
    return output.fail(failureForError(cleared.error(), "", "Could not sign out"));
  }
  if (auto removed = (*store)->remove((*account)->identifier); !removed) {
    return output.fail(failureForError(removed.error(), "", "Could not remove the account"));
  }
  if (output.options().json) output.object({{"removed", name}});
  output.note("Removed " + name + ".");
  return ExitStatus::Done;
}

}  // namespace florvane::tools
