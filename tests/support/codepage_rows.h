// The code-page registry's rows as the library's own data file lists them,
// for tests that walk every name.
#pragma once

#include <cstdint>

namespace vrk::test {

struct CodePageRow {
  int32_t codepage;
  const char* name;  // in the tests' own tables, null stands for "unknown"
};

inline constexpr CodePageRow kCodePageRows[] = {
#define VRK_CODEPAGE(number, name) {number, name},
#include "text/codepage_table.inc"
#undef VRK_CODEPAGE
};

}  // namespace vrk::test
