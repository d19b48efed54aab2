// CRC signature table: the fingerprint against a computation written here
// from the rules (bitwise CRC, literal padding and uniform-block test), the
// matching order and the column-0 rule, and the hit list's growth through
// the allocator, refusals included.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "tests/checksum/crc_reference.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"

namespace {

using vrk::test::RandomBytes;
using vrk::test::ReferenceCrc32;

constexpr uint32_t kSentinel = 0xA5A5A5A5u;

// ---- The rules, read plainly ----

uint32_t Block(const uint8_t* region, uint32_t start, uint32_t n) {
  if (start != 0) return ReferenceCrc32(region, n, start);
  bool uniform = true;
  for (uint32_t i = 1; i < n; ++i) uniform = uniform && region[i] == region[0];
  return uniform ? 0 : ReferenceCrc32(region, n, 0);
}

// The expected words 1-37 on top of `before`.
std::vector<uint32_t> ExpectedWords(const uint8_t* data, int32_t length, std::vector<uint32_t> w) {
  std::vector<uint8_t> padded(2048, 0);
  const uint8_t* p = data;
  if (uint32_t(length) < 2048) {
    std::memcpy(padded.data(), data, uint32_t(length));
    p = padded.data();
  }
  w[1] = Block(p, 0, 64);
  w[33] = Block(p + 64, w[1], 64);
  w[34] = Block(p + 128, w[33], 128);
  w[35] = Block(p + 256, w[34], 256);
  w[36] = Block(p + 512, w[35], 512);
  w[37] = Block(p + 1024, w[36], 1024);
  for (int k = 1; k <= 31; ++k) {
    if (k > 1 && !(64 * k < length)) break;
    w[k + 1] = Block(p + 64 * k, 0, 64);
  }
  return w;
}

struct Table {
  explicit Table(uint32_t rows) : cells(rows * SEARCH_CRC_COLUMNS) {}
  std::vector<SEARCH_CRCTblEntry> cells;
  std::vector<std::vector<uint32_t>> arrays;
  void Put(uint32_t row, uint32_t column, std::vector<uint32_t> values) {
    arrays.push_back(std::move(values));
    SEARCH_CRCRegisterTable(cells.data(), column, row, arrays.back().data(), uint32_t(arrays.back().size()));
  }
};

struct List {
  SEARCH_CRCList list{};
  ~List() { SEARCH_CRCFree(&list); }
  std::vector<std::pair<uint32_t, uint32_t>> Hits() const {
    std::vector<std::pair<uint32_t, uint32_t>> hits;
    for (uint32_t i = 0; i < list.count; ++i) hits.emplace_back(list.entries[i].position, list.entries[i].column);
    return hits;
  }
};

std::vector<uint32_t> Words(const SEARCH_CRCFingerprint& f) { return {std::begin(f.words), std::end(f.words)}; }

SEARCH_CRCFingerprint Filled(uint32_t value) {
  SEARCH_CRCFingerprint f;
  for (uint32_t& w : f.words) w = value;
  return f;
}

// ---- Fingerprint ----

std::vector<uint8_t> Uniform(std::vector<uint8_t> data, uint32_t from, uint32_t n, uint8_t value) {
  std::fill(data.begin() + from, data.begin() + from + n, value);
  return data;
}

TEST(CrcFingerprint, MatchesTheRules) {
  const auto random = RandomBytes(5000, 31);
  struct Case {
    const char* name;
    std::vector<uint8_t> data;
    int32_t length;
  };
  const Case kCases[] = {
      {"empty", random, 0},
      {"one byte", random, 1},
      {"one block", random, 64},
      {"just over one block", random, 65},
      {"two blocks", random, 128},
      {"two blocks and a byte", random, 129},
      {"300 bytes", random, 300},
      {"one short of full", random, 2047},
      {"full", random, 2048},
      {"longer", random, 5000},
      {"uniform first block", Uniform(random, 0, 64, 0x41), 2048},
      {"uniform first two blocks", Uniform(random, 0, 128, 0x41), 2048},
      {"uniform 0-255", Uniform(random, 0, 256, 0x41), 2048},
      {"uniform first, other value after", Uniform(Uniform(random, 0, 64, 0x41), 64, 64, 0x42), 2048},
      {"uniform but differing prefix halves", Uniform(Uniform(random, 0, 128, 0x41), 128, 64, 0x42), 2048},
      {"uniform block in the middle", Uniform(random, 640, 64, 0x7F), 2048},
      {"short with uniform first block", Uniform(random, 0, 64, 0x41), 100},
      {"all one value", Uniform(random, 0, 2048, 0x99), 2048},
      {"all one value, short", Uniform(random, 0, 2048, 0x99), 500},
      {"first block uniform but for its last byte", Uniform(random, 0, 63, 0x41), 2048},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    for (uint32_t before : {0u, kSentinel}) {
      SEARCH_CRCFingerprint f = Filled(before);
      Table table(1);
      List hits;
      ASSERT_EQ(SEARCH_CRCFile(c.data.data(), c.length, 0, 0x1234, &f, 0, table.cells.data(), &hits.list), 1);
      std::vector<uint32_t> expected = ExpectedWords(c.data.data(), c.length, Words(Filled(before)));
      expected[0] = 0x1234;
      ASSERT_EQ(Words(f), expected);
    }
  }
}

TEST(CrcFingerprint, WhichBlocksAreComputed) {
  // The blocks 2-31 computed are those that start inside the length.
  const auto data = RandomBytes(2048, 32);
  for (int32_t length : {-5, 0, 64, 128, 129, 300, 1984, 1985, 2048}) {
    SCOPED_TRACE(length);
    SEARCH_CRCFingerprint f = Filled(kSentinel);
    Table table(1);
    List hits;
    SEARCH_CRCFile(data.data(), length, 0, 0, &f, 0, table.cells.data(), &hits.list);
    int computed = 1;
    while (computed < 31 && 64 * (computed + 1) < length) ++computed;
    for (int k = 2; k <= 31; ++k) EXPECT_EQ(f.words[k + 1] == kSentinel, k > computed) << "block " << k;
  }
}

TEST(CrcFingerprint, EmptyBufferIsAllZeroWords) {
  const uint8_t byte = 0x55;
  SEARCH_CRCFingerprint f = Filled(kSentinel);
  Table table(1);
  List hits;
  SEARCH_CRCFile(&byte, 0, 0, 7, &f, 0, table.cells.data(), &hits.list);
  EXPECT_EQ(f.words[0], 7u);
  for (int w = 1; w <= 37; ++w) EXPECT_EQ(f.words[w], (w >= 3 && w <= 32) ? kSentinel : 0u) << w;
}

TEST(CrcFingerprint, PaddingCopyOnlyForShortBuffers) {
  const auto data = RandomBytes(5000, 33);
  for (int32_t length : {0, 100, 2047, 2048, 5000, -1}) {
    SCOPED_TRACE(length);
    SEARCH_CRCFingerprint f{};
    Table table(1);
    List hits;
    vrkalloc_log_enable(1);
    SEARCH_CRCFile(data.data(), length, 0, 0, &f, 0, table.cells.data(), &hits.list);
    vrkalloc_log_enable(0);
    if (uint32_t(length) < 2048) {
      ASSERT_EQ(vrkalloc_log_size(), 2u);
      EXPECT_EQ(vrkalloc_log_at(0)->op, VRKALLOC_PMALLOC);
      EXPECT_EQ(vrkalloc_log_at(0)->a, 2048u);
      EXPECT_EQ(vrkalloc_log_at(0)->b, 0u);
      EXPECT_EQ(vrkalloc_log_at(1)->op, VRKALLOC_PFREE);
      EXPECT_EQ(vrkalloc_log_at(1)->block, vrkalloc_log_at(0)->result);
    } else {
      EXPECT_EQ(vrkalloc_log_size(), 0u);
    }
  }
}

TEST(CrcFingerprint, RefusedCopyKeepsWordsButStillMatches) {
  const auto data = RandomBytes(100, 34);
  Table table(1);
  table.Put(0, 0, {0x1234});
  table.Put(0, 5, {kSentinel});
  SEARCH_CRCFingerprint f = Filled(kSentinel);
  List hits;
  vrkalloc_fail_size(2048, 1);
  EXPECT_EQ(SEARCH_CRCFile(data.data(), 100, 0, 0x1234, &f, 0, table.cells.data(), &hits.list), 1);
  vrkalloc_fail_size(2048, 0);
  EXPECT_EQ(f.words[0], 0x1234u);
  for (int w = 1; w <= 37; ++w) EXPECT_EQ(f.words[w], kSentinel);
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{0, 5}, {0, 0}};
  EXPECT_EQ(hits.Hits(), expected);
}

