// MD5: the RFC 1321 suite, incremental feeding against one pass, the
// context's allocation and release, and digests of virtual files read by
// copying and in place, checked against the virtual-file read log.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/alloc_trace.h"
#include "tests/checksum/crc_reference.h"
#include "vrk_checksum.h"
#include "vrk_standin_ctl.h"
#include "vrkvfile.h"

namespace {

using vrk::test::RandomBytes;

std::string Hex(const unsigned char digest[16]) {
  char s[33];
  for (int i = 0; i < 16; ++i) std::snprintf(s + 2 * i, 3, "%02x", digest[i]);
  return s;
}

std::string Md5Chunks(const uint8_t* data, const std::vector<uint32_t>& chunks) {
  MD5_CTX* ctx = MD5Init();
  if (!ctx) return "no context";
  for (uint32_t n : chunks) {
    MD5Update(ctx, data, n);
    data += n;
  }
  unsigned char digest[16];
  MD5Final(ctx, digest);
  return Hex(digest);
}

std::string Md5(const void* data, uint32_t n) { return Md5Chunks(static_cast<const uint8_t*>(data), {n}); }

const char kEmptyDigest[] = "d41d8cd98f00b204e9800998ecf8427e";

TEST(Md5, Rfc1321Suite) {
  const std::pair<const char*, const char*> kCases[] = {
      {"", kEmptyDigest},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [text, digest] : kCases) EXPECT_EQ(Md5(text, uint32_t(std::strlen(text))), digest) << text;
}

// Lengths around both padding branches and a second final block, every
// split into two calls and a few into three.
TEST(Md5, IncrementalEqualsOneShotAroundBlockBoundaries) {
  const auto data = RandomBytes(300, 21);
  for (uint32_t total : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 127u, 128u, 129u, 200u}) {
    const std::string whole = Md5(data.data(), total);
    for (uint32_t split = 0; split <= total; ++split) {
      SCOPED_TRACE(testing::Message() << "total " << total << " split " << split);
      ASSERT_EQ(Md5Chunks(data.data(), {split, total - split}), whole);
      const uint32_t third = (total - split) / 2;
      ASSERT_EQ(Md5Chunks(data.data(), {split, third, total - split - third}), whole);
    }
  }
}

TEST(Md5, AllocatesOneContextAndReleasesItInFinal) {
  vrk::test::AllocTrace trace;
  MD5_CTX* ctx = MD5Init();
  ASSERT_NE(ctx, nullptr);
  MD5Update(ctx, "abc", 3);
  unsigned char digest[16];
  MD5Final(ctx, digest);
  EXPECT_EQ(trace.Text(), "Pcalloc(1,88,0) Pfree ");
  const auto calls = trace.Calls();
  EXPECT_EQ(calls[1].block, calls[0].result);
}

TEST(Md5, RefusedContext) {
  vrkalloc_fail_all(1);
  EXPECT_EQ(MD5Init(), nullptr);
  unsigned char digest[16];
  std::memset(digest, 0xAB, sizeof digest);
  const auto data = RandomBytes(10, 23);
  VFileHandle file = vrkvfile_open_memory(data.data(), 10, VRKVFILE_COPY);
  EXPECT_EQ(MD5GetFileHash(file, 0, digest), 0);
  vrkalloc_fail_all(0);
  for (unsigned char b : digest) EXPECT_EQ(b, 0xAB);
  EXPECT_EQ(vrkvfile_log_size(file), 0u);  // nothing read either
  vrkvfile_close(file);
}

// ---- MD5GetFileHash ----

// "result digest" of MD5GetFileHash.
std::string HashFile(VFileHandle file, uint32_t limit) {
  unsigned char digest[16] = {};
  const int result = MD5GetFileHash(file, limit, digest);
  return std::to_string(result) + " " + Hex(digest);
}

