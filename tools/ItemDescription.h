#pragma once

#include "tools/RemoteTree.h"

#include <string>

#include <nlohmann/json.hpp>

namespace florvane::tools {

// State of an answer that the server itself has just given.
inline constexpr int kStateUpToDate = 4;

// {"name", "type", "size", "modified", "pendingUpload"}
nlohmann::ordered_json itemObject(const RemoteTree::Item& item);
// "  12.3 KiB  2026-11-22 20:41  name", directories with a "/" behind.
std::string itemLine(const RemoteTree::Item& item, bool isLong);

}  // namespace florvane::tools