// ---- Matching ----

TEST(CrcMatch, OrderColumnsDownThenColumnZero) {
  const auto data = RandomBytes(2048, 35);
  SEARCH_CRCFingerprint f{};
  Table scratch(1);
  List none;
  SEARCH_CRCFile(data.data(), 2048, 0, 0xC0FFEE, &f, 0, scratch.cells.data(), &none.list);

  Table table(3);
  // Row 1: hits in columns 2, 17 and 37 (one a triple), and the key.
  table.Put(1, 2, {1, f.words[2], 0xFFFFFFFF});
  table.Put(1, 17, {0, f.words[17], f.words[17], f.words[17], 0xFFFFFFFE});
  table.Put(1, 37, {f.words[37]});
  table.Put(1, 0, {5, 0xC0FFEE});
  table.Put(1, 9, {f.words[9] ^ 1});  // a near miss
  table.Put(0, 3, {f.words[3]});      // other rows are not looked at
  table.Put(2, 3, {f.words[3]});
  List hits;
  EXPECT_EQ(SEARCH_CRCFile(data.data(), 2048, 1, 0xC0FFEE, &f, 0, table.cells.data(), &hits.list), 1);
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{0, 37}, {1, 17}, {2, 17}, {3, 17}, {1, 2}, {1, 0}};
  EXPECT_EQ(hits.Hits(), expected);
}

