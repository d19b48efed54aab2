// The pattern-table builder: the readable syntax, what it refuses, the
// records it writes and the index and bitmap around them.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "patterns/pattern_list.h"
#include "search/pattern_builder.h"

namespace {

using namespace vrk::search::builder;
using Bytes = std::vector<uint8_t>;

// Key 41 42 and 300 literals: more than a head can hold.
const std::string kLongHead = [] {
  std::string text = "41 42";
  for (int i = 0; i < 300; ++i) text += " 07";
  return text;
}();

TEST(PatternBuilder, Syntax) {
  const std::pair<const char*, const char*> kAccepted[] = {
      {"4D 5A 90", "4D 5A 90"},          {"4d5a90", "4D 5A 90"},         {"  4D\t5A  ", "4D 5A"},
      {"41{0-0}42", "41 {0-0} 42"},      {"41 {0-254} 42", "41 {0-254} 42"},
      {"41 42 {0-7} 43 {0-1} 44", "41 42 {0-7} 43 {0-1} 44"}};
  for (const auto& [text, formatted] : kAccepted) {
    Pattern e;
    std::string error;
    EXPECT_TRUE(ParsePattern(text, e, error)) << text << ": " << error;
    EXPECT_EQ(FormatPattern(e), formatted);
  }
  // {0-255}: the window would not fit the gap code; {1-3}: the layout has
  // no minimum gap length.
  for (const char* text : {"41 {0-255} 42", "41 {1-3} 42", "41 {0-3}", "{0-3} 41 42", "41 {0-3} {0-2} 42", "41 ?? 42",
                           "41 4", "41", "", "41 {0-3 42", "41 {0-x} 42", "41 {0-99999999999} 42"}) {
    Pattern e;
    std::string error;
    EXPECT_FALSE(ParsePattern(text, e, error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
}

TEST(PatternBuilder, Records) {
  Bytes spilled(303, 0x07);
  spilled[0] = 255, spilled[1] = 0, spilled[302] = 0xDF;
  const struct {
    std::string text;
    uint16_t key;
    Bytes record;
  } kCases[] = {
      // Literals after the key form the head; the program is just the end.
      {"41 42 43 44", 0x4241, {2, 0, 0x43, 0x44, 0xDF}},
      {"41 42", 0x4241, {0, 0, 0xDF}},
      {"DD DF DD DF", 0xDFDD, {2, 0, 0xDD, 0xDF, 0xDF}},  // codes are fine in the key and the head
      // The head ends at the first gap; the window is the gap's length + 1.
      {"41 42 43 {0-3} 44 45", 0x4241, {1, 0, 0x43, 0xDD, 4, 0x44, 0x45, 0xDF}},
      {"41 42 {0-0} DD", 0x4241, {0, 0, 0xDD, 1, 0xDD, 0xDF}},
      // One byte and a gap: the gap key of that byte, the gap code as byte
      // 1, and byte 0 the head length that makes the two-byte reading of
      // the record compare everything up to its end code.
      {"41 {0-3} 42", 0xDD41, {2, 0xDD, 4, 0x42, 0xDF}},
      {"41 {0-3} DF 43 {0-1} 44", 0xDD41, {6, 0xDD, 4, 0xDF, 0x43, 0xDD, 2, 0x44, 0xDF}},
      {kLongHead, 0x4241, spilled},  // a head longer than 255 goes on in the program
  };
  for (const auto& c : kCases) {
    Pattern e;
    Filed filed;
    std::string error;
    ASSERT_TRUE(ParsePattern(c.text, e, error) && EncodePattern(e, filed, error)) << c.text << ": " << error;
    EXPECT_EQ(filed.key, c.key) << c.text;
    EXPECT_EQ(filed.record, c.record) << c.text;
  }
}

TEST(PatternBuilder, RefusalsNameThePatternByPosition) {
  const struct {
    std::string text;
    const char* reason;  // part of the message
  } kCases[] = {
      {"41 42 {0-3} 43 DD", "DD"},  // literal code in a program
      {"41 42 {0-3} 43 DF 44", "DF"},
      {"41 {0-3} 42 DF", "DF"},  // after a gap key's first gap
      {"41 DD 42", "gap key"},   // second byte DD
      {"41 {0-300} 42", "{0-254}"},
      {"41 {2-5} 42", "start at 0"},
      {kLongHead + " DD", "{0-0} DD"},  // past the head, a code is no literal
  };
  for (const auto& c : kCases) {
    Table table;
    Refusal refusal;
    const std::vector<std::string> texts = {"41 42", c.text, "42 43"};
    EXPECT_FALSE(BuildTable(texts, table, refusal)) << c.text;
    EXPECT_EQ(refusal.pattern, 1u) << c.text;
    EXPECT_NE(refusal.reason.find(c.reason), std::string::npos) << refusal.reason;
    EXPECT_EQ(table.size(), 0u);
  }
}

TEST(PatternBuilder, PatternLists) {
  std::vector<vrk::patterns::PatternSource> out;
  std::string error;
  ASSERT_TRUE(vrk::patterns::ParsePatternList("# header\n\nmz: 4D 5A # trailing\n  41 {0-1} 42\r\nname with spaces : 43 44\n", out,
                               error));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].name, "mz");
  EXPECT_EQ(out[1].name, "line 4");
  EXPECT_EQ(out[2].name, "name with spaces");
  EXPECT_EQ(out[1].text, "41 {0-1} 42");
  EXPECT_FALSE(vrk::patterns::ParsePatternList(": 41 42\n", out, error));
  EXPECT_FALSE(vrk::patterns::ReadPatternFile("/nonexistent/patterns.txt", out, error));
}

}  // namespace
