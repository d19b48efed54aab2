// The library's own pattern search: the key index and bitmap, the two-byte
// and gap rules, the programs, hit order and the result list; and a
// randomized comparison with straightforward readings of the same tables.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "search/named_table.h"
#include "search/pattern_reference.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"

namespace {

namespace builder = vrk::search::builder;
using Bytes = std::vector<uint8_t>;
using vrk::test::Hits;
using vrk::test::LibraryHits;
using vrk::test::ReferenceHits;

constexpr uint8_t DD = 0xDD, DF = 0xDF;

// Records in bucket order, all under one key, for layouts the builder would
// not produce; `set_bit` false leaves the key's presence bit clear.
struct RawTable {
  std::vector<Bytes> records;
  std::vector<const unsigned char*> pointers;
  std::vector<SEARCH_BuscaTblBucket> index = std::vector<SEARCH_BuscaTblBucket>(65536);
  Bytes bitmap = Bytes(8192);
  SEARCH_BuscaTblDesc desc{};
  RawTable(uint16_t key, std::vector<Bytes> bucket, bool set_bit = true) : records(std::move(bucket)) {
    for (const Bytes& r : records) pointers.push_back(r.data());
    index[key] = {uint16_t(records.size()), 0};
    if (set_bit) bitmap[key >> 3] |= uint8_t(1u << (key & 7));
    desc = {pointers.data(), index.data(), bitmap.data(), uint16_t(records.size())};
  }
};

Hits Search(SEARCH_BuscaTblDesc* tables, unsigned table, const Bytes& data, int positions = -1) {
  return LibraryHits(tables, table, data.data(), positions < 0 ? int(data.size()) - 1 : positions, int(data.size()));
}

using vrk::test::BuildNamed;
using Names = std::vector<std::string>;

TEST(PatternSearch, ProgramRules) {
  const struct {
    const char* what;
    Bytes record;  // filed under key 41 42; only position 0 is tried
    Bytes data;    // starts with 41 42
    bool hit;
  } kCases[] = {
      {"end exactly at the end of the data", {1, 0, 0x43, 0x44, DF}, {0x41, 0x42, 0x43, 0x44}, true},
      {"one literal past the end", {1, 0, 0x43, 0x44, 0x45, DF}, {0x41, 0x42, 0x43, 0x44}, false},
      {"head past the end is skipped", {3, 0, 0x43, 0x44, 0x45, DF}, {0x41, 0x42, 0x43, 0x44}, false},
      {"empty program after the key", {0, 0, DF}, {0x41, 0x42}, true},
      {"head compared in full", {2, 0, 0x43, 0x44, DF}, {0x41, 0x42, 0x43, 0x45, 0}, false},
      {"head holds the codes literally", {2, 0, DD, DF, DF}, {0x41, 0x42, DD, DF}, true},
      {"gap G=0 fails", {0, 0, DD, 0, 0x43, DF}, {0x41, 0x42, 0x43, 0x43}, false},
      {"gap with no data left fails", {0, 0, DD, 5, 0x43, DF}, {0x41, 0x42}, false},
      {"gap: N at once", {0, 0, DD, 3, 0x41, DF}, {0x41, 0x42, 0x41}, true},
      {"gap: two bytes before N", {0, 0, DD, 3, 0x41, DF}, {0x41, 0x42, 0x58, 0x59, 0x41}, true},
      {"gap: three bytes before N", {0, 0, DD, 3, 0x41, DF}, {0x41, 0x42, 0x58, 0x59, 0x5A, 0x41}, false},
      {"gap: N compared literally as DF", {0, 0, DD, 2, DF, DF}, {0x41, 0x42, 0, DF}, true},
      {"gap: N compared literally as DD", {0, 0, DD, 2, DD, 0x44, DF}, {0x41, 0x42, DD, 0x44}, true},
      {"gap backtracks to a nearer N", {0, 0, DD, 4, 0x43, 0x44, DF}, {0x41, 0x42, 0x43, 0x44, 0x43, 0x45}, true},
      {"gap backtracks to a farther N", {0, 0, DD, 4, 0x43, 0x45, DF}, {0x41, 0x42, 0x43, 0x44, 0x43, 0x45}, true},
      {"gap then gap", {0, 0, DD, 2, 0x43, DD, 2, 0x44, DF}, {0x41, 0x42, 0, 0x43, 0, 0x44}, true},
      {"gap then gap, second too far", {0, 0, DD, 2, 0x43, DD, 2, 0x44, DF}, {0x41, 0x42, 0x43, 0, 0, 0x44}, false},
      {"literal after gap at the end", {0, 0, DD, 2, 0x43, 0x44, DF}, {0x41, 0x42, 0, 0x43}, false},
  };
  for (const auto& c : kCases) {
    RawTable t(0x4241, {c.record});
    EXPECT_EQ(Search(&t.desc, 0, c.data, 1), c.hit ? Hits{t.records[0].data()} : Hits{}) << c.what;
  }
}

// Patterns at the very end of a readable page, with nothing mapped after
// it: a search that read one byte too far would crash.
TEST(PatternSearch, NeverReadsPastTheData) {
  const long page = sysconf(_SC_PAGESIZE);
  auto* map =
      static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
  builder::Table table = BuildNamed({{"long head", "41 42 43 44 45 46 47 48"},
                                     {"long program", "41 42 {0-3} 43 44 45 46 47"},
                                     {"gap key", "41 {0-200} 43 44 45"},
                                     {"wide gap", "42 {0-254} 99"}})
                              .table;
  for (int size = 2; size <= 8; ++size) {
    uint8_t* data = static_cast<uint8_t*>(std::memcpy(map + page - size, "ABCDEFGH", size_t(size)));
    const Hits hits = LibraryHits(table.mutable_desc(), 0, data, size - 1, size);
    EXPECT_EQ(hits, ReferenceHits(table.desc(), data, size - 1, size)) << "size " << size;
  }
  munmap(map, 2 * page);
  // No positions: null data and a table of null pointers are never read.
  SEARCH_BuscaTblDesc empty{};
  for (int positions : {0, -1, -1000}) {
    for (int length : {0, 100}) EXPECT_TRUE(LibraryHits(&empty, 0, nullptr, positions, length, 1).empty());
  }
}

// Layouts the builder would not write.
TEST(PatternSearch, BitmapAndGapKeys) {
  // The index names a pattern, but the key's bit is clear: not tried. The
  // bit is set for an empty bucket: nothing to try, no hit.
  RawTable hidden(0x4241, {{0, 0, DF}}, /*set_bit=*/false), empty(0x4241, {});
  EXPECT_TRUE(Search(&hidden.desc, 0, {0x41, 0x42, 0}).empty());
  EXPECT_TRUE(Search(&empty.desc, 0, {0x41, 0x42, 0}).empty());
  // Filed under the gap key of 41: the gap rule starts at byte 1.
  RawTable t(0xDD41, {{200, DD, 3, 0x43, DF}});
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0x42, 0x43, 0}).size(), 1u);
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0x43, 0}).size(), 1u);
  EXPECT_TRUE(Search(&t.desc, 0, {0x41, 0x42, 0x42, 0x42, 0x43}).empty());
  // A second byte DD tries the bucket under both rules: the two-byte rule
  // runs "DF" from byte 2 (head 0), the gap rule "DD DF DD DF" from byte 1.
  RawTable u(0xDD41, {{0, DD, DF, DD, DF}});
  const unsigned char* record = u.records[0].data();
  EXPECT_EQ(Search(&u.desc, 0, {0x41, DD, 0}), (Hits{record, record}));
  EXPECT_EQ(Search(&u.desc, 0, {0x41, 0, DD}, 1), Hits{record});  // only the gap rule
  EXPECT_TRUE(Search(&u.desc, 0, {0x41, 0x42, 0}).empty());
}

