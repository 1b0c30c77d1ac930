#pragma once

#include "platform/ManagedObject.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

// Entity "Path": which document the server has at a relative path. Any thread.
class DCManagedPath : public ManagedObject {
 public:
  enum Attribute : std::size_t { Path, DocumentIdentifier };
  static std::vector<ManagedAttribute> attributes();

  std::optional<std::string> path() const;
  void setPath(const std::optional<std::string>& path);
  std::optional<Data> documentIdentifier() const;
  void setDocumentIdentifier(const std::optional<Data>& documentIdentifier);
};

}  // namespace florvane
