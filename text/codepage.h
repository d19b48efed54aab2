// Code-page registry: Windows code-page numbers and character-set names,
// looked up both ways over two sorted copies of the table built at load.
#pragma once

#include <cstdint>

namespace vrk::text {

struct charconv_CPEntry {
  const char* name;
  int32_t codepage;
};

// The number of rows, the closing "LAST" row included.
inline constexpr uint32_t kCodePageRows = 408;

// The constant table in its own order (ascending number, then name).
const charconv_CPEntry* CodePageTable();

// Builds and frees the two sorted copies (load and unload hooks). A copy the
// allocator refuses stays absent and its lookup scans the table instead.
void charconv_InitCPIndex();
void charconv_FreeCPIndex();

// The number of the row named `name` (ASCII case ignored), or -1.
int32_t CodePageOfName(const char* name);
// A name of code page `codepage`, or null when none has that number.
const char* NameOfCodePage(int32_t codepage);

// Row comparisons: by number, and by name under ASCII case folding.
int charconv_CompareCPNumber(const charconv_CPEntry& a, const charconv_CPEntry& b);
int charconv_CompareCPName(const charconv_CPEntry& a, const charconv_CPEntry& b);

}  // namespace vrk::text
