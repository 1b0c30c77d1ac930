#include "server/UserStore.h"

#include "platform/Crypto.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/URL.h"
#include "sasl/SRPArithmetic.h"
#include "sasl/SRPGroup.h"
#include "sasl/SRPVerifierRecord.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace florvane {

namespace {

constexpr char kSuffix[] = ".plist";
constexpr std::size_t kMaximumNameLength = 80;
constexpr std::uint64_t kMaximumRecordSize = 64U << 10;
constexpr std::size_t kSecretLength = 32;

bool isLegalName(std::string_view name) {
  auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  return !name.empty() && name.size() <= kMaximumNameLength && isValidUTF8(name) &&
         std::ranges::none_of(name, isControl);
}

Result<Secret> loadOrMakeSecret(const std::string& path) {
  if (fileExists(path)) {
    auto bytes = readFile(path, kSecretLength);
    if (!bytes) return Failure(bytes.error());
    if (bytes->size() == kSecretLength) return Secret(bytes->view());
  }
  auto bytes = randomBytes(kSecretLength);
  if (!bytes) return Failure(bytes.error());
  if (auto written = writeFileAtomically(path, *bytes, 0600, true); !written) return Failure(written.error());
  return Secret(bytes->view());
}

}  // namespace

UserStore::UserStore(const StateDirectory& directory)
    : folder_(directory.file("users")), lockPath_(directory.file("users.lock")) {}

Result<UserStore> UserStore::open(const StateDirectory& directory) {
  UserStore store(directory);
  if (auto made = createDirectories(store.folder_, 0700); !made) return Failure(made.error());
  auto lock = FileLock::acquire(store.lockPath_, true);
  if (!lock) return Failure(lock.error());
  auto secret = loadOrMakeSecret(directory.file("unknown-users"));
  if (!secret) return Failure(secret.error());
  store.unknownUserSecret_ = *secret;
  return store;
}

std::string UserStore::path(std::string_view name) const { return folder_ + "/" + percentEncode(name, "") + kSuffix; }

Result<void> UserStore::add(const std::string& name, const Secret& password) { return store(name, password, false); }

Result<void> UserStore::setPassword(const std::string& name, const Secret& password) {
  return store(name, password, true);
}

Result<void> UserStore::store(const std::string& name, const Secret& password, bool exists) {
  if (!isLegalName(name)) {
    return Failure(serverError(ServerErrorCode::InvalidArgument,
                               "A user's name has 1 to 80 bytes of UTF-8 and no control characters."));
  }
  if (password.empty()) return Failure(serverError(ServerErrorCode::InvalidArgument, "The password is empty."));
  auto record = srp_make_verifier_record(password);
  if (!record) return Failure(record.error());
  auto lock = FileLock::acquire(lockPath_, true);
  if (!lock) return Failure(lock.error());
  if (fileExists(path(name)) != exists) {
    return Failure(exists ? serverError(ServerErrorCode::NotFound, "There is no user \"" + name + "\".")
                          : serverError(ServerErrorCode::AlreadyExists, "There is a user \"" + name + "\" already."));
  }
  return writeFileAtomically(path(name), *record, 0600, true);
}

Result<void> UserStore::remove(const std::string& name) {
  auto lock = FileLock::acquire(lockPath_, true);
  if (!lock) return Failure(lock.error());
  if (!isLegalName(name) || !fileExists(path(name))) {
    return Failure(serverError(ServerErrorCode::NotFound, "There is no user \"" + name + "\"."));
  }
  if (auto removed = removeItem(path(name)); !removed) return removed;
  return syncDirectory(folder_);
}

Result<std::vector<std::string>> UserStore::names() const {
  std::vector<std::string> names;
  std::error_code failure;
  for (std::filesystem::directory_iterator each(folder_, failure), end; !failure && each != end;
       each.increment(failure)) {
    std::string file = each->path().filename();
    if (!file.ends_with(kSuffix)) continue;
    auto name = percentDecode(std::string_view(file).substr(0, file.size() - std::size(kSuffix) + 1));
    if (name && isLegalName(*name) && path(*name) == each->path()) names.push_back(std::move(*name));
  }
  if (failure) return Failure(Error::fileRead(failure.value(), folder_));
  std::ranges::sort(names);
  return names;
}

Result<std::optional<Data>> UserStore::record(std::string_view name) const {
  if (!isLegalName(name) || !fileExists(path(name))) return std::optional<Data>();
  auto bytes = readFile(path(name), kMaximumRecordSize);
  if (!bytes) return Failure(bytes.error());
  return std::optional(*bytes);
}

bool UserStore::verify(std::string_view name, const Secret& password) const {
  auto found = record(name);
  bool isKnown = found && *found;
  Data bytes = isKnown ? **found : srp_make_unknown_user_record(unknownUserSecret_, name, SRPMinimumIterations);
  const SRPGroup* group = SRPGroup::named(SRPServerGroup);
  auto loaded = srp_load_verifier_record(bytes, *group);
  if (!loaded) return false;
  SRPSuite suite{DigestAlgorithm::SHA512, group};
  Secret hash = srp_password_hash(password, loaded->salt, loaded->iterations);
  BigNumber verifier = suite.verifier(suite.passwordKey("", hash, loaded->salt));
  bool matches = verifier.paddedSecret(group->length()) == loaded->verifier.paddedSecret(group->length());
  return matches && isKnown;
}

}  // namespace florvane