TEST(CrcMatch, ColumnZeroOnlyConfirms) {
  const uint8_t data[16] = {1, 2, 3};
  Table table(1);
  table.Put(0, 0, {42});
  SEARCH_CRCFingerprint f{};
  List hits;
  SEARCH_CRCFile(data, 16, 0, 42, &f, 0, table.cells.data(), &hits.list);
  EXPECT_EQ(hits.list.count, 0u);  // nothing else hit and the list was empty
  // With a hit left from an earlier call, the key is looked up.
  SEARCH_CRC(std::vector<uint32_t>{9}.data(), 1, 4, 9, &hits.list);
  SEARCH_CRCFile(data, 16, 0, 42, &f, 0, table.cells.data(), &hits.list);
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{0, 4}, {0, 0}};
  EXPECT_EQ(hits.Hits(), expected);
}

TEST(CrcMatch, ReuseMatchesTheKeptFingerprint) {
  SEARCH_CRCFingerprint f = Filled(0);
  f.words[0] = 77;
  f.words[20] = 0xABCDEF;
  Table table(4);
  table.Put(2, 20, {0xABCDEF});
  table.Put(2, 0, {77});
  table.Put(3, 20, {3, 0xABCDEF});
  List hits;
  const uint8_t unused = 0;
  // length and key0 are ignored when reusing.
  EXPECT_EQ(SEARCH_CRCFile(&unused, 9999, 2, 1, &f, 1, table.cells.data(), &hits.list), 1);
  EXPECT_EQ(SEARCH_CRCFile(&unused, -1, 3, 2, &f, 1, table.cells.data(), &hits.list), 1);
  EXPECT_EQ(f.words[0], 77u);
  const std::vector<std::pair<uint32_t, uint32_t>> expected = {{0, 20}, {0, 0}, {1, 20}};
  EXPECT_EQ(hits.Hits(), expected);
}

