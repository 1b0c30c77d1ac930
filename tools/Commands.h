#pragma once

#include "tools/CachedTree.h"
#include "tools/Output.h"

#include <optional>
#include <string>
#include <vector>

namespace florvane::tools {

struct AccountAddOptions {
  std::string name;
  std::string hostAndPort;
  std::string userName;
  std::optional<std::string> passwordFile;  // "-" is standard input
};

// What is asked for, and whether only the server's own answer will do.
struct ItemOptions {
  std::string reference;
  Freshness freshness = Freshness::Preferred;
};

struct ListOptions : ItemOptions {
  bool isLong = false;
};

struct GetOptions : ItemOptions {
  std::optional<std::string> local;
};

struct PutOptions {
  std::vector<std::string> arguments;  // LOCAL... NAME:PATH
  bool wait = false;
};

struct UploadsOptions {
  std::optional<std::string> account;  // absent for all
  bool wait = false;
  bool retry = false;
  std::optional<std::string> session;  // whose events the transfer agent has started this program for
};

struct WatchOptions {
  std::vector<std::string> references;
  std::optional<std::size_t> count;  // ends after so many events
};

struct ResetOptions {
  std::string account;
  bool discardUnsent = false;
};

ExitStatus accountAdd(const Output& output, const AccountAddOptions& options);
ExitStatus accountList(const Output& output);
ExitStatus accountRemove(const Output& output, const std::string& name);
ExitStatus listItems(const Output& output, const ListOptions& options);
ExitStatus statItem(const Output& output, const ItemOptions& options);
ExitStatus catFile(const Output& output, const ItemOptions& options);
ExitStatus getFile(const Output& output, const GetOptions& options);
ExitStatus putFiles(const Output& output, const PutOptions& options);
ExitStatus showUploads(const Output& output, const UploadsOptions& options);
ExitStatus watchItems(const Output& output, const WatchOptions& options);
// One account, or all without a name.
ExitStatus showStatus(const Output& output, const std::optional<std::string>& accountName);
ExitStatus rebuildCache(const Output& output, const std::string& accountName);
ExitStatus resetCache(const Output& output, const ResetOptions& options);
ExitStatus examine(const Output& output);

}  // namespace florvane::tools
