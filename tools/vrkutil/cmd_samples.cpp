// vrkutil samples: writes the demonstration's sample tree.
#include <string>

#include "command.h"
#include "scan/samples.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

const Command kSamples{
    "samples", "DIR [LARGE-BYTES]", "write a sample tree for trying 'vrkutil scan'",
    "Writes under DIR a few clean files, the standard anti-malware test file,\n"
    "a file with the test string at an odd offset, files recognised by the\n"
    "default database's own signatures, and a large file (default 4 MiB) with\n"
    "the test string across a 1 MiB border.",
    Run};

int Run(const Invocation& in) {
  const auto args = in.operands();
  if (args.empty() || args.size() > 2) return UsageError(kSamples, "expected DIR and an optional size");
  long long large = 4 << 20;
  if (args.size() == 2 && (!ParseInt(args[1], large) || large < 0 || large > (1ll << 30))) {
    return UsageError(kSamples, "bad size '%s'", args[1]);
  }
  std::string error;
  if (!vrk::scan::WriteSampleTree(args[0], uint32_t(large), error)) return Fail(kExitFailure, "%s", error.c_str());
  return kExitOk;
}

}  // namespace

VRK_COMMAND(kSamples);

}  // namespace vrkutil
