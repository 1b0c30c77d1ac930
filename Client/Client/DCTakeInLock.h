#pragma once

#include "Client/Client/DCService.h"
#include "platform/CoordinationLock.h"

#include <memory>
#include <optional>

namespace florvane {

// The right to change which document is where in a service's cache. What a listing or an answer is taken in for must
// not change under it, and every process of the container takes in answers: one does it at a time. Taken on the
// service's queue before anything is coordinated, also where it is held already. Whoever holds it for longer than ten
// seconds is not waited for any more: a stopped process stops only itself.
class DCTakeInLock {
 public:
  // When it is held, the answers that the database remembers are those that count.
  explicit DCTakeInLock(const std::shared_ptr<DCService>& service);

 private:
  std::optional<CoordinationLock> lock_;
};

}  // namespace florvane
