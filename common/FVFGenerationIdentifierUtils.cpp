#include "common/FVFGenerationIdentifierUtils.h"

#include "common/FVFSignatureManager.h"
#include "platform/GenerationCounter.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace florvane {

namespace {

constexpr std::size_t kIdentifierSize = 12;
constexpr std::size_t kLongIdentifierSize = 16;
constexpr std::size_t kThirdWord = 8;

}  // namespace

std::optional<Data> FVFGenerationIdentifierUtils::normalizedGenerationIdentifier(const std::optional<Data>& value) {
  if (!value) return std::nullopt;
  Data identifier = value->size() == kLongIdentifierSize ? value->subdata(0, kIdentifierSize) : *value;
  if (identifier.size() != kIdentifierSize) return std::nullopt;
  std::uint32_t third = 0;
  std::memcpy(&third, identifier.bytes() + kThirdWord, sizeof third);
  if (third == 0) return std::nullopt;
  return identifier;
}

Result<std::optional<Data>> FVFGenerationIdentifierUtils::generationIdentifierForItemWithURL(const URL& url) {
  auto counter = generationCounterOfItem(url.path());
  if (!counter) return Failure(counter.error());
  return normalizedGenerationIdentifier(*counter);
}

Result<std::optional<Data>> FVFGenerationIdentifierUtils::versionIdentifier(const std::optional<Data>& value,
                                                                            const URL& url) {
  if (auto identifier = normalizedGenerationIdentifier(value)) return identifier;
  auto signature = FVFSignatureManager::sharedInstance().signatureOfFileAtURL(url);
  if (!signature) return Failure(signature.error());
  return *signature;
}

Result<std::optional<Data>> FVFGenerationIdentifierUtils::versionIdentifierForFileWithURL(const URL& url) {
  auto identifier = generationIdentifierForItemWithURL(url);
  if (!identifier) return identifier;
  return versionIdentifier(*identifier, url);
}

Result<std::optional<Data>> FVFGenerationIdentifierUtils::versionIdentifierForOwnFileWithURL(const URL& url) {
  auto counter = generationCounterOfOwnFile(url.path());
  return counter ? versionIdentifier(*counter, url) : Failure(counter.error());
}

Result<std::optional<Data>> FVFGenerationIdentifierUtils::versionIdentifierForPackageWithURL(const URL& url) {
  return generationIdentifierForItemWithURL(url);
}

}  // namespace florvane
