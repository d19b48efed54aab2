// vrkutil fold: Unicode 3.2.0 case folding of UTF-8 texts.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "command.h"
#include "vrk_text.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kStrict, kTurkic };
constexpr Option kOptions[] = {{kStrict, 0, "strict", false}, {kTurkic, 0, "turkic", false}};

const Command kFold{
    "fold", "[--strict] [--turkic] TEXT...", "case-fold UTF-8 texts",
    "Prints each TEXT case-folded, one per line.\n"
    "\n"
    "Without options the fold is done in place: only foldings that keep a\n"
    "character's length apply (U+212A KELVIN SIGN stays), and folding stops\n"
    "at the first malformed character, leaving the rest as it is.\n"
    "\n"
    "  --strict   full folding into a new text, where a character may change\n"
    "             length (U+00DF -> ss stays ss, U+FB01 -> fi); a malformed\n"
    "             character is an error\n"
    "  --turkic   Turkic folding of I and U+0130 (implies --strict)\n"
    "\n"
    "Exit status 1 when a TEXT is not valid UTF-8 under --strict.",
    Run, kOptions};

int Run(const Invocation& in) {
  const bool strict = in.Has(kStrict) || in.Has(kTurkic);
  const int flags = in.Has(kTurkic) ? UTF8_FOLD_TURKIC : 0;
  const auto texts = in.operands();
  if (texts.empty()) return UsageError(kFold, "expected at least one TEXT");
  int status = kExitOk;
  for (size_t i = 0; i < texts.size(); ++i) {
    if (!strict) {
      std::string text = texts[i];
      std::printf("%s\n", utf8foldstring(text.data()));
      continue;
    }
    if (texts[i][0] == 0) {  // the library gives no copy of an empty text
      std::printf("\n");
      continue;
    }
    char* folded = utf8foldstrict(texts[i], flags);
    if (folded == nullptr) {
      status = Fail(kExitFailure, "TEXT %zu is not valid UTF-8", i + 1);
      continue;
    }
    std::printf("%s\n", folded);
    utf8freeresult(folded);
  }
  return status;
}

}  // namespace

VRK_COMMAND(kFold);

}  // namespace vrkutil
