#pragma once

#include "Client/Client/DCService.h"
#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/PreferencesStore.h"
#include "platform/Secret.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// Posted, without object, after every change but that of the property lists' form.
inline constexpr char DCPreferencesDidChangeNotification[] = "DCPreferencesDidChangeNotification";

// What a service's last login left, read as one.
struct DCSavedAuthentication {
  std::optional<Secret> cookie;
  std::optional<Data> trustedCertData;  // DER
};

// The preferences that application, file provider and agent share, in the container's file
// "Preferences/group.quorl.Florvane.plist" (0600). A getter gives the default when its key is absent or the file cannot
// be read; the latter is logged once. A setter has the change on disk, or an error and no change, when it returns; then
// all processes are told. Nothing here writes trace lines: the log layer is configured from here. Thread-safe, also
// between processes.
class DCPreferences {
 public:
  using ServicePtr = std::shared_ptr<const DCService>;

  // A new object on the shared store. The first one is synchronised when the process exits.
  static std::shared_ptr<DCPreferences> preferences();

  bool traceLogsEnabled() const;
  Result<void> setTraceLogsEnabled(bool enabled);
  // A level's name or number.
  std::optional<std::string> logLevel() const;
  Result<void> setLogLevel(const std::optional<std::string>& logLevel);
  // The version of the data kept locally. currentDataVersion() tells a missing version from unreadable preferences.
  std::optional<std::string> currentDataVersionNumber() const;
  Result<std::optional<std::string>> currentDataVersion() const;
  Result<void> setCurrentDataVersionNumber(const std::optional<std::string>& number);
  bool xmlPropertyLists() const;
  // Tells nobody: it only says how files are written from now on.
  Result<void> setXmlPropertyLists(bool enabled);

  // Cookie and certificate of one service; they belong together, so prefer the one that reads both.
  std::optional<Secret> authCookieForService(const ServicePtr& service) const;
  std::optional<Data> trustedCertDataForService(const ServicePtr& service) const;
  DCSavedAuthentication authCookieAndTrustedCertDataForService(const ServicePtr& service) const;
  // Sets both; an absent one is removed.
  Result<void> setAuthCookie(const std::optional<Secret>& cookie, const std::optional<Data>& trustedCertData,
                             const ServicePtr& service);
  Result<void> clearAuthCookieAndTrustedCertDataForService(const ServicePtr& service);
  // Only when the stored cookie is still this one, so that a login by somebody else meanwhile is kept; compared and
  // removed as one step. True when they were removed, and only then others are told.
  Result<bool> clearAuthCookieAndTrustedCertDataForService(const ServicePtr& service, const Secret& onlyIfCookie);
  // Those of every service, known or not.
  Result<void> clearAllAuthCookiesAndTrustedCertData();

  // Flushes to stable storage.
  Result<void> synchronize();

  // An error in place of the store is that of every call.
  explicit DCPreferences(Result<std::shared_ptr<PreferencesStore>> store);

 private:
  Result<Dictionary> snapshot() const;
  // Empty, and logged once, when they cannot be read.
  Dictionary contents() const;
  Result<void> update(const std::function<void(Dictionary&)>& change);
  Result<void> updateAndPost(const std::function<void(Dictionary&)>& change);
  static void _postDidChangeNotification();
  static std::string _authCookieKeyForService(const DCService& service);
  static std::string _trustedCertDataKeyForService(const DCService& service);

  const Result<std::shared_ptr<PreferencesStore>> store_;
};

}  // namespace florvane