// The reads of the log: (requested count, result, in place).
std::vector<std::tuple<uint32_t, uint32_t, int>> Reads(VFileHandle file) {
  std::vector<std::tuple<uint32_t, uint32_t, int>> reads;
  for (uint32_t i = 0; i < vrkvfile_log_size(file); ++i) {
    const VrkVFileCall* c = vrkvfile_log_at(file, i);
    if (c->op == VRKVFILE_READ) ADD_FAILURE() << "a copying VRead was used";
    if (c->op != VRKVFILE_READPTR) continue;
    EXPECT_EQ(c->size, 1u);
    reads.emplace_back(c->count, c->result, c->in_place);
  }
  return reads;
}

class Md5File : public testing::TestWithParam<int> {
 protected:
  const int mode_ = GetParam();
  const int in_place_ = GetParam() == VRKVFILE_IN_MEMORY ? 1 : 0;
};

TEST_P(Md5File, PiecesOfAtMost2048) {
  const auto data = RandomBytes(5000, 24);
  const std::pair<uint32_t, std::vector<uint32_t>> kCases[] = {  // limit, reads
      {0, {2048, 2048, 904}}, {6000, {2048, 2048, 904}}, {5000, {2048, 2048, 904}},
      {100, {100}},           {2048, {2048}},            {4097, {2048, 2048, 1}},
  };
  for (const auto& [limit, reads] : kCases) {
    SCOPED_TRACE(limit);
    VFileHandle file = vrkvfile_open_memory(data.data(), 5000, mode_);
    uint32_t digested = 0;
    std::vector<std::tuple<uint32_t, uint32_t, int>> expected;
    for (uint32_t n : reads) {
      expected.emplace_back(n, n, in_place_);
      digested += n;
    }
    EXPECT_EQ(HashFile(file, limit), "1 " + Md5(data.data(), digested));
    // One seek to the start (offset 0, whence 0), then the reads; the
    // position stays behind them.
    ASSERT_GE(vrkvfile_log_size(file), 1u);
    const VrkVFileCall* seek = vrkvfile_log_at(file, 0);
    EXPECT_TRUE(seek->op == VRKVFILE_SEEK && seek->size == 0 && seek->count == 0);
    EXPECT_EQ(Reads(file), expected);
    EXPECT_EQ(uint32_t(VTell(file)), digested);
    vrkvfile_close(file);
  }
}

TEST_P(Md5File, EmptyNullAndUnreadableLength) {
  const std::string empty_digest = std::string("1 ") + kEmptyDigest;
  EXPECT_EQ(HashFile(nullptr, 0), empty_digest);
  const auto data = RandomBytes(100, 26);
  VFileHandle empty = vrkvfile_open_memory(data.data(), 0, mode_);
  EXPECT_EQ(HashFile(empty, 0), empty_digest);
  EXPECT_EQ(vrkvfile_log_size(empty), 0u);  // not even a seek
  vrkvfile_close(empty);
  VFileHandle failing = vrkvfile_open_memory(data.data(), 100, mode_);
  vrkvfile_fail_length(failing, 1);
  EXPECT_EQ(HashFile(failing, 0), empty_digest);
  EXPECT_EQ(vrkvfile_log_size(failing), 0u);
  vrkvfile_close(failing);
}

TEST_P(Md5File, ReadErrorEndsTheDigestQuietly) {
  const auto data = RandomBytes(5000, 27);
  VFileHandle file = vrkvfile_open_memory(data.data(), 5000, mode_);
  vrkvfile_fail_reads_from(file, 3000);
  EXPECT_EQ(HashFile(file, 0), "1 " + Md5(data.data(), 3000));
  const std::vector<std::tuple<uint32_t, uint32_t, int>> expected = {
      {2048, 2048, in_place_}, {2048, 952, in_place_}, {2000, 0, in_place_}};
  EXPECT_EQ(Reads(file), expected);
  vrkvfile_close(file);
}

INSTANTIATE_TEST_SUITE_P(Modes, Md5File, testing::Values(VRKVFILE_COPY, VRKVFILE_IN_MEMORY),
                         [](const testing::TestParamInfo<int>& p) {
                           return p.param == VRKVFILE_COPY ? "Copy" : "InMemory";
                         });

}  // namespace
