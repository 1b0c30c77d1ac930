#pragma once

#include "platform/AccountStore.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/URL.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace florvane {

inline constexpr std::uint16_t DCServerDefaultPortNumber = 10548;

// Posted by whoever changes an account's port.
inline constexpr char FlorvanePortNumberDidChangeNotification[] = "FlorvanePortNumberDidChangeNotification";
inline constexpr char FlorvaneAccountIdentifierKey[] = "FlorvaneAccountIdentifierKey";  // string
inline constexpr char FlorvaneNewPortNumberKey[] = "FlorvaneNewPortNumberKey";          // integer

// One configured server: where it is, which keychain item holds its password, and the identifier under which everything
// kept for it is filed. Making one makes its document and metadata folders; that they cannot be made is logged, no
// more. Immutable except for the port of one made from an account. Thread-safe.
class DCService : public std::enable_shared_from_this<DCService> {
  struct Fields;

 public:
  // The factories throw InvalidArgumentException when an argument is missing ("Illegal nil url", ...) or the host name
  // makes no URL ("Illegal nil url"), and when there is no container to keep a service's folders in. The clock is that
  // of everything made for the service; it outlives the process's use of it.

  // Identified by the SHA-1 of the URL's text.
  static std::shared_ptr<DCService> serviceWithURL(const std::optional<URL>& url,
                                                   const std::optional<std::string>& keychainItemIdentifier,
                                                   Clock& clock = Clock::system());
  // https on the default port. An IPv6 literal may stand bare.
  static std::shared_ptr<DCService> serviceWithHostName(const std::optional<std::string>& hostName,
                                                        const std::optional<std::string>& uniqueIdentifier,
                                                        Clock& clock = Clock::system());
  // Follows changes of the account's port while it lives.
  static std::shared_ptr<DCService> serviceWithAccount(const std::optional<Account>& account,
                                                       Clock& clock = Clock::system());

  explicit DCService(Fields fields);
  ~DCService();
  DCService(const DCService&) = delete;
  DCService& operator=(const DCService&) = delete;

  // Scheme "https", host and port, no path.
  URL url() const;
  const std::string& keychainItemIdentifier() const;
  // Never empty.
  const std::string& uniqueIdentifier() const;
  Clock& clock() const { return clock_; }
  std::string description() const;

  // The server's folder name, from the URL of a file two levels below it; absent for any other URL.
  static std::optional<std::string> serverIdentifierForURL(const URL& url);

 private:
  struct Fields {
    URL url;
    std::string keychainItemIdentifier;
    std::string uniqueIdentifier;
    Clock* clock;
  };

  static std::shared_ptr<DCService> make(Fields fields);
  void createDirectories();
  void observePortNumber();
  void portNumberDidChange(const Notification& notification);
  void rereadPort();
  void setPort(std::int64_t port);

  mutable std::mutex mutex_;  // guards url_
  URL url_;
  const std::string keychainItemIdentifier_;
  const std::string uniqueIdentifier_;
  Clock& clock_;
  std::unique_ptr<NotificationCenter::Observation> portObservation_;
};

}  // namespace florvane
