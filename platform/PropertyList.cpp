#include "platform/PropertyList.h"

#include "platform/BinaryPropertyListFormat.h"
#include "platform/BinaryPropertyListReader.h"
#include "platform/BinaryPropertyListWriter.h"
#include "platform/XMLPropertyListReader.h"
#include "platform/XMLPropertyListWriter.h"

namespace florvane {

Result<Value> readPropertyList(const Data& bytes, const PropertyListLimits& limits) {
  if (bytes.view().starts_with(bplist::kMagic)) return BinaryPropertyListReader(bytes.span(), limits).read();
  if (XMLPropertyListReader::recognises(bytes.view())) return XMLPropertyListReader(bytes.view(), limits).read();
  return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError,
                       bytes.empty() ? "The property list is empty." : "The data is no property list."));
}

Result<Data> writePropertyList(const Value& root, PropertyListFormat format) {
  if (format == PropertyListFormat::Binary) return BinaryPropertyListWriter(root).write();
  return XMLPropertyListWriter(root).write();
}

}  // namespace florvane
