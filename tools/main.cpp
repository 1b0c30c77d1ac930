#include "Client/Client/DCBackgroundSessionIdentifier.h"
#include "tools/CachedTree.h"
#include "tools/Commands.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string_view>

#include <CLI/CLI.hpp>

namespace {

using namespace florvane;         // NOLINT(google-build-using-namespace): the program's own names
using namespace florvane::tools;  // NOLINT(google-build-using-namespace)

// A validator of the parser's: the sentence to say, or nothing.
std::string isTimeLimit(const std::string& text) {
  constexpr double kYear = 365.0 * 24 * 3600;
  char* end = nullptr;
  double seconds = std::strtod(text.c_str(), &end);
  bool isNumber = !text.empty() && *end == '\0' && std::isfinite(seconds);
  return isNumber && seconds > 0 && seconds <= kYear ? "" : "Not a number of seconds between 0 and a year: " + text;
}

// Everything that the command line says; what to run is chosen while it is parsed.
class CommandLine {
 public:
  CommandLine() {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "florvane " FLORVANE_VERSION);
    app_.add_option("--container", container_, "Folder that holds accounts, preferences and the cache")
        ->type_name("DIR");
    app_.add_flag("--json", common_.json, "Answer with JSON: one object, or one a line where it streams");
    app_.add_flag("--quiet,-q", common_.quiet, "Say nothing but the answer and errors");
    app_.add_option("--timeout", timeoutSeconds_, "Give up after so many seconds")
        ->check(isTimeLimit)
        ->type_name("SECONDS");
    app_.add_flag("--debug", debug_, "Write the log to standard error");
    app_.fallthrough();
    addAccount();
    addItems();
    addWriting();
    addWatch();
    addMaintenance();
  }

