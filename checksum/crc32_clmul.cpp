// CRC-32 by carry-less multiplication (PCLMULQDQ): the data is folded 64
// bytes at a time into four 128-bit lanes, the lanes into one, and the last
// 128 bits are reduced to the 32-bit register by Barrett reduction. In the
// reflected domain of this CRC the constants are x^n mod P for the fold
// distances, bit-reversed and shifted left by one:
//   k1 = x^(4*128+32) mod P, k2 = x^(4*128-32) mod P   (fold by 64 bytes)
//   k3 = x^(128+32) mod P,   k4 = x^(128-32) mod P     (fold by 16 bytes)
//   k5 = x^64 mod P                                     (128 -> 64 bits)
//   P' = P with its x^32 term, mu = floor(x^64 / P)     (Barrett)
// Processors with 256-bit carry-less multiplication (VPCLMULQDQ) fold two
// lanes per instruction, 128 bytes per round, with the constants for 1024-
// and 256-bit distances built the same way.
#include "checksum/crc32.h"

#include <immintrin.h>

namespace vrk::checksum {
namespace {

#define VRK_CLMUL __attribute__((target("pclmul,sse4.1")))

alignas(16) constexpr uint64_t kFold64[2] = {0x0154442BD4ull, 0x01C6E41596ull};
alignas(16) constexpr uint64_t kFold16[2] = {0x01751997D0ull, 0x00CCAA009Eull};
alignas(16) constexpr uint64_t kFold8[2] = {0x0163CD6124ull, 0};
alignas(16) constexpr uint64_t kBarrett[2] = {0x01DB710641ull, 0x01F7011641ull};
alignas(32) constexpr uint64_t kFold128x2[4] = {0x01E88EF372ull, 0x014A7FE880ull, 0x01E88EF372ull, 0x014A7FE880ull};
alignas(32) constexpr uint64_t kFold32x2[4] = {0x00F1DA05AAull, 0x015A546366ull, 0x00F1DA05AAull, 0x015A546366ull};

// x^n mod P (P = 0x104C11DB7, the unreflected polynomial), bit-reversed and
// shifted left by one: the form the reflected fold multiplies by.
consteval uint64_t FoldConstant(uint32_t n) {
  uint64_t r = 1;
  for (uint32_t i = 0; i < n; ++i) {
    r <<= 1;
    if (r & (1ull << 32)) r ^= 0x104C11DB7ull;
  }
  uint64_t reflected = 0;
  for (int bit = 0; bit < 32; ++bit) reflected |= ((r >> bit) & 1u) << (31 - bit);
  return reflected << 1;
}
static_assert(kFold64[0] == FoldConstant(512 + 32) && kFold64[1] == FoldConstant(512 - 32));
static_assert(kFold16[0] == FoldConstant(128 + 32) && kFold16[1] == FoldConstant(128 - 32));
static_assert(kFold8[0] == FoldConstant(64));
static_assert(kFold128x2[0] == FoldConstant(1024 + 32) && kFold128x2[1] == FoldConstant(1024 - 32));
static_assert(kFold32x2[0] == FoldConstant(256 + 32) && kFold32x2[1] == FoldConstant(256 - 32));

// One fold step: lane * x^distance, added to the 128 bits that follow.
VRK_CLMUL inline __m128i Fold(__m128i lane, __m128i k, __m128i next) {
  const __m128i lo = _mm_clmulepi64_si128(lane, k, 0x00);
  const __m128i hi = _mm_clmulepi64_si128(lane, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

// The fold's 128-bit remainder (the last 16 message bytes with everything
// before them folded in) reduced to the 32-bit register.
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

// Folds 16-byte pieces into `x` while at least 16 bytes remain, then
// reduces; `length` is a multiple of 16.
VRK_CLMUL inline uint32_t FoldTail(__m128i x, const uint8_t* data, uint32_t length) {
  const __m128i k34 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold16));
  for (; length >= 16; data += 16, length -= 16) x = Fold(x, k34, Load(data));
  return Reduce128(x);
}

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
  return FoldTail(x1, data, length);
}

#define VRK_VCLMUL __attribute__((target("avx2,vpclmulqdq,pclmul,sse4.1")))

VRK_VCLMUL inline __m256i Load256(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

VRK_VCLMUL inline __m256i Fold256(__m256i lanes, __m256i k, __m256i next) {
  const __m256i lo = _mm256_clmulepi64_epi128(lanes, k, 0x00);
  const __m256i hi = _mm256_clmulepi64_epi128(lanes, k, 0x11);
  return _mm256_xor_si256(_mm256_xor_si256(hi, lo), next);
}

// As FoldBulk with 256-bit lanes; `length` a multiple of 16, at least 128.
VRK_VCLMUL uint32_t FoldBulk256(const uint8_t* data, uint32_t crc, uint32_t length) {
  __m256i y1 = _mm256_xor_si256(Load256(data), _mm256_zextsi128_si256(_mm_cvtsi32_si128(int(crc))));
  __m256i y2 = Load256(data + 32);
  __m256i y3 = Load256(data + 64);
  __m256i y4 = Load256(data + 96);
  data += 128;
  length -= 128;
  const __m256i k128 = _mm256_load_si256(reinterpret_cast<const __m256i*>(kFold128x2));
  while (length >= 128) {
    y1 = Fold256(y1, k128, Load256(data));
    y2 = Fold256(y2, k128, Load256(data + 32));
    y3 = Fold256(y3, k128, Load256(data + 64));
    y4 = Fold256(y4, k128, Load256(data + 96));
    data += 128;
    length -= 128;
  }
  // Four registers into one (32 bytes apart), then its two lanes into one.
  const __m256i k32 = _mm256_load_si256(reinterpret_cast<const __m256i*>(kFold32x2));
  y1 = Fold256(y1, k32, y2);
  y1 = Fold256(y1, k32, y3);
  y1 = Fold256(y1, k32, y4);
  const __m128i k34 = _mm_load_si128(reinterpret_cast<const __m128i*>(kFold16));
  const __m128i x = Fold(_mm256_castsi256_si128(y1), k34, _mm256_extracti128_si256(y1, 1));
  return FoldTail(x, data, length);
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

__attribute__((force_align_arg_pointer)) uint32_t Crc32Vclmul(const uint8_t* data, uint32_t crc, uint32_t length) {
  if (length < 256) return Crc32Clmul(data, crc, length);
  const uint32_t bulk = length & ~15u;
  crc = FoldBulk256(data, crc, bulk);
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
