#include "platform/XMLPropertyListWriter.h"

#include "platform/Encoding.h"
#include "platform/XMLPropertyListScalars.h"

#include <limits>

namespace florvane {

Result<Data> XMLPropertyListWriter::write() {
  output_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  bool written = writeTree();
  output_ += "</plist>\n";
  if (written && output_.size() > std::numeric_limits<std::uint32_t>::max()) {
    written = fail("The property list is too large.");
  }
  if (!written) return Failure(Error(QuilbarErrorDomain, PropertyListWriteInvalidError, problem_));
  return Data::fromString(output_);
}

bool XMLPropertyListWriter::fail(const char* problem) {
  problem_ = problem;
  return false;
}

bool XMLPropertyListWriter::writeTree() {
  if (!writeValue(root_)) return false;
  while (!open_.empty()) {
    Collection& collection = open_.back();
    std::size_t count = collection.value->kind() == Value::Kind::Array ? collection.value->arraySize()
                                                                       : collection.value->dictionarySize();
    if (collection.next == count) {
      closeCollection();
    } else if (!writeChild(collection)) {
      return false;
    }
  }
  return true;
}

bool XMLPropertyListWriter::writeChild(Collection& collection) {
  std::size_t index = collection.next++;
  if (collection.value->kind() == Value::Kind::Array) return writeValue(collection.value->arrayBegin()[index]);
  const DictionaryEntry& entry = collection.value->dictionaryBegin()[index];
  return writeText("key", entry.key.text()) && writeValue(entry.value);
}

bool XMLPropertyListWriter::writeValue(const Value& value) {
  if (++values_ > limits_.values) return fail("The property list has too many values.");
  switch (value.kind()) {
    case Value::Kind::Null:
      return fail("The property list has a null inside.");
    case Value::Kind::Boolean:
      indent();
      output_ += *value.asBoolean() ? "<true/>\n" : "<false/>\n";
      return true;
    case Value::Kind::Integer:
      writeElement("integer", std::to_string(*value.asInteger()));
      return true;
    case Value::Kind::Real:
      writeElement("real", xmlplist::formatReal(*value.asNumber()));
      return true;
    case Value::Kind::String:
      return writeText("string", *value.asString());
    case Value::Kind::Data:
      writeElement("data", base64Encode(*value.asData()));
      return true;
    case Value::Kind::Date:
      writeElement("date", xmlplist::formatDate(*value.asDate()));
      return true;
    case Value::Kind::Array:
    case Value::Kind::Dictionary:
      if (open_.size() >= limits_.depth) return fail("The property list is nested too deeply.");
      openCollection(value);
      return true;
  }
  return false;
}

void XMLPropertyListWriter::openCollection(const Value& value) {
  indent();
  output_ += value.kind() == Value::Kind::Array ? "<array>\n" : "<dict>\n";
  open_.push_back({.value = &value});
}

void XMLPropertyListWriter::closeCollection() {
  bool isArray = open_.back().value->kind() == Value::Kind::Array;
  open_.pop_back();
  indent();
  output_ += isArray ? "</array>\n" : "</dict>\n";
}

bool XMLPropertyListWriter::writeText(std::string_view element, std::string_view text) {
  indent();
  output_.append("<").append(element).append(">");
  if (!xmlplist::appendEncoded(output_, text)) return fail("The property list has text that XML cannot hold.");
  output_.append("</").append(element).append(">\n");
  return true;
}

void XMLPropertyListWriter::writeElement(std::string_view element, std::string_view content) {
  indent();
  output_.append("<").append(element).append(">").append(content).append("</").append(element).append(">\n");
}

void XMLPropertyListWriter::indent() { output_.append(open_.size(), '\t'); }

}  // namespace florvane
