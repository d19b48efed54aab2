// CRC signature table: the fingerprint against a computation written here
// from the rules (bitwise CRC, literal padding and uniform-block test), the
// matching order and the column-0 rule, and the hit list's growth through
// the allocator, refusals included.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "support/alloc_trace.h"
#include "tests/checksum/crc_reference.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"

namespace {

using vrk::test::AllocTrace;

using vrk::test::RandomBytes;
using vrk::test::ReferenceCrc32;
using Hits = std::vector<std::pair<uint32_t, uint32_t>>;  // (position, column)

constexpr uint32_t kSentinel = 0xA5A5A5A5u;

// A region checksummed from 0 counts as 0 when all its bytes are equal.
uint32_t Block(const uint8_t* region, uint32_t start, uint32_t n) {
  bool uniform = start == 0;
  for (uint32_t i = 1; i < n; ++i) uniform = uniform && region[i] == region[0];
  return uniform ? 0 : ReferenceCrc32(region, n, start);
}

// The expected words; those of blocks not computed keep `before`.
std::vector<uint32_t> ExpectedWords(const uint8_t* data, int32_t length, uint32_t key0, uint32_t before) {
  std::vector<uint32_t> w(38, before);
  w[0] = key0;
  std::vector<uint8_t> padded(2048, 0);
  const uint8_t* p = data;
  if (uint32_t(length) < 2048) p = static_cast<uint8_t*>(std::memcpy(padded.data(), data, uint32_t(length)));
  w[1] = Block(p, 0, 64);
  w[33] = Block(p + 64, w[1], 64);
  for (int i = 34; i <= 37; ++i) w[i] = Block(p + (64 << (i - 33)), w[i - 1], 64 << (i - 33));
  for (int k = 1; k <= 31 && (k == 1 || 64 * k < length); ++k) w[k + 1] = Block(p + 64 * k, 0, 64);
  return w;
}

// Cells (row, column, sorted checksums) registered in a table of `rows`.
struct Cell {
  uint32_t row, column;
  std::vector<uint32_t> crcs;
};
struct Table {
  explicit Table(uint32_t rows, std::vector<Cell> list = {})
      : cells(rows * SEARCH_CRC_COLUMNS), filled(std::move(list)) {
    for (Cell& c : filled) {
      SEARCH_CRCRegisterTable(cells.data(), c.column, c.row, c.crcs.data(), uint32_t(c.crcs.size()));
    }
  }
  std::vector<SEARCH_CRCTblEntry> cells;
  std::vector<Cell> filled;
};

struct List {
  SEARCH_CRCList list{};
  ~List() { SEARCH_CRCFree(&list); }
  Hits Get() const {
    Hits hits;
    for (uint32_t i = 0; i < list.count; ++i) hits.emplace_back(list.entries[i].position, list.entries[i].column);
    return hits;
  }
};

std::vector<uint32_t> Words(const SEARCH_CRCFingerprint& f) { return {std::begin(f.words), std::end(f.words)}; }

SEARCH_CRCFingerprint Filled(uint32_t value) {
  SEARCH_CRCFingerprint f;
  std::fill_n(f.words, SEARCH_CRC_COLUMNS, value);
  return f;
}

std::vector<uint8_t> Uniform(std::vector<uint8_t> data, uint32_t from, uint32_t n, uint8_t value) {
  std::fill(data.begin() + from, data.begin() + from + n, value);
  return data;
}

// Words, which blocks are computed for which lengths (untouched words keep
// the sentinel), and the one 2048-byte padding copy for short buffers.
TEST(CrcFingerprint, MatchesTheRules) {
  const auto r = RandomBytes(5000, 31);
  const auto u41 = Uniform(r, 0, 64, 0x41), all99 = Uniform(r, 0, 2048, 0x99);
  const struct {
    std::vector<uint8_t> data;
    std::vector<int32_t> lengths;
  } kCases[] = {
      {r, {0, 1, 64, 65, 128, 129, 300, 1984, 1985, 2047, 2048, 5000, -5}},
      {u41, {100, 2048}},
      {Uniform(r, 0, 128, 0x41), {2048}},
      {Uniform(r, 0, 256, 0x41), {2048}},
      {Uniform(u41, 64, 64, 0x42), {2048}},                     // uniform first, other value after
      {Uniform(Uniform(r, 0, 128, 0x41), 128, 64, 0x42), {2048}},  // uniform but differing prefix halves
      {Uniform(r, 640, 64, 0x7F), {2048}},
      {all99, {500, 2048}},
      {Uniform(r, 0, 63, 0x41), {2048}},  // uniform but for its last byte
  };
  for (const auto& c : kCases) {
    for (int32_t length : c.lengths) {
      for (uint32_t before : {0u, kSentinel}) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - kCases) << " length " << length << " before " << before);
        SEARCH_CRCFingerprint f = Filled(before);
        Table table(1);
        List hits;
        AllocTrace trace;
        ASSERT_EQ(SEARCH_CRCFile(c.data.data(), length, 0, 0x1234, &f, 0, table.cells.data(), &hits.list), 1);
        trace.Stop();
        ASSERT_EQ(Words(f), ExpectedWords(c.data.data(), length, 0x1234, before));
        EXPECT_EQ(trace.Text(), uint32_t(length) < 2048 ? "Pmalloc(2048,0) Pfree " : "");
        if (const auto calls = trace.Calls(); calls.size() == 2) {
          EXPECT_EQ(calls[1].block, calls[0].result);
        }
      }
    }
  }
}

