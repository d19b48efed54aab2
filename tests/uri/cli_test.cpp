// vrkutil uri: output blocks, JSON and exit statuses, through the built tool.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace {

struct Result {
  std::string out;
  int status;
};

Result RunTool(const std::string& args) {
  const std::string command = std::string(VRK_BINARY_DIR) + "/bin/vrkutil uri " + args + " 2>&1";
  Result r{"", -1};
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return r;
  char buffer[512];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) r.out.append(buffer, n);
  const int status = pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

TEST(UriCli, PrintsEveryField) {
  const Result r = RunTool("'http://u@h.example:81/a%20b?'");
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
}

TEST(UriCli, JsonAndFailures) {
  const Result r = RunTool("--server --json 'u@h.example/x' localhost");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "{\"input\": \"u@h.example/x\", \"record\": {\"scheme\": \"http\", \"opaque\": null, \"reg_name\": null, "
            "\"host\": \"h.example\", \"userinfo\": \"u\", \"path\": null, \"query\": null, \"fragment\": null, "
            "\"port\": 0}}\n"
            "{\"input\": \"localhost\", \"record\": null}\n");
  EXPECT_EQ(RunTool("localhost/a").status, 1);
  EXPECT_EQ(RunTool("").status, 2);
  EXPECT_EQ(RunTool("--frobnicate x").status, 2);
  // After "--" a text that looks like an option is parsed: "http://--x"
  // has a registry name.
  const Result dashes = RunTool("-- --x");
  EXPECT_EQ(dashes.status, 0);
  EXPECT_NE(dashes.out.find("reg_name: \"--x\""), std::string::npos) << dashes.out;
}

}  // namespace
