#include "platform/URLRequest.h"

#include "platform/Format.h"

#include <algorithm>
#include <array>

namespace florvane {

namespace {

char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Fields whose values let their reader act as the user.
bool isSecret(std::string_view name) {
  static constexpr std::array<std::string_view, 4> names = {"Authorization", "Cookie", "Proxy-Authorization",
                                                            "Set-Cookie"};
  return std::any_of(names.begin(), names.end(),
                     [&](std::string_view secret) { return equalIgnoringCase(secret, name); });
}

std::string sizeOnly(std::size_t size) { return "<" + std::to_string(size) + " bytes>"; }

}  // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lowerCase(x) == lowerCase(y); });
}

std::optional<std::string> HTTPHeaders::value(std::string_view name) const {
  for (const auto& field : fields_) {
    if (equalIgnoringCase(field.first, name)) return field.second;
  }
  return std::nullopt;
}

void HTTPHeaders::set(std::string_view name, std::string_view value) {
  remove(name);
  add(name, value);
}

void HTTPHeaders::remove(std::string_view name) {
  std::erase_if(fields_, [&](const Field& field) { return equalIgnoringCase(field.first, name); });
}

std::string URLRequest::description() const {
  std::string text = "{ " + method + " " + url.absoluteString() + " {";
  for (const auto& [name, value] : headers.fields()) {
    text += " " + name + ": " + (isSecret(name) ? sizeOnly(value.size()) : value) + ";";
  }
  text += " }";
  if (body) text += " body: " + sizeOnly(body->size());
  return text + " }";
}

std::string HTTPURLResponse::description() const {
  return format("%@ { URL: %@ } { Status Code: %d }", baseDescription("HTTPURLResponse", this), url_.absoluteString(),
                statusCode_);
}

}  // namespace florvane
