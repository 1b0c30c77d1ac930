#pragma once

#include "common/FVFRequestUtils.h"
#include "platform/Data.h"
#include "platform/Value.h"
#include "server/DocumentStore.h"
#include "server/HTTPMessage.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <tl/expected.hpp>

namespace florvane {

// One of the document commands as it was requested.
struct Command {
  enum class Kind { Root, List, Contents, Write, Replace, Watch };

  Kind kind = Kind::Root;
  FVFRequestUtils::QueryItems queryItems;
  std::vector<std::string> components;  // of the path
  std::optional<Data> share;
  std::optional<Data> knownVersion;  // If-None-Match; absent also when it is no version of ours
  Dictionary metadata;               // sent with a write or replace

  bool isUpload() const { return kind == Kind::Write || kind == Kind::Replace; }
  // The request's command, or its refusal: 404 for an unknown path, 405 for another method, 400 for metadata that
  // cannot be read.
  static tl::expected<Command, HTTPResponse> parse(const HTTPRequestHead& head);
};

// Turns commands into calls of the document store and what it says into responses. Thread-safe; blocks on the disk.
class CommandHandler {
 public:
  // The store outlives this.
  explicit CommandHandler(DocumentStore& store) : store_(store) {}

  // root, ls and cat.
  HTTPResponse answer(const Command& command);
  // write and replace: room for the body, its length 0 when unknown; then what was stored.
  tl::expected<Upload, HTTPResponse> beginUpload(const Command& command, std::uint64_t length);
  HTTPResponse finishUpload(const Command& command, Upload upload);
  // watch: the pairs of the body, and the answer to them.
  static tl::expected<std::vector<DocumentVersion>, HTTPResponse> watchedVersions(const Data& body);
  static HTTPResponse watchAnswer(const StoreResult<std::vector<DocumentVersion>>& versions);

  static constexpr std::size_t kMaximumWatchBodySize = 8U << 20;

 private:
  DocumentStore& store_;
};

}  // namespace florvane
