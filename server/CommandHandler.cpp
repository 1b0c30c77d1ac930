#include "server/CommandHandler.h"

#include "common/FVFResponseContainer.h"
#include "platform/Encoding.h"
#include "platform/PropertyList.h"
#include "platform/SystemLog.h"
#include "platform/URL.h"

#include <algorithm>
#include <array>

namespace florvane {

namespace {

struct Route {
  std::string_view command;
  Command::Kind kind;
  std::string_view method;
};
constexpr std::array<Route, 6> kRoutes = {{
    {DURequestContentsOfRootDirectoryCommand, Command::Kind::Root, "GET"},
    {DURequestContentsOfDirectoryCommand, Command::Kind::List, "GET"},
    {DURequestContentsOfFileCommand, Command::Kind::Contents, "GET"},
    {DURequestWriteFileCommand, Command::Kind::Write, "POST"},
    {DURequestReplaceFileCommand, Command::Kind::Replace, "POST"},
    {DURequestWatchCommand, Command::Kind::Watch, "POST"},
}};

// What a metadata field of 1 MiB can hold.
constexpr PropertyListLimits kMetadataLimits = {.depth = 16, .values = 100'000};
constexpr PropertyListLimits kWatchLimits = {.depth = 1, .values = 1'000'000};

HTTPResponse refusal(const StoreError& error) {
  if (error.status == StoreStatus::Internal) {
    SystemLog::shared().write({3, "The document store failed: " + error.sentence, {}});
  }
  return HTTPResponse::sentence(static_cast<unsigned>(error.status), error.sentence);
}

// Versions are sent bare; other software quotes them and marks weak ones.
std::optional<Data> version(std::string_view text) {
  if (text.starts_with("W/")) text.remove_prefix(2);
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  return hexDecode(text);
}

HTTPResponse item(std::uint32_t transferType, const Dictionary& metadata, const Data& version) {
  auto encoded = writePropertyList(metadata, PropertyListFormat::Binary);
  if (!encoded) return refusal({StoreStatus::Internal, encoded.error().localizedDescription()});
  HTTPResponse response;
  response.fields.emplace_back(DUHeaderTransferTypeKey, std::to_string(transferType));
  response.fields.emplace_back(DUHeaderMetadataKey, base64Encode(*encoded));
  response.fields.emplace_back(DUHeaderETagKey, hexEncode(version));
  response.fields.emplace_back("Content-Type", "application/octet-stream");
  return response;
}

HTTPResponse notModified(const Data& version) {
  HTTPResponse response;
  response.status = 304;
  response.fields.emplace_back(DUHeaderETagKey, hexEncode(version));
  return response;
}

HTTPResponse listing(const StoreResult<DirectoryListing>& result) {
  if (!result) return refusal(result.error());
  if (result->notModified) return notModified(result->version);
  HTTPResponse response = item(FVFResponseContainerTransferTypeFull, result->metadata, result->version);
  if (response.status == 200) response.body = result->body;
  return response;
}

HTTPResponse contents(StoreResult<OpenDocument> result) {
  if (!result) return refusal(result.error());
  if (result->notModified) return notModified(result->version);
  HTTPResponse response = item(FVFResponseContainerTransferTypeFull, result->metadata, result->version);
  if (response.status != 200) return response;
  response.file = std::make_shared<const FileDescriptor>(std::move(result->descriptor));
  response.fileSize = result->size;
  return response;
}

// In the query, or after the command in the path.
std::optional<Data> document(const Command& command) {
  if (auto identifier = FVFRequestUtils::documentIdentifierFromURIQueryItems(command.queryItems)) return identifier;
  return FVFRequestUtils::documentIdentifierFromContentsOfFileURIComponents(command.components);
}

std::optional<Data> parent(const Command& command) {
  if (auto identifier = FVFRequestUtils::parentDocumentIdentifierFromURIQueryItems(command.queryItems)) {
    return identifier;
  }
  return FVFRequestUtils::parentDocumentIdentifierFromWriteFileURIComponents(command.components);
}

std::optional<std::string> name(const Command& command) {
  if (auto text = FVFRequestUtils::nameFromURIQueryItems(command.queryItems)) return text;
  return FVFRequestUtils::nameFromWriteFileURIComponents(command.components);
}

HTTPResponse missing(std::string_view what) {
  return HTTPResponse::sentence(400, "The request names no " + std::string(what) + ".");
}

}  // namespace

tl::expected<Command, HTTPResponse> Command::parse(const HTTPRequestHead& head) {
  auto url = head.target.starts_with('/') ? URL::fromString("https://host" + head.target) : std::nullopt;
  if (!url) return tl::unexpected(HTTPResponse::sentence(400, "The request's path cannot be understood."));
  Command command;
  // Split before decoding, so that a name with "/" stays one component.
  std::string_view path = head.target;
  command.components = FVFRequestUtils::URIComponentsFromPath(path.substr(0, path.find('?')));
  auto verb = FVFRequestUtils::commandFromURIComponents(command.components);
  auto route = std::ranges::find(kRoutes, verb.value_or(""), &Route::command);
  if (command.components.size() < 4 || command.components[1] != DURequestPrefix ||
      FVFRequestUtils::versionFromURIComponents(command.components) != DURequestVersion1 || route == kRoutes.end()) {
    return tl::unexpected(HTTPResponse::sentence(404, "There is no such command."));
  }
  if (head.method != route->method) {
    HTTPResponse response = HTTPResponse::sentence(405, "This command takes another method.");
    response.fields.emplace_back("Allow", route->method);
    return tl::unexpected(response);
  }
  command.kind = route->kind;
  command.queryItems = url->queryItems();
  command.share = FVFRequestUtils::sharepointDocumentIdentifierFromURIQueryItems(command.queryItems);
  if (const std::string* known = head.field(DUHeaderIfNoneMatchKey)) command.knownVersion = version(*known);
  const std::string* metadata = head.field(DUHeaderMetadataKey);
  if (!command.isUpload() || !metadata) return command;
  auto bytes = base64Decode(*metadata);
  auto list = bytes ? readPropertyList(*bytes, kMetadataLimits) : Result<Value>(Value());
  auto dictionary = list ? list->asDictionary() : std::nullopt;
  if (!dictionary) {
    return tl::unexpected(HTTPResponse::sentence(400, "The metadata sent along cannot be read."));
  }
  command.metadata = *dictionary;
  return command;
}

HTTPResponse CommandHandler::answer(const Command& command) {
  if (command.kind == Command::Kind::Root) return listing(store_.listRoot(command.knownVersion));
  auto identifier = document(command);
  if (!identifier) return missing("document");
  if (command.kind == Command::Kind::List) {
    return listing(store_.list(*identifier, command.share, command.knownVersion));
  }
  return contents(store_.contents(*identifier, command.share, command.knownVersion));
}

tl::expected<Upload, HTTPResponse> CommandHandler::beginUpload(const Command& command, std::uint64_t length) {
  StoreResult<Upload> upload = tl::unexpected(StoreError{StoreStatus::BadRequest, ""});
  if (command.kind == Command::Kind::Write) {
    auto folder = parent(command);
    if (!folder) return tl::unexpected(missing("folder"));
    if (!name(command)) return tl::unexpected(missing("file"));
    upload = store_.beginWrite(*folder, command.share, length);
  } else {
    auto identifier = document(command);
    if (!identifier) return tl::unexpected(missing("document"));
    upload = store_.beginReplace(*identifier, command.share, length);
  }
  if (!upload) return tl::unexpected(refusal(upload.error()));
  return std::move(*upload);
}

HTTPResponse CommandHandler::finishUpload(const Command& command, Upload upload) {
  auto stored = command.kind == Command::Kind::Write
                    ? store_.write(*parent(command), command.share, *name(command), command.metadata, std::move(upload))
                    : store_.replace(*document(command), command.share,
                                     FVFRequestUtils::versionIdentifierFromURIQueryItems(command.queryItems),
                                     command.metadata, std::move(upload));
  if (!stored) return refusal(stored.error());
  if (stored->dropBox) return item(FVFResponseContainerTransferTypeDropBoxFile, stored->metadata, stored->version);
  HTTPResponse response = item(FVFResponseContainerTransferTypeFull, stored->metadata, stored->version);
  if (response.status == 200) response.body = stored->body;
  return response;
}

tl::expected<std::vector<DocumentVersion>, HTTPResponse> CommandHandler::watchedVersions(const Data& body) {
  auto refused = tl::unexpected(HTTPResponse::sentence(400, "The documents to watch cannot be read."));
  auto list = readPropertyList(body, kWatchLimits);
  if (!list || list->kind() != Value::Kind::Array || list->arraySize() == 0 || list->arraySize() % 2 != 0) {
    return refused;
  }
  std::vector<DocumentVersion> versions;
  versions.reserve(list->arraySize() / 2);
  for (const Value* each = list->arrayBegin(); each != list->arrayBegin() + list->arraySize(); each += 2) {
    auto identifier = each[0].asData(), known = each[1].asData();
    if (!identifier || !known) return refused;
    versions.push_back({*identifier, *known});
  }
  return versions;
}

HTTPResponse CommandHandler::watchAnswer(const StoreResult<std::vector<DocumentVersion>>& versions) {
  if (!versions) return refusal(versions.error());
  Array list;
  list.reserve(versions->size() * 2);
  for (const DocumentVersion& each : *versions) {
    list.append(each.document);
    list.append(each.version);
  }
  if (list.empty()) return refusal({StoreStatus::NotFound, "None of the documents exists any more."});
  auto encoded = writePropertyList(list, PropertyListFormat::Binary);
  if (!encoded) return refusal({StoreStatus::Internal, encoded.error().localizedDescription()});
  HTTPResponse response;
  response.fields.emplace_back("Content-Type", "application/octet-stream");
  response.body = *encoded;
  return response;
}

}  // namespace florvane
