// Reading pattern files.
#include "patterns/pattern_list.h"

#include <cstdio>

#include "patterns/text_lines.h"

namespace vrk::patterns {

bool ParsePatternList(std::string_view text, std::vector<PatternSource>& out, std::string& error) {
  return ForEachContentLine(text, [&](std::string_view line, size_t line_number) {
    PatternSource source;
    if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
      std::string_view name = line.substr(0, colon);
      while (!name.empty() && IsBlank(name.back())) name.remove_suffix(1);
      if (name.empty()) {
        error = "line " + std::to_string(line_number) + ": empty pattern name before ':'";
        return false;
      }
      source.name = std::string(name);
      source.text = std::string(line.substr(colon + 1));
    } else {
      source.name = "line " + std::to_string(line_number);
      source.text = std::string(line);
    }
    out.push_back(std::move(source));
    return true;
  });
}

bool ReadPatternFile(const std::string& path, std::vector<PatternSource>& out, std::string& error) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open pattern file " + path;
    return false;
  }
  std::string text;
  char buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) text.append(buffer, got);
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) {
    error = "cannot read pattern file " + path;
    return false;
  }
  if (!ParsePatternList(text, out, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

}  // namespace vrk::patterns
