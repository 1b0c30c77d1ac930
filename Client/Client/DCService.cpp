#include "Client/Client/DCService.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "common/FVFPathUtils.h"
#include "common/PUAdditions.h"
#include "platform/Crypto.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"

#include <utility>

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCService";

URL serverURL(const std::string& hostName, std::uint16_t port) {
  auto url = URL::fromString(format("%@://%@:%@", "https", bracketedHost(hostName), port));
  if (!url) throw InvalidArgumentException("Illegal nil url");
  return *url;
}

void createDirectory(const std::string& path) {
  auto created = createDirectories(path);
  if (created) return;
  DCLogWarning("Unable to create directory '%@': %@", path, created.error());
  DCAssertionFailed(kSource, __LINE__, "!error");
}

}  // namespace

std::shared_ptr<DCService> DCService::serviceWithURL(const std::optional<URL>& url,
                                                     const std::optional<std::string>& keychainItemIdentifier,
                                                     Clock& clock) {
  DCLogTrace("-[DCService _initWithURL:keychainItemIdentifier:]",
             {{"url", url}, {"keychainItemIdentifier", keychainItemIdentifier}});
  if (!url) throw InvalidArgumentException("Illegal nil url");
  if (!keychainItemIdentifier || keychainItemIdentifier->empty()) {
    throw InvalidArgumentException("Illegal empty keychainItemIdentifier");
  }
  Data text = Data::fromString(url->description());
  return make({*url, *keychainItemIdentifier, pu_hex(digest(DigestAlgorithm::SHA1, text.span())), &clock});
}

std::shared_ptr<DCService> DCService::serviceWithHostName(const std::optional<std::string>& hostName,
                                                          const std::optional<std::string>& uniqueIdentifier,
                                                          Clock& clock) {
  DCLogTrace("-[DCService _initWithHostName:uniqueIdentifier:]",
             {{"hostName", hostName}, {"uniqueIdentifier", uniqueIdentifier}});
  if (!hostName) throw InvalidArgumentException("Illegal nil hostname");
  if (!uniqueIdentifier || uniqueIdentifier->empty()) throw InvalidArgumentException("Illegal empty uniqueIdentifier");
  return make({serverURL(*hostName, DCServerDefaultPortNumber), *hostName, *uniqueIdentifier, &clock});
}

std::shared_ptr<DCService> DCService::serviceWithAccount(const std::optional<Account>& account, Clock& clock) {
  DCLogTrace("-[DCService _initWithAccount:]",
             {{"account", account ? std::optional(account->identifier) : std::nullopt}});
  if (!account) throw InvalidArgumentException("Illegal nil account");
  const auto& hostName = account->dataClassHostName ? account->dataClassHostName : account->hostName;
  if (!hostName) throw InvalidArgumentException("Illegal nil hostname");
  std::optional<std::uint16_t> portNumber = account->dataClassPortNumber.value_or(DCServerDefaultPortNumber);
  if (!portNumber) throw InvalidArgumentException("Illegal nil portNumber");
  auto service = make({serverURL(*hostName, *portNumber), *hostName, account->identifier, &clock});
  service->observePortNumber();
  return service;
}

std::shared_ptr<DCService> DCService::make(Fields fields) {
  auto service = std::make_shared<DCService>(std::move(fields));
  createDirectory(DCFullPath::documentRootForService(service)->string());
  createDirectory(DCFullPath::metadataRootForService(service)->string());
  return service;
}

DCService::DCService(Fields fields)
    : url_(std::move(fields.url)),
      keychainItemIdentifier_(std::move(fields.keychainItemIdentifier)),
      uniqueIdentifier_(std::move(fields.uniqueIdentifier)),
      clock_(*fields.clock) {}

DCService::~DCService() = default;

URL DCService::url() const {
  std::lock_guard lock(mutex_);
  return url_;
}

const std::string& DCService::keychainItemIdentifier() const { return keychainItemIdentifier_; }

const std::string& DCService::uniqueIdentifier() const { return uniqueIdentifier_; }

std::string DCService::description() const {
  return format("<%@ url=%@, uniqueIdentifier=%@, keychain-identifier=%@>", baseDescription("DCService", this),
                url().absoluteString(), uniqueIdentifier_, keychainItemIdentifier_);
}

void DCService::observePortNumber() {
  portObservation_ = NotificationCenter::shared().addObserver(
      FlorvanePortNumberDidChangeNotification, [weak = weak_from_this()](const Notification& notification) {
        if (auto self = weak.lock()) self->portNumberDidChange(notification);
      });
}

void DCService::portNumberDidChange(const Notification& notification) {
  if (notification.missedSome) {
    rereadPort();
    return;
  }
  auto identifier = notification.userInfo.string(FlorvaneAccountIdentifierKey);
  auto port = notification.userInfo.integer(FlorvaneNewPortNumberKey);
  if (identifier == uniqueIdentifier_ && port) setPort(*port);
}

// The change may be among what was missed; the account knows.
void DCService::rereadPort() {
  auto store = AccountStore::shared();
  auto account = store ? (*store)->accountWithIdentifier(uniqueIdentifier_) : Failure(store.error());
  if (!account) {
    DCLogError("Unable to read the account of %@: %@", description(), account.error());
  } else if (*account) {
    std::uint16_t port = (*account)->dataClassPortNumber.value_or(DCServerDefaultPortNumber);
    if (port != url().effectivePort()) setPort(port);
  }
}

void DCService::setPort(std::int64_t port) {
  if (port < 1 || port > UINT16_MAX) return;
  std::unique_lock lock(mutex_);
  url_ = url_.withPort(static_cast<std::uint16_t>(port));
  URL changed = url_;
  lock.unlock();
  DCLogInfo("Updating service URL due to port change: %@", changed);
}

std::optional<std::string> DCService::serverIdentifierForURL(const URL& url) {
  DCLogTrace("+[DCService serverIdentifierForURL:]", {{"url", url}});
  if (!url.isFileURL()) return std::nullopt;
  try {
    std::string path = FVFPathUtils::stringBySanitizingPath(url.path(), false, true);
    for (int dropped = 0; dropped < 2; ++dropped) path = folderOf(path);
    std::string identifier = path.substr(path.rfind('/') + 1);
    return identifier.empty() ? std::nullopt : std::optional(identifier);
  } catch (const InvalidArgumentException&) {
    return std::nullopt;
  }
}

}  // namespace florvane