// Ascending position; at one position the two-byte rule first, then the
// gap rule, each in input order (the builder stores buckets reversed).
TEST(PatternSearch, HitOrder) {
  auto t = BuildNamed({{"AB", "41 42"}, {"A~C", "41 {0-2} 43"}, {"ABC", "41 42 43"}, {"A~B", "41 {0-0} 42"},
                       {"BC", "42 43"}, {"A~C again", "41 {0-5} 43"}});
  EXPECT_EQ(t.NamesOf(Search(t.table.mutable_desc(), 0, {0x41, 0x42, 0x43, 0x41, 0x43, 0})),
            (Names{"AB", "ABC", "A~C", "A~B", "A~C again", "BC", "A~C", "A~C again"}));
}

TEST(PatternSearch, SeveralTablesPositionsAndAFullList) {
  auto a = BuildNamed({{"a", "41 42"}});
  auto b = BuildNamed({{"b", "42 43"}});
  SEARCH_BuscaTblDesc tables[2] = {a.table.desc(), b.table.desc()};
  const Bytes data = {0x41, 0x42, 0x43, 0x41, 0x42, 0x43};
  EXPECT_EQ(a.NamesOf(Search(tables, 0, data)), (Names{"a", "a"}));
  EXPECT_EQ(b.NamesOf(Search(tables, 1, data)), (Names{"b", "b"}));
  // Positions bound the start, not the data the program may read.
  EXPECT_EQ(Search(tables, 1, data, 1).size(), 0u);
  EXPECT_EQ(Search(tables, 1, data, 2).size(), 1u);
  // A full list drops later hits (a list of exactly one item: the
  // sanitized build sees any write past it); hits accumulate across searches.
  const unsigned char* a0 = a.table.Record(0).data();
  EXPECT_EQ(LibraryHits(tables, 0, data.data(), 5, 6, 1), Hits{a0});
  const unsigned char* items[3] = {};
  SEARCH_BuscaTblList out{1, 0, items};
  SEARCH_BuscaTbl(0, tables, data.data(), 5, 6, &out);
  out.capacity = 3;
  SEARCH_BuscaTbl(0, tables, data.data(), 5, 6, &out);
  EXPECT_EQ(Hits(items, items + out.count), (Hits{a0, a0, a0}));
}

