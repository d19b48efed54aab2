// Runs a piece of a test in a forked child, for behaviour that can only be
// seen once per process (what happens at load, one-time bindings).
#pragma once

#include <functional>
#include <string>

namespace vrk::test {

struct ChildResult {
  bool exited = false;  // ended through exit(), not a signal
  int status = -1;      // exit status when `exited`
  std::string output;   // what the child wrote on stdout and stderr
};

// Forks, runs `body` in the child and exits with its result (0 = pass).
// The child's output is captured for the failure message.
ChildResult RunInChild(const std::function<int()>& body);

}  // namespace vrk::test
