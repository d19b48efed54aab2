// vrkutil patterns: search files for byte patterns with a pattern table.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "io/file_input.h"
#include "patterns/pattern_list.h"
#include "search/pattern_builder.h"
#include "vrk_search.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kCompile, kPattern };
constexpr Option kOptions[] = {{kCompile, 0, "compile", false}, {kPattern, 'p', "pattern", true}};

const Command kPatterns{
    "patterns", "[--compile] [--pattern PATTERN]... [PATTERNFILE] FILE...",
    "search files for byte patterns with gaps",
    "Builds a pattern search table and reports every match in each FILE as\n"
    "FILE:OFFSET:NAME (OFFSET in decimal, where the match starts).\n"
    "\n"
    "Patterns come from PATTERNFILE, one per line as 'NAME: PATTERN' or just\n"
    "'PATTERN' ('#' starts a comment), or from --pattern options (named by\n"
    "their text). A PATTERN is hex bytes with gaps, e.g. '4D 5A {0-3} 50 45':\n"
    "'{0-K}' stands for 0 to K arbitrary bytes (K at most 254) and must be\n"
    "followed by a byte. Patterns the table layout cannot hold are refused\n"
    "with the reason.\n"
    "\n"
    "  --compile   also print each pattern's key and table record\n"
    "\n"
    "Exit status: 1 when something matched, 0 when nothing did, 2 on error.",
    Run, kOptions};

constexpr int kExitMatched = 1;
constexpr int kExitNoMatch = 0;

namespace builder = vrk::search::builder;

void PrintCompiled(const builder::Table& table, const std::vector<vrk::patterns::PatternSource>& sources) {
  for (size_t n = 0; n < table.size(); ++n) {
    const uint16_t key = table.Key(n);
    std::printf("%s: key %02X %02X (%s rule), slot %u, record", sources[n].name.c_str(), key & 0xFF, key >> 8,
                (key >> 8) == SEARCH_BUSCATBL_CODE_GAP ? "gap" : "two-byte", unsigned(table.Slot(n)));
    for (uint8_t b : table.Record(n)) std::printf(" %02X", b);
    std::printf("\n");
  }
}

int Run(const Invocation& in) {
  const bool compile = in.Has(kCompile);
  std::vector<vrk::patterns::PatternSource> sources;
  for (const char* pattern : in.Values(kPattern)) sources.push_back({pattern, pattern});
  const auto positional = in.operands();
  size_t first_file = 0;
  if (sources.empty()) {
    if (positional.empty()) return UsageError(kPatterns, "expected a PATTERNFILE or --pattern");
    std::string error;
    if (!vrk::patterns::ReadPatternFile(positional[0], sources, error)) return Fail(kExitUsage, "%s", error.c_str());
    first_file = 1;
  }
  if (positional.size() == first_file && !compile) return UsageError(kPatterns, "expected at least one FILE");

  std::vector<std::string> texts;
  for (const auto& source : sources) texts.push_back(source.text);
  builder::Table table;
  builder::Refusal refusal;
  if (!builder::BuildTable(texts, table, refusal)) {
    if (refusal.pattern >= sources.size()) return Fail(kExitUsage, "%s", refusal.reason.c_str());
    return Fail(kExitUsage, "pattern \"%s\": %s", sources[refusal.pattern].name.c_str(), refusal.reason.c_str());
  }
  if (compile) PrintCompiled(table, sources);
  // Registered as a scanner would: with an analysis module on the loader's
  // path that offers pattern search, the searches below go to it.
  SEARCH_BuscaTblRegisterTable(table.mutable_desc(), 0);

  // Each start position may report a pattern twice (two-byte and gap rule).
  std::vector<const unsigned char*> items(2 * table.size() + 1);
  int status = kExitNoMatch;
  std::vector<uint8_t> data;
  for (size_t f = first_file; f < positional.size(); ++f) {
    const char* path = positional[f];
    std::string read_error;
    if (!vrktool::ReadWholeFile(path, data, read_error)) {
      status = Fail(kExitUsage, "%s: %s", path, read_error.c_str());
      continue;
    }
    if (data.size() > 0x7FFFFFFF) {
      status = Fail(kExitUsage, "%s is too large", path);
      continue;
    }
    // One search per start position, so that each hit has its offset. The
    // key reads the byte after a position: the last byte starts nothing.
    for (size_t p = 0; p + 1 < data.size(); ++p) {
      SEARCH_BuscaTblList out{uint32_t(items.size()), 0, items.data()};
      SEARCH_BuscaTbl(0, table.mutable_desc(), data.data() + p, 1, int(data.size() - p), &out);
      for (uint32_t i = 0; i < out.count; ++i) {
        const int number = table.NumberOf(items[i]);
        std::printf("%s:%zu:%s\n", path, p, number >= 0 ? sources[size_t(number)].name.c_str() : "?");
        if (status == kExitNoMatch) status = kExitMatched;
      }
    }
  }
  return status;
}

}  // namespace

VRK_COMMAND(kPatterns);

}  // namespace vrkutil
