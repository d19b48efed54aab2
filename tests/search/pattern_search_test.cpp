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

#include "search/pattern_reference.h"
#include "vrk_search.h"
#include "vrk_standin_ctl.h"

namespace {

using vrk::patterns::BuildTable;
using vrk::patterns::PatternSource;
using vrk::patterns::Table;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t DD = 0xDD, DF = 0xDF;

// A table written record by record, for layouts the builder would not
// produce (empty gaps, bitmap and index that disagree, shared buckets).
struct RawTable {
  std::vector<Bytes> records;
  std::vector<const unsigned char*> pointers;
  std::vector<SEARCH_BuscaTblBucket> index = std::vector<SEARCH_BuscaTblBucket>(65536);
  Bytes bitmap = Bytes(8192);
  SEARCH_BuscaTblDesc desc{};

  // Records in bucket order, all under `key`; `set_bit` false leaves the
  // key's presence bit clear.
  RawTable(uint16_t key, std::vector<Bytes> bucket, bool set_bit = true) : records(std::move(bucket)) {
    for (const Bytes& r : records) pointers.push_back(r.data());
    index[key] = {uint16_t(records.size()), 0};
    if (set_bit) bitmap[key >> 3] |= uint8_t(1u << (key & 7));
    desc = {pointers.data(), index.data(), bitmap.data(), uint16_t(records.size())};
  }
};

constexpr uint16_t Key(uint8_t b0, uint8_t b1) { return uint16_t(b0 | b1 << 8); }

std::vector<const unsigned char*> Search(SEARCH_BuscaTblDesc* tables, unsigned table, const Bytes& data,
                                         int positions = -1) {
  std::vector<const unsigned char*> items(4096);
  SEARCH_BuscaTblList out{uint32_t(items.size()), 0, items.data()};
  if (positions < 0) positions = int(data.size()) - 1;
  SEARCH_BuscaTbl(table, tables, data.data(), positions, int(data.size()), &out);
  items.resize(out.count);
  return items;
}

Table Build(const std::vector<PatternSource>& patterns) {
  Table table;
  std::string error;
  EXPECT_TRUE(BuildTable(patterns, table, error)) << error;
  return table;
}

// Hits as (position-free) pattern names, for readable expectations.
std::vector<std::string> Names(const Table& t, const std::vector<const unsigned char*>& hits) {
  std::vector<std::string> names;
  for (const unsigned char* h : hits) names.push_back(t.NumberOf(h) >= 0 ? t.Name(t.NumberOf(h)) : "?");
  return names;
}

// ---- Programs -----------------------------------------------------------

TEST(PatternSearch, ProgramRules) {
  struct Case {
    const char* what;
    Bytes record;  // filed under key 41 42
    Bytes data;    // starts with 41 42
    bool hit;
  } const kCases[] = {
      {"end exactly at the end of the data", {1, 0, 0x43, 0x44, DF}, {0x41, 0x42, 0x43, 0x44}, true},
      {"one literal past the end", {1, 0, 0x43, 0x44, 0x45, DF}, {0x41, 0x42, 0x43, 0x44}, false},
      {"head past the end is skipped", {3, 0, 0x43, 0x44, 0x45, DF}, {0x41, 0x42, 0x43, 0x44}, false},
      {"empty program after the key", {0, 0, DF}, {0x41, 0x42}, true},
      {"head compared in full", {2, 0, 0x43, 0x44, DF}, {0x41, 0x42, 0x43, 0x45, 0}, false},
      {"head holds the codes literally", {2, 0, DD, DF, DF}, {0x41, 0x42, DD, DF}, true},
      {"gap G=0 fails", {0, 0, DD, 0, 0x43, DF}, {0x41, 0x42, 0x43, 0x43}, false},
      {"gap with no data left fails", {0, 0, DD, 5, 0x43, DF}, {0x41, 0x42}, false},
      {"gap: N at once", {0, 0, DD, 3, 0x41, DF}, {0x41, 0x42, 0x41}, true},
      {"gap: one byte before N", {0, 0, DD, 3, 0x41, DF}, {0x41, 0x42, 0x58, 0x41}, true},
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
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    RawTable t(Key(0x41, 0x42), {c.record});
    Bytes data = c.data;
    // positions = 1: only position 0 is tried, whatever the data length.
    std::vector<const unsigned char*> items(4);
    SEARCH_BuscaTblList out{4, 0, items.data()};
    SEARCH_BuscaTbl(0, &t.desc, data.data(), 1, int(data.size()), &out);
    EXPECT_EQ(out.count, c.hit ? 1u : 0u);
    if (c.hit && out.count == 1) {
      EXPECT_EQ(items[0], t.records[0].data());
    }
  }
}

// Patterns at the very end of a readable page, with nothing mapped after
// it: a search that read one byte too far would crash.
TEST(PatternSearch, NeverReadsPastTheData) {
  const long page = sysconf(_SC_PAGESIZE);
  auto* map = static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
  const std::vector<PatternSource> patterns = {
      {"long head", "41 42 43 44 45 46 47 48"},
      {"long program", "41 42 {0-3} 43 44 45 46 47"},
      {"gap key", "41 {0-200} 43 44 45"},
      {"wide gap", "42 {0-254} 99"},
  };
  Table table = Build(patterns);
  for (int size = 2; size <= 8; ++size) {
    uint8_t* data = map + page - size;
    const uint8_t fill[] = {0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48};
    std::memcpy(data, fill, size_t(size));
    std::vector<const unsigned char*> items(16);
    SEARCH_BuscaTblList out{16, 0, items.data()};
    SEARCH_BuscaTbl(0, table.mutable_desc(), data, size - 1, size, &out);
    std::vector<const uint8_t*> expected;
    vrk::test::ReferenceSearch(table.desc(), data, size - 1, size, expected);
    items.resize(out.count);
    EXPECT_EQ(std::vector<const uint8_t*>(items.begin(), items.end()), expected) << "size " << size;
  }
  munmap(map, 2 * page);
}

TEST(PatternSearch, NoPositionsReadsNothing) {
  // Null data and a table whose pointers are all null: nothing may be read.
  SEARCH_BuscaTblDesc empty{};
  const unsigned char* sentinel = nullptr;
  SEARCH_BuscaTblList out{1, 0, &sentinel};
  for (int positions : {0, -1, -1000}) {
    SEARCH_BuscaTbl(0, &empty, nullptr, positions, 0, &out);
    SEARCH_BuscaTbl(0, &empty, nullptr, positions, 100, &out);
  }
  EXPECT_EQ(out.count, 0u);
}

// ---- Keys, bitmap and buckets -------------------------------------------

TEST(PatternSearch, BitmapGatesTheIndex) {
  // The index names a pattern, but the key's bit is clear: not tried.
  RawTable hidden(Key(0x41, 0x42), {{0, 0, DF}}, /*set_bit=*/false);
  EXPECT_TRUE(Search(&hidden.desc, 0, {0x41, 0x42, 0}).empty());
  // The bit is set for an empty bucket: nothing to try, no hit.
  RawTable empty(Key(0x41, 0x42), {});
  EXPECT_TRUE(Search(&empty.desc, 0, {0x41, 0x42, 0}).empty());
}

TEST(PatternSearch, KeyIsFirstByteLow) {
  RawTable t(Key(0x41, 0x42), {{0, 0, DF}});
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0x42, 0}).size(), 1u);
  EXPECT_TRUE(Search(&t.desc, 0, {0x42, 0x41, 0}).empty());
}

