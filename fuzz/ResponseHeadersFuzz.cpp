#include "Client/Client/Florvane.h"
#include "common/FVFRequestUtils.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

// Any answer of a server as the remote document manager reads it: two bytes of status, a byte that says which fields
// are there, then the fields' values, each ended by a line break, and the body. The handler hears of it once, with what
// the status and the fields call for.

namespace florvane {
namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

struct Client {
  Client() {
    Container::setDirectory(folder);
    manager = std::make_shared<DCRemoteDocumentManager>(DCService::serviceWithHostName("localhost", "fuzz"));
  }
  ~Client() { std::filesystem::remove_all(folder); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  std::string folder = std::filesystem::temp_directory_path() / ("florvane-fuzz-" + std::to_string(getpid()));
  std::shared_ptr<DCRemoteDocumentManager> manager;
};

std::string_view nextLine(std::string_view& rest) {
  std::size_t end = std::min(rest.find('\n'), rest.size());
  std::string_view line = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return line;
}

void answer(const Client& client, std::span<const std::uint8_t> input) {
  const int status = input[0] << 8 | input[1];
  const unsigned present = input[2];
  std::string_view rest(reinterpret_cast<const char*>(input.data()) + 3, input.size() - 3);
  HTTPHeaders headers;
  unsigned bit = 1;
  for (const char* name : {DUHeaderTransferTypeKey, DUHeaderETagKey, DUHeaderMetadataKey}) {
    if (present & bit) headers.set(name, std::string(nextLine(rest)));
    bit <<= 1;
  }
  auto response =
      std::make_shared<const HTTPURLResponse>(*URL::fromString("https://localhost:10548/cat"), status, headers);
  std::optional<URL> body;
  if (present & bit) {
    const std::string path = client.folder + "/body";
    check(writeFileAtomically(path, Data::fromString(rest)).has_value());
    body = URL::fileURL(path);
  }
  const auto transportError =
      present & (bit << 1) ? std::optional(Error(URLErrorDomain, URLErrorTimedOut)) : std::nullopt;
  if (present & (bit << 2)) response = nullptr;

  int calls = 0;
  client.manager->handleResponse(
      response, body, transportError,
      [&](const FVFResponseContainer::Ptr& container, const std::optional<Error>& error) {
        ++calls;
        check(!container || !error);
        if (transportError) {
          check(error && error->is(URLErrorDomain, URLErrorTimedOut));
        } else if (!response || status >= 400) {
          check(error && error->is(URLErrorDomain, response ? status : 500));
        } else if (status == 304) {
          check(!container && !error);
        } else if (container) {
          check((present & 7U) == 7U);
          check(container->metadata() && container->metadata()->data(FVVersionIdentifierKey));
          check(container->url() == body);
        } else {
          check(error && error->domain() == DCErrorDomain);
        }
      });
  check(calls == 1);

  // What is read of the metadata, written and read again, is the same.
  auto header = headers.value(DUHeaderMetadataKey);
  auto metadata = header ? FVFMetadataUtils::metadataFromHeader(*header) : std::nullopt;
  if (!metadata) return;
  auto written = FVFMetadataUtils::headerFromMetadata(*metadata, PropertyListFormat::Binary);
  check(written && FVFMetadataUtils::metadataFromHeader(*written).has_value());
}

}  // namespace
}  // namespace florvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const florvane::Client client;
  if (size >= 3) florvane::answer(client, {bytes, size});
  return 0;
}
