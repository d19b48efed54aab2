// CRC-32 inside the library: the byte-at-a-time definition, the kernels
// that reach the same register faster, and the entry points that run the
// best kernel this processor supports (chosen once, when the library is
// loaded).
#pragma once

#include <cstdint>

#include "checksum/crc32_tables.h"

namespace vrk::checksum {

// The register after `length` bytes of `data` from `crc`, exactly as
// repeated Crc32Step gives it. Reads nothing when `length` is 0.
uint32_t Crc32(const uint8_t* data, uint32_t crc, uint32_t length);

// The registers of `count` consecutive 64-byte blocks, each started from 0,
// into out[0..count). For checksumming many short blocks at once.
void Crc32Blocks64(const uint8_t* data, uint32_t count, uint32_t* out);

// The register after 64 zero bytes. Because no complement is applied,
// Crc32(block, c, 64) == Crc32Zeros64(c) ^ Crc32(block, 0, 64), which lets
// checksums of consecutive blocks be chained without reading them again.
inline uint32_t Crc32Zeros64(uint32_t crc) {
  const auto& z = kCrc32Zeros64;
  return z[0][crc & 0xFFu] ^ z[1][(crc >> 8) & 0xFFu] ^ z[2][(crc >> 16) & 0xFFu] ^ z[3][crc >> 24];
}

// The kernels behind the two entry points, exposed so that each can be
// checked against the definition on any processor.
uint32_t Crc32Bytewise(const uint8_t* data, uint32_t crc, uint32_t length);
uint32_t Crc32Slicing(const uint8_t* data, uint32_t crc, uint32_t length);
void Crc32Blocks64Slicing(const uint8_t* data, uint32_t count, uint32_t* out);

// Carry-less multiplication kernels: only for processors where
// Crc32ClmulSupported() is true.
bool Crc32ClmulSupported();
uint32_t Crc32Clmul(const uint8_t* data, uint32_t crc, uint32_t length);
void Crc32Blocks64Clmul(const uint8_t* data, uint32_t count, uint32_t* out);
// The same with 256-bit registers (AVX2 and VPCLMULQDQ, enabled by the
// operating system): only where Crc32VclmulSupported() is true.
bool Crc32VclmulSupported();
uint32_t Crc32Vclmul(const uint8_t* data, uint32_t crc, uint32_t length);

}  // namespace vrk::checksum
