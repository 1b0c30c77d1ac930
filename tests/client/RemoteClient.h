#pragma once

#include "Client/Client/Florvane.h"
#include "tests/support/TestContainer.h"

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>

namespace florvane::test {

// What an operation on the server came to, its body read while it was there.
struct Outcome {
  std::optional<Dictionary> metadata;
  std::uint32_t transferType = 0;
  std::optional<std::string> body;
  std::optional<Error> error;
  bool isNotModified() const { return !metadata && !error; }
  bool failedWith(std::string_view domain, std::int64_t code) const { return error && error->is(domain, code); }
};

// A container, an account in it, and that account's remote document manager, for tests that wait for answers.
class RemoteClient {
 public:
  explicit RemoteClient(std::uint16_t port, const std::string& user = "ada",
                        const std::string& password = "Notes by the Translator: G");

  // Runs the operation on the service's queue and waits for its handler.
  using Start = std::function<void(DCRemoteCompletionHandler)>;
  Outcome wait(const Start& start);
  Outcome root(const std::optional<Data>& unlessVersion = std::nullopt);
  Outcome list(const Dictionary& directory, const std::optional<Data>& unlessVersion = std::nullopt);
  Outcome cat(const Dictionary& file, const std::optional<Data>& unlessVersion = std::nullopt);
  // The entry of that name in the body of a listing; throws when there is none.
  static Dictionary entry(const Outcome& listing, const std::string& name);
  // The shares' list, then the share's own; throws when an answer is an error.
  Outcome share(const std::string& name);

  // For requests below the share that was listed last.
  DCActivityInfo::Ptr activityInfo;
  const TestContainer container;
  std::shared_ptr<DCService> service;
  std::shared_ptr<HTTPSASLClientSessionManager> sessionManager;
  DCRemoteDocumentManager::Ptr manager;
};

}  // namespace florvane::test