  ExitStatus parseAndRun(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      bool asksForHelp = error.get_exit_code() == 0;
      if (asksForHelp) (void)app_.exit(error);
      // Options are taken over only when all of them are understood.
      common_.json =
          std::any_of(argv, argv + argc, [](const char* each) { return std::string_view(each) == "--json"; });
      Output output(common_);
      return output.finish(asksForHelp ? ExitStatus::Done : output.fail(usageFailure(error)));
    }
    if (timeoutSeconds_) {
      common_.timeout = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(*timeoutSeconds_));
    }
    if (container_) Container::setDirectory(*container_);
    // Names the background sessions of every command, also of one that only looks or removes.
    DCSetMainBundleIdentifier(kPurposeIdentifier);
    if (debug_) {
      DCLogEnableDebug(true);
    } else {
      silenceLibrary();
    }
    Output output(common_);
    try {
      return output.finish(run_(output));
    } catch (const std::exception& exception) {
      return output.finish(output.fail({ExitStatus::Failed, exception.what(), std::nullopt}));
    }
  }

 private:
  CommandFailure usageFailure(const CLI::ParseError& error) const {
    auto extras = app_.remaining();
    bool isUnknown = app_.get_subcommands().empty() && !extras.empty() && !extras.front().starts_with('-');
    std::string sentence = isUnknown ? "There is no command \"" + extras.front() + "\"." : error.what();
    return {ExitStatus::Usage, sentence + (sentence.ends_with('.') ? "" : ".") + " See: florvane --help", std::nullopt};
  }

  void addAccount() {
    auto* account = app_.add_subcommand("account", "Add, list and remove accounts")->require_subcommand(1);
    auto* add = account->add_subcommand("add", "Add an account of a server");
    add->add_option("NAME", add_.name, "Short name to type from now on")->required();
    add->add_option("HOST[:PORT]", add_.hostAndPort, "The server; port 10548 unless named")->required();
    add->add_option("--user", add_.userName, "User name on the server")->required()->type_name("USER");
    add->add_option("--password-file", add_.passwordFile, "File whose first line is the password; - is standard input")
        ->type_name("FILE");
    add->callback([this] { run_ = [this](const Output& output) { return accountAdd(output, add_); }; });
    account->add_subcommand("list", "List the accounts")->callback([this] {
      run_ = [](const Output& output) { return accountList(output); };
    });
    auto* remove = account->add_subcommand("remove", "Remove an account and its password");
    remove->add_option("NAME", remove_)->required();
    remove->callback([this] { run_ = [this](const Output& output) { return accountRemove(output, remove_); }; });
  }

  void addItem(CLI::App& command, ItemOptions& options, const std::string& name) {
    command.add_option(name, options.reference)->required();
    command.add_flag_callback(
        "--fresh", [&options] { options.freshness = Freshness::Required; },
        "Only an answer of the server's own will do");
  }

  void addItems() {
    auto* ls = app_.add_subcommand("ls", "List an account's shares or a directory");
    addItem(*ls, list_, "NAME[:PATH]");
    ls->add_flag("-l", list_.isLong, "With sizes and dates");
    ls->callback([this] { run_ = [this](const Output& output) { return listItems(output, list_); }; });
    auto* stat = app_.add_subcommand("stat", "Show what is known of an item");
    addItem(*stat, item_, "NAME[:PATH]");
    stat->callback([this] { run_ = [this](const Output& output) { return statItem(output, item_); }; });
    auto* cat = app_.add_subcommand("cat", "Print a file");
    addItem(*cat, item_, "NAME:PATH");
    cat->callback([this] { run_ = [this](const Output& output) { return catFile(output, item_); }; });
    auto* get = app_.add_subcommand("get", "Fetch a file");
    addItem(*get, get_, "NAME:PATH");
    get->add_option("LOCAL", get_.local, "File or folder to put it; the current folder unless named");
    get->callback([this] { run_ = [this](const Output& output) { return getFile(output, get_); }; });
  }

  void addWriting() {
    auto* put = app_.add_subcommand("put", "Write files; a folder's files go onto the folders of the server");
    put->add_option("LOCAL... NAME:PATH", put_.arguments, "Files and folders, - for standard input; where they go")
        ->required()
        ->expected(2, -1);
    put->add_flag("--wait", put_.wait, "Until the server has them");
    put->callback([this] { run_ = [this](const Output& output) { return putFiles(output, put_); }; });
    auto* uploads = app_.add_subcommand("uploads", "Show what is still to reach the servers, and why it waits");
    uploads->add_option("NAME", uploads_.account);
    uploads->add_flag("--wait", uploads_.wait, "Until nothing is on its way");
    uploads->add_flag("--retry", uploads_.retry, "Try again what failed or waits");
    // For the transfer agent only.
    uploads->add_option("--resume", uploads_.session)->group("");
    uploads->callback([this] { run_ = [this](const Output& output) { return showUploads(output, uploads_); }; });
  }

  void addMaintenance() {
    auto* status = app_.add_subcommand("status", "Show what is kept of an account, or of all");
    status->add_option("NAME", accountName_);
    status->callback([this] { run_ = [this](const Output& output) { return showStatus(output, accountName_); }; });
    auto* rebuild = app_.add_subcommand("rebuild", "Make an account's database anew from the files on disk");
    rebuild->add_option("NAME", accountName_)->required();
    rebuild->callback([this] { run_ = [this](const Output& output) { return rebuildCache(output, *accountName_); }; });
    auto* reset = app_.add_subcommand("reset", "Forget everything that is kept of an account, but not the account");
    reset->add_option("NAME", reset_.account)->required();
    reset->add_flag("--discard-unsent", reset_.discardUnsent,
                    "Also while files wait to be sent; they go to the container's Recovered folder");
    reset->callback([this] { run_ = [this](const Output& output) { return resetCache(output, reset_); }; });
    app_.add_subcommand("doctor", "Check container, accounts and servers, and say what to do")->callback([this] {
      run_ = [](const Output& output) { return examine(output); };
    });
  }

  void addWatch() {
    auto* watch = app_.add_subcommand("watch", "Print a line whenever an item changes, until stopped");
    watch->add_option("NAME:PATH", watch_.references)->required();
    watch->add_option("--count", watch_.count, "End after so many events")->check(CLI::PositiveNumber)->type_name("N");
    watch->callback([this] { run_ = [this](const Output& output) { return watchItems(output, watch_); }; });
  }

  CLI::App app_{"Work with the documents of Florvane servers", "florvane"};
  CommonOptions common_;
  std::optional<std::string> container_;
  std::optional<double> timeoutSeconds_;
  bool debug_ = false;
  AccountAddOptions add_;
  ListOptions list_;
  GetOptions get_;
  PutOptions put_;
  UploadsOptions uploads_;
  WatchOptions watch_;
  ItemOptions item_;
  ResetOptions reset_;
  std::optional<std::string> accountName_;
  std::string remove_;
  std::function<ExitStatus(const Output&)> run_;
};

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  (void)std::signal(SIGPIPE, SIG_IGN);  // a reader that has gone shows as an error of the write
  auto status = ExitStatus::Failed;
  try {
    CommandLine commandLine;
    status = commandLine.parseAndRun(argc, argv);
  } catch (const std::exception& exception) {
    std::fprintf(console(), "florvane: %s\n", exception.what());
  }
  // A request that was given up on may still run on its thread: nothing that it uses is taken down under it.
  (void)std::fflush(nullptr);
  std::_Exit(static_cast<int>(status));
}
