#include "platform/UnixSocketAddress.h"

#include <sys/socket.h>

namespace florvane {

sockaddr_un unixSocketAddress(const std::string& folder, int descriptor, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = folder + "/" + name;
  if (path.size() >= sizeof address.sun_path) path = "/proc/self/fd/" + std::to_string(descriptor) + "/" + name;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace florvane
