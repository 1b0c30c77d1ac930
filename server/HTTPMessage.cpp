#include "server/HTTPMessage.h"

#include "platform/SoftAssertion.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace florvane {

namespace {

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::ranges::equal(a, b, {}, lower, lower);
}

std::string_view trimmed(std::string_view text) {
  std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string_view reason(unsigned status) {
  switch (status) {
    case 200:
      return "OK";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 409:
      return "Conflict";
    case 413:
      return "Content Too Large";
    case 429:
      return "Too Many Requests";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    case 507:
      return "Insufficient Storage";
    default:
      return "Status";
  }
}

}  // namespace

const std::string* HTTPRequestHead::field(std::string_view name) const {
  auto found = std::ranges::find_if(fields, [&](const auto& each) { return equalIgnoringCase(each.first, name); });
  return found == fields.end() ? nullptr : &found->second;
}

std::vector<std::string_view> HTTPRequestHead::cookies(std::string_view name) const {
  std::vector<std::string_view> values;
  for (const auto& [fieldName, value] : fields) {
    if (!equalIgnoringCase(fieldName, "Cookie")) continue;
    for (std::string_view rest = value; !rest.empty();) {
      std::size_t end = std::min(rest.find(';'), rest.size());
      std::string_view pair = trimmed(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
      std::size_t equals = pair.find('=');
      if (equals != std::string_view::npos && pair.substr(0, equals) == name) values.push_back(pair.substr(equals + 1));
    }
  }
  return values;
}

HTTPResponse HTTPResponse::sentence(unsigned status, std::string_view text) {
  HTTPResponse response;
  response.status = status;
  response.fields.emplace_back("Content-Type", "text/plain; charset=utf-8");
  response.body = Data::fromString(text);
  return response;
}

std::string httpDate(Date date) {
  static constexpr std::array<const char*, 7> days = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<const char*, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  timespec time = date.toTimespec();
  tm calendar{};
  gmtime_r(&time.tv_sec, &calendar);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                days[static_cast<std::size_t>(calendar.tm_wday)], calendar.tm_mday,
                months[static_cast<std::size_t>(calendar.tm_mon)], calendar.tm_year + 1900, calendar.tm_hour,
                calendar.tm_min, calendar.tm_sec);
  return text.data();
}

std::string HTTPResponse::head(bool keepAlive) const {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " ";
  text.append(reason(status)).append("\r\n");
  for (const auto& [name, value] : fields) {
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      reportSoftAssertion("server/HTTPMessage", __LINE__, "value is one line");
      continue;
    }
    text.append(name).append(": ").append(value).append("\r\n");
  }
  if (status != 304) text.append("Content-Length: ").append(std::to_string(bodySize())).append("\r\n");
  text.append("Cache-Control: no-store\r\n");
  if (!keepAlive) text.append("Connection: close\r\n");
  return text.append("\r\n");
}

}  // namespace florvane