TEST(CrcFingerprint, RefusedCopyKeepsWordsButStillMatches) {
  const auto data = RandomBytes(100, 34);
  Table table(1, {{0, 0, {0x1234}}, {0, 5, {kSentinel}}});
  SEARCH_CRCFingerprint f = Filled(kSentinel);
  List hits;
  vrkalloc_fail_size(2048, 1);
  EXPECT_EQ(SEARCH_CRCFile(data.data(), 100, 0, 0x1234, &f, 0, table.cells.data(), &hits.list), 1);
  vrkalloc_fail_size(2048, 0);
  std::vector<uint32_t> expected(38, kSentinel);
  expected[0] = 0x1234;
  EXPECT_EQ(Words(f), expected);  // untouched but for the key
  EXPECT_EQ(hits.Get(), (Hits{{0, 5}, {0, 0}}));
}

TEST(CrcMatch, OrderColumnsDownThenColumnZero) {
  const auto data = RandomBytes(2048, 35);
  SEARCH_CRCFingerprint f{};
  List hits;
  SEARCH_CRCFile(data.data(), 2048, 0, 0xC0FFEE, &f, 0, Table(1).cells.data(), &hits.list);
  ASSERT_EQ(hits.list.count, 0u);
  const uint32_t* w = f.words;
  // Row 1: hits in columns 2, 17 (a triple) and 37, and the key; a near
  // miss in column 9. Other rows are not looked at.
  Table table(3, {{1, 2, {1, w[2], 0xFFFFFFFF}}, {1, 17, {0, w[17], w[17], w[17], 0xFFFFFFFE}}, {1, 37, {w[37]}},
                  {1, 0, {5, 0xC0FFEE}}, {1, 9, {w[9] ^ 1}}, {0, 3, {w[3]}}, {2, 3, {w[3]}}});
  const SEARCH_CRCTblEntry& cell = table.cells[1 * 38 + 37];
  EXPECT_TRUE(cell.index == 1 * 38 + 37 && cell.count == 1 && cell.crcs == table.filled[2].crcs.data());
  EXPECT_EQ(SEARCH_CRCFile(data.data(), 2048, 1, 0xC0FFEE, &f, 0, table.cells.data(), &hits.list), 1);
  EXPECT_EQ(hits.Get(), (Hits{{0, 37}, {1, 17}, {2, 17}, {3, 17}, {1, 2}, {1, 0}}));
}

// Column 0 only confirms: it is looked up only when the list holds a hit,
// one of an earlier call included. Reuse ignores length and key0.
TEST(CrcMatch, ColumnZeroAndReuse) {
  SEARCH_CRCFingerprint f = Filled(0);
  f.words[0] = 77;
  f.words[20] = 0xABCDEF;
  Table table(4, {{1, 0, {77}}, {2, 20, {0xABCDEF}}, {2, 0, {77}}, {3, 20, {3, 0xABCDEF}}});
  List hits;
  const uint8_t unused = 0;
  for (uint32_t row : {1, 2, 3, 1}) {
    EXPECT_EQ(SEARCH_CRCFile(&unused, row == 3 ? -1 : 9999, row, 1, &f, 1, table.cells.data(), &hits.list), 1);
  }
  EXPECT_EQ(f.words[0], 77u);
  EXPECT_EQ(hits.Get(), (Hits{{0, 20}, {0, 0}, {1, 20}, {0, 0}}));
}

