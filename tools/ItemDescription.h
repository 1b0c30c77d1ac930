#pragma once

#include "tools/CachedTree.h"

#include <string>

#include <nlohmann/json.hpp>

namespace florvane::tools {

// {"name", "type", "size", "modified", "pendingUpload"}
nlohmann::ordered_json itemObject(const CachedTree::Item& item);
// "  12.3 KiB  2026-11-22 20:41  name", directories with a "/" behind.
std::string itemLine(const CachedTree::Item& item, bool isLong);

}  // namespace florvane::tools
