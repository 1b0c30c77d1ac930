#include "tools/Output.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace florvane::tools {

namespace {

bool isTrustFailure(const Error& error) {
  return error.domain() == URLErrorDomain && error.code() <= URLErrorSecureConnectionFailed &&
         error.code() >= URLErrorClientCertificateRequired;
}

std::string sentenceForTransport(const Error& error, const std::string& server) {
  switch (error.code()) {
    case URLErrorDNSLookupFailed:
      return "The server's name was not found: " + server + ". Check the name and the network connection.";
    case URLErrorTimedOut:
      return "The server " + server + " did not answer in time. Try again, or check the network connection.";
    case URLErrorNetworkConnectionLost:
      return "The connection to " + server + " was lost. Try again.";
    default:
      return "Nothing answers at " + server + ". Check that the server is running and that host and port are right.";
  }
}

// An answer that says nothing of user name and password.
bool isAnswerOfBrokenServer(const Error& error) {
  return error.localizedDescription().find("failed with HTTP ") != std::string::npos;
}

std::string sentenceForSignIn(const Error& error, const std::string& server) {
  switch (error.code()) {
    case HTTPSASLErrorMissingCredentials:
      return "The password of this account is missing. Remove the account and add it again.";
    case HTTPSASLErrorServerNotTrusted:
      return "The server " + server +
             " does not offer secure sign-in, and its certificate is not trusted by this system, so no password was "
             "sent. Ask the server's administrator.";
    case HTTPSASLErrorAuthenticationFailed:
      if (isAnswerOfBrokenServer(error)) {
        return "Signing in to " + server + " failed: " + error.localizedDescription() + ". See the server's own log.";
      }
      [[fallthrough]];
    case HTTPSASLErrorPlainFailed:
      return "The server " + server +
             " refused the sign-in. Check user name and password; to change them, remove the "
             "account and add it again.";
    default:
      return "Signing in to " + server + " failed: " + error.localizedDescription();
  }
}

}  // namespace

std::FILE* console() {
  static std::FILE* const original = stderr;
  return original;
}

void silenceLibrary() {
  (void)console();
  if (std::FILE* nowhere = std::fopen("/dev/null", "we")) stderr = nowhere;
}

CommandFailure failureForError(const Error& error, const std::string& server, const std::string& what) {
  std::string prefix = what.empty() ? "" : what + ": ";
  if (pc_isConnectionFailure(error) || error.is(DCErrorDomain, 2)) {
    // The library's own error says that the server could not be asked, what lies below it says why.
    const Error* cause = &error;
    while (cause->underlyingError() && !pc_isConnectionFailure(*cause)) cause = cause->underlyingError();
    return {ExitStatus::Offline, sentenceForTransport(*cause, server), error};
  }
  if (error.domain() == HTTPSASLErrorDomain) {
    return {ExitStatus::SigningInFailed, sentenceForSignIn(error, server), error};
  }
  if (isTrustFailure(error)) {
    return {ExitStatus::SigningInFailed,
            "The certificate of " + server +
                " is not the one that this account knows. If the server was set up anew, "
                "try again to sign in afresh; otherwise do not go on.",
            error};
  }
  if (error.is(URLErrorDomain, 401)) {
    return {ExitStatus::SigningInFailed, "The server " + server + " no longer accepts the sign-in. Try again.", error};
  }
  if (error.is(SQLiteErrorDomain, SQLiteStoreNewerVersionError)) {
    return {ExitStatus::Failed,
            prefix + error.localizedDescription() +
                " Nothing of it was changed. Use that version, or keep a container of your own with --container.",
            error};
  }
  if (error.is(URLErrorDomain, 404) || error.is(DCErrorDomain, 11)) {
    return {ExitStatus::NoSuchItem, prefix + "No such item.", error};
  }
  if (error.is(URLErrorDomain, 409) || error.is(DCErrorDomain, 3)) {
    return {ExitStatus::Conflict, prefix + error.localizedDescription(), error};
  }
  return {ExitStatus::Failed, prefix + error.localizedDescription(), error};
}

void Output::line(const std::string& text) const {
  if (writeFailure_) return;
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fputc('\n', stdout) == EOF) {
    writeFailure_ = errno;
  }
}

void Output::object(const nlohmann::ordered_json& object) const {
  line(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void Output::note(const std::string& text) const {
  if (!options_.quiet) std::fprintf(console(), "%s\n", printable(text).c_str());
}

ExitStatus Output::fail(const CommandFailure& failure) const {
  auto* cause = failure.error ? failure.error->underlyingError() : nullptr;
  if (cause && cause->is(POSIXErrorDomain, EPIPE)) return failure.status;  // nobody reads our output any more
  if (options_.json) {
    nlohmann::ordered_json error;
    error["domain"] = failure.error ? failure.error->domain() : "florvane";
    error["code"] = failure.error ? failure.error->code() : static_cast<std::int64_t>(failure.status);
    error["message"] = failure.sentence;
    object({{"error", error}});
  } else {
    std::fprintf(console(), "florvane: %s\n", printable(failure.sentence).c_str());
  }
  return failure.status;
}

bool Output::flush() const {
  if (std::fflush(stdout) != 0 && !writeFailure_) writeFailure_ = errno;
  return !writeFailure_;
}

ExitStatus Output::finish(ExitStatus status) const {
  if (flush()) return status;
  if (writeFailure_ != EPIPE) {
    std::string reason = std::generic_category().message(writeFailure_);
    std::fprintf(console(), "florvane: Could not write to standard output: %s\n", reason.c_str());
  }
  return status == ExitStatus::Done ? ExitStatus::Failed : status;
}

std::string printable(const std::string& text) {
  std::string out;
  auto escape = [&out](const char* form, unsigned value) {
    std::array<char, 8> escaped{};
    std::snprintf(escaped.data(), escaped.size(), form, value);
    out += escaped.data();
  };
  auto at = [&text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (at(i) < 0x20 || at(i) == 0x7f) {
      escape("\\x%02x", at(i));
    } else if (at(i) == 0xc2 && at(i + 1) >= 0x80 && at(i + 1) < 0xa0) {
      escape("\\x%02x", at(++i));
    } else if (unsigned last = at(i + 2); at(i) == 0xe2 && ((at(i + 1) == 0x80 && last >= 0xaa && last <= 0xae) ||
                                                            (at(i + 1) == 0x81 && last >= 0xa6 && last <= 0xa9))) {
      escape("\\u%04x", (at(i) & 0xfU) << 12 | (at(i + 1) & 0x3fU) << 6 | (last & 0x3fU));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string endedSentence(const std::string& text) {
  return text.empty() || std::string_view(".!?").find(text.back()) != std::string_view::npos ? text : text + ".";
}

std::string humanSize(std::int64_t bytes) {
  static constexpr std::array<const char*, 5> units = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto size = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < units.size()) {
    size /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", size, units[unit]);
  return text.data();
}

}  // namespace florvane::tools
