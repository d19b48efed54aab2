// vrkutil pe over images from the PE writer: what it reads of foreign files.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>

#include "run_tool.h"
#include "tests/pe/pe_writer.h"

namespace {

using vrk::test::PeWriter;

TEST(CliPe, ForeignImages) {
  char templ[] = "/tmp/vrk-cli-pe-XXXXXX";
  const std::string dir = mkdtemp(templ);
  auto write = [&](const std::string& name, const std::function<void(PeWriter&)>& change, size_t cut = 0) {
    PeWriter w;
    change(w);
    std::vector<uint8_t> bytes = w.Bytes();
    if (cut) bytes.resize(cut);
    std::ofstream(dir + "/" + name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  };
  write("plus.dll", [](PeWriter& w) { w.nt.FileHeader.Machine = 0x8664; w.nt.OptionalHeader.Magic = 0x020B; });
  const struct {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> out;  // parts of stdout
    std::string err;               // a part of the one line on stderr, or "" for none
  } cases[] = {
      {{"plus.dll"}, 0, {"  verdict: 0xC000007B STATUS_INVALID_IMAGE_FORMAT\n  PE32+ (x86-64) image: not read further\n"}, ""},
      {{"--load", "plus.dll"}, 1, {}, "plus.dll: not loaded: PE32+ (x86-64) image, header verdict 0xC000007B"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"pe"};
    for (const std::string& a : c.args) args.push_back(a.ends_with(".dll") ? dir + "/" + a : a);
    SCOPED_TRACE(args.back());
    const auto r = vrk::test::RunTool(args);
    EXPECT_EQ(r.status, c.status) << r.err;
    for (const std::string& part : c.out) EXPECT_NE(r.out.find(part), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), c.err.empty() ? 0 : 1) << r.err;
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
