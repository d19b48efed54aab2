// The vector versions of the text kernels. One source, kernels_simd.inc, is
// compiled three times, each time in a region of its own instruction set
// (SSE2; SSSE3 with SSE4.1; AVX2) and a namespace of its own, so that no
// vector instruction can leak into code that runs on a processor without it.
// The byte-shuffle tables both wider versions use are built here at compile
// time.
#include <immintrin.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "text/kernels.h"
#include "text/transcode_char.h"
#include "text/transcode_loops.h"
#include "text/utf8.h"

namespace vrk::text {
namespace {

// UTF-16 to UTF-8, four values at a time: each value's 1 to 3 UTF-8 bytes
// are built in a 32-bit lane of their own (first byte lowest), and one byte
// shuffle packs the used bytes of the four lanes together. The shuffle is
// chosen by which lanes hold 0x80 or more (bits 0-3) and 0x800 or more (bits
// 4-7).
struct Utf8Packing {
  alignas(16) std::array<std::array<uint8_t, 16>, 256> shuffle;
  std::array<uint8_t, 256> length;
};

constexpr Utf8Packing kUtf8Packing = [] {
  Utf8Packing p{};
  for (uint32_t index = 0; index < 256; ++index) {
    uint32_t at = 0;
    for (uint32_t lane = 0; lane < 4; ++lane) {
      const uint32_t bytes = 1 + ((index >> lane) & 1) + ((index >> (lane + 4)) & 1);
      for (uint32_t b = 0; b < bytes; ++b) p.shuffle[index][at++] = uint8_t(4 * lane + b);
    }
    for (uint32_t rest = at; rest < 16; ++rest) p.shuffle[index][rest] = 0x80;  // a zero byte
    p.length[index] = uint8_t(at);
  }
  return p;
}();
static_assert(kUtf8Packing.length[0x00] == 4 && kUtf8Packing.length[0x0F] == 8 && kUtf8Packing.length[0xFF] == 12);
static_assert(kUtf8Packing.shuffle[0x01][0] == 0 && kUtf8Packing.shuffle[0x01][1] == 1 &&
              kUtf8Packing.shuffle[0x01][2] == 4 && kUtf8Packing.shuffle[0x01][5] == 0x80);

// UTF-8 to UTF-16, four characters of 1 to 3 bytes at a time. Where the
// characters end is known from the continuation bytes: bit i of an end mask
// says that byte i + 1 begins a character. The first four ends among 12 bits
// give the four lengths, a pattern numbered l0 - 1 + 3 (l1 - 1) + 9 (l2 - 1)
// + 27 (l3 - 1). A pattern's shuffle gathers each character's bytes into a
// 32-bit lane, last byte lowest and missing bytes zero, from where the value
// is a few shifts and masks away.
inline constexpr uint8_t kNoQuad = 0xFF;

struct Utf8Quads {
  std::array<uint8_t, 4096> of_ends;  // pattern of the first four ends, or kNoQuad
  alignas(16) std::array<std::array<uint8_t, 16>, 81> shuffle;
  std::array<uint8_t, 81> bytes;  // the four characters' total length
};

constexpr Utf8Quads kUtf8Quads = [] {
  Utf8Quads q{};
  for (uint32_t pattern = 0; pattern < 81; ++pattern) {
    uint32_t end = 0;
    for (uint32_t lane = 0, code = pattern; lane < 4; ++lane, code /= 3) {
      const uint32_t length = code % 3 + 1;
      end += length;
      for (uint32_t b = 0; b < 4; ++b) q.shuffle[pattern][4 * lane + b] = b < length ? uint8_t(end - 1 - b) : 0x80;
    }
    q.bytes[pattern] = uint8_t(end);
  }
  for (uint32_t mask = 0; mask < 4096; ++mask) {
    q.of_ends[mask] = kNoQuad;
    uint32_t pattern = 0, scale = 1, start = 0, found = 0;
    for (uint32_t bit = 0; bit < 12 && found < 4; ++bit) {
      if (!((mask >> bit) & 1)) continue;
      const uint32_t length = bit + 1 - start;
      if (length > 3) break;
      pattern += (length - 1) * scale;
      scale *= 3;
      start = bit + 1;
      ++found;
    }
    if (found == 4) q.of_ends[mask] = uint8_t(pattern);
  }
  return q;
}();
static_assert(kUtf8Quads.of_ends[0x00F] == 0 && kUtf8Quads.bytes[0] == 4);      // four 1-byte characters
static_assert(kUtf8Quads.of_ends[0x924] == 80 && kUtf8Quads.bytes[80] == 12);   // four 3-byte characters
static_assert(kUtf8Quads.of_ends[0x111] == kNoQuad);                            // a 4-byte gap
static_assert(kUtf8Quads.shuffle[80][0] == 2 && kUtf8Quads.shuffle[80][2] == 0 && kUtf8Quads.shuffle[80][3] == 0x80);

// Entry points of the vector versions realign the stack: they are called
// from code that may keep it only 4-byte aligned, and spill 16-byte values.
#define VRK_KERNEL_ENTRY __attribute__((force_align_arg_pointer))

}  // namespace

// Each version is kernels_simd.inc compiled in a region of its own
// instruction set and namespace (kernels_simd_version.inc opens and closes
// the region).
#define VRK_SIMD_TARGET "sse2"
#define VRK_SIMD_LEVEL 2
#define VRK_SIMD_NAMESPACE sse2
#include "text/kernels_simd_version.inc"

#define VRK_SIMD_TARGET "ssse3,sse4.1"
#define VRK_SIMD_LEVEL 41
#define VRK_SIMD_NAMESPACE sse41
#include "text/kernels_simd_version.inc"

#define VRK_SIMD_TARGET "avx2"
#define VRK_SIMD_LEVEL 256
#define VRK_SIMD_NAMESPACE avx2
#include "text/kernels_simd_version.inc"

}  // namespace vrk::text
