#include "platform/XMLPropertyListReader.h"

#include "platform/Encoding.h"
#include "platform/XMLPropertyListScalars.h"

#include <algorithm>

namespace florvane {

namespace {

bool isText(const pugi::xml_node& node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }

bool isLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

}  // namespace

bool XMLPropertyListReader::recognises(std::string_view bytes) {
  if (bytes.starts_with("\xef\xbb\xbf")) bytes.remove_prefix(3);
  std::size_t first = bytes.find_first_not_of(" \t\n\r");
  return first != std::string_view::npos && bytes[first] == '<';
}

Result<Value> XMLPropertyListReader::read() {
  if (checkText() && parse() && findRoot() && readTree()) return std::move(result_);
  return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError, problem_));
}

bool XMLPropertyListReader::fail(std::string problem) {
  problem_ = std::move(problem);
  return false;
}

bool XMLPropertyListReader::checkText() {
  if (!xmlplist::isHeldByXML(xml_)) return fail("The XML property list has bytes that are no UTF-8 text.");
  // Every value is an element and has at most a key beside it. Counted first: the parser's tree takes many times the
  // memory of its text.
  std::size_t elements = 0;
  for (std::size_t at = xml_.find('<'); at != std::string_view::npos; at = xml_.find('<', at + 1)) {
    if (at + 1 < xml_.size() && isLetter(xml_[at + 1])) ++elements;
  }
  if (elements / 2 > limits_.values) return fail("The XML property list has too many values.");
  return true;
}

bool XMLPropertyListReader::parse() {
  // References stay as they are, since the parser would pass over those it does not know; top-level text is kept to
  // be refused.
  unsigned options =
      pugi::parse_cdata | pugi::parse_eol | pugi::parse_declaration | pugi::parse_fragment | pugi::parse_embed_pcdata;
  // A string of white space only must be kept; white space between elements costs a node each. The two are told apart
  // by what follows, unless something may stand inside a string that splits it.
  std::string_view body = xml_.substr(std::min(xml_.find("<plist"), xml_.size()));
  bool mayBeSplit = body.find("<!") != std::string_view::npos || body.find("<?") != std::string_view::npos;
  options |= mayBeSplit ? pugi::parse_ws_pcdata : pugi::parse_ws_pcdata_single;
  auto result = document_.load_buffer(xml_.data(), xml_.size(), options, pugi::encoding_utf8);
  if (result) return true;
  return fail("The XML property list cannot be parsed at byte " + std::to_string(result.offset) + ": " +
              result.description());
}

bool XMLPropertyListReader::findRoot() {
  pugi::xml_node root;
  for (const auto& node : document_.children()) {
    if (node.type() == pugi::node_declaration) {
      std::string encoding = node.attribute("encoding").value();
      std::transform(encoding.begin(), encoding.end(), encoding.begin(), [](char character) {
        return isLetter(character) ? static_cast<char>(character | 0x20) : character;
      });
      if (!encoding.empty() && encoding != "utf-8" && encoding != "us-ascii") {
        return fail("The XML property list is not in UTF-8.");
      }
    } else if (isText(node)) {
      if (!xmlplist::isWhiteSpace(node.value())) return fail("The XML property list has text outside its elements.");
    } else if (root || std::string_view(node.name()) != "plist") {
      return fail("The XML document is no property list.");
    } else {
      root = node;
    }
  }
  if (!root) return fail("The XML document is no property list.");
  return open(root, Kind::Root);
}

bool XMLPropertyListReader::readTree() {
  while (!open_.empty()) {
    pugi::xml_node node = open_.back().next;
    if (!node) {
      if (!close()) return false;
      continue;
    }
    open_.back().next = node.next_sibling();
    if (isText(node)) {
      if (!xmlplist::isWhiteSpace(node.value())) return fail("The XML property list has text between its elements.");
    } else if (!readElement(node)) {
      return false;
    }
  }
  return true;
}

bool XMLPropertyListReader::readElement(const pugi::xml_node& element) {
  Collection& collection = open_.back();
  std::string_view name = element.name();
  bool wantsKey = collection.kind == Kind::Dictionary && !collection.key;
  if (wantsKey != (name == "key")) {
    return fail(wantsKey ? "The XML property list has a dictionary value without a key."
                         : "The XML property list has a key where a value should be.");
  }
  if (wantsKey) {
    if (!readText(element)) return false;
    collection.key.emplace(text_);
    return true;
  }
  if (++values_ > limits_.values) return fail("The XML property list has too many values.");
  if (name == "array" || name == "dict") return open(element, name == "dict" ? Kind::Dictionary : Kind::Array);
  Value value;
  return readScalar(element, name, value) && place(std::move(value));
}

bool XMLPropertyListReader::readScalar(const pugi::xml_node& element, std::string_view name, Value& value) {
  if (!readText(element)) return false;
  if (name == "string") {
    value = shared(text_);
  } else if (name == "true" || name == "false") {
    if (xmlplist::isWhiteSpace(text_)) value = Value(name == "true");
  } else if (name == "integer") {
    value = Value(xmlplist::parseInteger(text_));
  } else if (name == "real") {
    value = Value(xmlplist::parseReal(text_));
  } else if (name == "date") {
    value = Value(xmlplist::parseDate(text_));
  } else if (name == "data") {
    value = Value(xmlplist::parseData(text_));
  } else {
    return fail("The XML property list has an element of an unsupported type.");
  }
  return !value.isNull() || fail("The XML property list has a malformed <" + std::string(name) + ">.");
}

bool XMLPropertyListReader::readText(const pugi::xml_node& element) {
  text_.clear();
  bool decoded = xmlplist::appendDecoded(text_, element.value());
  for (auto child = element.first_child(); child && decoded; child = child.next_sibling()) {
    if (!isText(child)) return fail("The XML property list has an element inside of text.");
    if (child.type() == pugi::node_cdata) {
      text_ += child.value();
    } else {
      decoded = xmlplist::appendDecoded(text_, child.value());
    }
  }
  return decoded || fail("The XML property list has a reference that is not of XML's own.");
}

bool XMLPropertyListReader::open(const pugi::xml_node& element, Kind kind) {
  // The root element does not count.
  if (open_.size() > limits_.depth) return fail("The XML property list is nested too deeply.");
  if (!xmlplist::isWhiteSpace(element.value())) return fail("The XML property list has text between its elements.");
  open_.push_back({.kind = kind, .next = element.first_child()});
  return true;
}

bool XMLPropertyListReader::close() {
  Collection done = std::move(open_.back());
  open_.pop_back();
  switch (done.kind) {
    case Kind::Root:
      if (done.array.size() != 1) return fail("The XML property list does not hold exactly one value.");
      result_ = done.array[0];
      return true;
    case Kind::Array:
      return place(Value(done.array));
    case Kind::Dictionary:
      if (done.key) return fail("The XML property list has a key without a value.");
      return place(Value(done.dictionary));
  }
  return false;
}

bool XMLPropertyListReader::place(Value value) {
  Collection& collection = open_.back();
  if (collection.kind == Kind::Dictionary) {
    collection.dictionary.set(*collection.key, std::move(value));
    collection.key.reset();
  } else {
    collection.array.append(std::move(value));
  }
  return true;
}

Value XMLPropertyListReader::shared(std::string_view text) {
  if (auto found = strings_.find(text); found != strings_.end()) return found->second;
  Value value(text);
  strings_.emplace(*value.asString(), value);
  return value;
}

}  // namespace florvane