// The default test process has no analysis module on its search path:
// registration changes nothing and searches stay local.
TEST(PatternSearch, RegistrationWithoutModuleIsWithoutEffect) {
  void* module = dlopen("qel.dll", RTLD_NOW);
  EXPECT_EQ(module, nullptr) << "a qel.dll is reachable from the default test process";
  if (module) dlclose(module);
  builder::Table t = BuildNamed({{"AB", "41 42"}}).table;
  SEARCH_BuscaTblRegisterTable(t.mutable_desc(), 0);
  SEARCH_BuscaTblRegisterTable(t.mutable_desc(), 0);
  EXPECT_EQ(Search(t.mutable_desc(), 0, {0x41, 0x42, 0}).size(), 1u);
}

// Patterns over a small alphabet (so that they hit) or, `wide`, any byte
// value (so that a gap's byte is often absent nearby); with gaps, some
// filed under gap keys, some with DD and DF in their keys and heads.
std::vector<builder::Pattern> RandomPatterns(std::mt19937& rng, int count, bool wide) {
  static const uint8_t kAlphabet[] = {0x00, 0x41, 0x42, 0x43, 0x8B, DD, DF, 0xFF};
  std::vector<builder::Pattern> patterns;
  while (int(patterns.size()) < count) {
    builder::Pattern e;
    for (int i = 0, length = 2 + int(rng() % 6); i < length; ++i) {
      if (i > 0 && rng() % 4 == 0) e.push_back({true, 0, uint8_t(rng() % 4 == 0 ? rng() % 255 : rng() % 5)});
      e.push_back({false, wide ? uint8_t(rng()) : kAlphabet[rng() % std::size(kAlphabet)], 0});
    }
    builder::Filed filed;
    std::string reason;
    if (!builder::EncodePattern(e, filed, reason)) continue;  // not expressible in the layout
    patterns.push_back(e);
  }
  return patterns;
}

