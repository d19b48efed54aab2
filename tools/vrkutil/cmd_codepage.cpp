// vrkutil codepage: code-page numbers to character-set names and back.
#include <cstdio>

#include "command.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

const Command kCodepage{
    "codepage", "NAME|NUMBER...", "map character-set names to code-page numbers and back",
    "Prints, one per line, the Windows code-page number of each character-set\n"
    "NAME (case is ignored) and a character-set name of each NUMBER.\n"
    "Exit status 1 when any of them is unknown.",
    Run};

int Run(const Invocation& in) {
  if (in.operands().empty()) return UsageError(kCodepage, "expected at least one NAME or NUMBER");
  int status = kExitOk;
  for (const char* arg : in.operands()) {
    long long number = 0;
    if (ParseInt(arg, number)) {
      const char* name = (number >= INT32_MIN && number <= INT32_MAX) ? charconv_GetCPName(int32_t(number)) : nullptr;
      if (name) {
        std::printf("%s\n", name);
      } else {
        status = Fail(kExitFailure, "no character set has code page %s", arg);
      }
    } else {
      const int32_t codepage = charconv_GetCP(arg);
      if (codepage != -1) {
        std::printf("%d\n", codepage);
      } else {
        status = Fail(kExitFailure, "unknown character-set name '%s'", arg);
      }
    }
  }
  return status;
}

}  // namespace

VRK_COMMAND(kCodepage);

}  // namespace vrkutil
