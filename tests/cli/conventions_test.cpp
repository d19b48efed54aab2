// One command-line behaviour for every subcommand, whichever it is: the
// list of commands comes from `vrkutil --help`, so a new one is covered.
#include <gtest/gtest.h>

#include <unistd.h>

#include <sstream>

#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace vrk::test {
namespace {

std::vector<std::string> Commands() {
  const ToolResult r = RunTool({"--help"});
  std::vector<std::string> names;
  std::istringstream lines(r.out.substr(r.out.find("Commands:")));
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line) && line.starts_with("  ")) {
    std::istringstream words(line);
    names.emplace_back();
    words >> names.back();
  }
  return names;
}

TEST(CliConventions, EveryCommandParsesTheSameWay) {
  // Some commands write where they are told (samples): into a scratch folder.
  const TempDir scratch;
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(scratch.path().c_str()), 0);
  const std::vector<std::string> commands = Commands();
  ASSERT_GE(commands.size(), 15u);
  for (const std::string& c : commands) {
    SCOPED_TRACE(c);
    for (const char* help : {"--help", "-h"}) {
      const ToolResult r = RunTool({c, help});
      EXPECT_EQ(r.status, 0);
      EXPECT_TRUE(r.out.starts_with("usage: vrkutil " + c + " ")) << r.out;
    }
    // An unknown option is bad usage, however it is spelt, never a file name.
    for (const char* bogus : {"--bogus", "--bogus=1", "-Q"}) {
      const ToolResult r = RunTool({c, bogus, "x"});
      EXPECT_EQ(r.status, 2) << bogus;
      EXPECT_NE(r.err.find("unknown option"), std::string::npos) << r.err;
      EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    }
    // After "--", --help is an operand like any other.
    EXPECT_FALSE(RunTool({c, "--", "--help"}).out.starts_with("usage:"));
  }
  EXPECT_EQ(chdir(cwd), 0);
}

// "-" is standard input wherever a file is read; options bundle and take
// their values in every spelling.
TEST(CliConventions, StandardInputAndOptionSpellings) {
  const std::string digits = "123456789";
  const ToolCase cases[] = {
      {{"crc32", "-"}, 0, "cbf43926  -\n", ""},
      {{"crc32"}, 0, "cbf43926  -\n", ""},
      {{"md5", "-"}, 0, "25f9e794323b453885f5181f1b624d0b  -\n", ""},
      {{"md5", "--limit=3", "-"}, 0, "202cb962ac59075b964b07152d234b70  -\n", ""},
      {{"convert", "--from=utf-8", "-tutf-16le", "-"}, 0, std::string("1\0002\0003\0004\0005\0006\0007\0008\0009\0", 18), ""},
      {{"sig", "Demo", "-"}, 0, "Demo crc 37 0x36e6575d\n", ""},
      {{"patterns", "-p", "33 34", "-"}, 1, "-:2:33 34\n", ""},
      {{"pe", "-"}, 1, "", ""},  // read, and found not to be PE
      {{"scan", "-"}, 0, "", ""},
  };
  for (const ToolCase& c : cases) {
    std::string joined;
    for (const std::string& a : c.args) joined += a + ' ';
    SCOPED_TRACE(joined);
    const ToolResult r = RunTool(c.args, digits);
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.args[0] == "scan") {
      EXPECT_NE(r.out.find("Files: 1\nErrors: 0\n"), std::string::npos) << r.out;
    } else if (c.args[0] == "pe") {
      EXPECT_EQ(r.err, "vrkutil: -: not a PE file (no MZ header)\n");
    } else {
      EXPECT_EQ(r.out, c.out);
    }
  }
}

}  // namespace
}  // namespace vrk::test
