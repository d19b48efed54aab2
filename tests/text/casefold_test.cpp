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

#include "alloc_trace.h"
#include "vrk_standin_ctl.h"
#include "vrk_text.h"

namespace {

// UTF-8 of code points, written independently of the library.
std::string U8(std::initializer_list<char32_t> code_points) {
  std::string out;
  for (char32_t c : code_points) {
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += {char(0xC0 | (c >> 6)), char(0x80 | (c & 0x3F))};
    } else if (c < 0x10000) {
      out += {char(0xE0 | (c >> 12)), char(0x80 | ((c >> 6) & 0x3F)), char(0x80 | (c & 0x3F))};
    } else {
      out += {char(0xF0 | (c >> 18)), char(0x80 | ((c >> 12) & 0x3F)), char(0x80 | ((c >> 6) & 0x3F)),
              char(0x80 | (c & 0x3F))};
    }
  }
  return out;
}

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

struct FoldCase {
  const char* name;
  std::string in;
  std::string out;
};

TEST(FoldString, Cases) {
  const FoldCase cases[] = {
      {"ASCII", "HELLO", "hello"},
      // U+00DF LATIN SMALL LETTER SHARP S folds to ss, two bytes like itself
      {"Stra U+00DF e", U8({'S', 't', 'r', 'a', 0xDF, 'e'}), "strasse"},
      {"U+0130 LATIN CAPITAL LETTER I WITH DOT ABOVE is unchanged", U8({0x130}), U8({0x130})},
      {"U+212A KELVIN SIGN is unchanged", U8({0x212A}), U8({0x212A})},
      {"I folds to i", "I", "i"},
      {"stops at a stray byte", "AB\x80" "CD", "ab\x80" "CD"},
      {"stops at a malformed character", "AB\xC3" "CD", "ab\xC3" "CD"},
      {"U+00C0 LATIN CAPITAL LETTER A WITH GRAVE", U8({0xC0}), U8({0xE0})},
      {"U+0391 GREEK CAPITAL LETTER ALPHA", U8({0x391}), U8({0x3B1})},
      {"U+FB03 LATIN SMALL LIGATURE FFI becomes ffi", U8({0xFB03}), "ffi"},
      {"U+FB01 LATIN SMALL LIGATURE FI changes length: unchanged", U8({0xFB01}), U8({0xFB01})},
      {"U+10400 DESERET CAPITAL LETTER LONG I", U8({0x10400}), U8({0x10428})},
      {"U+1F88 takes its simple mapping in place", U8({0x1F88}), U8({0x1F80})},
      {"U+1E9E (after 3.2.0) is unchanged", U8({0x1E9E}), U8({0x1E9E})},
      {"empty", "", ""},
  };
  for (const FoldCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(FoldString(c.in), c.out);
  }
}

struct StrictCase {
  const char* name;
  std::string in;
  int flags;
  std::string out;  // "(null)" for a null result
};

