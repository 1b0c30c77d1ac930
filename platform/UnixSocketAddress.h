#pragma once

#include <string>

#include <sys/un.h>

namespace florvane {

// The address of a socket in a folder. The folder's path may be longer than the 107 bytes of an address: then it goes
// by the descriptor of the folder, which stays open as long as the address is used.
sockaddr_un unixSocketAddress(const std::string& folder, int descriptor, const std::string& name);

}  // namespace florvane
