// vrkutil uri: output blocks, JSON and exit statuses.
#include <gtest/gtest.h>

#include "support/run_tool.h"

namespace {

using vrk::test::CheckTool;
using vrk::test::ToolCase;

TEST(UriCli, Runs) {
  const ToolCase kCases[] = {
      {{"uri", "http://u@h.example:81/a%20b?"},
       0,
       "input:    \"http://u@h.example:81/a%20b?\"\n"
       "scheme:   \"http\"\n"
       "opaque:   (absent)\n"
       "reg_name: (absent)\n"
       "host:     \"h.example\"\n"
       "userinfo: \"u\"\n"
       "path:     \"/a b\"\n"
       "query:    \"\"\n"
       "fragment: (absent)\n"
       "port:     81\n",
       ""},
      {{"uri", "--server", "--json", "u@h.example/x", "localhost"},
       1,
       "{\"input\": \"u@h.example/x\", \"record\": {\"scheme\": \"http\", \"opaque\": null, \"reg_name\": null, "
       "\"host\": \"h.example\", \"userinfo\": \"u\", \"path\": null, \"query\": null, \"fragment\": null, "
       "\"port\": 0}}\n"
       "{\"input\": \"localhost\", \"record\": null}\n",
       ""},
      // UTF-8 stays UTF-8; other bytes come back losslessly as surrogate escapes.
      {{"uri", "--json", "http://h/caf%C3%A9%FF"},
       0,
       "{\"input\": \"http://h/caf%C3%A9%FF\", \"record\": {\"scheme\": \"http\", \"opaque\": null, "
       "\"reg_name\": null, \"host\": \"h\", \"userinfo\": null, \"path\": \"/caf\xc3\xa9\\udcff\", \"query\": null, "
       "\"fragment\": null, \"port\": 0}}\n",
       ""},
      {{"uri", "localhost/a"}, 1, "", "not a URI: 'localhost/a'"},
      // After "--" a text that looks like an option is parsed: "http://--x"
      // has a registry name.
      {{"uri", "--json", "--", "--x"},
       0,
       "{\"input\": \"--x\", \"record\": {\"scheme\": \"http\", \"opaque\": null, \"reg_name\": \"--x\", "
       "\"host\": null, \"userinfo\": null, \"path\": null, \"query\": null, \"fragment\": null, \"port\": 0}}\n",
       ""},
      {{"uri"}, 2, "", "expected at least one TEXT"},
      {{"uri", "--frobnicate", "x"}, 2, "", "unknown option '--frobnicate'"},
  };
  for (const ToolCase& c : kCases) CheckTool(c);
}

}  // namespace
