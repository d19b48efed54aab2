// vrkutil uri: output blocks, JSON and exit statuses.
#include <gtest/gtest.h>

#include "run_tool.h"

namespace {

using vrk::test::RunTool;
using vrk::test::ToolResult;

TEST(UriCli, PrintsEveryField) {
  const ToolResult r = RunTool({"uri", "http://u@h.example:81/a%20b?"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "input:    \"http://u@h.example:81/a%20b?\"\n"
            "scheme:   \"http\"\n"
            "opaque:   (absent)\n"
            "reg_name: (absent)\n"
            "host:     \"h.example\"\n"
            "userinfo: \"u\"\n"
            "path:     \"/a b\"\n"
            "query:    \"\"\n"
            "fragment: (absent)\n"
            "port:     81\n");
  EXPECT_EQ(r.err, "");
}

TEST(UriCli, JsonAndFailures) {
  const ToolResult r = RunTool({"uri", "--server", "--json", "u@h.example/x", "localhost"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "{\"input\": \"u@h.example/x\", \"record\": {\"scheme\": \"http\", \"opaque\": null, \"reg_name\": null, "
            "\"host\": \"h.example\", \"userinfo\": \"u\", \"path\": null, \"query\": null, \"fragment\": null, "
            "\"port\": 0}}\n"
            "{\"input\": \"localhost\", \"record\": null}\n");

  const ToolResult failed = RunTool({"uri", "localhost/a"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.out, "");
  EXPECT_EQ(failed.err, "vrkutil: not a URI: 'localhost/a'\n");

  EXPECT_EQ(RunTool({"uri"}).status, 2);
  EXPECT_EQ(RunTool({"uri", "--frobnicate", "x"}).status, 2);
  // After "--" a text that looks like an option is parsed: "http://--x"
  // has a registry name.
  const ToolResult dashes = RunTool({"uri", "--", "--x"});
  EXPECT_EQ(dashes.status, 0);
  EXPECT_NE(dashes.out.find("reg_name: \"--x\""), std::string::npos) << dashes.out;
}

}  // namespace
