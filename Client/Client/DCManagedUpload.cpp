#include "Client/Client/DCManagedUpload.h"

#include "Client/Client/DCPath.h"
#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/LargeFile.h"
#include "platform/PropertyList.h"

#include <algorithm>

namespace florvane {

namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::size_t kMostAttempts = 16;

}  // namespace

std::vector<ManagedAttribute> DCManagedUpload::attributes() {
  return {{"path", Value::Kind::String, true},
          {"fileURL", Value::Kind::String},
          {"date", Value::Kind::Date},
          {"taskIdentifier", Value::Kind::Integer, true},
          {"sessionIdentifier", Value::Kind::String},
          {"state", Value::Kind::Integer, false, true},
          {"totalBytesExpectedToSend", Value::Kind::Integer, false, true},
          {"totalBytesSent", Value::Kind::Integer, false, true},
          {"error", Value::Kind::String},
          {"numberOfRetries", Value::Kind::Integer},
          {"generationIdentifier", Value::Kind::Data},
          {"cancelled", Value::Kind::Boolean},
          {"baseVersionIdentifier", Value::Kind::Data},
          {"attempts", Value::Kind::Data},
          {"conflictingVersionIdentifier", Value::Kind::Data},
          {"conflictingFileURL", Value::Kind::String}};
}

std::optional<URL> DCManagedUpload::temporaryUploadFileURLForItemAtPath(
    const std::optional<std::string>& path, const std::optional<Data>& generationIdentifier) {
  auto folder = path && generationIdentifier ? DUTemporaryDirectory() : std::nullopt;
  if (!folder) return std::nullopt;
  const Data text = Data::fromString(format("%@-%@", *path, hexEncode(*generationIdentifier)));
  std::string name = base64Encode(text);
  std::replace(name.begin(), name.end(), '/', '_');
  if (name.size() > kLongestName) name = hexEncode(digest(DigestAlgorithm::SHA256, text.span()));
  return URL::fileURL(*folder + "/" + name);
}

Dictionary DCManagedUpload::dictionaryRepresentation() const {
  Dictionary dictionary;
  const auto all = attributes();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (Value each = value(i); !each.isNull()) dictionary.set(all[i].name, each);
  }
  return dictionary;
}

void DCManagedUpload::setValuesFromDictionary(const Dictionary& dictionary) {
  const auto all = attributes();
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Value* each = dictionary.find(all[i].name);
    setValue(i, each && each->kind() == all[i].kind ? *each : Value());
  }
}

void DCManagedUpload::resetAndIncrementNumberOfRetries() {
  setTaskIdentifier({});
  setSessionIdentifier({});
  setState({});
  setTotalBytesExpectedToSend({});
  setTotalBytesSent({});
  if (auto text = error(); text && text->find("401") == std::string::npos) {
    setNumberOfRetries(numberOfRetries().value_or(0) + 1);
  }
  setError({});
}

void DCManagedUpload::markAsCancelled() {
  setDate({});
  setError({});
  setFileURL({});
  setGenerationIdentifier({});
  setNumberOfRetries({});
  setPath({});
  setState({});
  setTotalBytesExpectedToSend({});
  setTotalBytesSent({});
  setBaseVersionIdentifier({});
  removeAttempts();
  setConflictingVersionIdentifier({});
  setConflictingVersionURL({});
  setCancelled(true);
}

void DCManagedUpload::removeTemporaryUploadFileIfNecessary() const {
  auto url = temporaryUploadFileURLForItemAtPath(path(), generationIdentifier());
  if (url) (void)removeLargeFile(url->path());
  if (auto copy = conflictingVersionURL()) {
    const std::string copied = copy->path();
    (void)removeLargeFile(copied);
    (void)removeItem(folderOf(copied));
  }
}

std::vector<DCUploadAttempt> DCManagedUpload::attempts() const {
  std::vector<DCUploadAttempt> attempts;
  const auto bytes = value(Attempts).asData();
  const auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Value());
  const auto flat = list ? list->asArray() : std::nullopt;
  if (!flat) return attempts;
  attempts.reserve(flat->size() / 3);
  for (std::size_t i = 0; i + 1 < flat->size();) {
    const auto size = (*flat)[i].asInteger();
    const auto date = (*flat)[i + 1].asDate();
    i += 2;
    // The first ones were kept without their generation, and stood for the record's own.
    auto generation = i < flat->size() ? (*flat)[i].asData() : std::nullopt;
    if (generation) {
      ++i;
    } else {
      generation = generationIdentifier().value_or(Data());
    }
    if (size && date) attempts.push_back({*size, *date, *generation});
  }
  return attempts;
}

void DCManagedUpload::addAttempt(const DCUploadAttempt& attempt) {
  auto list = attempts();
  std::erase(list, attempt);
  list.push_back(attempt);
  Array flat;
  for (std::size_t i = list.size() > kMostAttempts ? list.size() - kMostAttempts : 0; i < list.size(); ++i) {
    flat.append(list[i].size);
    flat.append(list[i].date);
    flat.append(list[i].generationIdentifier);
  }
  if (auto bytes = writePropertyList(flat, PropertyListFormat::Binary)) setValue(Attempts, *bytes);
}