TEST(FoldStrict, Cases) {
  const StrictCase cases[] = {
      {"U+212A KELVIN SIGN", U8({0x212A}), 0, "k"},
      {"U+0130 full folding", U8({0x130}), 0, U8({'i', 0x307})},
      {"U+0130 Turkic", U8({0x130}), UTF8_FOLD_TURKIC, "i"},
      {"I Turkic gives U+0131 LATIN SMALL LETTER DOTLESS I", "I", UTF8_FOLD_TURKIC, U8({0x131})},
      {"I", "I", 0, "i"},
      {"U+1F88: full record first", U8({0x1F88}), 0, U8({0x1F00, 0x3B9})},
      {"U+1F89: simple record first", U8({0x1F89}), 0, U8({0x1F81})},
      {"U+1FBC: full record first", U8({0x1FBC}), 0, U8({0x3B1, 0x3B9})},
      {"U+017F LATIN SMALL LETTER LONG S", U8({0x17F}), 0, "s"},
      {"U+0149 LATIN SMALL LETTER N PRECEDED BY APOSTROPHE", U8({0x149}), 0, U8({0x2BC, 'n'})},
      {"U+2126 OHM SIGN", U8({0x2126}), 0, U8({0x3C9})},
      {"U+FB01 LATIN SMALL LIGATURE FI", U8({0xFB01}), 0, "fi"},
      {"U+FB05 LATIN SMALL LIGATURE LONG S T", U8({0xFB05}), 0, "st"},
      {"U+03F2 GREEK LUNATE SIGMA SYMBOL", U8({0x3F2}), 0, U8({0x3C3})},
      {"U+1E9E (after 3.2.0)", U8({0x1E9E}), 0, U8({0x1E9E})},
      {"U+2132 (after 3.2.0)", U8({0x2132}), 0, U8({0x2132})},
      {"U+2183 (after 3.2.0)", U8({0x2183}), 0, U8({0x2183})},
      {"U+04C0 (after 3.2.0)", U8({0x4C0}), 0, U8({0x4C0})},
      {"U+10A0 (after 3.2.0)", U8({0x10A0}), 0, U8({0x10A0})},
      {"mixed text", U8({'M', 0xDC, 'N', 'C', 'H', 'E', 'N', ' ', 0x212B}), 0,
       U8({'m', 0xFC, 'n', 'c', 'h', 'e', 'n', ' ', 0xE5})},
      {"empty", "", 0, "(null)"},
      {"stray byte", "a\x80", 0, "(null)"},
      {"character cut short", "a\xC3", 0, "(null)"},
      {"malformed first", "\xC3\x41", 0, "(null)"},
      {"overlong forms are accepted", "A\xC0\x80", 0, "a\xC0\x80"},
      // An overlong A is no A: only the shortest form has a record.
      {"overlong 2-byte A stays", "\xC1\x81", 0, "\xC1\x81"},
      {"overlong 3-byte K stays", "\xE0\x81\x8B", 0, "\xE0\x81\x8B"},
      {"overlong 2-byte U+00C0 stays", "\xE0\x83\x80", 0, "\xE0\x83\x80"},
  };
  for (const StrictCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(FoldStrict(c.in, c.flags), c.out);
  }
}

struct CompareCase {
  const char* name;
  std::string a, b;
  int flags;
  int result;
};

TEST(Icmp, Cases) {
  const CompareCase cases[] = {
      {"ABC = abc", "ABC", "abc", 0, 0},
      {"a < b", "a", "b", 0, -1},
      {"abc > ab", "abc", "ab", 0, 1},
      {"empty strings", "", "", 0, 0},
      {"stray byte first", "\x80", "a", 0, UTF8_ERR_INVALID},
      {"stray byte second", "a", "\x80", 0, UTF8_ERR_INVALID},
      {"difference before the malformed byte", "b\x80", "a\x80", 0, 1},
      {"malformed before the difference", "a\x80" "b", "a\x80" "c", 0, UTF8_ERR_INVALID},
      {"cut short", "a\xC3", "a\xC3", 0, UTF8_ERR_INVALID},
      {"K = U+212A KELVIN SIGN", "K", U8({0x212A}), 0, 0},
      {"Kelvin steps differ", U8({0x212A, 'x'}), "KX", 0, 0},
      {"I = U+0131 with Turkic", "I", U8({0x131}), UTF8_FOLD_TURKIC, 0},
      {"I < U+0131 without", "I", U8({0x131}), 0, -1},
      {"U+00DF > s", U8({0xDF}), "s", 0, 1},
      {"U+00DF > s, length first", U8({0xDF}), "s", UTF8_CMP_LENGTHFIRST, 1},
      {"U+00DF > ss: folded per character", U8({0xDF}), "ss", 0, 1},
      {"a U+00E9 > az", U8({'a', 0xE9}), "az", 0, 1},
      {"a U+00E9 > az, length first", U8({'a', 0xE9}), "az", UTF8_CMP_LENGTHFIRST, 1},
      {"length first: 1 byte before 2", "z", U8({0xE0}), UTF8_CMP_LENGTHFIRST, -1},
      {"bytewise: z < U+00E0", "z", U8({0xE0}), 0, -1},
      {"U+0391 = U+03B1 GREEK ALPHA", U8({0x391}), U8({0x3B1}), 0, 0},
      {"U+10400 = U+10428 DESERET", U8({0x10400}), U8({0x10428}), 0, 0},
      {"U+0130 against i U+0307", U8({0x130}), U8({'i', 0x307}), 0, 1},
      {"overlong A is not a", "\xC1\x81", "a", 0, 1},
  };
  for (const CompareCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(utf8icmp(c.a.c_str(), c.b.c_str(), c.flags), c.result);
  }
  EXPECT_EQ(utf8icmp(nullptr, "a", 0), UTF8_ERR_NULLARG);
  EXPECT_EQ(utf8icmp("a", nullptr, 0), UTF8_ERR_NULLARG);
  EXPECT_EQ(utf8icmp(nullptr, nullptr, 0), UTF8_ERR_NULLARG);
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
  EXPECT_EQ(counts[0], 27);
  EXPECT_EQ(counts[1], 417);
  EXPECT_EQ(counts[2], 385);
  EXPECT_EQ(counts[3], 38);
}

