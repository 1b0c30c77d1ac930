#pragma once

#include "platform/UniqueFunction.h"

#include <string>

namespace florvane {

// Starts a thread that nobody joins, under the first 15 bytes of the name. An exception that leaves the body is caught
// and reported. Throws std::system_error when the system has no more threads.
void startBackgroundThread(const std::string& name, WorkItem body);

// Runs an item, catching and reporting what it throws: the last boundary of threads and queues. `owner` says whose
// item it is.
void runGuarded(WorkItem& item, const std::string& owner) noexcept;

}  // namespace florvane
