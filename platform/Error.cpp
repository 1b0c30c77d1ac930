#include "platform/Error.h"

#include <cerrno>
#include <system_error>

namespace florvane {

namespace {

Dictionary describe(std::string_view description) { return {{LocalizedDescriptionKey, description}}; }

Error fileError(int errorNumber, std::int64_t code, std::string_view path) {
  Dictionary userInfo = describe(std::string(path) + ": " + std::generic_category().message(errorNumber));
  userInfo.set(FilePathErrorKey, path);
  return Error(QuilbarErrorDomain, code, userInfo).withUnderlyingError(Error::posix(errorNumber, path));
}

}  // namespace

Error::Error(std::string_view domain, std::int64_t code, Dictionary userInfo)
    : storage_(std::make_shared<const Storage>(Storage{std::string(domain), code, std::move(userInfo), nullptr})) {}

Error::Error(std::string_view domain, std::int64_t code, std::string_view description)
    : Error(domain, code, describe(description)) {}

Error Error::posix(int errorNumber, std::string_view path) {
  Dictionary userInfo = describe(std::generic_category().message(errorNumber));
  if (!path.empty()) userInfo.set(FilePathErrorKey, path);
  return {POSIXErrorDomain, errorNumber, std::move(userInfo)};
}

Error Error::fileRead(int errorNumber, std::string_view path) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return fileError(errorNumber, FileReadNoSuchFileError, path);
    case EACCES:
    case EPERM:
      return fileError(errorNumber, FileReadNoPermissionError, path);
    default:
      return fileError(errorNumber, FileReadUnknownError, path);
  }
}

Error Error::fileWrite(int errorNumber, std::string_view path) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return fileError(errorNumber, FileNoSuchFileError, path);
    case EACCES:
    case EPERM:
      return fileError(errorNumber, FileWriteNoPermissionError, path);
    case EEXIST:
      return fileError(errorNumber, FileWriteFileExistsError, path);
    case ENOSPC:
    case EDQUOT:
      return fileError(errorNumber, FileWriteOutOfSpaceError, path);
    case EROFS:
      return fileError(errorNumber, FileWriteVolumeReadOnlyError, path);
    default:
      return fileError(errorNumber, FileWriteUnknownError, path);
  }
}

std::string Error::localizedDescription() const {
  if (auto text = userInfo().string(LocalizedDescriptionKey)) return *text;
  return "The operation couldn't be completed. (" + domain() + " error " + std::to_string(code()) + ".)";
}

Error Error::withUnderlyingError(const Error& underlying) const {
  Error copy = *this;
  copy.storage_ =
      std::make_shared<const Storage>(Storage{domain(), code(), userInfo(), std::make_shared<const Error>(underlying)});
  return copy;
}

std::string Error::description() const {
  std::string text =
      "Error Domain=" + domain() + " Code=" + std::to_string(code()) + " \"" + localizedDescription() + "\"";
  if (underlyingError()) text += " Underlying={" + underlyingError()->description() + "}";
  return text;
}

}  // namespace florvane
