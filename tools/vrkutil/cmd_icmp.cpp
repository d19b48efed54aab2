// vrkutil icmp: case-insensitive comparison of two UTF-8 texts.
#include <cstdio>
#include <string_view>

#include "command.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kTurkic, kLengthFirst };
constexpr Option kOptions[] = {{kTurkic, 0, "turkic", false}, {kLengthFirst, 0, "length-first", false}};

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
    Run, kOptions};

int Run(const Invocation& in) {
  const int flags = (in.Has(kTurkic) ? UTF8_FOLD_TURKIC : 0) | (in.Has(kLengthFirst) ? UTF8_CMP_LENGTHFIRST : 0);
  if (in.operands().size() != 2) return UsageError(kIcmp, "expected exactly two texts");
  const char* const texts[2] = {in.operands()[0], in.operands()[1]};
  const int order = utf8icmp(texts[0], texts[1], flags);
  if (order == UTF8_ERR_INVALID) return Fail(kExitFailure, "malformed UTF-8 before any difference");
  std::printf("%d\n", order);
  return kExitOk;
}

}  // namespace

VRK_COMMAND(kIcmp);

}  // namespace vrkutil
