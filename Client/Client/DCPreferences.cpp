#include "Client/Client/DCPreferences.h"

#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "platform/Container.h"
#include "platform/FileSystem.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <vector>

namespace florvane {

namespace {

constexpr char kLogTraceKey[] = "LogTrace";
constexpr char kLogLevelKey[] = "LogLevel";
constexpr char kCurrentDataVersionKey[] = "CurrentDataVersionKey";
constexpr char kXMLPropertyListsKey[] = "XMLPropertyLists";
constexpr char kAuthCookieKeyPrefix[] = "AuthenticatedCookie_";
constexpr char kTrustedCertDataKeyPrefix[] = "TrustedCertData_";

struct SharedStore {
  std::mutex mutex;  // guards store; not held while folders are made, which may log
  std::shared_ptr<PreferencesStore> store;
};

// An error while there is no container.
Result<std::shared_ptr<PreferencesStore>> sharedStore() {
  static auto& shared = *new SharedStore;
  {
    std::lock_guard lock(shared.mutex);
    if (shared.store) return shared.store;
  }
  auto container = Container::requireDirectory();
  if (!container) return Failure(container.error());
  std::string folder = *container + "/Preferences";
  // A folder that cannot be made shows when the store is read or written.
  (void)createDirectories(folder, 0700);
  std::lock_guard lock(shared.mutex);
  if (!shared.store) shared.store = std::make_shared<PreferencesStore>(folder + "/" + DCAppGroupIdentifier + ".plist");
  return shared.store;
}

std::shared_ptr<DCPreferences>& preferencesSynchronizedAtExit() {
  static auto& preferences = *new std::shared_ptr<DCPreferences>;
  return preferences;
}

void synchronizeAtExit() {
  // Nobody is left to hear of a failure, and every setter has waited for its own write.
  (void)preferencesSynchronizedAtExit()->synchronize();
}

bool boolean(const Dictionary& contents, std::string_view key) {
  if (auto flag = contents.boolean(key)) return *flag;
  return contents.integer(key).value_or(0) != 0;
}

void setOrRemove(Dictionary& contents, const std::string& key, const Value& value) {
  if (value.isNull()) {
    contents.remove(key);
  } else {
    contents.set(key, value);
  }
}

std::optional<Secret> secret(const Dictionary& contents, const std::string& key) {
  auto text = contents.string(key);
  return text ? std::optional(Secret(*text)) : std::nullopt;
}

}  // namespace

std::shared_ptr<DCPreferences> DCPreferences::preferences() {
  auto preferences = std::make_shared<DCPreferences>(sharedStore());
  static std::atomic<bool> registered = false;
  if (!registered.exchange(true)) {
    preferencesSynchronizedAtExit() = preferences;
    errno = 0;
    if (std::atexit(synchronizeAtExit) != 0) {
      SystemLog::shared().write({DCLogLevelNotice,
                                 format("Failed to register for preferences synchronization at exit: %s",
                                        std::generic_category().message(errno)),
                                 {}});
    }
  }
  return preferences;
}

DCPreferences::DCPreferences(Result<std::shared_ptr<PreferencesStore>> store) : store_(std::move(store)) {}

Result<Dictionary> DCPreferences::snapshot() const {
  if (!store_) return Failure(store_.error());
  return (*store_)->snapshot();
}

Dictionary DCPreferences::contents() const {
  auto contents = snapshot();
  if (contents) return *contents;
  static std::atomic<bool> reported = false;
  if (!reported.exchange(true)) DCLogError("Unable to read the preferences: %@", contents.error());
  return {};
}

Result<void> DCPreferences::update(const std::function<void(Dictionary&)>& change) {
  auto written = store_ ? (*store_)->update(change) : Failure(store_.error());
  if (!written) DCLogError("Unable to write the preferences: %@", written.error());
  return written;
}

Result<void> DCPreferences::updateAndPost(const std::function<void(Dictionary&)>& change) {
  auto written = update(change);
  if (written) _postDidChangeNotification();
  return written;
}

Result<void> DCPreferences::synchronize() { return store_ ? (*store_)->synchronize() : Failure(store_.error()); }

void DCPreferences::_postDidChangeNotification() {
  NotificationCenter::shared().post(DCPreferencesDidChangeNotification);
}

std::string DCPreferences::_authCookieKeyForService(const DCService& service) {
  return format("%@%@", kAuthCookieKeyPrefix, service.uniqueIdentifier());
}

std::string DCPreferences::_trustedCertDataKeyForService(const DCService& service) {
  return format("%@%@", kTrustedCertDataKeyPrefix, service.uniqueIdentifier());
}

bool DCPreferences::traceLogsEnabled() const { return boolean(contents(), kLogTraceKey); }

Result<void> DCPreferences::setTraceLogsEnabled(bool enabled) {
  return updateAndPost([enabled](Dictionary& contents) { contents.set(kLogTraceKey, enabled); });
}

std::optional<std::string> DCPreferences::logLevel() const {
  Dictionary contents = this->contents();
  if (auto number = contents.integer(kLogLevelKey)) return std::to_string(*number);
  return contents.string(kLogLevelKey);
}

Result<void> DCPreferences::setLogLevel(const std::optional<std::string>& logLevel) {
  return updateAndPost([&](Dictionary& contents) { setOrRemove(contents, kLogLevelKey, logLevel); });
}

std::optional<std::string> DCPreferences::currentDataVersionNumber() const {
  return contents().string(kCurrentDataVersionKey);
}

Result<std::optional<std::string>> DCPreferences::currentDataVersion() const {
  auto contents = snapshot();
  if (!contents) return Failure(contents.error());
  return contents->string(kCurrentDataVersionKey);
}

Result<void> DCPreferences::setCurrentDataVersionNumber(const std::optional<std::string>& number) {
  return updateAndPost([&](Dictionary& contents) { setOrRemove(contents, kCurrentDataVersionKey, number); });
}

bool DCPreferences::xmlPropertyLists() const { return boolean(contents(), kXMLPropertyListsKey); }

Result<void> DCPreferences::setXmlPropertyLists(bool enabled) {
  return update([enabled](Dictionary& contents) { contents.set(kXMLPropertyListsKey, enabled); });
}

std::optional<Secret> DCPreferences::authCookieForService(const ServicePtr& service) const {
  return secret(contents(), _authCookieKeyForService(*service));
}

std::optional<Data> DCPreferences::trustedCertDataForService(const ServicePtr& service) const {
  return contents().data(_trustedCertDataKeyForService(*service));
}

DCSavedAuthentication DCPreferences::authCookieAndTrustedCertDataForService(const ServicePtr& service) const {
  Dictionary contents = this->contents();
  return {secret(contents, _authCookieKeyForService(*service)), contents.data(_trustedCertDataKeyForService(*service))};
}

Result<void> DCPreferences::setAuthCookie(const std::optional<Secret>& cookie,
                                          const std::optional<Data>& trustedCertData, const ServicePtr& service) {
  return updateAndPost([&](Dictionary& contents) {
    setOrRemove(contents, _authCookieKeyForService(*service), cookie ? Value(cookie->reveal()) : Value());
    setOrRemove(contents, _trustedCertDataKeyForService(*service), trustedCertData);
  });
}

Result<void> DCPreferences::clearAuthCookieAndTrustedCertDataForService(const ServicePtr& service) {
  return setAuthCookie(std::nullopt, std::nullopt, service);
}

Result<bool> DCPreferences::clearAuthCookieAndTrustedCertDataForService(const ServicePtr& service,
                                                                        const Secret& onlyIfCookie) {
  bool removed = false;
  std::string cookieKey = _authCookieKeyForService(*service);
  auto written = update([&](Dictionary& contents) {
    auto stored = secret(contents, cookieKey);
    removed = stored && *stored == onlyIfCookie;
    if (!removed) return;
    contents.remove(cookieKey);
    contents.remove(_trustedCertDataKeyForService(*service));
  });
  if (!written) return Failure(written.error());
  if (removed) _postDidChangeNotification();
  return removed;
}

Result<void> DCPreferences::clearAllAuthCookiesAndTrustedCertData() {
  return updateAndPost([](Dictionary& contents) {
    std::vector<std::string> keys;
    for (const auto& entry : contents) {
      std::string_view key = entry.key.text();
      if (key.starts_with(kAuthCookieKeyPrefix) || key.starts_with(kTrustedCertDataKeyPrefix)) keys.emplace_back(key);
    }
    for (const auto& key : keys) contents.remove(key);
  });
}

}  // namespace florvane