TEST(CrcMatch, NullArgumentsDoNothing) {
  const uint8_t d[8] = {};
  SEARCH_CRCFingerprint f = Filled(kSentinel);
  Table table(1);
  SEARCH_CRCTblEntry* t = table.cells.data();
  List hits;
  AllocTrace trace;
  EXPECT_EQ(SEARCH_CRCFile(nullptr, 8, 0, 1, &f, 0, t, &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(d, 8, 0, 1, nullptr, 0, t, &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(d, 8, 0, 1, &f, 0, nullptr, &hits.list), 0);
  EXPECT_EQ(SEARCH_CRCFile(d, 8, 0, 1, &f, 0, t, nullptr), 0);
  EXPECT_EQ(SEARCH_CRCFile(nullptr, 8, 0, 1, &f, 1, t, &hits.list), 0);
  trace.Stop();
  EXPECT_EQ(trace.Text(), "");
  EXPECT_EQ(Words(f), Words(Filled(kSentinel)));
  SEARCH_CRCFree(nullptr);
  SEARCH_CRCFree(&hits.list);  // no entries yet: nothing to release
}

// Every run length at every place, so the binary search meets each element
// of a run first in some case.
TEST(CrcSearch, FindsEveryEqualElement) {
  for (uint32_t before = 0; before < 6; ++before) {
    for (uint32_t run = 0; run < 9; ++run) {
      std::vector<uint32_t> crcs(before, 10);
      crcs.insert(crcs.end(), run, 20);
      crcs.insert(crcs.end(), 5, 30);
      List hits;
      ASSERT_EQ(SEARCH_CRC(crcs.data(), uint32_t(crcs.size()), 12, 20, &hits.list), run);
      for (uint32_t i = 0; i < run; ++i) ASSERT_EQ(hits.list.entries[i].position, before + i);
    }
  }
  // Empty array, and unsigned order.
  List hits;
  const uint32_t high[] = {1, 0x80000000u, 0xFFFFFFFFu};
  EXPECT_EQ(SEARCH_CRC(high, 0, 1, 1, &hits.list), 0u);
  SEARCH_CRC(high, 3, 1, 0xFFFFFFFFu, &hits.list);
  SEARCH_CRC(high, 3, 2, 0x80000000u, &hits.list);
  EXPECT_EQ(hits.Get(), (Hits{{2, 1}, {1, 2}}));
}

// Growth by Prealloc(entries, capacity * 8 + 800), 100 entries at a time;
// a hit the list cannot grow for is dropped and the next one retries.
TEST(CrcHitList, GrowsBy100AndDropsWhatItCannotHold) {
  const std::vector<uint32_t> crcs(250, 7);
  const struct {
    void (*refuse)();
    uint32_t count, capacity, missing_from, missing_to;  // positions [from, to) dropped
  } kCases[] = {
      {[] {}, 250, 300, 250, 250},
      {[] { vrkalloc_fail_from(2); }, 100, 100, 100, 250},  // every growth beyond 100 entries
      {[] { vrkalloc_fail_nth(2); }, 249, 300, 100, 101},   // only the first attempt past 100
      {[] { vrkalloc_fail_all(1); }, 0, 0, 0, 250},         // no list at all
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.count);
    List hits;
    vrkalloc_reset();
    AllocTrace trace;
    c.refuse();
    EXPECT_EQ(SEARCH_CRC(crcs.data(), 250, 3, 7, &hits.list), c.count);
    trace.Stop();
    EXPECT_EQ(hits.list.capacity, c.capacity);
    for (uint32_t i = 0; i < c.count; ++i) {
      ASSERT_EQ(hits.list.entries[i].position, i < c.missing_from ? i : i - c.missing_from + c.missing_to);
    }
    uint32_t capacity = 0;
    void* block = nullptr;
    for (const VrkAllocCall& call : trace.Calls()) {
      EXPECT_TRUE(call.op == VRKALLOC_PREALLOC && call.a == capacity * 8 + 800 && call.block == block) << capacity;
      if (!call.refused) capacity += 100, block = call.result;
    }
    EXPECT_EQ(capacity, c.capacity);
    vrkalloc_reset();  // the list grows again once the allocator agrees
    EXPECT_EQ(SEARCH_CRC(crcs.data(), 1, 4, 7, &hits.list), c.count + 1);
    EXPECT_EQ(hits.list.entries[c.count].column, 4u);
  }
}

}  // namespace
