#include "Client/Client/DCKnownChildren.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace florvane {

DCKnownChildren::DCKnownChildren(std::vector<Child> children) : children_(std::move(children)) {
  // The records of a listing were made in its order, which mostly is this one.
  auto precedes = [](const Child& a, const Child& b) { return a.name < b.name; };
  if (!std::is_sorted(children_.begin(), children_.end(), precedes)) {
    std::vector<std::size_t> order(children_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(), [this](std::size_t a, std::size_t b) {
      const int compared = children_[a].name.compare(children_[b].name);
      return compared != 0 ? compared < 0 : a < b;
    });
    std::vector<Child> sorted;
    sorted.reserve(order.size());
    for (const std::size_t place : order) sorted.push_back(std::move(children_[place]));
    children_ = std::move(sorted);
  }
  auto isSame = [](const Child& a, const Child& b) { return a.name == b.name; };
  children_.erase(std::unique(children_.begin(), children_.end(), isSame), children_.end());
}

std::size_t DCKnownChildren::placeOf(std::string_view name) const {
  auto found = std::lower_bound(children_.begin(), children_.end(), name,
                                [](const Child& child, std::string_view sought) { return child.name < sought; });
  return static_cast<std::size_t>(found - children_.begin());
}

const DCKnownChildren::Child* DCKnownChildren::named(std::string_view name) const {
  const std::size_t place = placeOf(name);
  return place < children_.size() && children_[place].name == name ? &children_[place] : nullptr;
}

const DCKnownChildren::Child* DCKnownChildren::Walk::named(std::string_view name) {
  const auto& children = known_.children_;
  if (next_ >= children.size() || children[next_].name != name) next_ = known_.placeOf(name);
  return next_ < children.size() && children[next_].name == name ? &children[next_++] : nullptr;
}

}  // namespace florvane
