// Splitting and joining of "/"-separated paths in the shape of the Windows
// _splitpath/_makepath calls.
#pragma once

#include <cstdint>

namespace vrk::osutil {

// Sizes of the buffers that a split fills, terminating zero included.
inline constexpr uint32_t kMaxPath = 4096;
inline constexpr uint32_t kMaxFname = 255;
inline constexpr uint32_t kMaxExt = 120;

// Where a split puts its parts; any of them may be null.
struct SplitParts {
  char* drive;  // becomes "" (no drive letters here)
  char* dir;    // kMaxPath bytes
  char* fname;  // kMaxFname bytes, zero-filled after the name
  char* ext;    // kMaxExt bytes
};

// Splits the first kMaxPath - 1 bytes of `path`. An existing directory goes
// whole into `dir`; anything else is split at its last "/" and the name at
// its last "." (not a leading or trailing one). No part is written past its
// buffer size. Applies no system gate: the caller does.
void SplitPath(const char* path, const SplitParts& out);

// Joins the non-empty parts into `dst`, adding "/" and "." where missing.
// Unbounded: the caller sizes `dst`.
void MakePath(char* dst, const char* dir, const char* fname, const char* ext);

}  // namespace vrk::osutil
