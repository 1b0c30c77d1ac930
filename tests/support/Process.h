#pragma once

#include <string>
#include <vector>

namespace florvane::test {

struct ProcessResult {
  int exitStatus = -1;
  std::string standardOutput;
  std::string standardError;
};

// Runs a program (found by $PATH) to its end with that standard input; both outputs are collected. Additional
// environment entries are "NAME=value".
ProcessResult runProcess(const std::vector<std::string>& arguments, const std::string& standardInput = {},
                         const std::vector<std::string>& environment = {});
// Runs a Python script's text with arguments: the outside judge of many tests.
ProcessResult runPython(const std::string& script, const std::vector<std::string>& arguments = {},
                        const std::string& standardInput = {});

}  // namespace florvane::test
