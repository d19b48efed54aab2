// Code-page registry: Windows code-page numbers and character-set names,
// looked up both ways over two sorted copies of the table built at load.
#pragma once

#include <cstdint>

namespace vrk::text {

struct CodePageRow {
  const char* name;
  int32_t codepage;
};

// The number of rows, the closing "LAST" row included.
inline constexpr uint32_t kCodePageRows = 408;

// Builds and frees the two sorted copies (load and unload hooks). A copy the
// allocator refuses stays absent and its lookup scans the table instead.
void BuildCodePageIndex();
void FreeCodePageIndex();

// The row named `name` (ASCII case ignored), or null when none is.
const CodePageRow* RowOfName(const char* name);
// A name of code page `codepage`, or null when none has that number.
const char* NameOfCodePage(int32_t codepage);

}  // namespace vrk::text
