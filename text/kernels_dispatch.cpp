// Which version of the text kernels runs: the processor's instruction sets,
// asked once while the dynamic loader relocates the library, and the
// indirect functions through which every call goes straight to the chosen
// version.
#include <cpuid.h>

#include "frame/load_time.h"
#include "text/kernels.h"

namespace vrk::text {

// The cpuid.h macros are used rather than its functions: those may stay out
// of line and be instrumented.
VRK_UNINSTRUMENTED bool IsaSupported(Isa isa) {
  if (isa == Isa::kPlain) return true;
  unsigned max_leaf = 0, eax = 0, ebx = 0, ecx = 0, edx = 0;
  __cpuid(0, max_leaf, ebx, ecx, edx);
  if (max_leaf < 1) return false;
  __cpuid(1, eax, ebx, ecx, edx);
  if (!(edx & bit_SSE2)) return false;
  if (isa == Isa::kSse2) return true;
  if (!(ecx & bit_SSSE3) || !(ecx & bit_SSE4_1)) return false;
  if (isa == Isa::kSse41) return true;
  if (!(ecx & bit_OSXSAVE) || !(ecx & bit_AVX) || max_leaf < 7) return false;
  // The operating system must save the upper halves of the vector registers.
  unsigned xcr0_lo = 0, xcr0_hi = 0;
  __asm__ volatile("xgetbv" : "=a"(xcr0_lo), "=d"(xcr0_hi) : "c"(0));
  if ((xcr0_lo & 6u) != 6u) return false;
  __cpuid_count(7, 0, eax, ebx, ecx, edx);
  return (ebx & bit_AVX2) != 0;
}

VRK_UNINSTRUMENTED Isa BestIsa() {
  if (IsaSupported(Isa::kAvx2)) return Isa::kAvx2;
  if (IsaSupported(Isa::kSse41)) return Isa::kSse41;
  return IsaSupported(Isa::kSse2) ? Isa::kSse2 : Isa::kPlain;
}

const char* IsaName(Isa isa) {
  switch (isa) {
    case Isa::kSse2: return "sse2";
    case Isa::kSse41: return "sse4.1";
    case Isa::kAvx2: return "avx2";
    default: return "plain";
  }
}

namespace {

constexpr Kernels kPlain = {plain::Utf16ToUtf8, plain::Utf8ToUtf16, plain::FoldAscii, plain::EqualAscii};
constexpr Kernels kSse2 = {sse2::Utf16ToUtf8, sse2::Utf8ToUtf16, sse2::FoldAscii, sse2::EqualAscii};
constexpr Kernels kSse41 = {sse41::Utf16ToUtf8, sse41::Utf8ToUtf16, sse41::FoldAscii, sse41::EqualAscii};
constexpr Kernels kAvx2 = {avx2::Utf16ToUtf8, avx2::Utf8ToUtf16, avx2::FoldAscii, avx2::EqualAscii};

}  // namespace

const Kernels& KernelsFor(Isa isa) {
  switch (isa) {
    case Isa::kSse2: return kSse2;
    case Isa::kSse41: return kSse41;
    case Isa::kAvx2: return kAvx2;
    default: return kPlain;
  }
}

namespace {

// The version for the widest instruction set this processor has. The
// resolvers run while the library's own relocations are still being
// applied, so they take the kernels' addresses as arguments (computed
// relative to the code) rather than from a table of pointers, which would
// need relocating first.
template <class Kernel>
VRK_UNINSTRUMENTED Kernel Widest(Kernel plain_kernel, Kernel sse2_kernel, Kernel sse41_kernel, Kernel avx2_kernel) {
  if (IsaSupported(Isa::kAvx2)) return avx2_kernel;
  if (IsaSupported(Isa::kSse41)) return sse41_kernel;
  return IsaSupported(Isa::kSse2) ? sse2_kernel : plain_kernel;
}

}  // namespace

}  // namespace vrk::text

extern "C" {

using namespace vrk::text;

VRK_RESOLVER Utf16ToUtf8Kernel vrk_text_resolve_utf16_to_utf8() {
  return Widest<Utf16ToUtf8Kernel>(plain::Utf16ToUtf8, sse2::Utf16ToUtf8, sse41::Utf16ToUtf8, avx2::Utf16ToUtf8);
}

VRK_RESOLVER Utf8ToUtf16Kernel vrk_text_resolve_utf8_to_utf16() {
  return Widest<Utf8ToUtf16Kernel>(plain::Utf8ToUtf16, sse2::Utf8ToUtf16, sse41::Utf8ToUtf16, avx2::Utf8ToUtf16);
}

VRK_RESOLVER FoldAsciiKernel vrk_text_resolve_fold_ascii() {
  return Widest<FoldAsciiKernel>(plain::FoldAscii, sse2::FoldAscii, sse41::FoldAscii, avx2::FoldAscii);
}

VRK_RESOLVER EqualAsciiKernel vrk_text_resolve_equal_ascii() {
  return Widest<EqualAsciiKernel>(plain::EqualAscii, sse2::EqualAscii, sse41::EqualAscii, avx2::EqualAscii);
}

}  // extern "C"

namespace vrk::text {

Transcode Utf16ToUtf8Core(const uint16_t*& in, const uint16_t* in_end, uint8_t*& out, const uint8_t* out_end)
    __attribute__((ifunc("vrk_text_resolve_utf16_to_utf8")));
Transcode Utf8ToUtf16Core(const uint8_t*& in, const uint8_t* in_end, uint16_t*& out, const uint16_t* out_end)
    __attribute__((ifunc("vrk_text_resolve_utf8_to_utf16")));
uint32_t FoldAsciiRun(const uint8_t* in, uint8_t* out, uint32_t n, uint8_t stop)
    __attribute__((ifunc("vrk_text_resolve_fold_ascii")));
uint32_t EqualAsciiRun(const uint8_t* a, const uint8_t* b, uint32_t n, uint8_t stop)
    __attribute__((ifunc("vrk_text_resolve_equal_ascii")));

}  // namespace vrk::text
