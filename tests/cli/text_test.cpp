// vrkutil convert, fold and icmp: outputs and exit statuses.
#include <gtest/gtest.h>

#include <sstream>

#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace {

using vrk::test::RunTool;

TEST(CliText, ConvertFoldCompare) {
  const vrk::test::TempDir d;
  const std::string latin1 = d.Write("latin1", "caf\xe9");
  const std::string bad = d.Write("bad", "ab\xc3\x41" "cd");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
    const char* err;
  } cases[] = {
      {{"convert", "-f", "latin1", "-t", "utf-8", latin1}, 0, "caf\xc3\xa9", ""},
      {{"conv", "-f", "28591", "-t", "65001", latin1}, 0, "caf\xc3\xa9", ""},
      // What was converted before an invalid byte is written.
      {{"convert", "-f", "utf-8", "-t", "latin1", bad}, 1, "ab", "byte offset 2"},
      {{"convert", "-f", "12345", "-t", "utf-8", latin1}, 1, "", "no character set has code page 12345"},
      {{"convert", "-f", "utf-8", latin1}, 2, "", "both -f FROM and -t TO are needed"},
      {{"fold", "\xe2\x84\xaa"}, 0, "\xe2\x84\xaa\n", ""},  // U+212A KELVIN SIGN keeps its length
      {{"fold", "--strict", "\xe2\x84\xaa"}, 0, "k\n", ""},
      {{"fold", "--turkic", "I"}, 0, "\xc4\xb1\n", ""},  // U+0131 LATIN SMALL LETTER DOTLESS I
      {{"fold", "--strict", "a\x80"}, 1, "", "not valid UTF-8"},
      {{"fold", "--strict"}, 2, "", "expected at least one TEXT"},
      {{"icmp", "K", "\xe2\x84\xaa"}, 0, "0\n", ""},
      {{"icmp", "--turkic", "I", "\xc4\xb1"}, 0, "0\n", ""},
      {{"icmp", "--length-first", "z", "\xc3\xa0"}, 0, "-1\n", ""},
      {{"icmp", "\x80", "a"}, 1, "", "malformed UTF-8"},
      {{"icmp", "a"}, 2, "", "expected exactly two texts"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    const auto r = RunTool(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

}  // namespace

namespace {

// Every registry number that this system's iconv serves under any of its
// names converts both ways, by number.
TEST(CliText, EveryServedCodePageConvertsBothWays) {
  const auto list = RunTool({"codepage", "--list"});
  ASSERT_EQ(list.status, 0);
  std::istringstream lines(list.out);
  std::string line;
  int served = 0;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string number, iconv;
    words >> number >> iconv;
    if (iconv == "-") continue;
    SCOPED_TRACE(line);
    ++served;
    const auto there = RunTool({"convert", "-f", "utf-8", "-t", number}, "A1");
    ASSERT_EQ(there.status, 0) << there.err;
    const auto back = RunTool({"convert", "-f", number, "-t", "utf-8"}, there.out);
    EXPECT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(back.out, "A1");
  }
  // Windows-1252, UTF-16, EUC-JP, UTF-7 ... are among them on any glibc.
  EXPECT_GT(served, 90);
}

}  // namespace
