// vrkutil scan, sig and samples, as a person uses them.
#include <gtest/gtest.h>
#include <unistd.h>


#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace {

using vrk::test::RunTool;

// The sample tree that `vrkutil samples` writes, in a scratch folder.
struct SampleDir {
  vrk::test::TempDir dir;
  std::string path = dir.path();
  SampleDir() { EXPECT_EQ(RunTool({"samples", path, "2000000"}).status, 0); }
  void Write(const std::string& rel, const std::string& text) const { dir.Write(rel, text); }
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(CliScan, ExitStatusTellsWhatWasFound) {
  SampleDir s;
  const auto clean = RunTool({"scan", "-r", s.path + "/clean"});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_TRUE(Has(clean.out, "Detections: 0"));

  const auto all = RunTool({"scan", "-r", "-j", "3", s.path});
  EXPECT_EQ(all.status, 1) << all.err;
  EXPECT_TRUE(Has(all.out, s.path + "/infected/embedded.bin: Test.File.Pattern FOUND @ 1237\n"));
  EXPECT_TRUE(Has(all.out, s.path + "/infected/test-file.com: Test.File.Md5 FOUND\n"));
  EXPECT_TRUE(Has(all.out, "Files: 8\n"));
  EXPECT_EQ(all.err, "");  // no progress line when stderr is not a terminal

  // Without -r a directory's subdirectories are left alone.
  const auto flat = RunTool({"scan", s.path});
  EXPECT_TRUE(Has(flat.out, "Files: 1\n")) << flat.out;

  const auto missing = RunTool({"scan", s.path + "/clean", s.path + "/nope"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_TRUE(Has(missing.err, s.path + "/nope: ERROR"));
  EXPECT_TRUE(Has(missing.out, "Files: 3\n"));  // the scan went on
}

TEST(CliScan, DatabasesAndTheirErrors) {
  SampleDir s;
  s.Write("own.vdb", "# mine\nMine pattern 73 63 61 6E {0-2} 66 69 6C 65\n");
  s.Write("bad.vdb", "ok crc 1 1\nbroken crc 99 1\n");
  s.Write("refused.vdb", "P pattern 41 DD 42\n");
  const auto own = RunTool({"scan", "-d", s.path + "/own.vdb", s.path + "/clean/readme.txt"});
  EXPECT_EQ(own.status, 1);
  EXPECT_TRUE(Has(own.out, "readme.txt: Mine FOUND @ "));

  const struct {
    std::vector<std::string> args;
    std::string err;
  } errors[] = {
      {{"scan", "-d", s.path + "/bad.vdb", s.path}, s.path + "/bad.vdb:2: crc column"},
      {{"scan", "-d", s.path + "/refused.vdb", s.path}, s.path + "/refused.vdb:1: "},
      {{"scan", "-d", s.path + "/none.vdb", s.path}, "cannot read the database"},
      {{"scan"}, "expected at least one PATH"},
      {{"scan", "-j", "0", s.path}, "-j needs a number from 1 to 256"},
      {{"scan", "-x", s.path}, "unknown option"},
  };
  for (const auto& e : errors) {
    SCOPED_TRACE(e.err);
    const auto r = RunTool(e.args);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Has(r.err, e.err)) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

TEST(CliScan, SigDerivesLinesThatDetectTheSample) {
  SampleDir s;
  const auto sig = RunTool({"sig", "--column", "5", "--column", "37", "--md5", "Derived", s.path + "/own/counting.bin"});
  EXPECT_EQ(sig.status, 0) << sig.err;
  EXPECT_EQ(sig.out,
            "Derived crc 5 0x4d69b883\n"
            "Derived crc 37 0x"
            + sig.out.substr(sig.out.find("crc 37 0x") + 9, 8) + "\nDerived md5 " + sig.out.substr(sig.out.find("md5 ") + 4));
  s.Write("derived.vdb", sig.out);
  const auto scan = RunTool({"scan", "-d", s.path + "/derived.vdb", s.path + "/own"});
  EXPECT_EQ(scan.status, 1);
  EXPECT_TRUE(Has(scan.out, "Detections: 3\n")) << scan.out;

  const auto short_file = RunTool({"sig", "--column", "20", "X", s.path + "/infected/test-file.com"});
  EXPECT_EQ(short_file.status, 1);
  EXPECT_TRUE(Has(short_file.err, "too short for column 20"));
}

}  // namespace
