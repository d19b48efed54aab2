// CRC-32 register: the byte-at-a-time definition, slicing-by-8, and the
// load-time choice between slicing and carry-less multiplication.
#include "checksum/crc32.h"

#include <cpuid.h>

#include <cstring>

#include "frame/load_time.h"

namespace vrk::checksum {
namespace {

inline uint32_t LoadLe32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);  // the target is little-endian
  return v;
}

}  // namespace

uint32_t Crc32Bytewise(const uint8_t* data, uint32_t crc, uint32_t length) {
  for (uint32_t i = 0; i < length; ++i) crc = Crc32Step(crc, data[i]);
  return crc;
}

uint32_t Crc32Slicing(const uint8_t* data, uint32_t crc, uint32_t length) {
  const auto& t = kCrc32Slices;
  // Eight bytes per round: the register is folded into the first four, and
  // each byte looks up how it affects the register after the bytes that
  // follow it in the round.
  while (length >= 8) {
    const uint32_t a = LoadLe32(data) ^ crc;
    const uint32_t b = LoadLe32(data + 4);
    crc = t[7][a & 0xFFu] ^ t[6][(a >> 8) & 0xFFu] ^ t[5][(a >> 16) & 0xFFu] ^ t[4][a >> 24] ^
          t[3][b & 0xFFu] ^ t[2][(b >> 8) & 0xFFu] ^ t[1][(b >> 16) & 0xFFu] ^ t[0][b >> 24];
    data += 8;
    length -= 8;
  }
  return Crc32Bytewise(data, crc, length);
}

void Crc32Blocks64Slicing(const uint8_t* data, uint32_t count, uint32_t* out) {
  for (uint32_t i = 0; i < count; ++i) out[i] = Crc32Slicing(data + 64 * i, 0, 64);
}

// Also called by the load-time resolvers below, hence not instrumented. The
// cpuid.h macros are used rather than its functions: those may stay out of
// line and be instrumented.
VRK_UNINSTRUMENTED bool Crc32ClmulSupported() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  __cpuid(0, eax, ebx, ecx, edx);
  if (eax < 1) return false;
  __cpuid(1, eax, ebx, ecx, edx);
  return (ecx & bit_PCLMUL) && (ecx & bit_SSE4_1) && (edx & bit_SSE2);
}

VRK_UNINSTRUMENTED bool Crc32VclmulSupported() {
  if (!Crc32ClmulSupported()) return false;
  unsigned max_leaf = 0, eax = 0, ebx = 0, ecx = 0, edx = 0;
  __cpuid(0, max_leaf, ebx, ecx, edx);
  __cpuid(1, eax, ebx, ecx, edx);
  if (!(ecx & bit_OSXSAVE) || !(ecx & bit_AVX) || max_leaf < 7) return false;
  // The operating system must save the vector registers' upper halves.
  unsigned xcr0_lo = 0, xcr0_hi = 0;
  __asm__ volatile("xgetbv" : "=a"(xcr0_lo), "=d"(xcr0_hi) : "c"(0));
  if ((xcr0_lo & 6u) != 6u) return false;
  __cpuid_count(7, 0, eax, ebx, ecx, edx);
  return (ebx & bit_AVX2) && (ecx & bit_VPCLMULQDQ);
}

}  // namespace vrk::checksum

// The kernels are chosen by the dynamic loader while it relocates the
// library (GNU indirect functions): the processor is asked once, before any
// code of the library runs, and every call afterwards goes straight to the
// chosen kernel.
extern "C" {

using VrkCrc32Kernel = uint32_t (*)(const uint8_t*, uint32_t, uint32_t);
using VrkCrc32BlocksKernel = void (*)(const uint8_t*, uint32_t, uint32_t*);

VRK_RESOLVER VrkCrc32Kernel vrk_checksum_resolve_crc32() {
  using namespace vrk::checksum;
  if (Crc32VclmulSupported()) return &Crc32Vclmul;
  return Crc32ClmulSupported() ? &Crc32Clmul : &Crc32Slicing;
}

VRK_RESOLVER VrkCrc32BlocksKernel vrk_checksum_resolve_blocks64() {
  using namespace vrk::checksum;
  return Crc32ClmulSupported() ? &Crc32Blocks64Clmul : &Crc32Blocks64Slicing;
}

}  // extern "C"

namespace vrk::checksum {

uint32_t Crc32(const uint8_t* data, uint32_t crc, uint32_t length) __attribute__((ifunc("vrk_checksum_resolve_crc32")));
void Crc32Blocks64(const uint8_t* data, uint32_t count, uint32_t* out)
    __attribute__((ifunc("vrk_checksum_resolve_blocks64")));

}  // namespace vrk::checksum
