#pragma once

#include "platform/URL.h"

namespace florvane {

// Whether /tmp, /var and /etc of this machine really lie below /private.
bool hostHasPrivateDirectory();

// A file URL with the symbolic links of its path resolved, as far as the path exists; where the machine has them below
// /private, paths in "tmp", "var" and "etc" keep that first component. Other URLs come back as they are. Thread-safe.
URL URLByReallyResolvingSymlinksInPath(const URL& url, bool hasPrivateDirectory = hostHasPrivateDirectory());

}  // namespace florvane
