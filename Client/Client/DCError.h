#pragma once

#include "Client/Client/DCPath.h"
#include "platform/Error.h"
#include "platform/URL.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace florvane {

// Every failure that the client itself reports is in this domain, with the codes of the factories below.
inline constexpr char DCErrorDomain[] = "Florvane Client Error Domain";

// Keys of user info, beside the platform's.
inline constexpr char DCFileRelativePathKey[] = "DCFileRelativePathKey";  // string: the relative path concerned
inline constexpr char DCHeaderNameKey[] = "DCHeaderNameKey";              // string: the HTTP header concerned
inline constexpr char DCErrorArgumentKey[] = "argument";                  // any value: the offending argument

// Makes errors and their user info. No state; thread-safe.
class DCError {
 public:
  using UserInfo = std::optional<Dictionary>;

  // The value, described as an "Illegal argument: %@".
  static Dictionary userInfoWithArgument(const Value& argument);
  static Dictionary userInfoWithFullPath(const DCFullPath& fullPath);
  static Dictionary userInfoWithHeaderName(std::string_view headerName);
  // A cached item's relative path, and its full path where it has one.
  template <typename Item>
  static Dictionary userInfoWithItem(const Item& item) {
    return userInfoWithPaths(*item.relativePath(), item.fullPath().get());
  }
  static Dictionary userInfoWithRelativePath(const DCRelativePath& relativePath);
  static Dictionary userInfoWithURL(const URL& url);
  // A copy with that description, in place of any other.
  static Dictionary userInfo(const UserInfo& userInfo, std::string_view addingDescription);

  // Each adds its own description to the user info and names its code.
  static Error errorInvalidArgumentWithUserInfo(const UserInfo& userInfo = {});       // 1
  static Error errorConnectionTimedOutWithUserInfo(const UserInfo& userInfo = {});    // 2
  static Error errorNotConnectedWithUserInfo(const UserInfo& userInfo = {});          // 2, so that one test is for both
  static Error errorVersionConflictWithUserInfo(const UserInfo& userInfo = {});       // 3
  static Error errorItemNotDownloadedWithUserInfo(const UserInfo& userInfo = {});     // 4
  static Error errorItemNotUploadedWithUserInfo(const UserInfo& userInfo = {});       // 5
  static Error errorMistmatchedTypeWithUserInfo(const UserInfo& userInfo = {});       // 6
  static Error errorDirectoryNotEmptyWithUserInfo(const UserInfo& userInfo = {});     // 7
  static Error errorItemNotYetAvilableWithUserInfo(const UserInfo& userInfo = {});    // 8
  static Error errorItemAlreadyExistsWithUserInfo(const UserInfo& userInfo = {});     // 9
  static Error errorNoPreviewAvailableWithUserInfo(const UserInfo& userInfo = {});    // 10
  static Error errorNoSuchItemWithUserInfo(const UserInfo& userInfo = {});            // 11
  static Error errorNoPermissionWithUserInfo(const UserInfo& userInfo = {});          // 12
  static Error errorInternalWithUserInfo(const UserInfo& userInfo = {});              // 13
  static Error errorInvalidHeaderWithUserInfo(const UserInfo& userInfo = {});         // 14
  static Error errorNoThumbnailAvailableWithUserInfo(const UserInfo& userInfo = {});  // 15

  // The same domain, code and user info, with the given error as underlying one. The path is not told.
  static Error errorWithUnderlyingError(const Error& error, const DCFullPath::Ptr& path);
  // Errors of the file system reach callers as they are: a soft assertion, and the error itself.
  static Error transformFileManagerError(const Error& error);
  // The same where there may be none.
  static std::optional<Error> transformFileManagerError(const std::optional<Error>& error);

 private:
  static Dictionary userInfoWithPaths(const DCRelativePath& relativePath, const DCFullPath* fullPath);
};

// Whether the transport could not reach the server, or lost it: what becomes the client's error 2.
bool pc_isConnectionFailure(const Error& error);
bool pc_isDCErrorWithCode(const Error& error, std::int64_t code);
// The same for the platform's general domain: file system and object library.
bool pc_isQuilbarErrorWithCode(const Error& error, std::int64_t code);

}  // namespace florvane
