// vrkutil icmp: case-insensitive comparison of two UTF-8 texts.
#include <cstdio>
#include <string_view>

#include "command.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int Run(Args args);

const Command kIcmp{
    "icmp", "[--turkic] [--length-first] A B", "compare two UTF-8 texts ignoring case",
    "Prints -1, 0 or 1 as A sorts before, equal to or after B once each\n"
    "character is case-folded (Unicode 3.2.0, full folding, per character;\n"
    "folded characters compare by their UTF-8 bytes).\n"
    "\n"
    "  --turkic         Turkic folding of I and U+0130\n"
    "  --length-first   a shorter folded character sorts first\n"
    "\n"
    "Exit status 1 when malformed UTF-8 is met before a difference.",
    Run};

int Run(Args args) {
  int flags = 0;
  const char* texts[2] = {nullptr, nullptr};
  int count = 0;
  bool options = true;
  for (const char* arg : args) {
    const std::string_view a = arg;
    if (options && a == "--turkic") {
      flags |= UTF8_FOLD_TURKIC;
    } else if (options && a == "--length-first") {
      flags |= UTF8_CMP_LENGTHFIRST;
    } else if (options && a == "--") {
      options = false;
    } else if (options && a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return UsageError(kIcmp, "unknown option '%s'", arg);
    } else if (count < 2) {
      texts[count++] = arg;
    } else {
      return UsageError(kIcmp, "expected exactly two texts");
    }
  }
  if (count != 2) return UsageError(kIcmp, "expected exactly two texts");
  const int order = utf8icmp(texts[0], texts[1], flags);
  if (order == UTF8_ERR_INVALID) return Fail(kExitFailure, "malformed UTF-8 before any difference");
  std::printf("%d\n", order);
  return kExitOk;
}

}  // namespace

VRK_COMMAND(kIcmp);

}  // namespace vrkutil
