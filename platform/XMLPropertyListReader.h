#pragma once

#include "platform/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <pugixml.hpp>

namespace florvane {

// Reads one property list of the XML form, in UTF-8, without recursion. Comments, processing instructions and the
// document type are passed over; entities are the five of XML and numeric ones, nothing is ever expanded. Equal
// strings share their bytes.
class XMLPropertyListReader {
 public:
  // Whether the bytes look like XML at all.
  static bool recognises(std::string_view bytes);
  // The bytes must outlive the reader.
  XMLPropertyListReader(std::string_view xml, const PropertyListLimits& limits) : xml_(xml), limits_(limits) {}
  Result<Value> read();

 private:
  enum class Kind { Root, Array, Dictionary };
  // An element whose children are being read; the root's one value is kept in its array.
  struct Collection {
    Kind kind;
    pugi::xml_node next;
    std::optional<Key> key{};
    Array array{};
    Dictionary dictionary{};
  };

  bool fail(std::string problem);
  bool checkText();
  bool parse();
  bool findRoot();
  bool readTree();
  bool readElement(const pugi::xml_node& element);
  bool readScalar(const pugi::xml_node& element, std::string_view name, Value& value);
  bool open(const pugi::xml_node& element, Kind kind);
  bool close();
  bool place(Value value);
  // The element's text, valid until the next call.
  bool readText(const pugi::xml_node& element);
  Value shared(std::string_view text);

  std::string_view xml_;
  PropertyListLimits limits_;
  std::string problem_;
  pugi::xml_document document_;
  std::vector<Collection> open_;
  std::size_t values_ = 0;
  Value result_;
  std::string text_;
  std::unordered_map<std::string_view, Value> strings_;  // views into the values
};

}  // namespace florvane
