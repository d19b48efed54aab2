// vrkutil codepage: code-page numbers to character-set names and back.
#include <cstdio>

#include <string>

#include "charsets.h"
#include "command.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kList };
constexpr Option kOptions[] = {{kList, 'l', "list", false}};

const Command kCodepage{
    "codepage", "NAME|NUMBER... | --list", "map character-set names to code-page numbers and back",
    "Prints, one per line, the Windows code-page number of each character-set\n"
    "NAME (case is ignored) and a character-set name of each NUMBER, as the\n"
    "library's registry answers.\n"
    "\n"
    "  -l, --list   print the registry: each number, its names, and the name\n"
    "               under which this system's iconv converts it ('-' for none),\n"
    "               which is what 'vrkutil convert' uses for the number\n"
    "\n"
    "Exit status 1 when any of them is unknown.",
    Run, kOptions};

int List() {
  for (const int number : RegistryNumbers()) {
    std::string names;
    for (const std::string& n : RegistryNames(number)) names += (names.empty() ? "" : ",") + n;
    const std::string iconv = IconvName(number);
    std::printf("%-6d %-12s %s\n", number, iconv.empty() ? "-" : iconv.c_str(), names.c_str());
  }
  return kExitOk;
}

int Run(const Invocation& in) {
  if (in.Has(kList)) return in.operands().empty() ? List() : UsageError(kCodepage, "--list takes no arguments");
  if (in.operands().empty()) return UsageError(kCodepage, "expected at least one NAME or NUMBER");
  int status = kExitOk;
  for (const char* arg : in.operands()) {
    long long number = 0;
    if (ParseInt(arg, number)) {
      // The registry's end marker (-1) is not a code page.
      const char* name = (number >= 0 && number <= INT32_MAX) ? charconv_GetCPName(static_cast<int32_t>(number)) : nullptr;
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
