// Case folding and comparison: the behaviours case by case, every record of
// the Unicode 3.2.0 data through all three operations, the table against the
// data file read here, and the copy's allocator calls.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "text_support.h"
#include "vrk_standin_ctl.h"
#include "vrk_text.h"

namespace {

using vrk::test::U8;

std::string FoldString(std::string s) {
  char* p = s.data();
  EXPECT_EQ(utf8foldstring(p), p);
  return s;
}

// The strict fold, or "(null)".
std::string FoldStrict(const std::string& s, int flags) {
  char* r = utf8foldstrict(s.c_str(), flags);
  if (r == nullptr) return "(null)";
  std::string out = r;
  utf8freeresult(r);
  return out;
}

// ---- The table's records, from the library's generated data file ----

struct Record {
  int length, kind;
  char status;
  char32_t source;
  const char* src;
  const char* folded;
};

const std::vector<Record>& Records() {
  static const std::vector<Record> records = [] {
    std::vector<Record> r;
    int length = 0;
#define VRK_FOLD_TABLE_BEGIN(n, count) length = n;
#define VRK_FOLD(kind, status, cp, src, folded) r.push_back({length, kind, status, cp, src, folded});
#define VRK_FOLD_TABLE_END(n)
#include "text/data/casefold_table.inc"
#undef VRK_FOLD_TABLE_BEGIN
#undef VRK_FOLD
#undef VRK_FOLD_TABLE_END
    return r;
  }();
  return records;
}

// ---- Behaviours ----

// One input through the in-place fold, the strict fold and the strict Turkic
// fold ("(null)" for a null result).
TEST(Fold, Cases) {
  const std::string kelvin = U8({0x212A}), i_dot = U8({0x130}), fi = U8({0xFB01}), big_sharp_s = U8({0x1E9E});
  const struct {
    const char* name;
    std::string in, in_place, strict, turkic;
  } kCases[] = {
      {"ASCII", "HELLO", "hello", "hello", "hello"},
      {"U+00DF folds to ss in place: two bytes each", U8({'S', 0xDF}), "sss", "sss", "sss"},
      {"U+0130: Turkic folding only", i_dot, i_dot, U8({'i', 0x307}), "i"},
      {"I: Turkic gives U+0131", "I", "i", "i", U8({0x131})},
      {"U+212A KELVIN SIGN: strict only", kelvin, kelvin, "k", "k"},
      {"U+FB03 ffi is the same length in place", U8({0xFB03}), "ffi", "ffi", "ffi"},
      {"U+FB01 fi changes length: strict only", fi, fi, "fi", "fi"},
      {"U+1F88: full record first", U8({0x1F88}), U8({0x1F80}), U8({0x1F00, 0x3B9}), U8({0x1F00, 0x3B9})},
      {"U+1F89: simple record first", U8({0x1F89}), U8({0x1F81}), U8({0x1F81}), U8({0x1F81})},
      {"U+1E9E (after 3.2.0)", big_sharp_s, big_sharp_s, big_sharp_s, big_sharp_s},
      {"mixed text", U8({'M', 0xDC, ' ', 0x212B}), U8({'m', 0xFC, ' ', 0x212B}), U8({'m', 0xFC, ' ', 0xE5}),
       U8({'m', 0xFC, ' ', 0xE5})},
      {"empty", "", "", "(null)", "(null)"},
      {"stops at a stray byte", "AB\x80" "CD", "ab\x80" "CD", "(null)", "(null)"},
      {"character cut short", "A\xC3", "a\xC3", "(null)", "(null)"},
      {"overlong forms are accepted", "A\xC0\x80", "a\xC0\x80", "a\xC0\x80", "a\xC0\x80"},
      // An overlong A is no A: only the shortest form has a record.
      {"overlong A stays", "\xC1\x81", "\xC1\x81", "\xC1\x81", "\xC1\x81"},
      {"overlong U+00C0 stays", "\xE0\x83\x80", "\xE0\x83\x80", "\xE0\x83\x80", "\xE0\x83\x80"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(FoldString(c.in), c.in_place);
    EXPECT_EQ(FoldStrict(c.in, 0), c.strict);
    EXPECT_EQ(FoldStrict(c.in, UTF8_FOLD_TURKIC), c.turkic);
  }
}

TEST(Icmp, Cases) {
  const struct {
    const char* name;
    std::string a, b;
    int flags, result;
  } cases[] = {
      {"ABC = abc", "ABC", "abc", 0, 0},
      {"abc > ab", "abc", "ab", 0, 1},
      {"stray byte first", "\x80", "a", 0, UTF8_ERR_INVALID},
      {"difference before the malformed byte", "b\x80", "a\x80", 0, 1},
      {"malformed before the difference", "a\x80" "b", "a\x80" "c", 0, UTF8_ERR_INVALID},
      {"cut short", "a\xC3", "a\xC3", 0, UTF8_ERR_INVALID},
      {"K = U+212A KELVIN SIGN", "K", U8({0x212A}), 0, 0},
      {"Kelvin steps differ", U8({0x212A, 'x'}), "KX", 0, 0},
      {"I = U+0131 with Turkic", "I", U8({0x131}), UTF8_FOLD_TURKIC, 0},
      {"I < U+0131 without", "I", U8({0x131}), 0, -1},
      {"U+00DF > s, length first", U8({0xDF}), "s", UTF8_CMP_LENGTHFIRST, 1},
      {"U+00DF > ss: folded per character", U8({0xDF}), "ss", 0, 1},
      {"a U+00E9 > az, length first", U8({'a', 0xE9}), "az", UTF8_CMP_LENGTHFIRST, 1},
      {"length first: 1 byte before 2", "z", U8({0xE0}), UTF8_CMP_LENGTHFIRST, -1},
      {"bytewise: z < U+00E0", "z", U8({0xE0}), 0, -1},
      {"U+0130 against i U+0307", U8({0x130}), U8({'i', 0x307}), 0, 1},
      {"overlong A is not a", "\xC1\x81", "a", 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(utf8icmp(c.a.c_str(), c.b.c_str(), c.flags), c.result);
  }
  EXPECT_EQ(utf8icmp(nullptr, "a", 0), UTF8_ERR_NULLARG);
  EXPECT_EQ(utf8icmp("a", nullptr, 0), UTF8_ERR_NULLARG);
}

// ---- Long runs of ASCII (the vector paths) ----

// Long strings of ASCII in mixed case, with one other character at each
// position: folding a string equals folding its two halves split at that
// character, and the comparison finds each kind of difference wherever it
// is, across the vector widths and the windows in which the comparison
// learns how far the strings go (256 bytes, then 512).
TEST(FoldLongRuns, EveryPositionAcrossVectorsAndWindows) {
  std::string base;
  for (int i = 0; i < 700; ++i) base += "Path/To/Some FILE_name-0123 "[i % 28];
  const std::string lower = FoldString(base);
  const struct {
    const char* name;
    std::string a, b;  // put at the position in the two strings
    int flags, order;
  } kChanges[] = {
      {"letters differ", "B", "c", 0, -1},
      {"case only", "Q", "q", 0, 0},
      {"U+00C9 against U+00E9", U8({0xC9}), U8({0xE9}), 0, 0},
      {"Turkic I against i", "I", "i", UTF8_FOLD_TURKIC, 1},
      {"I against i", "I", "i", 0, 0},
      {"b ends first", "x", "", 0, 1},
      {"a stray byte in both", "\x80", "\x80", 0, UTF8_ERR_INVALID},
  };
  for (size_t at = 0; at < 700; at += at < 80 ? 1 : 13) {
    SCOPED_TRACE(at);
    for (const auto& c : kChanges) {
      SCOPED_TRACE(c.name);
      const std::string a = base.substr(0, at) + c.a + base.substr(at);
      const std::string b = c.b.empty() ? base.substr(0, at) : base.substr(0, at) + c.b + base.substr(at);
      ASSERT_EQ(utf8icmp(a.c_str(), b.c_str(), c.flags), c.order);
      if (c.order == -1 || c.order == 1) {
        ASSERT_EQ(utf8icmp(b.c_str(), a.c_str(), c.flags), -c.order);
      }
    }
    const std::string s = base.substr(0, at) + U8({0xC9}) + base.substr(at);
    for (const int flags : {0, UTF8_FOLD_TURKIC}) {
      ASSERT_EQ(FoldStrict(s, flags), FoldStrict(s.substr(0, at + 2), flags) + FoldStrict(s.substr(at + 2), flags));
    }
    ASSERT_EQ(FoldString(s), lower.substr(0, at) + U8({0xE9}) + lower.substr(at));
    ASSERT_EQ(FoldString(base.substr(0, at) + "\x80" + base.substr(at)), lower.substr(0, at) + "\x80" + base.substr(at));
  }
}

// ---- Every record ----

// The first record of a source that a filter admits wins; the table's order
// of records with one source is part of the contract.
const Record* FirstAdmitted(char32_t source, unsigned kinds) {
  for (const Record& r : Records()) {
    if (r.source == source && (kinds & (1u << r.kind))) return &r;
  }
  return nullptr;
}

bool HasRecord(const char* bytes) {
  for (const Record& r : Records()) {
    if (std::strcmp(r.src, bytes) == 0) return true;
  }
  return false;
}

TEST(FoldData, EveryRecordThroughAllOperations) {
  ASSERT_EQ(Records().size(), 867u);
  for (const Record& r : Records()) {
    SCOPED_TRACE(testing::Message() << "U+" << std::hex << uint32_t(r.source) << " " << r.status);
    const std::string src = r.src;
    const Record* in_place = FirstAdmitted(r.source, 0b0011);
    EXPECT_EQ(FoldString(src), in_place ? in_place->folded : src);
    for (const int flags : {0, UTF8_FOLD_TURKIC}) {
      const Record* strict = FirstAdmitted(r.source, flags ? 0b1111 : 0b1011);
      ASSERT_NE(strict, nullptr);
      EXPECT_EQ(FoldStrict(src, flags), strict->folded) << "flags " << flags;
      EXPECT_EQ(FoldStrict(src + src, flags), std::string(strict->folded) + strict->folded);
      // Comparison folds one character at a time: a source equals its
      // folding when that is one character without a folding of its own,
      // and sorts after a folding of several characters (a longer prefix).
      if (utf8len(strict->folded) > 1) {
        EXPECT_EQ(utf8icmp(src.c_str(), strict->folded, flags), 1) << "flags " << flags;
      } else if (!HasRecord(strict->folded)) {
        EXPECT_EQ(utf8icmp(src.c_str(), strict->folded, flags), 0) << "flags " << flags;
      }
      EXPECT_EQ(utf8icmp(src.c_str(), src.c_str(), flags | UTF8_CMP_LENGTHFIRST), 0);
    }
  }
}

// The generated table against the data file, read and encoded here.
TEST(FoldData, TableMatchesTheUnicodeData) {
  std::ifstream file(VRK_SOURCE_DIR "/text/data/CaseFolding-3.2.0.txt");
  ASSERT_TRUE(file.is_open());
  std::map<std::pair<char32_t, char>, std::string> data;
  std::string line;
  while (std::getline(file, line)) {
    line = line.substr(0, line.find('#'));
    unsigned source = 0;
    char status = 0;
    char mapping[64] = {};
    if (std::sscanf(line.c_str(), "%x; %c; %63[0-9A-F ];", &source, &status, mapping) != 3) continue;
    std::string folded;
    std::istringstream codes(mapping);
    for (unsigned c; codes >> std::hex >> c;) folded += U8({char32_t(c)});
    data[{char32_t(source), status}] = folded;
  }
  ASSERT_EQ(data.size(), 867u);
  int counts[4] = {};
  for (const Record& r : Records()) {
    SCOPED_TRACE(testing::Message() << "U+" << std::hex << uint32_t(r.source));
    const auto it = data.find({r.source, r.status});
    ASSERT_NE(it, data.end());
    EXPECT_EQ(r.folded, it->second);
    EXPECT_EQ(r.src, U8({r.source}));
    EXPECT_EQ(int(std::strlen(r.src)), r.length);
    const bool same_length = std::strlen(r.folded) == std::strlen(r.src);
    const int kind = r.status == 'S' ? 1 : r.status == 'T' ? 2 : same_length ? 0 : 3;
    EXPECT_EQ(r.kind, kind);
    ++counts[r.length - 1];
  }
  EXPECT_EQ(std::vector<int>(counts, counts + 4), (std::vector<int>{27, 417, 385, 38}));
}

// ---- The copy's allocator calls ----

// The result grows from 2048 bytes in steps of 2048 and is shrunk to its
// exact size; a refused shrink leaves the larger block serving.
TEST(FoldStrictAlloc, PatternAndRefusals) {
  const std::string q3000(3000, 'Q'), lower3000(3000, 'q');
  const struct {
    std::string in;
    uint32_t refuse_nth;
    std::string out, trace;
  } kCases[] = {
      {"ABC", 0, "abc", "Prealloc(null,2048) Prealloc(4) Pfree "},
      {q3000, 0, lower3000, "Prealloc(null,2048) Prealloc(4096) Prealloc(3001) Pfree "},
      {"", 0, "(null)", ""},
      {"AB\x80", 0, "(null)", "Prealloc(null,2048) PSafeFree "},
      {"\x80", 0, "(null)", "PSafeFree(null) "},
      {q3000, 1, "(null)", "Prealloc(null,2048)! "},
      {q3000, 2, "(null)", "Prealloc(null,2048) Prealloc(4096)! Pfree "},
      {q3000, 3, lower3000, "Prealloc(null,2048) Prealloc(4096) Prealloc(3001)! Pfree "},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.in.size() << " bytes, refusing " << c.refuse_nth);
    vrkalloc_fail_nth(c.refuse_nth);
    vrk::test::StartTrace();
    EXPECT_EQ(FoldStrict(c.in, 0), c.out);
    EXPECT_EQ(vrk::test::Trace(), c.trace);
  }
  // Folding and comparing in place allocate nothing.
  vrk::test::StartTrace();
  EXPECT_EQ(FoldString("ABC"), "abc");
  EXPECT_EQ(utf8icmp("ABC", "abc", 0), 0);
  utf8freeresult(nullptr);
  EXPECT_EQ(vrk::test::Trace(), "");
}

}  // namespace
