// Every CRC-32 kernel against an independent bitwise computation: each length
// from 0 to 4096 at a random alignment and start value, the 64-byte block
// kernels, and the zero-bytes operator used to chain block registers.
#include <gtest/gtest.h>

#include <random>

#include "checksum/crc32.h"
#include "tests/checksum/crc_reference.h"

namespace {

using namespace vrk::checksum;

// The bitwise reference in the kernels' argument order.
uint32_t Bitwise(const uint8_t* p, uint32_t start, uint32_t n) { return vrk::test::ReferenceCrc32(p, n, start); }

using Kernel = uint32_t (*)(const uint8_t*, uint32_t, uint32_t);
using BlocksKernel = void (*)(const uint8_t*, uint32_t, uint32_t*);

struct KernelCase {
  const char* name;
  Kernel crc;
  BlocksKernel blocks;
  int needs;  // 0: any processor, 1: PCLMULQDQ, 2: VPCLMULQDQ
};

class Crc32Kernel : public testing::TestWithParam<KernelCase> {
 protected:
  void SetUp() override {
    if (GetParam().needs == 1 && !Crc32ClmulSupported()) GTEST_SKIP() << "no PCLMULQDQ on this processor";
    if (GetParam().needs == 2 && !Crc32VclmulSupported()) GTEST_SKIP() << "no VPCLMULQDQ on this processor";
  }
};

TEST_P(Crc32Kernel, EveryLengthUpTo4096) {
  const auto data = vrk::test::RandomBytes(4096 + 64, 11);
  std::mt19937 rng(12);
  for (uint32_t length = 0; length <= 4096; ++length) {
    const uint32_t offset = rng() % 64;
    const uint32_t start = (length % 3 == 0) ? 0 : rng();
    const uint8_t* p = data.data() + offset;
    ASSERT_EQ(GetParam().crc(p, start, length), Bitwise(p, start, length))
        << "length " << length << " offset " << offset;
  }
}

TEST_P(Crc32Kernel, LongBuffersAndSpecialContents) {
  std::vector<uint8_t> data = vrk::test::RandomBytes(200000, 13);
  EXPECT_EQ(GetParam().crc(data.data() + 1, 0xFFFFFFFFu, 199999), Bitwise(data.data() + 1, 0xFFFFFFFFu, 199999));
  for (const uint8_t fill : {uint8_t{0x00}, uint8_t{0xFF}, uint8_t{0x80}}) {
    std::fill(data.begin(), data.end(), fill);
    EXPECT_EQ(GetParam().crc(data.data(), 0x12345678u, 100000), Bitwise(data.data(), 0x12345678u, 100000));
  }
}

TEST_P(Crc32Kernel, BlocksOf64) {
  const auto data = vrk::test::RandomBytes(64 * 40 + 15, 14);
  for (uint32_t offset : {0u, 1u, 7u, 15u}) {
    uint32_t out[40];
    GetParam().blocks(data.data() + offset, 40, out);
    for (uint32_t k = 0; k < 40; ++k) {
      ASSERT_EQ(out[k], Bitwise(data.data() + offset + 64 * k, 0, 64)) << "block " << k;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Crc32Kernel,
                         testing::Values(KernelCase{"slicing", Crc32Slicing, Crc32Blocks64Slicing, 0},
                                         KernelCase{"clmul", Crc32Clmul, Crc32Blocks64Clmul, 1},
                                         KernelCase{"vclmul", Crc32Vclmul, Crc32Blocks64Clmul, 2},
                                         KernelCase{"chosen", Crc32, Crc32Blocks64, 0}),
                         [](const testing::TestParamInfo<KernelCase>& p) { return p.param.name; });

TEST(Crc32Zeros, ChainsBlockRegisters) {
  const auto data = vrk::test::RandomBytes(64, 15);
  std::mt19937 rng(16);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t carried = rng();
    ASSERT_EQ(Crc32Zeros64(carried) ^ Bitwise(data.data(), 0, 64), Bitwise(data.data(), carried, 64));
  }
}

}  // namespace