// ---- The copy's allocator calls ----

TEST(FoldStrictAlloc, Pattern) {
  vrk::test::StartTrace();
  EXPECT_EQ(FoldStrict("ABC", 0), "abc");
  EXPECT_EQ(vrk::test::Trace(), "Prealloc(null,2048) Prealloc(4) Pfree ");

  // 3000 letters: 2048, then 4096 when the 2048th byte and the terminator
  // no longer fit, then the exact shrink.
  vrk::test::StartTrace();
  EXPECT_EQ(FoldStrict(std::string(3000, 'Q'), 0), std::string(3000, 'q'));
  EXPECT_EQ(vrk::test::Trace(), "Prealloc(null,2048) Prealloc(4096) Prealloc(3001) Pfree ");

  vrk::test::StartTrace();
  EXPECT_EQ(FoldStrict("", 0), "(null)");
  EXPECT_EQ(vrk::test::Trace(), "");

  vrk::test::StartTrace();
  EXPECT_EQ(FoldStrict("AB\x80", 0), "(null)");
  EXPECT_EQ(vrk::test::Trace(), "Prealloc(null,2048) PSafeFree ");

  vrk::test::StartTrace();
  EXPECT_EQ(FoldStrict("\x80", 0), "(null)");
  EXPECT_EQ(vrk::test::Trace(), "PSafeFree(null) ");

  // Folding and comparing in place allocate nothing.
  vrk::test::StartTrace();
  EXPECT_EQ(FoldString("ABC"), "abc");
  EXPECT_EQ(utf8icmp("ABC", "abc", 0), 0);
  EXPECT_EQ(vrk::test::Trace(), "");
}

TEST(FoldStrictAlloc, RefusedAllocations) {
  const std::string text(3000, 'Q');
  vrk::test::StartTrace();
  vrkalloc_fail_nth(1);
  EXPECT_EQ(FoldStrict(text, 0), "(null)");
  EXPECT_EQ(vrk::test::Trace(), "Prealloc(null,2048)! ");

  vrk::test::StartTrace();
  vrkalloc_fail_nth(2);
  EXPECT_EQ(FoldStrict(text, 0), "(null)");
  EXPECT_EQ(vrk::test::Trace(), "Prealloc(null,2048) Prealloc(4096)! Pfree ");

  // A refused shrink: the larger buffer serves.
  vrkalloc_fail_nth(3);
  EXPECT_EQ(FoldStrict(text, 0), std::string(3000, 'q'));
}

}  // namespace
