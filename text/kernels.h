// The text family's inner loops in one version per instruction set: the
// plain code, which is the reference, and vector versions that give the same
// results. The dispatched entry points (Utf16ToUtf8Core, Utf8ToUtf16Core,
// FoldAsciiRun, EqualAsciiRun) run the widest version the processor has,
// chosen once by the dynamic loader when it relocates the library (GNU
// indirect functions). Every version is exposed so that each can be checked
// against the plain one on any processor that runs it.
#pragma once

#include <cstdint>

#include "text/transcode.h"

namespace vrk::text {

// Instruction sets with a version of their own, narrowest first. kSse41
// stands for SSSE3 and SSE4.1 together; kAvx2 for AVX2 with the operating
// system saving the 256-bit registers.
enum class Isa : uint8_t { kPlain, kSse2, kSse41, kAvx2 };
inline constexpr Isa kIsas[] = {Isa::kPlain, Isa::kSse2, Isa::kSse41, Isa::kAvx2};

// Whether this processor runs the version for `isa`, and the widest one it
// runs.
bool IsaSupported(Isa isa);
Isa BestIsa();
const char* IsaName(Isa isa);

// Folds A-Z to a-z over the leading run of in[0, n) whose bytes are all
// below 0x80 and differ from `stop` (a byte the caller folds itself; 0x80 or
// above for none), writes that run to out[0, run) and nothing else, and
// returns its length. `out` may equal `in`; otherwise the two must not
// overlap.
using FoldAsciiKernel = uint32_t (*)(const uint8_t* in, uint8_t* out, uint32_t n, uint8_t stop);

// The length of the leading run of positions i < n where a[i] and b[i] are
// both below 0x80, neither is `stop`, and they are equal once A-Z are folded
// to a-z.
using EqualAsciiKernel = uint32_t (*)(const uint8_t* a, const uint8_t* b, uint32_t n, uint8_t stop);

using Utf16ToUtf8Kernel = Transcode (*)(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out,
                                        const uint8_t* out_end);
using Utf8ToUtf16Kernel = Transcode (*)(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out,
                                        const uint16_t* out_end);

// One version of every kernel.
struct Kernels {
  Utf16ToUtf8Kernel utf16_to_utf8;
  Utf8ToUtf16Kernel utf8_to_utf16;
  FoldAsciiKernel fold_ascii;
  EqualAsciiKernel equal_ascii;
};

// The versions for `isa`; calling them needs IsaSupported(isa).
const Kernels& KernelsFor(Isa isa);

// The dispatched fold helpers (the transcoding cores are declared in
// transcode.h).
uint32_t FoldAsciiRun(const uint8_t* in, uint8_t* out, uint32_t n, uint8_t stop);
uint32_t EqualAsciiRun(const uint8_t* a, const uint8_t* b, uint32_t n, uint8_t stop);

// The versions themselves, one namespace per instruction set.
#define VRK_TEXT_KERNELS_DECLARE(ns)                                                                        \
  namespace ns {                                                                                           \
  Transcode Utf16ToUtf8(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out, const uint8_t* out_end); \
  Transcode Utf8ToUtf16(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out, const uint16_t* out_end); \
  uint32_t FoldAscii(const uint8_t* in, uint8_t* out, uint32_t n, uint8_t stop);                             \
  uint32_t EqualAscii(const uint8_t* a, const uint8_t* b, uint32_t n, uint8_t stop);                         \
  }
VRK_TEXT_KERNELS_DECLARE(plain)
VRK_TEXT_KERNELS_DECLARE(sse2)
VRK_TEXT_KERNELS_DECLARE(sse41)
VRK_TEXT_KERNELS_DECLARE(avx2)
#undef VRK_TEXT_KERNELS_DECLARE

}  // namespace vrk::text