// Random data with planted instances of the patterns, gaps left random.
Bytes RandomData(std::mt19937& rng, const std::vector<builder::Pattern>& elements, size_t size,
                 bool wide) {
  static const uint8_t kAlphabet[] = {0x00, 0x41, 0x42, 0x43, 0x8B, DD, DF, 0xFF, 0x10, 0x20};
  Bytes data(size);
  for (uint8_t& b : data) b = wide ? uint8_t(rng()) : kAlphabet[rng() % std::size(kAlphabet)];
  for (size_t n = 0; n < size / 40; ++n) {
    size_t at = rng() % size;
    for (const auto& el : elements[rng() % elements.size()]) {
      at += el.gap ? rng() % (el.max_skip + 1u) : 0;
      if (!el.gap && at < size) data[at++] = el.byte;
    }
  }
  return data;
}

// The builder's index and bitmap describe exactly its buckets, and each
// pattern's key and slot say where it is filed.
void ExpectIndexDescribesBuckets(const builder::Table& table) {
  const SEARCH_BuscaTblDesc& d = table.desc();
  const auto* index = static_cast<const SEARCH_BuscaTblBucket*>(d.index);
  uint32_t total = 0;
  for (uint32_t key = 0; key < 65536; ++key) {
    ASSERT_EQ((d.bitmap[key >> 3] >> (key & 7)) & 1, index[key].count != 0) << key;
    total += index[key].count;
  }
  ASSERT_EQ(total, table.size());
  ASSERT_EQ(d.count, table.size());
  for (size_t n = 0; n < table.size(); ++n) {
    const SEARCH_BuscaTblBucket& bucket = index[table.Key(n)];
    ASSERT_LT(uint16_t(table.Slot(n) - bucket.first), bucket.count) << n;
    ASSERT_EQ(d.patterns[table.Slot(n)], table.Record(n).data()) << n;
  }
}

TEST(PatternSearch, RandomTablesAgreeWithReferenceAndMeaning) {
  using vrk::test::PatternMatches;
  std::mt19937 rng(20261122);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const bool wide = round % 2 == 1;
    const std::vector<builder::Pattern> elements = RandomPatterns(rng, 100 + int(rng() % 300), wide);
    builder::Table table;
    builder::Refusal refusal;
    ASSERT_TRUE(builder::BuildTable(elements, table, refusal)) << refusal.reason;
    // Short data too: searches of fewer than 256 positions go without the
    // gap index.
    const Bytes data = RandomData(rng, elements, round % 8 == 0 ? 3 + rng() % 250 : 1000 + rng() % 5000, wide);
    const int length = int(data.size()), positions = length - 1 - int(rng() % 3);
    const uint8_t* d = data.data();
    const uint32_t requests = vrkalloc_requests();
    const Hits hits = LibraryHits(table.mutable_desc(), 0, d, positions, length, 200000);
    EXPECT_EQ(vrkalloc_requests(), requests) << "the local search allocated";
    ASSERT_NO_FATAL_FAILURE(ExpectIndexDescribesBuckets(table));
    // The table rules read word for word.
    ASSERT_EQ(hits, ReferenceHits(table.desc(), d, positions, length));
    // What the readable patterns mean, rule by rule at each position.
    Hits meant;
    for (int p = 0; p < positions; ++p) {
      for (int rule = 0; rule < 2; ++rule) {
        for (size_t n = 0; n < elements.size(); ++n) {
          const auto& e = elements[n];
          const auto r = table.Record(n);
          const bool match =
              rule == 1   ? e[1].gap && PatternMatches(e, 0, d, p, length)
              : !e[1].gap ? e[1].byte == d[p + 1] && PatternMatches(e, 0, d, p, length)
                          // Under "b0 DD" the two-byte rule reads gap-key records as they stand.
                          : d[p + 1] == DD && p + 2 + r[0] <= length && std::memcmp(d + p + 2, &r[2], r[0]) == 0 &&
                                vrk::test::ReferenceTail(d + p + 2 + r[0], &r[2 + r[0]], length - p - 2 - r[0]);
          if (e[0].byte == d[p] && match) meant.push_back(r.data());
        }
      }
    }
    ASSERT_EQ(hits, meant);
    EXPECT_TRUE(length <= 1000 || !hits.empty());
  }
}

}  // namespace
