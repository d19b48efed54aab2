// vrkutil pe over images from the PE writer: what it reads of foreign and odd
// files, and the one cause it gives when --load refuses a file.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/run_tool.h"
#include "support/temp_dir.h"
#include "tests/pe/pe_writer.h"

namespace {

using vrk::test::PeWriter;

TEST(CliPe, ForeignImagesDetailsAndLoadFailures) {
  const vrk::test::TempDir dir;
  auto write = [&](const char* name, const std::function<void(PeWriter&)>& change) {
    PeWriter w;
    change(w);
    const std::vector<uint8_t> bytes = w.Bytes();
    dir.Write(name, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  };
  write("plus.dll", [](PeWriter& w) { w.nt.FileHeader.Machine = 0x8664; w.nt.OptionalHeader.Magic = 0x020B; });
  write("details.dll", [](PeWriter& w) {
    w.AddExports(0x1400, "d.dll", 1, {0x1100, 0x1500}, {{"f", 0}, {"fwd", 1}});
    w.SetDir(PE_DIRECTORY_ENTRY_EXPORT, 0x1400, 0x200);  // holds the forwarder text
    w.PutString(0x1500, "NTDLL.RtlFoo");
    std::memcpy(w.sections[0].Name, "/4\0\0\0\0\0", 8);  // the string table lies at RVA 0x1F00
    w.nt.FileHeader.PointerToSymbolTable = 0x1300;
    w.PutString(0x1F04, ".longname");
    w.sections[0].SizeOfRawData = 0x2000;  // more than the file holds
    w.SetDir(6, 0x2800, 0x1C);
  });
  write("zm.dll", [](PeWriter& w) { w.dos_magic = 0x4D5A; });
  write("a.dll", [](PeWriter& w) { w.AddExports(0x1400, "a.dll", 1, {0x1100}, {{"f", 0}}); });
  write("b.dll", [](PeWriter& w) { w.AddImports(0x1400, {{"a.dll", {{"g"}}}}); });
  write("refuse.dll", [](PeWriter& w) { w.SetEntryCode(0x1100, vrk::test::kEntryReturns0); });
  const struct {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> out;  // parts of stdout
    std::string err;               // a part of the one line on stderr, or "" for none
  } cases[] = {
      {{"plus.dll"}, 0, {"  verdict: 0xC000007B STATUS_INVALID_IMAGE_FORMAT\n  PE32+ (x86-64) image: not read further\n"}, ""},
      {{"--rva", "0xF0000000", "details.dll"}, 0,
       {"    .longname RVA ", "        2  0x00001500  fwd  forwarded to NTDLL.RtlFoo\n", "past the end of the file (0x",
        "  warning: the debug directory (RVA 0x00002800, 0x1C bytes) lies past the end of the file\n"}, ""},
      {{"--load", "plus.dll"}, 1, {}, "plus.dll: not loaded: PE32+ (x86-64) image, header verdict 0xC000007B"},
      {{"--load", "zm.dll"}, 1, {}, "zm.dll: not loaded: its DOS header says \"ZM\""},
      {{"--load", "b.dll"}, 1, {}, "b.dll: not loaded: it imports from 'a.dll', which is not loaded"},
      {{"--load", "a.dll", "b.dll"}, 1, {"a.dll: loaded as 'a.dll'\n"}, "b.dll: not loaded: it imports 'g' from 'a.dll', which does not export it"},
      {{"--load", "refuse.dll"}, 1, {}, "refuse.dll: not loaded: its entry point returned 0"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"pe"};
    for (const std::string& a : c.args) args.push_back(a.ends_with(".dll") ? dir / a : a);
    SCOPED_TRACE(args.back());
    const auto r = vrk::test::RunTool(args);
    EXPECT_EQ(r.status, c.status) << r.err;
    for (const std::string& part : c.out) EXPECT_NE(r.out.find(part), std::string::npos) << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), c.err.empty() ? 0 : 1) << r.err;
  }
}

}  // namespace
