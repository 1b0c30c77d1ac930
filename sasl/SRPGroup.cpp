#include "sasl/SRPGroup.h"

#include <algorithm>
#include <array>

namespace florvane {

namespace {

constexpr std::string_view modulus1024 =
    "EEAF0AB9ADB38DD69C33F80AFA8FC5E86072618775FF3C0B9EA2314C9C256576D674DF7496EA81D3383B4813D692C6E0E0D5D8E250B98BE4"
    "8E495C1D6089DAD15DC7D7B46154D6B6CE8EF4AD69B15D4982559B297BCF1885C529F566660E57EC68EDBC3C05726CC02FD4CBF4976EAA9A"
    "FD5138FE8376435B9FC61D2FC0EB06E3";
constexpr std::string_view modulus2048 =
    "AC6BDB41324A9A9BF166DE5E1389582FAF72B6651987EE07FC3192943DB56050A37329CBB4A099ED8193E0757767A13DD52312AB4B03310D"
    "CD7F48A9DA04FD50E8083969EDB767B0CF6095179A163AB3661A05FBD5FAAAE82918A9962F0B93B855F97993EC975EEAA80D740ADBF4FF74"
    "7359D041D5C33EA71D281E446B14773BCA97B43A23FB801676BD207A436C6481F1D2B9078717461A5B9D32E688F87748544523B524B0D57D"
    "5EA77A2775D2ECFA032CFBDBF52FB3786160279004E57AE6AF874E7303CE53299CCC041C7BC308D82A5698F3A8D0C38271AE35F8E9DBFBB6"
    "94B5C803D89F7AE435DE236D525F54759B65E372FCD68EF20FA7111F9E4AFF73";

const std::array<SRPGroup, 4>& groups() {
  static const std::array<SRPGroup, 4> table = {{
      {"rfc5054_1024", BigNumber::fromHex(modulus1024), BigNumber::fromWord(2)},
      {"rfc5054_2048", BigNumber::fromHex(modulus2048), BigNumber::fromWord(2)},
      {"rfc5054_4096", BigNumber::modulusOfBits(4096), BigNumber::fromWord(5)},
      {"rfc5054_8192", BigNumber::modulusOfBits(8192), BigNumber::fromWord(19)},
  }};
  return table;
}

template <typename Condition>
const SRPGroup* find(Condition condition) {
  const auto* found = std::find_if(groups().begin(), groups().end(), condition);
  return found == groups().end() ? nullptr : found;
}

}  // namespace

const SRPGroup* SRPGroup::named(std::string_view name) {
  return find([&](const SRPGroup& group) { return group.name == name; });
}

const SRPGroup* SRPGroup::matching(std::span<const std::uint8_t> N, std::span<const std::uint8_t> g) {
  return find([&](const SRPGroup& group) {
    return std::ranges::equal(group.N.bytes(), N) && std::ranges::equal(group.g.bytes(), g);
  });
}

}  // namespace florvane
