#include "tools/Commands.h"
#include "tools/ItemDescription.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace florvane::tools {

namespace {

std::string localTime(Date date) {
  timespec time = date.toTimespec();
  tm calendar{};
  localtime_r(&time.tv_sec, &calendar);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &calendar);
  return text.data();
}

void addOptional(nlohmann::ordered_json& object, const char* key, const std::optional<std::string>& text) {
  if (text) object[key] = *text;
}

std::optional<std::string> hexOf(const std::optional<Data>& data) {
  return data ? std::optional(hexEncode(*data)) : std::nullopt;
}

std::optional<std::string> textOf(const std::optional<Date>& date) {
  return date ? std::optional(date->description()) : std::nullopt;
}

nlohmann::ordered_json statObject(const CachedTree::Item& item, const ItemReference& reference) {
  auto object = itemObject(item);
  object["path"] = reference.path;
  addOptional(object, "created", textOf(item.attributes.date(ResourceCreationDateKey)));
  addOptional(object, "contentType", item.attributes.string(ResourceTypeIdentifierKey));
  if (auto writable = item.attributes.boolean(ResourceIsWritableKey)) object["writable"] = *writable;
  addOptional(object, "identifier", hexOf(item.documentIdentifier()));
  addOptional(object, "version", hexOf(item.versionIdentifier()));
  return object;
}

}  // namespace

nlohmann::ordered_json itemObject(const CachedTree::Item& item) {
  nlohmann::ordered_json object;
  object["name"] = item.name;
  object["type"] = item.isDirectory() ? "directory" : "file";
  if (auto size = item.attributes.integer(ResourceFileSizeKey); size && !item.isDirectory()) object["size"] = *size;
  addOptional(object, "modified", textOf(item.attributes.date(ResourceContentModificationDateKey)));
  object["pendingUpload"] = item.attributes.boolean(DCFileNeedsUploadKey).value_or(false);
  return object;
}

std::string itemLine(const CachedTree::Item& item, bool isLong) {
  std::string name = printable(item.name) + (item.isDirectory() ? "/" : "");
  if (!isLong) return name;
  auto size = item.attributes.integer(ResourceFileSizeKey);
  auto date = item.attributes.date(ResourceContentModificationDateKey);
  std::array<char, 64> columns{};
  std::snprintf(columns.data(), columns.size(), "%10s  %16s  ",
                item.isDirectory() || !size ? "-" : humanSize(*size).c_str(), date ? localTime(*date).c_str() : "-");
  return columns.data() + name;
}

ExitStatus listItems(const Output& output, const ListOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = CachedTree::open(reference.account, output.options(), options.freshness);
  if (!tree) return output.fail(tree.error());
  auto listing = tree->list(reference.path);
  if (!listing) return output.fail(listing.error());
  tree->tellWhetherCached(output);
  if (output.options().json) {
    auto list = nlohmann::ordered_json::array();
    for (const auto& item : listing->children) list.push_back(itemObject(item));
    output.object({{"state", static_cast<int>(listing->state)}, {"items", list}});
    return ExitStatus::Done;
  }
  for (const auto& item : listing->children) output.line(itemLine(item, options.isLong));
  return ExitStatus::Done;
}

ExitStatus statItem(const Output& output, const ItemOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = CachedTree::open(reference.account, output.options(), options.freshness);
  if (!tree) return output.fail(tree.error());
  auto described = tree->item(reference.path);
  if (!described) return output.fail(described.error());
  tree->tellWhetherCached(output);
  if (reference.path.empty()) described->item.name = reference.account;
  auto object = statObject(described->item, reference);
  if (output.options().json) {
    object["state"] = static_cast<int>(described->state);
    output.object(object);
    return ExitStatus::Done;
  }
  for (const auto& [key, value] : object.items()) {
    output.line(key + ": " + (value.is_string() ? printable(value.get<std::string>()) : value.dump()));
  }
  return ExitStatus::Done;
}

}  // namespace florvane::tools
