// vrkutil run, as a person would use it, on the test DLL.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/run_tool.h"

namespace {

using vrk::test::CheckTool;
using vrk::test::RunTool;
using Case = vrk::test::ToolCase;

const std::string kDll = std::string(VRKW32_TEST_DLL_DIR) + "/vrkw32_test.dll";

TEST(CliRun, ArgumentsAndResults) {
  const std::string file = testing::TempDir() + "/vrkw32_bytes.bin";
  FILE* f = std::fopen(file.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::fputs("abc", f);
  std::fclose(f);
  const Case cases[] = {
      {{"run", "--string", kDll, "Greeting"}, 0, "hello from the DLL\n", ""},
      {{"run", "--stdcall", kDll, "StdSum3", "1", "0x2", "-1"}, 0, "0x00000002 (2)\n", ""},
      {{"run", kDll, "StrLen", "s:h\xc3\xa9llo"}, 0, "0x00000006 (6)\n", ""},
      {{"run", kDll, "WideLen", "w:h\xc3\xa9llo"}, 0, "0x00000005 (5)\n", ""},
      {{"run", kDll, "ByteSum", "buf:" + file, "len:" + file}, 0, "0x00000126 (294)\n", ""},
      {{"run", kDll, "Twice", "outlen:21"}, 0, "0x0000002a (42)\noutlen 1: 42\n", ""},
      {{"run", "--cdecl", kDll, "Format", "out:8", "8", "42"}, 0, "0xffffffff (4294967295)\nout 1: 61627c2020203432\n",
       ""},
      // A convention that does not match is reported; the call still returns.
      {{"run", "--cdecl", kDll, "StdSum1", "5"}, 0, "0x00000005 (5)\n",
       "StdSum1 removed 4 bytes of arguments, so it is not cdecl with 1 argument"},
      {{"run", kDll, "CallsMissing"}, 3, "", "KERNEL32.dll!Beep is not implemented (called from vrkw32_test.dll+0x"},
      {{"run", kDll, "Crash", "1"}, 3, "", "SIGSEGV writing 0x00000000 at vrkw32_test.dll+0x"},
      {{"run", kDll, "ExitWith", "4"}, 3, "", "guest code called exit(4)"},
      {{"run", kDll, "NoSuchExport"}, 1, "", "has no export 'NoSuchExport'"},
      {{"run", "vrkw32-no-such.dll", "F"}, 1, "", "no DLL file ./vrkw32-no-such.dll"},
      {{"run", kDll}, 2, "", "expected DLL and EXPORT"},
      {{"run", "--cdecl", "--stdcall", kDll, "F"}, 2, "", "--cdecl and --stdcall exclude each other"},
      {{"run", kDll, "StdSum1", "x:1"}, 2, "", "'x:1' is neither a 32-bit number"},
      {{"run", kDll, "StdSum1", "0x100000000"}, 2, "", "is neither a 32-bit number"},
      {{"run", kDll, "StdSum1", "buf:/vrkw32/no/such"}, 2, "", "cannot read '/vrkw32/no/such'"},
  };
  for (const Case& c : cases) CheckTool(c);
  std::remove(file.c_str());
}

TEST(CliRun, ListsImports) {
  const auto r = RunTool({"run", "--list", kDll});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("vrkw32_test.dll: "), std::string::npos);
  EXPECT_NE(r.out.find(" implemented, 1 stubs, 0 from PE modules\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  KERNEL32.dll!Beep stub\n"), std::string::npos);
  EXPECT_NE(r.out.find("  KERNEL32.dll!GetLastError implemented\n"), std::string::npos);
}

}  // namespace
