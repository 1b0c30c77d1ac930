#include "platform/Crypto.h"

#include "platform/Exceptions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

namespace florvane {

namespace {

template <auto function>
struct Deleter {
  template <typename T>
  void operator()(T* object) const noexcept {
    function(object);
  }
};

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using KDFContext = std::unique_ptr<EVP_KDF_CTX, Deleter<EVP_KDF_CTX_free>>;
using MACContext = std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX_free>>;

void require(bool success, const char* what) {
  if (!success) throw InternalInconsistencyException(std::string("OpenSSL failed: ") + what);
}

// Fetched once: an implicit fetch at every use costs more than the digest of a short text. Kept to the end of the
// process, so that no thread meets a freed algorithm.
const EVP_MD* algorithmOf(DigestAlgorithm algorithm) {
  static const std::array<const EVP_MD*, 5> algorithms = [] {
    auto fetch = [](const char* name) { return EVP_MD_fetch(nullptr, name, nullptr); };
    return std::array<const EVP_MD*, 5>{fetch("SHA1"), fetch("SHA224"), fetch("SHA256"), fetch("SHA384"),
                                        fetch("SHA512")};
  }();
  const EVP_MD* found = algorithms.at(static_cast<std::size_t>(algorithm));
  require(found != nullptr, "digest");
  return found;
}

// OpenSSL's parameters point to bytes that it only reads, through pointers that are not const.
OSSL_PARAM octets(const char* name, std::span<const std::uint8_t> bytes) {
  static std::uint8_t nothing = 0;
  auto* start = bytes.empty() ? &nothing : const_cast<std::uint8_t*>(bytes.data());
  return OSSL_PARAM_construct_octet_string(name, start, bytes.size());
}

OSSL_PARAM digestName(const char* name, DigestAlgorithm algorithm) {
  return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(EVP_MD_get0_name(algorithmOf(algorithm))), 0);
}

void requireKey32(std::span<const std::uint8_t> key) {
  if (key.size() != 32) throw InvalidArgumentException("Illegal key length");
}

bool fillRandom(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    auto part = bytes.first(std::min<std::size_t>(bytes.size(), INT_MAX));
    if (RAND_bytes(part.data(), static_cast<int>(part.size())) != 1) return false;
    bytes = bytes.subspan(part.size());
  }
  return true;
}

// Bytes on the way into a Secret, cleansed on every way out.
struct SecretBuffer {
  explicit SecretBuffer(std::size_t size) : bytes(size) {}
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;
  ~SecretBuffer() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
  std::vector<std::uint8_t> bytes;
};

}  // namespace

struct Digest::State {
  DigestContext context{EVP_MD_CTX_new()};
  std::size_t finish(std::span<std::uint8_t> bytes) {
    unsigned length = 0;
    require(EVP_DigestFinal_ex(context.get(), bytes.data(), &length) == 1, "digest");
    return length;
  }
};

Digest::Digest(DigestAlgorithm algorithm) : state_(std::make_unique<State>()) {
  require(state_->context && EVP_DigestInit_ex2(state_->context.get(), algorithmOf(algorithm), nullptr) == 1, "digest");
}

Digest::~Digest() = default;
Digest::Digest(Digest&&) noexcept = default;
Digest& Digest::operator=(Digest&&) noexcept = default;

Digest& Digest::update(std::span<const std::uint8_t> bytes) {
  require(EVP_DigestUpdate(state_->context.get(), bytes.data(), bytes.size()) == 1, "digest");
  return *this;
}

