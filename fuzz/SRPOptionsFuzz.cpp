#include "sasl/SRPContext.h"
#include "sasl/SRPOptions.h"

#include <cstdlib>
#include <string>

// Any text as an option string of either side. What was understood, written and read again is the same, except for the
// one buffer size that is never written. Run with -close_fd_mask=2: every refusal is said on standard error.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace florvane;
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  for (SRPSide side : {SRPSide::Client, SRPSide::Server}) {
    SRPContext context;
    SRPOptions options, again;
    if (ParseOptions(context, text, side, options) != SRPDone) {
      if (context.errorDetail.empty()) std::abort();
      continue;
    }
    std::string written;
    if (OptionsToString(options, written) != SRPDone) std::abort();
    if (ParseOptions(context, written, side, again) != SRPDone) std::abort();
    if (options.maximumBufferSize == SRPMaximumBufferSize) options.maximumBufferSize = 0;
    if (again != options) std::abort();
  }
  return 0;
}
