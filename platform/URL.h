#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// One "name=value" of a query; the value is absent when there is no "=".
struct URLQueryItem {
  std::string name;
  std::optional<std::string> value;
  friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

// An absolute URL as text plus its parts, immutable. Hosts may be names, IPv4 or IPv6 literals (host() without the
// brackets, absoluteString() with them). Thread-safe.
class URL {
 public:
  // Absent when the text is no absolute URL.
  static std::optional<URL> fromString(std::string_view text);
  static URL fileURL(std::string_view path);
  // A relative reference ("fv/v1/ls", "/sasl") resolved against this URL by the rules of RFC 3986.
  std::optional<URL> resolving(std::string_view reference) const;

  const std::string& absoluteString() const { return text_; }
  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }
  // As it stands in the text; absent when the URL names none.
  std::optional<std::uint16_t> port() const { return port_; }
  // The port that a connection uses: the one given, else the scheme's.
  std::uint16_t effectivePort() const;
  // Percent-decoded.
  const std::string& path() const { return path_; }
  // Still encoded; absent when there is no "?".
  const std::optional<std::string>& query() const { return query_; }
  bool isFileURL() const { return scheme_ == "file"; }

  // Copies with one part replaced.
  URL withPort(std::uint16_t port) const;
  // Replaces any query there was. Names and values are percent-encoded: everything but unreserved characters and
  // "!$'()*,:@/?" is, so that "&", "=", "+", "%" and ";" in a value arrive as they are. An empty list removes the
  // query.
  URL withQueryItems(const std::vector<URLQueryItem>& items) const;
  // The query split at "&" and the first "=", each half percent-decoded ("+" is a plus sign).
  std::vector<URLQueryItem> queryItems() const;

  std::string description() const { return text_; }
  friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }

 private:
  URL() = default;
  std::string text_, scheme_, host_, path_;
  std::optional<std::uint16_t> port_;
  std::optional<std::string> query_;
};

// "[::1]" for an IPv6 literal that stands bare, any other host as it is.
std::string bracketedHost(std::string_view host);
// Percent-encodes all but unreserved characters and those of `allowed`; upper-case hexadecimal.
std::string percentEncode(std::string_view text, std::string_view allowed);
// The sub-delimiters and others that stand as they are in a URL path, "/" included.
inline constexpr char URLPathAllowedCharacters[] = "!$&'()*+,;=:@/";
// Absent when a "%" is not followed by two hexadecimal digits.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace florvane
