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

nlohmann::ordered_json statObject(const RemoteTree::Item& item, const ItemReference& reference) {
  auto object = itemObject(item);
  object["path"] = reference.path;
  addOptional(object, "created", textOf(item.metadata.date(ResourceCreationDateKey)));
  addOptional(object, "contentType", item.metadata.string(ResourceTypeIdentifierKey));
  if (auto writable = item.metadata.boolean(ResourceIsWritableKey)) object["writable"] = *writable;
  addOptional(object, "identifier", hexOf(item.documentIdentifier()));
  addOptional(object, "version", hexOf(item.versionIdentifier()));
  return object;
}

}  // namespace

nlohmann::ordered_json itemObject(const RemoteTree::Item& item) {
  nlohmann::ordered_json object;
  object["name"] = item.name;
  object["type"] = item.isDirectory() ? "directory" : "file";
  if (auto size = item.metadata.integer(ResourceFileSizeKey); size && !item.isDirectory()) object["size"] = *size;
  addOptional(object, "modified", textOf(item.metadata.date(ResourceContentModificationDateKey)));
  object["pendingUpload"] = false;
  return object;
}

std::string itemLine(const RemoteTree::Item& item, bool isLong) {
  std::string name = printable(item.name) + (item.isDirectory() ? "/" : "");
  if (!isLong) return name;
  auto size = item.metadata.integer(ResourceFileSizeKey);
  auto date = item.metadata.date(ResourceContentModificationDateKey);
  std::array<char, 64> columns{};
  std::snprintf(columns.data(), columns.size(), "%10s  %16s  ",
                item.isDirectory() || !size ? "-" : humanSize(*size).c_str(), date ? localTime(*date).c_str() : "-");
  return columns.data() + name;
}

ExitStatus listItems(const Output& output, const ListOptions& options) {
  ItemReference reference = ItemReference::parse(options.reference);
  auto tree = RemoteTree::open(reference.account, output.options());
  if (!tree) return output.fail(tree.error());
  auto listing = tree->list(reference.path);
  if (!listing) return output.fail(listing.error());
  std::vector<RemoteTree::Item> items = listing->directory.isDirectory()
                                            ? std::move(listing->children)
                                            : std::vector<RemoteTree::Item>{listing->directory};
  if (output.options().json) {
    auto list = nlohmann::ordered_json::array();
    for (const auto& item : items) list.push_back(itemObject(item));
    output.object({{"state", kStateUpToDate}, {"items", list}});
    return ExitStatus::Done;
  }
  for (const auto& item : items) output.line(itemLine(item, options.isLong));
  return ExitStatus::Done;
}

ExitStatus statItem(const Output& output, const std::string& text) {
  ItemReference reference = ItemReference::parse(text);
  auto tree = RemoteTree::open(reference.account, output.options());
  if (!tree) return output.fail(tree.error());
  auto item = tree->item(reference.path);
  if (!item) return output.fail(item.error());
  if (item->isRoot) {
    auto listing = tree->list("");
    if (!listing) return output.fail(listing.error());
    item = listing->directory;
    item->name = reference.account;
  }
  auto object = statObject(*item, reference);
  if (output.options().json) {
    object["state"] = kStateUpToDate;
    output.object(object);
    return ExitStatus::Done;
  }
  for (const auto& [key, value] : object.items()) {
    output.line(key + ": " + (value.is_string() ? printable(value.get<std::string>()) : value.dump()));
  }
  return ExitStatus::Done;
}

}  // namespace florvane::tools
