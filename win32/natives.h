// The native modules that the layer serves to PE modules (KERNEL32.dll,
// msvcrt.dll, ...): their implemented functions and data, declared here from
// the one list in functions.inc, and the lookups that bind imports to them or
// to stubs.
#pragma once

#include <cstdint>
#include <string>

#include "win32/wintypes.h"

// Every implemented function of a native module, in its namespace, with its
// Windows calling convention; data exports as objects.
#define W32_FUNCTION(dll, conv, ret, name, params) \
  namespace vrk::win32::dll {                      \
  ret VRKW32_##conv name params;                   \
  }
#define W32_FUNCTION_ASM(dll, conv, ret, name, params, symbol) \
  namespace vrk::win32::dll {                                   \
  ret VRKW32_##conv name params __asm__(symbol);                 \
  }
#define W32_DATA(dll, type, name, suffix) \
  namespace vrk::win32::dll {             \
  extern type name suffix;                \
  }
#include "win32/functions.inc"
#undef W32_FUNCTION
#undef W32_FUNCTION_ASM
#undef W32_DATA

namespace vrk::win32 {

// One module the layer answers for. Served modules have implemented
// functions; any other DLL name that a PE module imports and that is not a
// PE file of the search folders gets a module of stubs only, so that the
// importer loads and only calling into it fails.
struct NativeDll {
  const char* name;  // as Windows spells it: "KERNEL32.dll"
  const char* id;    // namespace of its functions: "kernel32"
  bool served;
};

// The served module of that name (case ignored, ".dll" optional), or null.
const NativeDll* FindServedDll(const char* name);
// The module of stubs for a name no served module has (made on first use,
// kept for the life of the process).
const NativeDll* StubOnlyDll(const char* name);
// True when `handle` is one of the modules above.
bool IsNativeDll(const void* handle);

// The address of an implemented function or data export, or 0 (ordinals
// are never implemented).
uint32_t ImplementedExport(const NativeDll& dll, const char* name_or_ordinal);
// What an import is bound to: the implemented export, else a stub of its
// own that reports "DLL!Name is not implemented" when called.
uint32_t BindImport(const NativeDll& dll, const char* name_or_ordinal);

// The text "DLL!Name" or "DLL!#ordinal" of an import.
std::string ImportText(const NativeDll& dll, const char* name_or_ordinal);

}  // namespace vrk::win32