std::optional<Data> DCManagedUpload::sentGenerationIdentifier() const {
  const auto list = attempts();
  return list.empty() ? generationIdentifier() : std::optional(list.back().generationIdentifier);
}

void DCManagedUpload::removeAttempts() { setValue(Attempts, {}); }

void DCManagedUpload::resolveConflict() {
  const auto version = conflictingVersionIdentifier();
  if (!version) return;
  setBaseVersionIdentifier(version->empty() ? std::nullopt : version);
  setConflictingVersionIdentifier({});
  setNumberOfRetries(0);
  setError({});
  removeAttempts();
}

std::optional<std::string> DCManagedUpload::path() const { return stringValue(Path); }
void DCManagedUpload::setPath(const std::optional<std::string>& path) { setValue(Path, path); }
std::optional<std::string> DCManagedUpload::fileURL() const { return stringValue(FileURL); }
void DCManagedUpload::setFileURL(const std::optional<std::string>& fileURL) { setValue(FileURL, fileURL); }
std::optional<Date> DCManagedUpload::date() const { return value(CreationDate).asDate(); }
void DCManagedUpload::setDate(const std::optional<Date>& date) { setValue(CreationDate, date); }
std::optional<std::int64_t> DCManagedUpload::taskIdentifier() const { return value(TaskIdentifier).asInteger(); }
void DCManagedUpload::setTaskIdentifier(const std::optional<std::int64_t>& taskIdentifier) {
  setValue(TaskIdentifier, taskIdentifier);
}
std::optional<std::string> DCManagedUpload::sessionIdentifier() const { return stringValue(SessionIdentifier); }
void DCManagedUpload::setSessionIdentifier(const std::optional<std::string>& sessionIdentifier) {
  setValue(SessionIdentifier, sessionIdentifier);
}
std::optional<DCUploadTask> DCManagedUpload::task() const {
  const auto identifier = taskIdentifier();
  if (!identifier) return std::nullopt;
  return DCUploadTask{*identifier, sessionIdentifier().value_or("")};
}
std::optional<std::int64_t> DCManagedUpload::state() const { return value(TransferState).asInteger(); }
void DCManagedUpload::setState(const std::optional<std::int64_t>& state) { setValue(TransferState, state); }
std::optional<std::int64_t> DCManagedUpload::totalBytesExpectedToSend() const {
  return value(TotalBytesExpectedToSend).asInteger();
}
void DCManagedUpload::setTotalBytesExpectedToSend(const std::optional<std::int64_t>& totalBytesExpectedToSend) {
  setValue(TotalBytesExpectedToSend, totalBytesExpectedToSend);
}
std::optional<std::int64_t> DCManagedUpload::totalBytesSent() const { return value(TotalBytesSent).asInteger(); }
void DCManagedUpload::setTotalBytesSent(const std::optional<std::int64_t>& totalBytesSent) {
  setValue(TotalBytesSent, totalBytesSent);
}
std::optional<std::string> DCManagedUpload::error() const { return stringValue(ErrorText); }
void DCManagedUpload::setError(const std::optional<std::string>& error) { setValue(ErrorText, error); }
std::optional<std::int64_t> DCManagedUpload::numberOfRetries() const { return value(NumberOfRetries).asInteger(); }
void DCManagedUpload::setNumberOfRetries(const std::optional<std::int64_t>& numberOfRetries) {
  setValue(NumberOfRetries, numberOfRetries);
}
std::optional<Data> DCManagedUpload::generationIdentifier() const { return value(GenerationIdentifier).asData(); }
void DCManagedUpload::setGenerationIdentifier(const std::optional<Data>& generationIdentifier) {
  setValue(GenerationIdentifier, generationIdentifier);
}
bool DCManagedUpload::cancelled() const { return value(Cancelled).asBoolean().value_or(false); }
void DCManagedUpload::setCancelled(bool cancelled) { setValue(Cancelled, cancelled); }
std::optional<Data> DCManagedUpload::baseVersionIdentifier() const { return value(BaseVersionIdentifier).asData(); }
void DCManagedUpload::setBaseVersionIdentifier(const std::optional<Data>& baseVersionIdentifier) {
  setValue(BaseVersionIdentifier, baseVersionIdentifier);
}
std::optional<Data> DCManagedUpload::conflictingVersionIdentifier() const {
  return value(ConflictingVersionIdentifier).asData();
}
void DCManagedUpload::setConflictingVersionIdentifier(const std::optional<Data>& conflictingVersionIdentifier) {
  setValue(ConflictingVersionIdentifier, conflictingVersionIdentifier);
}
std::optional<URL> DCManagedUpload::conflictingVersionURL() const {
  const auto path = stringValue(ConflictingFileURL);
  return path ? std::optional(URL::fileURL(*path)) : std::nullopt;
}
void DCManagedUpload::setConflictingVersionURL(const std::optional<URL>& url) {
  setValue(ConflictingFileURL, url ? std::optional(url->path()) : std::nullopt);
}

}  // namespace florvane
