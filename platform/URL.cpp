#include "platform/URL.h"

#include <charconv>
#include <memory>

#include <curl/urlapi.h>

namespace florvane {

namespace {

struct HandleDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using Handle = std::unique_ptr<CURLU, HandleDeleter>;

// curl knows http, https and file; other schemes are not ours to speak.
Handle parse(const std::string& text) {
  Handle handle(curl_url());
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_DISALLOW_USER) != CURLUE_OK) return {};
  return handle;
}

std::optional<std::string> part(CURLU* handle, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(handle, which, &text, 0) != CURLUE_OK) return std::nullopt;
  std::string copy = text;
  curl_free(text);
  return copy;
}

bool isUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

constexpr char kQueryItemAllowedCharacters[] = "!$'()*,:@/?";

// Where path, query or fragment begin behind the authority.
std::size_t endOfAuthority(std::string_view text) {
  std::size_t start = text.find("://");
  start = start == std::string_view::npos ? 0 : start + 3;
  return std::min(text.find_first_of("/?#", start), text.size());
}

}  // namespace

std::optional<URL> URL::fromString(std::string_view text) {
  std::size_t schemeEnd = text.find("://");
  if (schemeEnd == std::string_view::npos || text.find('\0') != std::string_view::npos) return std::nullopt;
  Handle handle = parse(std::string(text));
  if (!handle) return std::nullopt;
  URL url;
  url.text_ = text;
  url.scheme_ = part(handle.get(), CURLUPART_SCHEME).value_or("");
  url.host_ = part(handle.get(), CURLUPART_HOST).value_or("");
  if (url.host_.starts_with('[') && url.host_.ends_with(']')) url.host_ = url.host_.substr(1, url.host_.size() - 2);
  if (url.host_.empty() && !url.isFileURL()) return std::nullopt;
  if (auto port = part(handle.get(), CURLUPART_PORT)) {
    std::uint16_t number = 0;
    auto [end, failure] = std::from_chars(port->data(), port->data() + port->size(), number);
    if (failure != std::errc() || end != port->data() + port->size()) return std::nullopt;
    url.port_ = number;
  }
  std::string_view rest = text.substr(endOfAuthority(text));
  rest = rest.substr(0, rest.find('#'));
  std::size_t question = rest.find('?');
  if (question != std::string_view::npos) url.query_ = rest.substr(question + 1);
  auto path = percentDecode(rest.substr(0, question));
  if (!path) return std::nullopt;
  url.path_ = *path;
  return url;
}

URL URL::fileURL(std::string_view path) {
  URL url;
  url.scheme_ = "file";
  url.path_ = path;
  url.text_ = "file://" + percentEncode(path, URLPathAllowedCharacters);
  return url;
}

std::optional<URL> URL::resolving(std::string_view reference) const {
  Handle handle = parse(text_);
  if (!handle || reference.find('\0') != std::string_view::npos) return std::nullopt;
  // Against an existing URL, curl resolves a relative reference.
  if (curl_url_set(handle.get(), CURLUPART_URL, std::string(reference).c_str(), CURLU_DISALLOW_USER) != CURLUE_OK) {
    return std::nullopt;
  }
  auto text = part(handle.get(), CURLUPART_URL);
  return text ? fromString(*text) : std::nullopt;
}

std::uint16_t URL::effectivePort() const {
  if (port_) return *port_;
  return scheme_ == "https" ? 443 : scheme_ == "http" ? 80 : 0;
}

URL URL::withPort(std::uint16_t port) const {
  std::string_view text = text_;
  std::string_view rest = text.substr(endOfAuthority(text));
  return *fromString(scheme_ + "://" + bracketedHost(host_) + ":" + std::to_string(port) + std::string(rest));
}

URL URL::withQueryItems(const std::vector<URLQueryItem>& items) const {
  std::string query;
  for (const auto& item : items) {
    query += query.empty() ? '?' : '&';
    query += percentEncode(item.name, kQueryItemAllowedCharacters);
    if (item.value) query += "=" + percentEncode(*item.value, kQueryItemAllowedCharacters);
  }
  std::size_t fragment = text_.find('#');
  std::string base = text_.substr(0, std::min(text_.find('?'), fragment));
  if (fragment != std::string::npos) query += text_.substr(fragment);
  return *fromString(base + query);
}

std::vector<URLQueryItem> URL::queryItems() const {
  std::vector<URLQueryItem> items;
  if (!query_ || query_->empty()) return items;
  std::string_view rest = *query_;
  while (true) {
    std::size_t end = rest.find('&');
    std::string_view pair = rest.substr(0, end);
    std::size_t equals = pair.find('=');
    URLQueryItem item;
    item.name = percentDecode(pair.substr(0, equals)).value_or(std::string(pair.substr(0, equals)));
    if (equals != std::string_view::npos) {
      std::string_view value = pair.substr(equals + 1);
      item.value = percentDecode(value).value_or(std::string(value));
    }
    items.push_back(std::move(item));
    if (end == std::string_view::npos) return items;
    rest.remove_prefix(end + 1);
  }
}

std::string bracketedHost(std::string_view host) {
  bool bare = host.find(':') != std::string_view::npos && !host.starts_with('[');
  return bare ? "[" + std::string(host) + "]" : std::string(host);
}

std::string percentEncode(std::string_view text, std::string_view allowed) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char character : text) {
    if (isUnreserved(character) || allowed.find(character) != std::string_view::npos) {
      out += character;
    } else {
      auto byte = static_cast<unsigned char>(character);
      out += '%';
      out += digits[byte >> 4];
      out += digits[byte & 15];
    }
  }
  return out;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    unsigned char byte = 0;
    if (i + 2 >= text.size()) return std::nullopt;
    auto [end, failure] = std::from_chars(&text[i + 1], &text[i + 1] + 2, byte, 16);
    if (failure != std::errc() || end != &text[i + 1] + 2) return std::nullopt;
    out += static_cast<char>(byte);
    i += 2;
  }
  return out;
}

}  // namespace florvane
