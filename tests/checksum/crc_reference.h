// An independent CRC-32 for the tests: bit at a time from the polynomial,
// no tables shared with the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace vrk::test {

inline uint32_t ReferenceCrc32(const uint8_t* p, size_t n, uint32_t crc) {
  for (size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
  }
  return crc;
}

inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = uint8_t(rng());
  return v;
}

}  // namespace vrk::test
