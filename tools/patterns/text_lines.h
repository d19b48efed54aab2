// Line-oriented text files of the tools (pattern lists, signature
// databases): '#' starts a comment, surrounding blanks are dropped, and
// blank lines are skipped.
#pragma once

#include <cstddef>
#include <string_view>

namespace vrk::patterns {

inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

inline std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

// Calls visit(line, number) for each line with content, numbers from 1;
// stops and returns false as soon as visit does.
template <class Visit>
bool ForEachContentLine(std::string_view text, Visit visit) {
  size_t number = 0;
  while (!text.empty()) {
    const size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view() : text.substr(eol + 1);
    ++number;
    if (const size_t hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
    line = TrimBlanks(line);
    if (!line.empty() && !visit(line, number)) return false;
  }
  return true;
}

}  // namespace vrk::patterns
