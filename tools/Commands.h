#pragma once

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

struct ListOptions {
  std::string reference;
  bool isLong = false;
  bool fresh = false;
};

struct GetOptions {
  std::string reference;
  std::optional<std::string> local;
};

struct WatchOptions {
  std::vector<std::string> references;
  std::optional<std::size_t> count;  // ends after so many events
};

ExitStatus accountAdd(const Output& output, const AccountAddOptions& options);
ExitStatus accountList(const Output& output);
ExitStatus accountRemove(const Output& output, const std::string& name);
ExitStatus listItems(const Output& output, const ListOptions& options);
ExitStatus statItem(const Output& output, const std::string& reference);
ExitStatus catFile(const Output& output, const std::string& reference);
ExitStatus getFile(const Output& output, const GetOptions& options);
ExitStatus watchItems(const Output& output, const WatchOptions& options);
ExitStatus examine(const Output& output);

}  // namespace florvane::tools
