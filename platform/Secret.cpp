#include "platform/Secret.h"

#include <openssl/crypto.h>

namespace florvane {

namespace {

void cleanse(std::string& bytes) noexcept { OPENSSL_cleanse(bytes.data(), bytes.size()); }

}  // namespace

Secret::Secret(Secret&& other) noexcept : bytes_(std::move(other.bytes_)) {
  // A short string is copied by its move, and what it was moved from still holds it.
  other.bytes_.resize(other.bytes_.capacity());
  cleanse(other.bytes_);
  other.bytes_.clear();
}

Secret& Secret::operator=(Secret other) noexcept {
  std::swap(bytes_, other.bytes_);
  return *this;
}

Secret::~Secret() { cleanse(bytes_); }

std::string Secret::description() const { return "<" + std::to_string(bytes_.size()) + " bytes>"; }

bool operator==(const Secret& a, const Secret& b) noexcept {
  return a.size() == b.size() && CRYPTO_memcmp(a.bytes_.data(), b.bytes_.data(), a.size()) == 0;
}

}  // namespace florvane
