// C boundary of CRC-32.
#include "checksum/crc32.h"
#include "vrk_checksum.h"

extern "C" {

uint32_t CRC32_Mem(const unsigned char* data, uint32_t crc, uint32_t length) noexcept {
  return vrk::checksum::Crc32(data, crc, length);
}

uint32_t GET1CRC32(uint32_t crc, unsigned char byte) noexcept { return vrk::checksum::Crc32Step(crc, byte); }

}  // extern "C"
