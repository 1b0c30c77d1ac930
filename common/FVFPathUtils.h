#pragma once

#include <string>
#include <string_view>

namespace florvane {

// What the sanitiser has to know of the machine that it runs on.
struct FVFPathHost {
  // Where relative strings are looked up: absolute, or empty for a place where nothing is found.
  std::string currentDirectory;
  // Whether /tmp, /var and /etc really lie below /private.
  bool hasPrivateDirectory = false;

  // The machine's answer, and the directory last set with FVFPathUtils::setCurrentDirectory().
  static FVFPathHost current();
};

// Checks and cleans paths. No state but the current directory; thread-safe.
class FVFPathUtils {
 public:
  // Whether the string does not begin with "/"; so "" is relative.
  static bool isRelativePath(std::string_view string);
  // The string without a trailing or doubled "/"; an absolute one with its symbolic links resolved. Throws
  // InvalidArgumentException "Illegal path: %@" for a component "." or "..", a leading "/" in a relative or none in an
  // absolute path, several components where one is asked for, a string that is no text (NUL; not UTF-8 in a relative
  // path), and a relative one that exists in the current directory.
  static std::string stringBySanitizingPath(std::string_view string, bool relativePath, bool allowMultipleComponents,
                                            const FVFPathHost& host = FVFPathHost::current());

  // The directory against which relative strings are looked up, empty by default. An empty directory of our own stands
  // for the process's, so that the folder somebody started the program in never makes a share's path illegal.
  static void setCurrentDirectory(std::string path);
};

}  // namespace florvane
