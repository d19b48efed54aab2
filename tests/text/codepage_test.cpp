// Code-page registry: every code page and every name, both ways, with the
// sorted copies present. The fallback scans are covered by the load tests,
// which refuse the copies' allocations.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <strings.h>

#include "vrk_text.h"

namespace {

struct Expected {
  int32_t codepage;
  const char* name;        // returned with the sorted copy present
  const char* first_name;  // the first in table order
};

struct Row {
  int32_t codepage;
  const char* name;
};

// The library's own rows, read from its data file.
constexpr Row kRows[] = {
#define VRK_CODEPAGE(number, name) {number, name},
#include "text/codepage_table.inc"
#undef VRK_CODEPAGE
};

constexpr Expected kExpected[] = {
#include "codepage_expected.inc"
};

std::string MixCase(const char* name, unsigned pattern) {
  std::string s = name;
  for (size_t i = 0; i < s.size(); ++i) {
    if ((pattern >> (i % 8)) & 1u) s[i] = char(std::toupper(static_cast<unsigned char>(s[i])));
  }
  return s;
}

TEST(CodePage, NameOfEveryCodePage) {
  EXPECT_EQ(std::size(kExpected), 144u);
  for (const Expected& e : kExpected) {
    SCOPED_TRACE(e.codepage);
    const char* name = charconv_GetCPName(e.codepage);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, e.name);
  }
}

TEST(CodePage, NumberOfEveryName) {
  ASSERT_EQ(std::size(kRows), 408u);
  for (const Row& row : kRows) {
    if (row.codepage == -1) continue;  // "LAST" is found by number only
    SCOPED_TRACE(row.name);
    EXPECT_EQ(charconv_GetCP(row.name), row.codepage);
    EXPECT_EQ(charconv_GetCP(MixCase(row.name, 0x55).c_str()), row.codepage);
    EXPECT_EQ(charconv_GetCP(MixCase(row.name, 0xff).c_str()), row.codepage);
  }
}

TEST(CodePage, NamesAreUniqueIgnoringCase) {
  for (size_t i = 0; i < std::size(kRows); ++i) {
    for (size_t j = i + 1; j < std::size(kRows); ++j) {
      EXPECT_NE(strcasecmp(kRows[i].name, kRows[j].name), 0) << kRows[i].name;
    }
  }
}

TEST(CodePage, ReturnedNameMapsBack) {
  for (const Expected& e : kExpected) {
    if (e.codepage == -1) continue;  // "LAST" is no name a lookup finds
    EXPECT_EQ(charconv_GetCP(charconv_GetCPName(e.codepage)), e.codepage) << e.codepage;
  }
}

TEST(CodePage, Lookups) {
  struct {
    const char* name;
    int32_t codepage;
  } const kNames[] = {
      {"utf-8", 65001}, {"UTF-8", 65001}, {"Utf-8", 65001}, {"utf8", -1},       {"", -1},
      {"LAST", -1},     {"last", -1},     {"LaSt", -1},     {"utf-8 ", -1},     {"iso-8859-1", 28591},
      {"windows-1252", 1252}, {"ebcdic-cp-us", 37}, {"x", -1},
  };
  for (const auto& c : kNames) EXPECT_EQ(charconv_GetCP(c.name), c.codepage) << '"' << c.name << '"';

  struct {
    int32_t codepage;
    const char* name;  // null: unknown number
  } const kNumbers[] = {
      {65001, "utf-8"}, {28591, "iso_8859-1"}, {1252, "x-ansi"}, {37, "ebcdic-cp-wt"}, {20127, "us"},
      {0, nullptr},     {1, nullptr},          {-1, "LAST"},     {-2, nullptr},         {INT32_MAX, nullptr},
      {INT32_MIN, nullptr},
  };
  for (const auto& c : kNumbers) {
    SCOPED_TRACE(c.codepage);
    if (c.name) {
      EXPECT_STREQ(charconv_GetCPName(c.codepage), c.name);
    } else {
      EXPECT_EQ(charconv_GetCPName(c.codepage), nullptr);
    }
  }
}

}  // namespace
