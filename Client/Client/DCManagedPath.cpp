#include "Client/Client/DCManagedPath.h"

namespace florvane {

std::vector<ManagedAttribute> DCManagedPath::attributes() {
  return {{"path", Value::Kind::String, true}, {"documentIdentifier", Value::Kind::Data, true}};
}

std::optional<std::string> DCManagedPath::path() const { return stringValue(Path); }
void DCManagedPath::setPath(const std::optional<std::string>& path) { setValue(Path, path); }
std::optional<Data> DCManagedPath::documentIdentifier() const { return value(DocumentIdentifier).asData(); }
void DCManagedPath::setDocumentIdentifier(const std::optional<Data>& documentIdentifier) {
  setValue(DocumentIdentifier, documentIdentifier);
}

}  // namespace florvane
