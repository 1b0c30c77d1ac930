#pragma once

#include "platform/Value.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

namespace florvane {

// Domains of the platform's own errors.
inline constexpr char QuilbarErrorDomain[] = "QuilbarErrorDomain";  // file system and object library, codes below
inline constexpr char POSIXErrorDomain[] = "POSIXErrorDomain";      // code is an errno
inline constexpr char URLErrorDomain[] = "URLErrorDomain";          // URL loading, codes below; HTTP statuses too

// Keys of an error's user info.
inline constexpr char LocalizedDescriptionKey[] = "LocalizedDescription";
inline constexpr char FilePathErrorKey[] = "FilePath";                     // string: a local path
inline constexpr char URLErrorFailingPeerTrustKey[] = "FailingPeerTrust";  // array of DER data, leaf first
inline constexpr char URLErrorFailingURLStringKey[] = "FailingURLString";  // string

// Codes in QuilbarErrorDomain.
inline constexpr std::int64_t FileNoSuchFileError = 4;
inline constexpr std::int64_t FileReadUnknownError = 256;
inline constexpr std::int64_t FileReadNoPermissionError = 257;
inline constexpr std::int64_t FileReadNoSuchFileError = 260;
inline constexpr std::int64_t FileWriteUnknownError = 512;
inline constexpr std::int64_t FileWriteNoPermissionError = 513;
inline constexpr std::int64_t FileWriteFileExistsError = 516;
inline constexpr std::int64_t FileWriteOutOfSpaceError = 640;
inline constexpr std::int64_t FileWriteVolumeReadOnlyError = 642;
inline constexpr std::int64_t PropertyListReadCorruptError = 3840;
inline constexpr std::int64_t PropertyListWriteInvalidError = 3852;

// Codes in URLErrorDomain, beside HTTP statuses of 400 and above.
inline constexpr std::int64_t URLErrorCancelled = -999;
inline constexpr std::int64_t URLErrorBadURL = -1000;
inline constexpr std::int64_t URLErrorTimedOut = -1001;
inline constexpr std::int64_t URLErrorUnsupportedURL = -1002;
inline constexpr std::int64_t URLErrorCannotConnectToHost = -1004;
inline constexpr std::int64_t URLErrorNetworkConnectionLost = -1005;
inline constexpr std::int64_t URLErrorDNSLookupFailed = -1006;
inline constexpr std::int64_t URLErrorHTTPTooManyRedirects = -1007;
inline constexpr std::int64_t URLErrorCannotParseResponse = -1017;
inline constexpr std::int64_t URLErrorFileDoesNotExist = -1100;
inline constexpr std::int64_t URLErrorNoPermissionsToReadFile = -1102;
inline constexpr std::int64_t URLErrorDataLengthExceedsMaximum = -1103;
inline constexpr std::int64_t URLErrorSecureConnectionFailed = -1200;
inline constexpr std::int64_t URLErrorServerCertificateHasBadDate = -1201;
inline constexpr std::int64_t URLErrorServerCertificateUntrusted = -1202;
inline constexpr std::int64_t URLErrorServerCertificateHasUnknownRoot = -1203;
inline constexpr std::int64_t URLErrorServerCertificateNotYetValid = -1204;
inline constexpr std::int64_t URLErrorClientCertificateRejected = -1205;
inline constexpr std::int64_t URLErrorClientCertificateRequired = -1206;
inline constexpr std::int64_t URLErrorCannotWriteToFile = -3003;

// What went wrong at run time, as a value: domain, code and further information. Immutable and safe to share.
class Error {
 public:
  Error(std::string_view domain, std::int64_t code, Dictionary userInfo = {});
  // With a description under LocalizedDescriptionKey.
  Error(std::string_view domain, std::int64_t code, std::string_view description);
  // An errno, with the system's text for it and the path it is about where there is one.
  static Error posix(int errorNumber, std::string_view path = {});
  // An errno of a file operation in QuilbarErrorDomain, the closest code for reading or writing.
  static Error fileRead(int errorNumber, std::string_view path);
  static Error fileWrite(int errorNumber, std::string_view path);

  const std::string& domain() const { return storage_->domain; }
  std::int64_t code() const { return storage_->code; }
  const Dictionary& userInfo() const { return storage_->userInfo; }
  bool is(std::string_view domain, std::int64_t code) const {
    return storage_->code == code && storage_->domain == domain;
  }
  // The text under LocalizedDescriptionKey, or one made of domain and code.
  std::string localizedDescription() const;
  // The error that led to this one; null when there is none.
  const Error* underlyingError() const { return storage_->underlying.get(); }
  Error withUnderlyingError(const Error& underlying) const;
  // "Error Domain=... Code=... \"...\"".
  std::string description() const;

 private:
  struct Storage {
    std::string domain;
    std::int64_t code;
    Dictionary userInfo;
    std::shared_ptr<const Error> underlying;
  };
  std::shared_ptr<const Storage> storage_;
};

template <typename T>
using Result = tl::expected<T, Error>;
using Failure = tl::unexpected<Error>;

}  // namespace florvane
