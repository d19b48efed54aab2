// vrkutil's own options and the codepage subcommand.
#include <gtest/gtest.h>

#include "support/run_tool.h"

namespace {

using vrk::test::RunTool;

using Case = vrk::test::ToolCase;
constexpr auto Check = vrk::test::CheckTool;

TEST(Cli, ToolOptions) {
  const Case cases[] = {
      {{}, 2, "", "no command"},
      {{"frobnicate"}, 2, "", "unknown command 'frobnicate'"},
      {{"--version"}, 0, "vrkutil 1.4.3.9\n", ""},
  };
  for (const Case& c : cases) Check(c);
  const auto help = RunTool({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("codepage"), std::string::npos);
}

TEST(Cli, Codepage) {
  const Case cases[] = {
      {{"codepage", "utf-8"}, 0, "65001\n", ""},
      {{"codepage", "UTF-8", "65001", "0x4e4"}, 0, "65001\nutf-8\nx-ansi\n", ""},
      {{"codepage", "-1"}, 1, "", "no character set has code page -1"},  // the end marker
      {{"codepage", "utf8"}, 1, "", "unknown character-set name 'utf8'"},
      {{"codepage", "12345"}, 1, "", "no character set has code page 12345"},
      {{"codepage", "99999999999999999999999"}, 1, "", "unknown character-set name"},
      {{"codepage"}, 2, "", "expected at least one NAME or NUMBER"},
  };
  for (const Case& c : cases) Check(c);
  const auto mixed = RunTool({"codepage", "nope", "437"});
  EXPECT_EQ(mixed.status, 1);
  EXPECT_EQ(mixed.out, "cspc8codepage437\n");
  const auto help = RunTool({"codepage", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("usage: vrkutil codepage", 0), 0u);
}

}  // namespace
