// The os, path and tempname subcommands.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace {

using vrk::test::RunTool;

using Case = vrk::test::ToolCase;
constexpr auto Check = vrk::test::CheckTool;

TEST(Cli, PathSplitAndMake) {
  const Case cases[] = {
      {{"path", "split", "/usr/lib"}, 0, "path=/usr/lib\ndir=/usr/lib/\nfname=\next=\n", ""},
      {{"os", "splitpath", "d/a.tar.gz", ".rc"},
       0,
       "path=d/a.tar.gz\ndir=d/\nfname=a.tar\next=.gz\n\npath=.rc\ndir=\nfname=.rc\next=\n",
       ""},
      {{"path", "split", std::string(5000, 'n') + ".txt"},
       0,
       "path=" + std::string(5000, 'n') + ".txt\ndir=\nfname=" + std::string(254, 'n') + "\next=\n",
       ""},
      {{"path", "make", "--dir", "a", "--name", "b", "--ext", "txt"}, 0, "a/b.txt\n", ""},
      {{"os", "makepath", "--ext", ".txt", "--name", "b", "--dir", "a/"}, 0, "a/b.txt\n", ""},
      {{"path", "make"}, 0, "\n", ""},
      {{"path"}, 2, "", "expected split or make"},
      {{"path", "split"}, 2, "", "expected at least one PATH"},
      {{"path", "join"}, 2, "", "unknown action 'join'"},
      {{"path", "make", "--dir"}, 2, "", "option '--dir' needs a value"},
      {{"path", "make", "--drive", "C"}, 2, "", "unknown option '--drive'"},
  };
  for (const Case& c : cases) Check(c);
}

TEST(Cli, OsActions) {
  char exe[PATH_MAX];
  ASSERT_NE(realpath(VRKUTIL_PATH, exe), nullptr);
  const Case cases[] = {
      {{"os", "exe"}, 0, std::string(exe) + "\n", ""},
      {{"os", "drivetype", "/"}, 0, "0\n", ""},
      {{"os", "system"}, 0, "type=3\nversion=0x2001\n", ""},
      {{"os", "load", "libc.so.6"}, 0, "loaded libc.so.6\n", ""},
      {{"os", "load", "vrk-no-such-library.so"}, 1, "", "cannot load 'vrk-no-such-library.so'"},
      {{"os", "lock", "/dev/null"}, 0, "locked /dev/null\nunlocked /dev/null\n", ""},
      {{"os", "lock", "/vrk-no-such-file"}, 1, "", "cannot open '/vrk-no-such-file'"},
      {{"os", "lock", "/dev/null", "forever"}, 2, "", "SECONDS must be a number"},
      {{"os"}, 2, "", "expected an ACTION"},
      {{"os", "frobnicate"}, 2, "", "unknown action 'frobnicate'"},
      {{"os", "exe", "x"}, 2, "", "takes no arguments"},
      {{"tempname", "a", "b", "c"}, 2, "", "expected at most DIR and PREFIX"},
  };
  for (const Case& c : cases) Check(c);
}

TEST(Cli, Tempname) {
  const vrk::test::TempDir scratch;
  const char* dir = scratch.path().c_str();
  const char* old = getenv("TMPDIR");
  const std::string saved = old ? old : "";
  unsetenv("TMPDIR");
  for (const char* command : {"tempname", "os"}) {
    std::vector<std::string> args = {command};
    if (args[0] == "os") args.push_back("tempname");
    args.insert(args.end(), {dir, "vrk"});
    const auto r = RunTool(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind(std::string(dir) + "/vrk", 0), 0u) << r.out;
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(r.out.back(), '\n');
    EXPECT_NE(access(r.out.substr(0, r.out.size() - 1).c_str(), F_OK), 0) << "no file is created";
  }
  if (old) setenv("TMPDIR", saved.c_str(), 1);
}

}  // namespace
