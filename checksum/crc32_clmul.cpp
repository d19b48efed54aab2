// CRC-32 by carry-less multiplication (PCLMULQDQ): the data is folded 64
// bytes at a time into four 128-bit lanes, the lanes into one, and the last
// 128 bits are reduced to the 32-bit register by Barrett reduction. In the
// reflected domain of this CRC the constants are x^n mod P for the fold
// distances, bit-reversed and shifted left by one:
//   k1 = x^(4*128+32) mod P, k2 = x^(4*128-32) mod P   (fold by 64 bytes)
//   k3 = x^(128+32) mod P,   k4 = x^(128-32) mod P     (fold by 16 bytes)
//   k5 = x^64 mod P                                     (128 -> 64 bits)
//   P' = P with its x^32 term, mu = floor(x^64 / P)     (Barrett)
#include "checksum/crc32.h"

#include <immintrin.h>

namespace vrk::checksum {
namespace {

#define VRK_CLMUL __attribute__((target("pclmul,sse4.1")))

alignas(16) constexpr uint64_t kFold64[2] = {0x0154442BD4ull, 0x01C6E41596ull};
alignas(16) constexpr uint64_t kFold16[2] = {0x01751997D0ull, 0x00CCAA009Eull};
alignas(16) constexpr uint64_t kFold8[2] = {0x0163CD6124ull, 0};
alignas(16) constexpr uint64_t kBarrett[2] = {0x01DB710641ull, 0x01F7011641ull};

// One fold step: lane * x^distance, added to the 128 bits that follow.
VRK_CLMUL inline __m128i Fold(__m128i lane, __m128i k, __m128i next) {
  const __m128i lo = _mm_clmulepi64_si128(lane, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(lane, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// 128 bits that stand for the register followed by 16 more message bytes,
// down to the 32-bit register.
VRK_CLMUL inline uint32_t Reduce128(__m128i x) {
  const __m128i mask32 = _mm_setr_epi32(-1, 0, -1, 0);
  // 128 -> 96 bits: the low 64 bits times x^64.
  const __m128i k4 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold16));
  __m128i t = _mm_clmulepi64_si128(x, k4, 0x10);
  x = _mm_xor_si128(_mm_srli_si128(x, 8), t);
  // 96 -> 64 bits.
  const __m128i k5 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kFold8));
  t = _mm_srli_si128(x, 4);
  x = _mm_clmulepi64_si128(_mm_and_si128(x, mask32), k5, 0x00);
  x = _mm_xor_si128(x, t);
  // Barrett: quotient estimate by mu, then subtract quotient * P.
  const __m128i poly = _mm_load_si128(reinterpret_cast<const __m128i*>(kBarrett));
  t = _mm_clmulepi64_si128(_mm_and_si128(x, mask32), poly, 0x10);
  t = _mm_clmulepi64_si128(_mm_and_si128(t, mask32), poly, 0x00);
  x = _mm_xor_si128(x, t);
  return uint32_t(_mm_extract_epi32(x, 1));
}

VRK_CLMUL inline __m128i Load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// The register over `length` bytes, a multiple of 16 and at least 64.
VRK_CLMUL uint32_t FoldBulk(const uint8_t* data, uint32_t crc, uint32_t length) {
  __m128i x1 = _mm_xor_si128(Load(data), _mm_cvtsi32_si128(int(crc)));
  __m128i x2 = Load(data + 16);
  __m128i x3 = Load(data + 32);
  __m128i x4 = Load(data + 48);
  data += 64;
  length -= 64;
  // Four independent lanes keep the multiplier busy while each product is
  // still in flight.
  const __m128i k12 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold64));
  while (length >= 64) {
    x1 = Fold(x1, k12, Load(data));
    x2 = Fold(x2, k12, Load(data + 16));
    x3 = Fold(x3, k12, Load(data + 32));
    x4 = Fold(x4, k12, Load(data + 48));
    data += 64;
    length -= 64;
  }
  const __m128i k34 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold16));
  x1 = Fold(x1, k34, x2);
  x1 = Fold(x1, k34, x3);
  x1 = Fold(x1, k34, x4);
  while (length >= 16) {
    x1 = Fold(x1, k34, Load(data));
    data += 16;
    length -= 16;
  }
  return Reduce128(x1);
}

}  // namespace

// Called by unknown code that may keep the stack only 4-byte aligned, while
// the vector code spills 16-byte values to it: realign on entry.
__attribute__((force_align_arg_pointer)) uint32_t Crc32Clmul(const uint8_t* data, uint32_t crc, uint32_t length) {
  if (length < 64) return Crc32Slicing(data, crc, length);
  const uint32_t bulk = length & ~15u;
  crc = FoldBulk(data, crc, bulk);
  return length == bulk ? crc : Crc32Slicing(data + bulk, crc, length - bulk);
}

__attribute__((force_align_arg_pointer)) VRK_CLMUL void Crc32Blocks64Clmul(const uint8_t* data, uint32_t count,
                                                                            uint32_t* out) {
  const __m128i k34 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold16));
  // Each block stands alone: fold its four 16-byte parts into one, reduce.
  // Consecutive blocks do not depend on each other and overlap in flight.
  for (uint32_t i = 0; i < count; ++i, data += 64) {
    __m128i x = Fold(Load(data), k34, Load(data + 16));
    x = Fold(x, k34, Load(data + 32));
    x = Fold(x, k34, Load(data + 48));
    out[i] = Reduce128(x);
  }
}

}  // namespace vrk::checksum
