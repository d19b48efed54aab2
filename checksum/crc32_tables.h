// Compile-time tables of the reflected CRC-32 (polynomial 0xEDB88320): the
// standard byte table, the slicing tables derived from it, and the operator
// that advances a register over 64 zero bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vrk::checksum {

inline constexpr uint32_t kCrc32Polynomial = 0xEDB88320u;

using Crc32Table = std::array<uint32_t, 256>;

consteval Crc32Table MakeByteTable() {
  Crc32Table t{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ kCrc32Polynomial : c >> 1;
    t[n] = c;
  }
  return t;
}

// The byte-at-a-time table: the definition every faster path must match.
inline constexpr Crc32Table kCrc32Table = MakeByteTable();
static_assert(kCrc32Table[0] == 0);
static_assert(kCrc32Table[1] == 0x77073096u);
static_assert(kCrc32Table[128] == 0xEDB88320u);
static_assert(kCrc32Table[255] == 0x2D02EF8Du);

constexpr uint32_t Crc32Step(uint32_t crc, uint8_t byte) { return (crc >> 8) ^ kCrc32Table[(crc ^ byte) & 0xFFu]; }

// Slicing tables: entry k of table s is the register after byte k followed
// by s zero bytes, so 8 bytes are folded with 8 independent lookups.
inline constexpr std::size_t kSlices = 8;

consteval std::array<Crc32Table, kSlices> MakeSlicingTables() {
  std::array<Crc32Table, kSlices> t{};
  t[0] = kCrc32Table;
  for (std::size_t s = 1; s < kSlices; ++s) {
    for (uint32_t k = 0; k < 256; ++k) t[s][k] = (t[s - 1][k] >> 8) ^ kCrc32Table[t[s - 1][k] & 0xFFu];
  }
  return t;
}

inline constexpr std::array<Crc32Table, kSlices> kCrc32Slices = MakeSlicingTables();
static_assert(kCrc32Slices[1][1] == Crc32Step(kCrc32Table[1], 0));

// The register is linear in its bits (no complement is applied), so the
// effect of n zero bytes is a fixed 32x32 bit matrix; it is stored as four
// byte-indexed tables, one per byte of the register.
consteval std::array<Crc32Table, 4> MakeZeroBytesOperator(uint32_t zero_bytes) {
  std::array<uint32_t, 32> column{};
  for (uint32_t bit = 0; bit < 32; ++bit) {
    uint32_t c = 1u << bit;
    for (uint32_t i = 0; i < zero_bytes; ++i) c = Crc32Step(c, 0);
    column[bit] = c;
  }
  std::array<Crc32Table, 4> t{};
  for (uint32_t lane = 0; lane < 4; ++lane) {
    for (uint32_t k = 0; k < 256; ++k) {
      uint32_t c = 0;
      for (uint32_t bit = 0; bit < 8; ++bit) {
        if (k & (1u << bit)) c ^= column[lane * 8 + bit];
      }
      t[lane][k] = c;
    }
  }
  return t;
}

inline constexpr std::array<Crc32Table, 4> kCrc32Zeros64 = MakeZeroBytesOperator(64);

}  // namespace vrk::checksum
