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

// One expected run: exact standard output, exit status, and a part of the
// one-line standard error ("" = stderr must be empty).
struct ToolCase {
  std::vector<std::string> args;
  int status;
  std::string out;
  const char* err;
};

// Runs the case and reports every difference as a test failure.
void CheckTool(const ToolCase& c);

}  // namespace vrk::test