TEST(PatternSearch, BucketIsReadBackward) {
  RawTable t(Key(0x41, 0x42), {{0, 0, DF}, {0, 0, 0x43, DF}, {1, 0, 0x43, DF}});
  const auto hits = Search(&t.desc, 0, {0x41, 0x42, 0x43, 0});
  ASSERT_EQ(hits.size(), 3u);
  EXPECT_EQ(hits[0], t.records[2].data());
  EXPECT_EQ(hits[1], t.records[1].data());
  EXPECT_EQ(hits[2], t.records[0].data());
}

TEST(PatternSearch, GapRuleRunsFromByteOne) {
  // Filed under the gap key of 41: byte 0 is not read by the gap rule.
  RawTable t(Key(0x41, DD), {{200, DD, 3, 0x43, DF}});
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0x42, 0x43, 0}).size(), 1u);
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0x43, 0}).size(), 1u);
  EXPECT_TRUE(Search(&t.desc, 0, {0x41, 0x42, 0x42, 0x42, 0x43}).empty());
}

TEST(PatternSearch, SecondByteDDTriesTheBucketUnderBothRules) {
  // Under the two-byte rule the program starts at byte 2 (head 0): "DF",
  // a match. Under the gap rule it starts at byte 1: "DD DF DD DF", a DD
  // within the next 0xDF bytes.
  RawTable t(Key(0x41, DD), {{0, DD, DF, DD, DF}});
  const unsigned char* record = t.records[0].data();
  EXPECT_EQ(Search(&t.desc, 0, {0x41, DD, 0}), (std::vector<const unsigned char*>{record, record}));
  // Only the gap rule: the DD comes later.
  EXPECT_EQ(Search(&t.desc, 0, {0x41, 0, DD}, 1), (std::vector<const unsigned char*>{record}));
  EXPECT_TRUE(Search(&t.desc, 0, {0x41, 0x42, 0}).empty());
}

