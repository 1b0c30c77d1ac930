#pragma once

#include "platform/Data.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// What the database has for the children of one directory, as of one look at all of them. Immutable, thread-safe.
class DCKnownChildren {
 public:
  using Ptr = std::shared_ptr<const DCKnownChildren>;

  struct Child {
    std::string name;
    Data documentIdentifier;
    // Whether bookkeeping may be recorded under the identifier; false when there was certainly none.
    bool mayHaveOtherMetadata = false;
  };

  // Of several children of one name the first counts.
  explicit DCKnownChildren(std::vector<Child> children);

  // In the plain order of their names.
  const std::vector<Child>& children() const { return children_; }
  // Null when there is none; lives as long as this object.
  const Child* named(std::string_view name) const;

  // Looks children up, at the price of one comparison each as long as names are asked for in their order.
  class Walk {
   public:
    // Of what outlives this.
    explicit Walk(const DCKnownChildren& known) : known_(known) {}
    const Child* named(std::string_view name);

   private:
    const DCKnownChildren& known_;
    std::size_t next_ = 0;
  };

 private:
  std::size_t placeOf(std::string_view name) const;

  std::vector<Child> children_;
};

}  // namespace florvane
