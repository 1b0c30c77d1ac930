#include "sasl/SRPVerifierRecord.h"

#include "platform/Crypto.h"
#include "platform/Exceptions.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"

#include <optional>
#include <string>
#include <utility>

namespace florvane {

namespace {

constexpr std::size_t passwordHashLength = 128;

bool areAcceptable(std::uint64_t iterations) {
  return iterations >= SRPMinimumIterations && iterations <= SRPMaximumIterations;
}

const SRPGroup& requireGroup(std::string_view name) {
  const SRPGroup* group = SRPGroup::named(name);
  if (!group) throw InvalidArgumentException("Illegal SRP group");
  return *group;
}

Data writeRecord(const SRPVerifierRecord& record, const SRPGroup& group) {
  Dictionary dictionary = {{"iterations", record.iterations},
                           {"salt", record.salt},
                           {"verifier", record.verifier.paddedBytes(group.length())}};
  return *writePropertyList(dictionary, PropertyListFormat::XML);
}

tl::unexpected<std::string_view> fault(std::string_view sentence) { return tl::unexpected(sentence); }

// So many bytes that only the holder of the secret can make, the same ones every time.
std::string stableBytes(const Secret& secret, std::string_view purpose, std::string_view name, std::size_t count) {
  std::string bytes;
  for (std::uint32_t block = 0; bytes.size() < count; ++block) {
    std::string message = std::to_string(block).append(":").append(purpose).append(":").append(name);
    Data part = hmac(DigestAlgorithm::SHA512, secret.revealSpan(), Data::fromString(message).span());
    bytes.append(part.view());
  }
  bytes.resize(count);
  return bytes;
}

}  // namespace

Secret srp_password_hash(const Secret& password, const Data& salt, std::uint64_t iterations) {
  return pbkdf2(DigestAlgorithm::SHA512, password, salt, iterations, passwordHashLength);
}

Result<Data> srp_make_verifier_record(const Secret& password, std::uint64_t iterations, std::string_view group) {
  if (!areAcceptable(iterations)) throw InvalidArgumentException("Illegal iteration count");
  const SRPSuite suite{DigestAlgorithm::SHA512, &requireGroup(group)};
  auto salt = randomBytes(SRPSaltLength);
  if (!salt) return Failure(salt.error());
  BigNumber x = suite.passwordKey("", srp_password_hash(password, *salt, iterations), *salt);
  return writeRecord({iterations, *salt, suite.verifier(x)}, *suite.group);
}

Data srp_make_unknown_user_record(const Secret& secret, std::string_view authenticationID, std::uint64_t iterations,
                                  std::string_view group) {
  const SRPGroup& known = requireGroup(group);
  Data salt = Data::fromString(stableBytes(secret, "salt", authenticationID, SRPSaltLength));
  Secret verifier(stableBytes(secret, "verifier", authenticationID, known.length()));
  return writeRecord({iterations, salt, BigNumber::fromSecret(verifier).mod(known.N)}, known);
}

tl::expected<SRPVerifierRecord, std::string_view> srp_load_verifier_record(const Data& record, const SRPGroup& group) {
  auto root = readPropertyList(record);
  if (!root) return fault("Unable to deserialize plist from secret");
  auto dictionary = root->asDictionary();
  if (!dictionary) return fault("Not a dictionary deserializing plist");
  auto salt = dictionary->data("salt");
  if (!salt || salt->size() != SRPSaltLength) return fault("Unable to get salt");
  auto verifier = dictionary->data("verifier");
  if (!verifier || verifier->size() != group.length()) return fault("Unable to get verifier");
  BigNumber v = BigNumber::fromSecret(Secret(verifier->view()));
  if (v.isZero() || v >= group.N) return fault("Unable to get verifier");
  if (!dictionary->contains("iterations")) return fault("Unable to get iterations");
  auto iterations = dictionary->integer("iterations");
  if (!iterations || *iterations < 0 || !areAcceptable(static_cast<std::uint64_t>(*iterations))) {
    return fault("Unable to convert iterations");
  }
  return SRPVerifierRecord{static_cast<std::uint64_t>(*iterations), *salt, std::move(v)};
}

}  // namespace florvane