// Ascending position; at one position the two-byte rule first, then the
// gap rule, each in input order (the builder stores buckets reversed).
TEST(PatternSearch, HitOrder) {
  Table t = Build({{"AB", "41 42"}, {"A~C", "41 {0-2} 43"}, {"ABC", "41 42 43"}, {"A~B", "41 {0-0} 42"},
                   {"BC", "42 43"}, {"A~C again", "41 {0-5} 43"}});
  const auto names = Names(t, Search(t.mutable_desc(), 0, {0x41, 0x42, 0x43, 0x41, 0x43, 0}));
  const std::vector<std::string> expected = {"AB",  "ABC", "A~C",       "A~B", "A~C again",  // position 0
                                             "BC",                                           // position 1
                                             "A~C", "A~C again"};                            // position 3
  EXPECT_EQ(names, expected);
}

TEST(PatternSearch, SeveralTablesAndPositions) {
  Table a = Build({{"a", "41 42"}});
  Table b = Build({{"b", "42 43"}});
  SEARCH_BuscaTblDesc tables[2] = {a.desc(), b.desc()};
  const Bytes data = {0x41, 0x42, 0x43, 0x41, 0x42, 0x43};
  EXPECT_EQ(Names(a, Search(tables, 0, data)), (std::vector<std::string>{"a", "a"}));
  EXPECT_EQ(Names(b, Search(tables, 1, data)), (std::vector<std::string>{"b", "b"}));
  // Positions bound the start, not the data the program may read.
  EXPECT_EQ(Search(tables, 1, data, 1).size(), 0u);
  EXPECT_EQ(Search(tables, 1, data, 2).size(), 1u);
}

TEST(PatternSearch, FullListDropsLaterHits) {
  Table t = Build({{"AB", "41 42"}});
  const Bytes data = {0x41, 0x42, 0x41, 0x42, 0x41, 0x42, 0};
  const unsigned char* items[3] = {nullptr, nullptr, nullptr};
  SEARCH_BuscaTblList out{2, 0, items};
  SEARCH_BuscaTbl(0, t.mutable_desc(), data.data(), int(data.size()) - 1, int(data.size()), &out);
  EXPECT_EQ(out.count, 2u);
  EXPECT_EQ(items[2], nullptr);
  // Hits accumulate across searches; the list is never cleared.
  out.capacity = 3;
  SEARCH_BuscaTbl(0, t.mutable_desc(), data.data(), 2, int(data.size()), &out);
  EXPECT_EQ(out.count, 3u);
  EXPECT_EQ(items[2], t.Record(0).data());
}

TEST(PatternSearch, LocalSearchNeverAllocates) {
  Table t = Build({{"x", "41 {0-9} 42 {0-9} 43"}, {"y", "41 41 41"}});
  Bytes data(4096, 0x41);
  vrkalloc_log_enable(1);
  const uint32_t before = vrkalloc_requests();
  (void)Search(t.mutable_desc(), 0, data);
  EXPECT_EQ(vrkalloc_requests(), before);
  vrkalloc_log_enable(0);
}

// The default test process has no analysis module on its search path:
// registration changes nothing and searches stay local.
TEST(PatternSearch, RegistrationWithoutModuleIsWithoutEffect) {
  void* module = dlopen("qel.dll", RTLD_NOW);
  EXPECT_EQ(module, nullptr) << "a qel.dll is reachable from the default test process";
  if (module) dlclose(module);
  Table t = Build({{"AB", "41 42"}});
  SEARCH_BuscaTblRegisterTable(t.mutable_desc(), 0);
  SEARCH_BuscaTblRegisterTable(t.mutable_desc(), 0);
  EXPECT_EQ(Search(t.mutable_desc(), 0, {0x41, 0x42, 0}).size(), 1u);
}

// ---- Randomized comparison ----------------------------------------------

struct RandomCase {
  std::vector<PatternSource> sources;
  std::vector<std::vector<vrk::patterns::Element>> elements;
};

