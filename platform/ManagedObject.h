#pragma once

#include "platform/Value.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace florvane {

class ManagedObject;
class ManagedObjectContext;

// One attribute: a column of its entity's table. The kind is Boolean, Integer, String, Data or Date.
struct ManagedAttribute {
  std::string name;
  Value::Kind kind;
  // Has an index in the store, and one over unsaved objects.
  bool indexed = false;
  // In a durable entity: a change of nothing else need not be on stable storage when it is saved.
  bool fleeting = false;
};

struct ManagedEntity {
  std::string name;
  std::vector<ManagedAttribute> attributes;
  std::function<std::shared_ptr<ManagedObject>()> make;
  // A save that touches such objects is on stable storage when it returns.
  bool durable = false;
};

// The entities, each one table whose columns are the attributes behind "identifier INTEGER PRIMARY KEY AUTOINCREMENT".
struct ManagedObjectModel {
  std::string name;
  std::vector<ManagedEntity> entities;
};

// One record of a context. Attributes have null for no value; what is set stays unsaved until the context is saved.
// Reading an object that another process has changed since reads it again, when the context has heard of that. Any
// thread.
class ManagedObject : public std::enable_shared_from_this<ManagedObject> {
 public:
  virtual ~ManagedObject() = default;
  ManagedObject(const ManagedObject&) = delete;
  ManagedObject& operator=(const ManagedObject&) = delete;

  bool hasChanges() const;
  // Deleted here or by another process; changes of it are dropped.
  bool isDeleted() const;

 protected:
  ManagedObject() = default;
  Value value(std::size_t attribute) const;
  std::optional<std::string> stringValue(std::size_t attribute) const;
  void setValue(std::size_t attribute, Value value);

 private:
  friend class ManagedObjectContext;
  enum class State : std::uint8_t { Stored, Inserted, Deleting, Gone };

  // All set by the context before anybody else sees the object, or under its lock.
  std::shared_ptr<ManagedObjectContext> context_;
  std::size_t entity_ = 0;
  std::uint64_t serial_ = 0;
  std::int64_t row_ = 0;
  State state_ = State::Gone;
  std::vector<Value> values_;
  std::uint32_t changed_ = 0;  // a bit an attribute
  std::uint32_t saving_ = 0;   // those that the save in progress writes
  std::atomic<std::uint64_t> readAt_{0};
};

}  // namespace florvane
