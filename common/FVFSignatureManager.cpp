#include "common/FVFSignatureManager.h"

#include "platform/Crypto.h"
#include "platform/FileSystem.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr std::uint8_t kSignatureScheme = 1;
constexpr std::size_t kDigestSize = 20;
constexpr std::size_t kPieceSize = std::size_t{64} * 1024;
constexpr char kURLKey[] = "url";

Error signatureError(int errorNumber, const URL& url) {
  return {POSIXErrorDomain,
          errorNumber,
          {{LocalizedDescriptionKey, std::generic_category().message(errorNumber)}, {kURLKey, url.absoluteString()}}};
}

}  // namespace

FVFSignatureManager& FVFSignatureManager::sharedInstance() {
  static FVFSignatureManager instance;
  return instance;
}

Result<Data> FVFSignatureManager::signatureOfFileAtURL(const URL& url) const {
  FileDescriptor file(::open(url.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid()) return Failure(signatureError(errno, url));
  Digest digest(DigestAlgorithm::SHA256);
  std::array<std::uint8_t, kPieceSize> piece;
  for (;;) {
    ssize_t count = ::read(file.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Failure(signatureError(errno, url));
    if (count == 0) break;
    digest.update({piece.data(), static_cast<std::size_t>(count)});
  }
  DataBuilder signature;
  signature.append(kSignatureScheme);
  signature.append(digest.finish().subdata(0, kDigestSize).view());
  return signature.finish();
}

}  // namespace florvane