// Patterns over a small alphabet (so that they hit), with gaps, some filed
// under gap keys, some with 0xDD and 0xDF in their keys and heads.
// `wide`: any byte value, so that a gap's byte is often absent nearby.
RandomCase RandomPatterns(std::mt19937& rng, int count, bool wide) {
  static const uint8_t kAlphabet[] = {0x00, 0x41, 0x42, 0x43, 0x8B, DD, DF, 0xFF};
  auto byte = [&] { return wide ? uint8_t(rng()) : kAlphabet[rng() % std::size(kAlphabet)]; };
  RandomCase c;
  while (int(c.sources.size()) < count) {
    std::string text;
    const int length = 2 + int(rng() % 6);
    for (int i = 0; i < length; ++i) {
      char token[16];
      if (i > 0 && rng() % 4 == 0) {
        std::snprintf(token, sizeof token, "{0-%u} ", unsigned(rng() % 4 == 0 ? rng() % 255 : rng() % 5));
        text += token;
      }
      std::snprintf(token, sizeof token, "%02X ", byte());
      text += token;
    }
    std::vector<vrk::patterns::Element> e;
    uint16_t key;
    Bytes record;
    std::string error;
    if (!vrk::patterns::ParsePattern(text, e, error) || !vrk::patterns::EncodePattern(e, key, record, error)) continue;
    c.sources.push_back({"p" + std::to_string(c.sources.size()), text});
    c.elements.push_back(e);
  }
  return c;
}

Bytes RandomData(std::mt19937& rng, const RandomCase& c, size_t size, bool wide) {
  static const uint8_t kAlphabet[] = {0x00, 0x41, 0x42, 0x43, 0x8B, DD, DF, 0xFF, 0x10, 0x20};
  Bytes data(size);
  for (uint8_t& b : data) b = wide ? uint8_t(rng()) : kAlphabet[rng() % std::size(kAlphabet)];
  // Plant instances of random patterns, gaps filled with random bytes.
  for (int n = 0; n < int(size / 40); ++n) {
    const auto& e = c.elements[rng() % c.elements.size()];
    size_t at = rng() % size;
    for (const auto& el : e) {
      if (el.gap) {
        for (unsigned skip = rng() % (el.max_skip + 1u); skip > 0 && at < size; --skip) at++;
      } else if (at < size) {
        data[at++] = el.byte;
      }
    }
  }
  return data;
}

TEST(PatternSearch, RandomTablesAgreeWithReferenceAndMeaning) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const bool wide = round % 2 == 1;
    const RandomCase c = RandomPatterns(rng, 100 + int(rng() % 300), wide);
    Table table = Build(c.sources);
    // Short data too: searches of fewer than 256 positions go without the
    // gap index.
    const Bytes data = RandomData(rng, c, round % 8 == 0 ? 3 + rng() % 250 : 1000 + rng() % 5000, wide);
    const int length = int(data.size());
    const int positions = length - 1 - int(rng() % 3);

    std::vector<const unsigned char*> items(200000);
    SEARCH_BuscaTblList out{uint32_t(items.size()), 0, items.data()};
    SEARCH_BuscaTbl(0, table.mutable_desc(), data.data(), positions, length, &out);
    items.resize(out.count);

    // The table rules read word for word.
    std::vector<const uint8_t*> reference;
    vrk::test::ReferenceSearch(table.desc(), data.data(), positions, length, reference);
    ASSERT_EQ(std::vector<const uint8_t*>(items.begin(), items.end()), reference);

    // What the readable patterns mean. Under the key "b0 DD" the two-byte
    // rule also reads the gap-key patterns of b0, as whole literal records.
    std::vector<const uint8_t*> meant;
    for (int p = 0; p < positions; ++p) {
      for (size_t n = 0; n < c.elements.size(); ++n) {
        const auto& e = c.elements[n];
        if (e[0].byte != data[p]) continue;
        if (!e[1].gap && e[1].byte == data[p + 1] && vrk::test::PatternMatches(e, 0, data.data(), p, length)) {
          meant.push_back(table.Record(int(n)).data());
        } else if (e[1].gap && data[p + 1] == DD) {
          const Bytes& r = table.Record(int(n));
          if (p + 2 + r[0] <= length && std::memcmp(data.data() + p + 2, r.data() + 2, r[0]) == 0 &&
              vrk::test::ReferenceTail(data.data() + p + 2 + r[0], r.data() + 2 + r[0], length - p - 2 - r[0])) {
            meant.push_back(r.data());
          }
        }
      }
      for (size_t n = 0; n < c.elements.size(); ++n) {
        const auto& e = c.elements[n];
        if (e[0].byte == data[p] && e[1].gap && vrk::test::PatternMatches(e, 0, data.data(), p, length)) {
          meant.push_back(table.Record(int(n)).data());
        }
      }
    }
    ASSERT_EQ(std::vector<const uint8_t*>(items.begin(), items.end()), meant);
    if (data.size() > 1000) {
      EXPECT_GT(items.size(), 0u);
    }
  }
}

}  // namespace
