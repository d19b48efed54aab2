// Unicode 3.2.0 case folding of UTF-8 text: in place, into a new copy, and
// a case-insensitive comparison, over one generated table and a lead-byte
// index built on first use.
#pragma once

#include <cstdint>

namespace vrk::text {

// Folds `s` in place where the folded character keeps its UTF-8 length,
// up to its first malformed character. Returns `s`.
char* FoldInPlace(char* s);

// A new folded copy of `s` (Pfree or utf8freeresult), or null when `s` is
// empty, holds a malformed character, or an allocation is refused.
char* FoldCopy(const char* s, int flags);

// The order of two strings by their characters folded one at a time, or
// why there is none.
enum class [[nodiscard]] FoldOrder : int8_t {
  kLess = -1,
  kEqual = 0,
  kGreater = 1,
  kNullArgument,  // `a` or `b` is null
  kMalformed,     // a malformed character came before any difference
};

FoldOrder CompareFolded(const char* a, const char* b, int flags);

}  // namespace vrk::text