Digest& Digest::update(std::string_view text) {
  return update({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Data Digest::finish() {
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> bytes;
  std::size_t length = state_->finish(bytes);
  return {bytes.data(), length};
}

Secret Digest::finishSecret() {
  SecretBuffer buffer(EVP_MAX_MD_SIZE);
  std::size_t length = state_->finish(buffer.bytes);
  return Secret(std::span<const std::uint8_t>(buffer.bytes).first(length));
}

Data digest(DigestAlgorithm algorithm, std::span<const std::uint8_t> bytes) {
  return Digest(algorithm).update(bytes).finish();
}

std::size_t digestLength(DigestAlgorithm algorithm) {
  return static_cast<std::size_t>(EVP_MD_get_size(algorithmOf(algorithm)));
}

Data hmac(DigestAlgorithm algorithm, std::span<const std::uint8_t> key, std::span<const std::uint8_t> message) {
  static EVP_MAC* const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  require(mac != nullptr, "HMAC");
  MACContext context(EVP_MAC_CTX_new(mac));
  const std::array parameters = {digestName(OSSL_MAC_PARAM_DIGEST, algorithm), octets(OSSL_MAC_PARAM_KEY, key),
                                 OSSL_PARAM_construct_end()};
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> bytes;
  std::size_t length = 0;
  require(context && EVP_MAC_init(context.get(), nullptr, 0, parameters.data()) == 1 &&
              EVP_MAC_update(context.get(), message.data(), message.size()) == 1 &&
              EVP_MAC_final(context.get(), bytes.data(), &length, bytes.size()) == 1,
          "HMAC");
  return {bytes.data(), length};
}

Secret pbkdf2(DigestAlgorithm algorithm, const Secret& password, const Data& salt, std::uint64_t iterations,
              std::size_t outputLength) {
  if (iterations == 0) throw InvalidArgumentException("Illegal iteration count");
  if (outputLength == 0) throw InvalidArgumentException("Illegal output length");
  static EVP_KDF* const kdf = EVP_KDF_fetch(nullptr, "PBKDF2", nullptr);
  require(kdf != nullptr, "PBKDF2");
  KDFContext context(EVP_KDF_CTX_new(kdf));
  int withoutLowerBounds = 1;  // salts and counts are what the peer or the caller says they are
  const std::array parameters = {digestName(OSSL_KDF_PARAM_DIGEST, algorithm),
                                 octets(OSSL_KDF_PARAM_PASSWORD, password.revealSpan()),
                                 octets(OSSL_KDF_PARAM_SALT, salt.span()),
                                 OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &iterations),
                                 OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &withoutLowerBounds),
                                 OSSL_PARAM_construct_end()};
  SecretBuffer buffer(outputLength);
  require(context && EVP_KDF_derive(context.get(), buffer.bytes.data(), outputLength, parameters.data()) == 1,
          "PBKDF2");
  return Secret(std::span<const std::uint8_t>(buffer.bytes));
}

void chacha20(std::span<const std::uint8_t> key32, std::uint64_t nonce, std::uint64_t counter,
              std::span<std::uint8_t> bytes) {
  requireKey32(key32);
  static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "ChaCha20", nullptr);
  require(cipher != nullptr, "ChaCha20");
  std::array<std::uint8_t, 16> iv;
  for (unsigned i = 0; i < 8; ++i) {
    iv[i] = static_cast<std::uint8_t>(counter >> (8 * i));
    iv[8 + i] = static_cast<std::uint8_t>(nonce >> (8 * i));
  }
  CipherContext context(EVP_CIPHER_CTX_new());
  require(context && EVP_EncryptInit_ex2(context.get(), cipher, key32.data(), iv.data(), nullptr) == 1, "ChaCha20");
  // The context goes on with the next block of the 64-bit counter after each part.
  constexpr std::size_t longestPart = std::size_t{1} << 30;
  while (!bytes.empty()) {
    auto part = bytes.first(std::min(bytes.size(), longestPart));
    int written = 0;
    require(EVP_EncryptUpdate(context.get(), part.data(), &written, part.data(), static_cast<int>(part.size())) == 1 &&
                static_cast<std::size_t>(written) == part.size(),
            "ChaCha20");
    bytes = bytes.subspan(part.size());
  }
}

Data poly1305(std::span<const std::uint8_t> key32, std::initializer_list<std::span<const std::uint8_t>> parts) {
  requireKey32(key32);
  static EVP_MAC* const mac = EVP_MAC_fetch(nullptr, "POLY1305", nullptr);
  require(mac != nullptr, "Poly1305");
  MACContext context(EVP_MAC_CTX_new(mac));
  require(context && EVP_MAC_init(context.get(), key32.data(), key32.size(), nullptr) == 1, "Poly1305");
  for (const auto& part : parts) {
    require(EVP_MAC_update(context.get(), part.data(), part.size()) == 1, "Poly1305");
  }
  std::array<std::uint8_t, 16> tag;
  std::size_t length = 0;
  require(EVP_MAC_final(context.get(), tag.data(), &length, tag.size()) == 1 && length == tag.size(), "Poly1305");
  return {tag.data(), tag.size()};
}

Result<Data> randomBytes(std::size_t count) {
  std::vector<std::uint8_t> bytes(count);
  if (!fillRandom(bytes)) return Failure(Error::posix(EIO));
  return Data(bytes.data(), bytes.size());
}

Result<Secret> randomSecret(std::size_t count) {
  SecretBuffer buffer(count);
  if (!fillRandom(buffer.bytes)) return Failure(Error::posix(EIO));
  return Secret(std::span<const std::uint8_t>(buffer.bytes));
}

bool constantTimeEqual(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
  return a.size() == b.size() && (a.empty() || CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace florvane
