#include "Client/Client/DCError.h"

#include "Client/Client/DCLog.h"
#include "platform/Format.h"

namespace florvane {

namespace {

constexpr char kSource[] = "Client/Client/DCError";
// Where the assertion of transformFileManagerError() has always been reported.
constexpr unsigned kTransformAssertionLine = 121;

Error clientError(std::string_view function, std::int64_t code, const DCError::UserInfo& userInfo,
                  std::string_view description) {
  DCLogTrace(function, {{"userInfo", userInfo}});
  return {DCErrorDomain, code, DCError::userInfo(userInfo, description)};
}

}  // namespace

Dictionary DCError::userInfoWithArgument(const Value& argument) {
  DCLogTrace("+[DCError userInfoWithArgument:]", {{"argument", argument}});
  return userInfo(Dictionary{{DCErrorArgumentKey, argument}}, format("Illegal argument: %@", argument));
}

Dictionary DCError::userInfoWithFullPath(const DCFullPath& fullPath) {
  DCLogTrace("+[DCError userInfoWithFullPath:]", {{"fullPath", fullPath}});
  return {{FilePathErrorKey, fullPath.url().path()}};
}

Dictionary DCError::userInfoWithHeaderName(std::string_view headerName) {
  DCLogTrace("+[DCError userInfoWithHeaderName:]", {{"headerName", headerName}});
  return {{DCHeaderNameKey, headerName}};
}

Dictionary DCError::userInfoWithPaths(const DCRelativePath& relativePath, const DCFullPath* fullPath) {
  DCLogTrace(
      "+[DCError userInfoWithItem:]",
      {{"relativePath", relativePath}, {"fullPath", fullPath ? std::optional(fullPath->description()) : std::nullopt}});
  Dictionary userInfo{{DCFileRelativePathKey, relativePath.string()}};
  if (fullPath) userInfo.set(FilePathErrorKey, fullPath->url().path());
  return userInfo;
}

Dictionary DCError::userInfoWithRelativePath(const DCRelativePath& relativePath) {
  DCLogTrace("+[DCError userInfoWithRelativePath:]", {{"relativePath", relativePath}});
  return {{DCFileRelativePathKey, relativePath.string()}};
}

Dictionary DCError::userInfoWithURL(const URL& url) {
  DCLogTrace("+[DCError userInfoWithURL:]", {{"url", url}});
  return {{FilePathErrorKey, url.path()}};
}

Dictionary DCError::userInfo(const UserInfo& userInfo, std::string_view addingDescription) {
  DCLogTrace("+[DCError userInfo:addingDescription:]", {{"userInfo", userInfo}, {"description", addingDescription}});
  Dictionary result = userInfo.value_or(Dictionary());
  result.set(LocalizedDescriptionKey, addingDescription);
  return result;
}

Error DCError::errorInvalidArgumentWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorInvalidArgumentWithUserInfo:]", 1, userInfo, "Invalid argument.");
}

Error DCError::errorConnectionTimedOutWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorConnectionTimedOutWithUserInfo:]", 2, userInfo, "Connection timed out.");
}

Error DCError::errorNotConnectedWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorNotConnectedWithUserInfo:]", 2, userInfo, "Connection failure.");
}

Error DCError::errorVersionConflictWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorVersionConflictWithUserInfo:]", 3, userInfo, "Version conflict.");
}

Error DCError::errorItemNotDownloadedWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorItemNotDownloadedWithUserInfo:]", 4, userInfo, "Item not yet downloaded.");
}

Error DCError::errorItemNotUploadedWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorItemNotUploadedWithUserInfo:]", 5, userInfo, "Item not yet uploaded.");
}

Error DCError::errorMistmatchedTypeWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorMistmatchedTypeWithUserInfo:]", 6, userInfo, "Mistmatched file type.");
}

Error DCError::errorDirectoryNotEmptyWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorDirectoryNotEmptyWithUserInfo:]", 7, userInfo, "Directory not empty.");
}

Error DCError::errorItemNotYetAvilableWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorItemNotYetAvilableWithUserInfo:]", 8, userInfo, "Item not yet available.");
}

Error DCError::errorItemAlreadyExistsWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorItemAlreadyExistsWithUserInfo:]", 9, userInfo, "Item already exists.");
}

Error DCError::errorNoPreviewAvailableWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorNoPreviewAvailableWithUserInfo:]", 10, userInfo, "No preview available.");
}

Error DCError::errorNoSuchItemWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorNoSuchItemWithUserInfo:]", 11, userInfo, "No such item.");
}

Error DCError::errorNoPermissionWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorNoPermissionWithUserInfo:]", 12, userInfo, "No permission to perform operation.");
}

Error DCError::errorInternalWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorInternalWithUserInfo:]", 13, userInfo, "Internal error.");
}

Error DCError::errorInvalidHeaderWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorInvalidHeaderWithUserInfo:]", 14, userInfo, "Invalid header.");
}

Error DCError::errorNoThumbnailAvailableWithUserInfo(const UserInfo& userInfo) {
  return clientError("+[DCError errorNoThumbnailAvailableWithUserInfo:]", 15, userInfo, "No thumbnail available.");
}

Error DCError::errorWithUnderlyingError(const Error& error, const DCFullPath::Ptr& path) {
  DCLogTrace("+[DCError errorWithUnderlyingError:path:]", {{"error", error}, {"path", path}});
  return error.withUnderlyingError(error);
}

Error DCError::transformFileManagerError(const Error& error) {
  DCLogTrace("+[DCError transformFileManagerError:]", {{"error", error}});
  DCAssertionFailed(kSource, kTransformAssertionLine, "0");
  return error;
}

std::optional<Error> DCError::transformFileManagerError(const std::optional<Error>& error) {
  if (error) return transformFileManagerError(*error);
  DCLogTrace("+[DCError transformFileManagerError:]", {{"error", error}});
  DCAssertionFailed(kSource, kTransformAssertionLine, "0");
  return std::nullopt;
}

bool pc_isConnectionFailure(const Error& error) {
  if (error.domain() != URLErrorDomain) return false;
  switch (error.code()) {
    case URLErrorTimedOut:
    case URLErrorCannotConnectToHost:
    case URLErrorNetworkConnectionLost:
    case URLErrorDNSLookupFailed:
      return true;
    default:
      return false;
  }
}

bool pc_isDCErrorWithCode(const Error& error, std::int64_t code) { return error.is(DCErrorDomain, code); }

bool pc_isQuilbarErrorWithCode(const Error& error, std::int64_t code) { return error.is(QuilbarErrorDomain, code); }

}  // namespace florvane
