#include "sasl/SRPContext.h"

#include "sasl/SRPDiagnostics.h"

#include <array>
#include <new>
#include <utility>

namespace florvane {

void srp_common_mech_dispose(SRPContext* context) noexcept { delete context; }

std::string srp_errdetail(const SRPContext* context) { return context ? context->errorDetail : "Bad parameter"; }

int SetMDA(SRPContext& context, const SRPOptions& options) {
  const SRPOptionRow* row = firstOption(options.digests, SRPDigestOptions);
  if (!row) {
    printDiagnostic("Unable to find SRP MDA option now\n");
    return SRPFailed;
  }
  context.digest = cc_get_digestbyname(row->algorithm);
  return context.digest ? SRPDone : SRPFailed;
}

std::optional<DigestAlgorithm> cc_get_digestbyname(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, DigestAlgorithm>, 4> digests = {{
      {"sha512", DigestAlgorithm::SHA512},
      {"sha384", DigestAlgorithm::SHA384},
      {"sha256", DigestAlgorithm::SHA256},
      {"sha224", DigestAlgorithm::SHA224},
  }};
  for (const auto& [known, algorithm] : digests) {
    if (known == name) return algorithm;
  }
  return std::nullopt;
}

int conditional_realloc(std::vector<std::uint8_t>& buffer, std::size_t size) noexcept {
  try {
    if (buffer.size() < size) buffer.resize(size);
    return SRPDone;
  } catch (const std::exception&) {
    return SRPOutOfMemory;
  }
}

}  // namespace florvane
