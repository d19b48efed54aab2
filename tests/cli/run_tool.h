// Runs the vrkutil binary with arguments and collects what it printed.
#pragma once

#include <string>
#include <vector>

namespace vrk::test {

struct ToolResult {
  int status = -1;    // exit status; -1 when killed by a signal
  std::string out;    // standard output
  std::string err;    // standard error
};

ToolResult RunTool(const std::vector<std::string>& args, const std::string& input = "");

}  // namespace vrk::test
