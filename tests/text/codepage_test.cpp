// Code-page registry: names of a sample of code pages written out here,
// every name of the table back to its number in any case, unknown names and
// numbers.
#include <gtest/gtest.h>
#include <strings.h>

#include <cctype>
#include <string>

#include "support/codepage_rows.h"
#include "vrk_text.h"

namespace {

using Row = vrk::test::CodePageRow;
constexpr const auto& kRows = vrk::test::kCodePageRows;

std::string MixCase(const char* name, unsigned pattern) {
  std::string s = name;
  for (size_t i = 0; i < s.size(); ++i) {
    if ((pattern >> (i % 8)) & 1u) s[i] = char(std::toupper(static_cast<unsigned char>(s[i])));
  }
  return s;
}

// Written out independently of the table. Most code pages have several
// names; the one returned is not the first in table order.
TEST(CodePage, NameOfCodePages) {
  const Row kExpected[] = {
      {37, "ebcdic-cp-wt"},  {437, "cspc8codepage437"}, {858, "pc-multilingual-850+euro"}, {874, "windows-874"},
      {932, "shift_jis"},    {936, "gbk"},               {949, "ks_c_5601"},   {1142, "ebcdic-dk-277+euro"},
      {1145, "cp01145"},     {1201, "utf-16be"},         {1250, "x-cp1250"},   {1252, "x-ansi"},
      {20127, "us"},         {20838, "ibm-thai"},        {21866, "koi8-u"},    {28591, "iso_8859-1"},
      {28592, "iso-ir-101"}, {28595, "iso_8859-5:1988"}, {28597, "iso-8859-7"}, {51932, "x-euc"},
      {65000, "x-unicode-2-0-utf-7"}, {65001, "utf-8"},  {708, "asmo-708"},   {950, "big5"},
      {1200, "iso-10646-ucs-2"}, {10000, "macintosh"},   {20108, "norwegian"}, {-1, "LAST"},
      {0, nullptr},          {1, nullptr},               {-2, nullptr},        {INT32_MAX, nullptr},
      {INT32_MIN, nullptr},
  };
  for (const Row& e : kExpected) {
    SCOPED_TRACE(e.codepage);
    const char* name = charconv_GetCPName(e.codepage);
    if (e.name == nullptr) {
      EXPECT_EQ(name, nullptr);
    } else {
      ASSERT_NE(name, nullptr);
      EXPECT_STREQ(name, e.name);
    }
  }
}

TEST(CodePage, NumberOfEveryNameInAnyCase) {
  ASSERT_EQ(std::size(kRows), 408u);
  for (size_t i = 0; i < std::size(kRows); ++i) {
    const Row& row = kRows[i];
    SCOPED_TRACE(row.name);
    for (size_t j = i + 1; j < std::size(kRows); ++j) EXPECT_NE(strcasecmp(row.name, kRows[j].name), 0);
    if (row.codepage == -1) continue;  // "LAST" is found by number only
    EXPECT_EQ(charconv_GetCP(row.name), row.codepage);
    EXPECT_EQ(charconv_GetCP(MixCase(row.name, 0x55).c_str()), row.codepage);
    EXPECT_EQ(charconv_GetCP(MixCase(row.name, 0xff).c_str()), row.codepage);
    // The name returned for the number is one of its own.
    EXPECT_EQ(charconv_GetCP(charconv_GetCPName(row.codepage)), row.codepage);
  }
  const char* kUnknown[] = {"utf8", "", "LAST", "last", "utf-8 ", "x"};
  for (const char* name : kUnknown) EXPECT_EQ(charconv_GetCP(name), -1) << '"' << name << '"';
}

}  // namespace
