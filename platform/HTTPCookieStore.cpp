#include "platform/HTTPCookieStore.h"

#include <algorithm>
#include <charconv>

#include <curl/curl.h>

namespace florvane {

namespace {

constexpr std::size_t kMostCookies = 50;
constexpr std::size_t kLargestCookie = 4096;

std::string_view trimmed(std::string_view text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

struct Pair {
  std::string_view name, value;
};

// Takes the part before the next ";" off the text and splits it at "=".
Pair takePair(std::string_view& text) {
  auto semicolon = text.find(';');
  std::string_view part = text.substr(0, semicolon);
  text = semicolon == std::string_view::npos ? std::string_view() : text.substr(semicolon + 1);
  auto equals = part.find('=');
  if (equals == std::string_view::npos) return {trimmed(part), {}};
  return {trimmed(part.substr(0, equals)), trimmed(part.substr(equals + 1))};
}

std::string requestPath(const URL& url) { return url.path().empty() ? "/" : url.path(); }

// The folder of the path that set the cookie.
std::string defaultPath(const URL& url) {
  std::string path = requestPath(url);
  auto slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

bool pathMatches(std::string_view path, std::string_view cookiePath) {
  if (!path.starts_with(cookiePath)) return false;
  return path.size() == cookiePath.size() || cookiePath.ends_with('/') || path[cookiePath.size()] == '/';
}

Date dateAfter(Date now, std::string_view seconds) {
  std::int64_t count = 0;
  auto [end, failure] = std::from_chars(seconds.data(), seconds.data() + seconds.size(), count);
  if (failure == std::errc::result_out_of_range) count = seconds.starts_with('-') ? 0 : INT64_MAX;
  constexpr std::int64_t kLongest = std::int64_t{400} * 24 * 3600;
  return now + std::chrono::seconds(std::clamp<std::int64_t>(count, 0, kLongest));
}

}  // namespace

void HTTPCookieStore::store(const HTTPHeaders& answerHeaders, const URL& url, Date now) {
  for (const auto& [name, value] : answerHeaders.fields()) {
    if (equalIgnoringCase(name, "Set-Cookie")) storeOne(value, url, now);
  }
}

void HTTPCookieStore::storeOne(std::string_view text, const URL& url, Date now) {
  if (text.size() > kLargestCookie || text.substr(0, text.find(';')).find('=') == std::string_view::npos) return;
  Pair pair = takePair(text);
  if (pair.name.empty()) return;
  Cookie cookie{url.host(), defaultPath(url), std::string(pair.name), Secret(pair.value), false, std::nullopt};
  bool hasMaximumAge = false;
  while (!text.empty()) {
    auto [name, value] = takePair(text);
    if (equalIgnoringCase(name, "Path")) {
      if (value.starts_with('/')) cookie.path = value;
    } else if (equalIgnoringCase(name, "Domain")) {
      if (value.starts_with('.')) value.remove_prefix(1);
      // Only the host itself may be named; nothing is ever shared with its neighbours.
      if (!value.empty() && !equalIgnoringCase(value, cookie.host)) return;
    } else if (equalIgnoringCase(name, "Secure")) {
      cookie.secure = true;
    } else if (equalIgnoringCase(name, "Max-Age")) {
      hasMaximumAge = true;
      cookie.expires = dateAfter(now, value);
    } else if (equalIgnoringCase(name, "Expires") && !hasMaximumAge) {
      time_t time = curl_getdate(std::string(value).c_str(), nullptr);
      if (time != -1) cookie.expires = Date::fromMicroseconds(std::int64_t{time} * 1'000'000);
    }
  }
  if (cookie.secure && url.scheme() != "https") return;
  std::erase_if(cookies_, [&](const Cookie& other) {
    return other.name == cookie.name && other.path == cookie.path && equalIgnoringCase(other.host, cookie.host);
  });
  if (cookie.expires && *cookie.expires <= now) return;
  if (cookies_.size() >= kMostCookies) cookies_.erase(cookies_.begin());
  cookies_.push_back(std::move(cookie));
}

std::optional<std::string> HTTPCookieStore::cookieField(const URL& url, Date now) {
  std::erase_if(cookies_, [&](const Cookie& cookie) { return cookie.expires && *cookie.expires <= now; });
  std::vector<const Cookie*> matching;
  std::string path = requestPath(url);
  for (const auto& cookie : cookies_) {
    bool fits = equalIgnoringCase(cookie.host, url.host()) && pathMatches(path, cookie.path) &&
                (!cookie.secure || url.scheme() == "https");
    if (fits) matching.push_back(&cookie);
  }
  if (matching.empty()) return std::nullopt;
  std::sort(matching.begin(), matching.end(), [](const Cookie* a, const Cookie* b) {
    return a->path.size() != b->path.size() ? a->path.size() > b->path.size() : a < b;
  });
  std::string field;
  for (const Cookie* cookie : matching) {
    if (!field.empty()) field += "; ";
    field.append(cookie->name).append("=").append(cookie->value.reveal());
  }
  return field;
}

}  // namespace florvane
