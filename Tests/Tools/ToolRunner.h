#pragma once
// Runs the built `fennick` tool as a child process and captures what it
// printed, for tests of the tool's commands.
#include <string>
#include <vector>

namespace fennick::tooltest {

struct ToolResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

/// Runs `fennick ARGS...` with `input` on standard input (closed at its end),
/// in the current directory, with the given extra environment ("NAME=value").
ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input = {},
                   const std::vector<std::string>& environment = {});

}  // namespace fennick::tooltest
