// The pattern-table builder: the readable syntax, what it refuses, the
// records it writes and the index and bitmap around them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "patterns/pattern_builder.h"

namespace {

using namespace vrk::patterns;
using Bytes = std::vector<uint8_t>;

TEST(PatternBuilder, Syntax) {
  struct Case {
    const char* text;
    const char* formatted;  // null: refused
  } const kCases[] = {
      {"4D 5A 90", "4D 5A 90"},
      {"4d5a90", "4D 5A 90"},
      {"  4D\t5A  ", "4D 5A"},
      {"41 {0-3} 42", "41 {0-3} 42"},
      {"41{0-0}42", "41 {0-0} 42"},
      {"41 {0-254} 42", "41 {0-254} 42"},
      {"41 42 {0-7} 43 {0-1} 44", "41 42 {0-7} 43 {0-1} 44"},
      {"41 {0-255} 42", nullptr},      // window would not fit the gap code
      {"41 {1-3} 42", nullptr},        // no minimum gap length in the layout
      {"41 {0-3}", nullptr},           // gap at the end
      {"{0-3} 41 42", nullptr},        // gap first
      {"41 {0-3} {0-2} 42", nullptr},  // two gaps in a row
      {"41 ?? 42", nullptr},
      {"41 4", nullptr},
      {"41", nullptr},
      {"", nullptr},
      {"41 {0-3 42", nullptr},
      {"41 {0-x} 42", nullptr},
      {"41 {0-99999999999} 42", nullptr},
      {"41 G2", nullptr},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    std::vector<Element> e;
    std::string error;
    const bool ok = ParsePattern(c.text, e, error);
    EXPECT_EQ(ok, c.formatted != nullptr) << error;
    if (ok && c.formatted) {
      EXPECT_EQ(FormatPattern(e), c.formatted);
    }
    if (!ok) {
      EXPECT_FALSE(error.empty());
    }
  }
}

TEST(PatternBuilder, Records) {
  struct Case {
    const char* text;
    uint16_t key;
    Bytes record;
  } const kCases[] = {
      // Literals after the key form the head; the program is just the end.
      {"41 42 43 44", 0x4241, {2, 0, 0x43, 0x44, 0xDF}},
      {"41 42", 0x4241, {0, 0, 0xDF}},
      // Codes are fine in the key and the head.
      {"DD DF DD DF", 0xDFDD, {2, 0, 0xDD, 0xDF, 0xDF}},
      // The head ends at the first gap; the window is the gap's length + 1.
      {"41 42 43 {0-3} 44 45", 0x4241, {1, 0, 0x43, 0xDD, 4, 0x44, 0x45, 0xDF}},
      {"41 42 {0-0} DD", 0x4241, {0, 0, 0xDD, 1, 0xDD, 0xDF}},
      // One byte and a gap: the gap key of that byte, the gap code as byte
      // 1, and byte 0 the head length that makes the two-byte reading of
      // the record compare everything up to its end code.
      {"41 {0-3} 42", 0xDD41, {2, 0xDD, 4, 0x42, 0xDF}},
      {"41 {0-3} DF 43 {0-1} 44", 0xDD41, {6, 0xDD, 4, 0xDF, 0x43, 0xDD, 2, 0x44, 0xDF}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    std::vector<Element> e;
    uint16_t key = 0;
    Bytes record;
    std::string error;
    ASSERT_TRUE(ParsePattern(c.text, e, error)) << error;
    ASSERT_TRUE(EncodePattern(e, key, record, error)) << error;
    EXPECT_EQ(key, c.key);
    EXPECT_EQ(record, c.record);
  }
}

TEST(PatternBuilder, LongHeadsSpillIntoTheProgram) {
  std::string text = "41 42";
  for (int i = 0; i < 300; ++i) text += " 07";
  std::vector<Element> e;
  uint16_t key;
  Bytes record;
  std::string error;
  ASSERT_TRUE(ParsePattern(text, e, error));
  ASSERT_TRUE(EncodePattern(e, key, record, error)) << error;
  EXPECT_EQ(record[0], 255);
  EXPECT_EQ(record.size(), 2u + 300u + 1u);
  // Past the head, a code value can no longer be a literal.
  text += " DD";
  ASSERT_TRUE(ParsePattern(text, e, error));
  EXPECT_FALSE(EncodePattern(e, key, record, error));
  EXPECT_NE(error.find("{0-0} DD"), std::string::npos) << error;
}

TEST(PatternBuilder, RefusalsNameThePattern) {
  struct Case {
    const char* text;
    const char* reason;  // part of the message
  } const kCases[] = {
      {"41 42 {0-3} 43 DD", "DD"},          // literal code in a program
      {"41 42 {0-3} 43 DF 44", "DF"},
      {"41 {0-3} 42 DF", "DF"},             // after a gap key's first gap
      {"41 DD 42", "gap key"},              // second byte DD
      {"41 {0-300} 42", "{0-254}"},
      {"41 {2-5} 42", "start at 0"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    Table table;
    std::string error;
    EXPECT_FALSE(BuildTable({{"fine", "41 42"}, {"the-bad-one", c.text}}, table, error));
    EXPECT_NE(error.find("\"the-bad-one\""), std::string::npos) << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_EQ(table.size(), 0u);
  }
}

TEST(PatternBuilder, IndexAndBitmapDescribeTheBuckets) {
  std::vector<PatternSource> sources;
  for (int i = 0; i < 40; ++i) {
    char text[32];
    std::snprintf(text, sizeof text, i % 3 ? "%02X %02X 00" : "%02X {0-2} 00", (i * 7) % 5, i % 4);
    sources.push_back({"p" + std::to_string(i), text});
  }
  Table table;
  std::string error;
  ASSERT_TRUE(BuildTable(sources, table, error)) << error;
  const SEARCH_BuscaTblDesc& d = table.desc();
  EXPECT_EQ(d.count, 40);
  const auto* index = static_cast<const SEARCH_BuscaTblBucket*>(d.index);
  uint32_t total = 0;
  for (uint32_t key = 0; key < 65536; ++key) {
    const bool bit = (d.bitmap[key >> 3] >> (key & 7)) & 1;
    EXPECT_EQ(bit, index[key].count != 0) << key;
    total += index[key].count;
    for (uint32_t i = 0; i < index[key].count; ++i) {
      const int number = table.NumberOf(d.patterns[index[key].first + i]);
      ASSERT_GE(number, 0);
      EXPECT_EQ(table.Key(number), key);
      EXPECT_EQ(table.Slot(number), index[key].first + i);
      // Later input first inside a bucket.
      if (i > 0) {
        EXPECT_LT(number, table.NumberOf(d.patterns[index[key].first + i - 1]));
      }
    }
  }
  EXPECT_EQ(total, 40u);
}

TEST(PatternBuilder, PatternLists) {
  std::vector<PatternSource> out;
  std::string error;
  ASSERT_TRUE(ParsePatternList("# header\n\nmz: 4D 5A # trailing\n  41 {0-1} 42\r\nname with spaces : 43 44\n", out,
                               error));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].name, "mz");
  EXPECT_EQ(out[1].name, "line 4");
  EXPECT_EQ(out[2].name, "name with spaces");
  Table table;
  EXPECT_TRUE(BuildTable(out, table, error)) << error;
  EXPECT_FALSE(ParsePatternList(": 41 42\n", out, error));
  EXPECT_FALSE(ReadPatternFile("/nonexistent/patterns.txt", out, error));
}

}  // namespace
