#pragma once

#include "platform/PropertyList.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace florvane {

// Writes one property list in the XML form, indented with tabs, without recursion.
class XMLPropertyListWriter {
 public:
  // The tree must outlive the writer.
  explicit XMLPropertyListWriter(const Value& root, const PropertyListLimits& limits = {})
      : root_(root), limits_(limits) {}
  Result<Data> write();

 private:
  // A collection whose children are being written.
  struct Collection {
    const Value* value;
    std::size_t next = 0;
  };

  bool fail(const char* problem);
  bool writeTree();
  bool writeChild(Collection& collection);
  bool writeValue(const Value& value);
  void openCollection(const Value& value);
  void closeCollection();
  bool writeText(std::string_view element, std::string_view text);
  void writeElement(std::string_view element, std::string_view content);
  void indent();

  const Value& root_;
  PropertyListLimits limits_;
  const char* problem_ = nullptr;
  std::string output_;
  std::vector<Collection> open_;
  std::size_t values_ = 0;
};

}  // namespace florvane
