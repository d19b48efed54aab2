// Pattern files of the tools: one pattern per line, "NAME: PATTERN" or just
// "PATTERN" (named "line N"); '#' starts a comment; blank lines are skipped.
// The patterns themselves are read by the table builder (search/).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vrk::patterns {

struct PatternSource {
  std::string name;
  std::string text;
};

bool ParsePatternList(std::string_view text, std::vector<PatternSource>& out, std::string& error);
bool ReadPatternFile(const std::string& path, std::vector<PatternSource>& out, std::string& error);

}  // namespace vrk::patterns