TEST(CrcMatch, NullArgumentsDoNothing) {
  const uint8_t data[8] = {};
  SEARCH_CRCFingerprint f = Filled(kSentinel);
  Table table(1);
  List hits;
  vrkalloc_log_enable(1);
  EXPECT_EQ(SEARCH_CRCFile(nullptr, 8, 0, 1, &f, 0, table.cells.data(), &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(data, 8, 0, 1, nullptr, 0, table.cells.data(), &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(data, 8, 0, 1, &f, 0, nullptr, &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(data, 8, 0, 1, &f, 0, table.cells.data(), nullptr), 0);
  EXPECT_EQ(SEARCH_CRCFile(nullptr, 8, 0, 1, &f, 1, table.cells.data(), &hits.list), 0);
  vrkalloc_log_enable(0);
  EXPECT_EQ(vrkalloc_log_size(), 0u);
  EXPECT_EQ(Words(f), Words(Filled(kSentinel)));
  SEARCH_CRCFree(nullptr);
  SEARCH_CRCFree(&hits.list);  // no entries yet: nothing to release
}

TEST(CrcMatch, RegisterFillsTheCell) {
  Table table(3);
  uint32_t values[] = {1, 2};
  SEARCH_CRCRegisterTable(table.cells.data(), 37, 2, values, 2);
  const SEARCH_CRCTblEntry& cell = table.cells[2 * 38 + 37];
  EXPECT_EQ(cell.index, 2u * 38 + 37);
  EXPECT_EQ(cell.count, 2u);
  EXPECT_EQ(cell.crcs, values);
}

TEST(CrcSearch, FindsEveryEqualElement) {
  struct Case {
    std::vector<uint32_t> crcs;
    uint32_t key;
    std::vector<uint32_t> positions;
  };
  const Case kCases[] = {
      {{}, 5, {}},
      {{5}, 5, {0}},
      {{4}, 5, {}},
      {{5, 5, 5}, 5, {0, 1, 2}},
      {{1, 5, 5, 5, 9}, 5, {1, 2, 3}},
      {{1, 2, 3, 4, 5, 6, 7, 7}, 7, {6, 7}},
      {{0, 0, 0, 0, 0, 0, 0, 1}, 0, {0, 1, 2, 3, 4, 5, 6}},
      {{1, 0x80000000u, 0xFFFFFFFFu}, 0xFFFFFFFFu, {2}},  // unsigned order
      {{1, 0x80000000u, 0xFFFFFFFFu}, 0x80000000u, {1}},
      {{1, 3, 5, 7, 9, 11}, 6, {}},
  };
  for (const Case& c : kCases) {
    List hits;
    SEARCH_CRC(std::vector<uint32_t>{0}.data(), 1, 30, 0, &hits.list);  // one earlier hit
    const uint32_t n = SEARCH_CRC(c.crcs.data(), uint32_t(c.crcs.size()), 12, c.key, &hits.list);
    std::vector<std::pair<uint32_t, uint32_t>> expected = {{0, 30}};
    for (uint32_t p : c.positions) expected.emplace_back(p, 12);
    EXPECT_EQ(n, expected.size());
    EXPECT_EQ(hits.Hits(), expected);
  }
}

TEST(CrcSearch, EveryPositionOfLongRuns) {
  // Runs of each length at each place, so the search meets every element of
  // a run first in some case.
  for (uint32_t before = 0; before < 6; ++before) {
    for (uint32_t run = 1; run < 9; ++run) {
      std::vector<uint32_t> crcs(before, 10);
      crcs.insert(crcs.end(), run, 20);
      crcs.insert(crcs.end(), 5, 30);
      List hits;
      SEARCH_CRC(crcs.data(), uint32_t(crcs.size()), 1, 20, &hits.list);
      ASSERT_EQ(hits.list.count, run);
      for (uint32_t i = 0; i < run; ++i) ASSERT_EQ(hits.list.entries[i].position, before + i);
    }
  }
}

// ---- Growth of the hit list ----

TEST(CrcHitList, GrowsBy100ThroughPrealloc) {
  const std::vector<uint32_t> crcs(250, 7);
  List hits;
  vrkalloc_log_enable(1);
  EXPECT_EQ(SEARCH_CRC(crcs.data(), 250, 3, 7, &hits.list), 250u);
  vrkalloc_log_enable(0);
  EXPECT_EQ(hits.list.capacity, 300u);
  ASSERT_EQ(vrkalloc_log_size(), 3u);
  const void* previous = nullptr;
  for (uint32_t i = 0; i < 3; ++i) {
    const VrkAllocCall* c = vrkalloc_log_at(i);
    EXPECT_EQ(c->op, VRKALLOC_PREALLOC);
    EXPECT_EQ(c->a, 800u * (i + 1));  // Prealloc(entries, capacity * 8 + 800)
    EXPECT_EQ(c->block, previous);
    previous = c->result;
  }
  for (uint32_t i = 0; i < 250; ++i) ASSERT_EQ(hits.list.entries[i].position, i);
}

TEST(CrcHitList, RefusedGrowthDropsHits) {
  const std::vector<uint32_t> crcs(250, 7);
  List hits;
  vrkalloc_fail_from(2);  // every growth beyond 100 entries
  EXPECT_EQ(SEARCH_CRC(crcs.data(), 250, 3, 7, &hits.list), 100u);
  EXPECT_EQ(hits.list.capacity, 100u);
  for (uint32_t i = 0; i < 100; ++i) ASSERT_EQ(hits.list.entries[i].position, i);
  // The list grows again once the allocator agrees.
  vrkalloc_reset();
  EXPECT_EQ(SEARCH_CRC(crcs.data(), 1, 4, 7, &hits.list), 101u);
  EXPECT_EQ(hits.list.capacity, 200u);
}

TEST(CrcHitList, EachHitRetriesTheGrowth) {
  const std::vector<uint32_t> crcs(250, 7);
  List hits;
  vrkalloc_fail_nth(2);  // only the first attempt past 100 entries
  EXPECT_EQ(SEARCH_CRC(crcs.data(), 250, 3, 7, &hits.list), 249u);
  EXPECT_EQ(hits.list.capacity, 300u);
  EXPECT_EQ(hits.list.entries[99].position, 99u);
  EXPECT_EQ(hits.list.entries[100].position, 101u);  // hit 100 was dropped
}

TEST(CrcHitList, NoListAtAllWhenTheFirstGrowthIsRefused) {
  const uint32_t crcs[] = {7};
  List hits;
  vrkalloc_fail_all(1);
  EXPECT_EQ(SEARCH_CRC(crcs, 1, 3, 7, &hits.list), 0u);
  vrkalloc_fail_all(0);
  EXPECT_EQ(hits.list.capacity, 0u);
  EXPECT_EQ(hits.list.entries, nullptr);
}

}  // namespace
