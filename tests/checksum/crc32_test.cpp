// CRC-32 through the exported functions: the standard vectors, the byte
// step, continuation over every split, and the fast path against an
// independent bitwise computation on random lengths and alignments.
#include <gtest/gtest.h>

#include <random>

#include "tests/checksum/crc_reference.h"
#include "vrk_checksum.h"

namespace {

using vrk::test::RandomBytes;
using vrk::test::ReferenceCrc32;

const unsigned char kDigits[] = "123456789";

TEST(Crc32, CheckValuesAndZeroLength) {
  EXPECT_EQ(CRC32_Mem(kDigits, 0, 9), 0x2DFD2D88u);
  EXPECT_EQ(CRC32_Mem(kDigits, 0xFFFFFFFFu, 9) ^ 0xFFFFFFFFu, 0xCBF43926u);
  // Nothing is read for no bytes, so a null pointer is fine.
  for (uint32_t start : {0u, 1u, 0xFFFFFFFFu, 0x12345678u}) EXPECT_EQ(CRC32_Mem(nullptr, start, 0), start);
}

TEST(Crc32, ByteStep) {
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const uint32_t crc = rng();
    const uint8_t byte = uint8_t(rng());
    ASSERT_EQ(GET1CRC32(crc, byte), ReferenceCrc32(&byte, 1, crc));
  }
}

TEST(Crc32, ContinuationEqualsOnePassForEverySplit) {
  const auto data = RandomBytes(300, 1);
  for (uint32_t start : {0u, 0xFFFFFFFFu}) {
    const uint32_t whole = CRC32_Mem(data.data(), start, uint32_t(data.size()));
    for (uint32_t split = 0; split <= data.size(); ++split) {
      const uint32_t first = CRC32_Mem(data.data(), start, split);
      ASSERT_EQ(CRC32_Mem(data.data() + split, first, uint32_t(data.size()) - split), whole) << split;
    }
  }
}

TEST(Crc32, MatchesBitwiseOnRandomLengthsAndAlignments) {
  const auto data = RandomBytes(1 << 17, 2);
  std::mt19937 rng(3);
  for (int i = 0; i < 400; ++i) {
    const uint32_t offset = rng() % 64;
    // Mostly short and mid lengths, where the kernels change over, and some
    // long ones.
    const uint32_t length = (i % 4 == 0) ? rng() % (uint32_t(data.size()) - 64) : rng() % 5000;
    const uint32_t start = rng();
    SCOPED_TRACE(testing::Message() << "offset " << offset << " length " << length);
    ASSERT_EQ(CRC32_Mem(data.data() + offset, start, length), ReferenceCrc32(data.data() + offset, length, start));
  }
}

}  // namespace
