#include "sasl/SRPOptions.h"

#include "sasl/SRPContext.h"
#include "sasl/SRPDiagnostics.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <limits>
#include <optional>
#include <system_error>

namespace florvane {

namespace {

constexpr std::array digestRows = {SRPOptionRow{"SHA-512", 1, "sha512"}};
constexpr std::array cipherRows = {SRPOptionRow{"ChaCha20-Poly1305", 1, "ChaCha20-Poly1305"}};
constexpr std::array kdfRows = {SRPOptionRow{"SALTED-SHA512-PBKDF2", 1, "PBKDF2 with HMAC-SHA-512"}};

constexpr std::string_view replayDetection = "replay_detection";
constexpr std::string_view confidentialityAndIntegrity = "confidentiality+integrity";

// Without the locale: option names are ASCII, and a Turkish "i" must not decide about them.
char lower(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter; }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return lower(x) == lower(y); });
}

// The value of "name=value"; nothing when the option has another name.
std::optional<std::string_view> valueOf(std::string_view option, std::string_view name) {
  if (option.size() <= name.size() || option[name.size()] != '=') return std::nullopt;
  if (!equalIgnoringCase(option.substr(0, name.size()), name)) return std::nullopt;
  return option.substr(name.size() + 1);
}

// A peer's words, fit for a terminal and a log line.
std::string printable(std::string_view text) {
  constexpr std::size_t longest = 200;
  std::string result(text.substr(0, longest));
  std::ranges::replace_if(result, [](char letter) { return letter < ' ' || letter > '~'; }, '?');
  return result;
}

// What ParseOptions() complains about goes to standard error as well, since the step that asked for it gives the
// error detail a text of its own.
template <typename Argument, typename... More>
int reject(SRPContext& context, std::string_view text, const Argument& argument, const More&... more) {
  SETERROR(context, text, argument, more...);
  printDiagnostic("%s", context.errorDetail);
  return SRPProtocolViolated;
}

struct Choice {
  const char* name;
  std::span<const SRPOptionRow> rows;
  std::uint32_t SRPOptions::* bits;
  const char* unknown;
  const char* repeated;
};

constexpr std::array choices = {
    Choice{"mda", digestRows, &SRPOptions::digests, "SRP MDA %s not supported", "Multiple SRP MDAs given"},
    Choice{"confidentiality+integrity", cipherRows, &SRPOptions::ciphers,
           "SRP Confidentiality+Integrity option %s not supported",
           "Multiple SRP Confidentiality+Integrity options given"},
    Choice{"kdf", kdfRows, &SRPOptions::kdfs, "SRP KDF option %s not supported", "Multiple SRP KDF options given"},
};

int parseChoice(SRPContext& context, const Choice& choice, std::string_view value, SRPSide side, SRPOptions& options) {
  std::uint32_t bit = FindBit(value, choice.rows);
  if (side == SRPSide::Server) {
    if (bit == 0) return reject(context, choice.unknown, printable(value));
    if (options.*choice.bits != 0) return reject(context, "%s", choice.repeated);
  }
  options.*choice.bits |= bit;
  return SRPDone;
}

int parseMaximumBufferSize(SRPContext& context, std::string_view value, SRPOptions& options) {
  std::uint64_t size = 0;
  auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), size);
  if (error == std::errc::result_out_of_range) {
    size = std::numeric_limits<std::uint64_t>::max();
  } else if (error != std::errc() || end != value.data() + value.size()) {
    return reject(context, "SRP Maxbuffersize %s is not a number", printable(value));
  }
  if (size > SRPMaximumBufferSize) {
    return reject(context, "SRP Maxbuffersize %lu too big (> %lu)", size, SRPMaximumBufferSize);
  }
  options.maximumBufferSize = static_cast<std::uint32_t>(size);
  return SRPDone;
}

int parseMandatory(SRPContext& context, std::string_view value, SRPOptions& options) {
  if (equalIgnoringCase(value, replayDetection)) {
    options.mandatory |= SRPReplayDetection;
  } else if (equalIgnoringCase(value, confidentialityAndIntegrity)) {
    options.mandatory |= SRPConfidentialityAndIntegrity;
  } else {
    return reject(context, "Mandatory SRP option %s not supported", printable(value));
  }
  return SRPDone;
}

int parseOption(SRPContext& context, std::string_view option, SRPSide side, SRPOptions& options) {
  for (const Choice& choice : choices) {
    if (auto value = valueOf(option, choice.name)) return parseChoice(context, choice, *value, side, options);
  }
  if (equalIgnoringCase(option, replayDetection)) {
    if (side == SRPSide::Server && options.replayDetection) {
      return reject(context, "%s", "SRP Replay Detection option appears twice");
    }
    options.replayDetection = true;
  } else if (auto size = valueOf(option, "maxbuffersize")) {
    return parseMaximumBufferSize(context, *size, options);
  } else if (auto name = valueOf(option, "mandatory"); name && side == SRPSide::Client) {
    return parseMandatory(context, *name, options);
  }
  return SRPDone;
}

void append(std::string& text, std::string_view name, std::string_view value = {}) {
  if (!text.empty()) text += ',';
  text += name;
  if (!value.empty()) (text += '=') += value;
}

}  // namespace

const std::span<const SRPOptionRow> SRPDigestOptions = digestRows;
const std::span<const SRPOptionRow> SRPCipherOptions = cipherRows;
const std::span<const SRPOptionRow> SRPKDFOptions = kdfRows;

std::uint32_t FindBit(std::string_view name, std::span<const SRPOptionRow> rows) {
  for (const SRPOptionRow& row : rows) {
    if (equalIgnoringCase(row.name, name)) return row.bit;
  }
  return 0;
}

const SRPOptionRow* firstOption(std::uint32_t bits, std::span<const SRPOptionRow> rows) {
  for (const SRPOptionRow& row : rows) {
    if ((row.bit & bits) != 0) return &row;
  }
  return nullptr;
}

int ParseOptions(SRPContext& context, std::string_view text, SRPSide side, SRPOptions& options) {
  options = {};
  while (!text.empty()) {
    std::string_view option = text.substr(0, text.find(','));
    text.remove_prefix(std::min(text.size(), option.size() + 1));
    if (int result = parseOption(context, option, side, options); result != SRPDone) return result;
  }
  return SRPDone;
}

int OptionsToString(const SRPOptions& options, std::string& text) noexcept {
  try {
    text.clear();
    auto appendBits = [&](const Choice& choice) {
      for (const SRPOptionRow& row : choice.rows) {
        if ((row.bit & options.*choice.bits) != 0) append(text, choice.name, row.name);
      }
    };
    appendBits(choices[0]);
    if (options.replayDetection) append(text, replayDetection);
    appendBits(choices[1]);
    appendBits(choices[2]);
    if (options.maximumBufferSize != 0 && options.maximumBufferSize < SRPMaximumBufferSize) {
      append(text, "maxbuffersize", std::to_string(options.maximumBufferSize));
    }
    if ((options.mandatory & SRPReplayDetection) != 0) append(text, "mandatory", replayDetection);
    if ((options.mandatory & SRPConfidentialityAndIntegrity) != 0) {
      append(text, "mandatory", confidentialityAndIntegrity);
    }
    return SRPDone;
  } catch (const std::exception&) {
    return SRPOutOfMemory;
  }
}

}  // namespace florvane
