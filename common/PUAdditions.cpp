#include "common/PUAdditions.h"

#include "platform/Encoding.h"

namespace florvane {

std::string pu_hex(const Data& data) { return hexEncode(data); }

std::optional<Data> pu_dataFromHexString(const std::optional<std::string_view>& text) {
  return text ? hexDecode(*text) : std::nullopt;
}

int fv_compare(const Data& data, const std::optional<Data>& with) {
  std::string_view other = with ? with->view() : std::string_view();
  if (data.size() != other.size()) return data.size() < other.size() ? -1 : 1;
  int order = data.view().compare(other);
  return (order > 0) - (order < 0);
}

}  // namespace florvane
