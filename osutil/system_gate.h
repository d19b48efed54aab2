// The system checks that stand before the path functions, the program's
// file name and library loading. The answers come from the allocator
// library, which knows the platform the product was deployed on.
#pragma once

#include "vrkalloc.h"

namespace vrk::osutil {

inline constexpr int kPathSystemType = 3;         // system type on which paths work
inline constexpr int kForeignSystemType = 2;      // type with no /proc and no loader to use
inline constexpr int kCurrentSystemVersion = 0x2001;
inline constexpr int kEarlierSystemVersion = 0x1000;

// Type 3 or, only when the type is something else, version 0x2001.
inline bool PathGateOpen() { return GetOSType() == kPathSystemType || GetOSVersion() == kCurrentSystemVersion; }

// Anything but type 2, and then one of the two known versions.
inline bool LoaderGateOpen() {
  if (GetOSType() == kForeignSystemType) return false;
  const int version = GetOSVersion();
  return version == kCurrentSystemVersion || version == kEarlierSystemVersion;
}

}  // namespace vrk::osutil
