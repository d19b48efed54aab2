// The calling conventions of code inside PE modules. Windows DLL entry
// points and most exports use stdcall: arguments pushed right to left, the
// callee pops them. Every call into module code goes through these types.
#pragma once

#include <cstdint>

namespace vrk::pe {

#if defined(__i386__)
#define VRK_STDCALL __attribute__((stdcall))
#else
#define VRK_STDCALL
#endif

// DllMain(base, reason, reserved): nonzero lets the module load.
using DllEntryPoint = int(VRK_STDCALL*)(void* base, uint32_t reason, void* reserved);

inline constexpr uint32_t kDllProcessAttach = 1;

// Module code carries none of the type marks that clang's function-type
// sanitizer reads in front of a callee; calls into it are exempt from that
// check (which would read bytes before the entry point).
#if defined(__clang__)
#define VRK_MODULE_CALL __attribute__((no_sanitize("function")))
#else
#define VRK_MODULE_CALL
#endif

// Module code is 32-bit: an entry point is a 32-bit address in the image.
static_assert(sizeof(DllEntryPoint) == sizeof(uint32_t), "i386 only");

}  // namespace vrk::pe
