#include "sasl/SRPContext.h"
#include "sasl/SRPSecurityLayer.h"

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

// A stream of packets as a peer without the key would damage it: the input says what is sealed, how the stream is
// changed, and where it is cut. Whatever comes out must be a beginning of what was sealed, and the same for any cuts.
// Run with -close_fd_mask=2: some refusals are said on standard error.

namespace florvane {
namespace {

class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size) : rest_(bytes, size) {}
  std::uint8_t byte() { return take(1).empty() ? 0 : last_[0]; }
  std::span<const std::uint8_t> take(std::size_t count) {
    last_ = rest_.first(std::min(count, rest_.size()));
    rest_ = rest_.subspan(last_.size());
    return last_;
  }
  bool atEnd() const { return rest_.empty(); }

 private:
  std::span<const std::uint8_t> rest_, last_;
};

void prepare(SRPContext& context, const std::string& peerIV, const std::string& ownIV, std::uint32_t bufferSize) {
  const SRPSuite suite{DigestAlgorithm::SHA512, SRPGroup::named("rfc5054_1024")};
  const BigNumber one = BigNumber::fromWord(1);
  context.evidence.emplace(suite, "user", Data(), one, one, Secret("premaster"));
  context.options = {1, true, 1, 0, 1, bufferSize};
  if (LayerInit(context.layer, context, Data::fromString(peerIV).span(), Data::fromString(ownIV).span()) != SRPDone) {
    std::abort();
  }
}

// Decodes in pieces of the given sizes, the rest at once; stops at the first failure.
std::string decode(std::uint32_t bufferSize, std::span<const std::uint8_t> stream,
                   const std::vector<std::uint8_t>& sizes) {
  SRPContext receiver;
  prepare(receiver, "sends under this", "gets it with me!", bufferSize);
  std::string text;
  for (std::size_t piece = 0; !stream.empty(); ++piece) {
    std::size_t size = piece < sizes.size() ? std::min<std::size_t>(sizes[piece], stream.size()) : stream.size();
    Secret plaintext;
    int result = srp_decode(&receiver, stream.first(size), &plaintext);
    if (result != SRPDone && !plaintext.empty()) std::abort();
    if (result != SRPDone) break;
    text += plaintext.reveal();
    stream = stream.subspan(size);
  }
  return text;
}

void run(Input input) {
  const std::uint32_t bufferSize = 33U + input.byte() * 8U;
  SRPContext sender;
  prepare(sender, "gets it with me!", "sends under this", bufferSize);
  std::vector<std::uint8_t> stream;
  std::string sealed;
  for (unsigned packets = input.byte() % 4U; packets > 0; --packets) {
    auto text = input.take(input.byte());
    std::span<const std::uint8_t> packet;
    if (srp_encode(&sender, text, &packet) != SRPDone) continue;
    stream.insert(stream.end(), packet.begin(), packet.end());
    sealed.append(text.begin(), text.end());
  }
  for (unsigned changes = input.byte() % 4U; changes > 0 && !stream.empty(); --changes) {
    const std::size_t place = input.byte() % stream.size();
    const std::uint8_t how = input.byte();
    if (how == 0) stream.erase(stream.begin() + static_cast<std::ptrdiff_t>(place));
    if (how == 1) stream.insert(stream.begin() + static_cast<std::ptrdiff_t>(place), input.byte());
    if (how > 1) stream[place] ^= how;
  }
  std::vector<std::uint8_t> sizes;
  for (unsigned cuts = input.byte() % 16U; cuts > 0; --cuts) sizes.push_back(input.byte());
  while (!input.atEnd()) stream.push_back(input.byte());

  const std::string inPieces = decode(bufferSize, stream, sizes);
  const std::string byteByByte = decode(bufferSize, stream, std::vector<std::uint8_t>(stream.size(), 1));
  // A failing piece gives nothing, not even its good packets, so larger pieces may give less.
  if (!sealed.starts_with(byteByByte) || !byteByByte.starts_with(inPieces)) std::abort();
}

}  // namespace
}  // namespace florvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  florvane::run(florvane::Input(bytes, size));
  return 0;
}
