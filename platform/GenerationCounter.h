#pragma once

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Error.h"

#include <optional>
#include <string>

namespace florvane {

// The generation counter of a file or a folder, symbolic links followed: 12 bytes (the second and the nanosecond of its
// modification date, and a word that is never zero, mixed from inode, size and the second's high bits) that change
// when it is rewritten and stay when it is renamed, linked, or given another mode. Absent where the file system keeps
// no fine dates. Errors as in FileSystem.h, reading. Thread-safe.
//
// A clock's tick is long enough for two writes. A file in the container or in a folder added below whose last change
// lies in the running tick is therefore given a date of our own first, in whole microseconds and at most one of them
// ahead of the clock, which no later write gets; absent when that cannot be done. Only a file whose date the kernel
// set in this very tick is touched, so a date that somebody gave it stays. A write by somebody else between our
// look at the file and our date counts as one that came before the call: its bytes are there, its date is lost by less
// than a tick, and whatever is written after the call shows. So ask for the counter first and read the contents
// afterwards: they are then never older than it. Elsewhere files are never touched, and two writes of one tick look
// alike on kernels that date by ticks.
Result<std::optional<Data>> generationCounterOfItem(const std::string& path);

// The counter of a file that nobody else writes or dates, as one is that was just made under a name of its own. Nothing
// is locked for it. Errors and absence as above.
Result<std::optional<Data>> generationCounterOfOwnFile(const std::string& path);

// The counter that the item, once given that modification date, will have; nothing is changed. Errors and absence as
// above.
Result<std::optional<Data>> generationCounterOfItemDated(const std::string& path, Date date);

// Another folder whose files are ours to date: for a cache outside the container. Thread-safe.
void addGenerationFolder(const std::string& folder);

}  // namespace florvane
