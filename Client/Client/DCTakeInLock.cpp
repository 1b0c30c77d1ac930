#include "Client/Client/DCTakeInLock.h"

#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCLog.h"
#include "platform/Container.h"

#include <chrono>

namespace florvane {

namespace {

constexpr auto kPatience = std::chrono::seconds(10);
// As file coordination has it. The item is one that nobody else reads or writes.
constexpr char kLockFile[] = "/Coordination.lock";
constexpr char kItem[] = "/Metadata/.taking-in/";

}  // namespace

DCTakeInLock::DCTakeInLock(const std::shared_ptr<DCService>& service) {
  const auto container = Container::directory();
  if (!container) return;
  auto lock = CoordinationLock::acquire(
      *container + kLockFile, {{*container + kItem + service->uniqueIdentifier(), CoordinatedItem::Access::Write}},
      kPatience);
  if (lock) {
    lock_.emplace(std::move(*lock));
  } else {
    DCLogWarning("Not waiting any more for another process to take in an answer: %@", lock.error());
  }
  DCDatabase::databaseForService(service)->refresh();
}

}  // namespace florvane
