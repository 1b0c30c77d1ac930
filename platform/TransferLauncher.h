#pragma once

#include "platform/Error.h"
#include "platform/FileSystem.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace florvane {

// Starts a program that outlives this process: in a session of its own, a child of nobody here, "/" its folder, with
// none of our descriptors. Standard input and error are /dev/null; so is standard output, unless its reading end is
// wanted. Environment entries are added to ours. An error when the program cannot be started at all.
Result<FileDescriptor> startDetached(const std::vector<std::string>& command,
                                     const std::vector<std::pair<std::string, std::string>>& environment,
                                     bool wantsOutput);

// The agent's program: the one named, else $FLORVANE_TRANSFERD, else "florvane-transferd" beside the running program,
// in ../libexec from there, or in $PATH. Absent when that is no program.
std::optional<std::string> findTransferAgentProgram(const std::string& named);

// Starts the agent of a container and returns when it listens, or says within 10 seconds why it does not.
Result<void> startTransferAgent(const std::string& program, const std::string& container);

// The line that an agent's program prints when it listens.
inline constexpr char kTransferAgentReady[] = "ready\n";

}  // namespace florvane
