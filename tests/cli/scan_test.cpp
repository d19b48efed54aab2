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

// The standard anti-malware test string, which the default database finds.
std::string_view TestString() {
  return "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

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
  s.Write("refused.vdb", "P pattern 41 {1-3} 42\n");
  s.Write("empty.vdb", "# nothing yet\n");
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
      {{"scan", "-d", s.path + "/empty.vdb", s.path}, "the databases hold no signature"},
      {{"scan", "--max-filesize", "12X", s.path}, "--max-filesize needs a byte count"},
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
  // Names the database reader would refuse are refused here first.
  for (const char* name : {"bad name", "x#y", "\xEF\xBB\xBF" "Bom"}) {
    EXPECT_EQ(RunTool({"sig", name, s.path + "/own/counting.bin"}).status, 2) << name;
  }
}

// Output that a file's name cannot forge, for people and for programs, in
// an order that does not depend on threads.
TEST(CliScan, NamesJsonOrderAndInputs) {
  SampleDir s;
  const std::string forged = "evil\nfake.txt: Test.File.Pattern FOUND";
  s.Write(forged, std::string(TestString()));
  const auto human = RunTool({"scan", s.path + "/" + forged});
  EXPECT_EQ(human.status, 1);
  EXPECT_TRUE(Has(human.out, "\\" + s.path + "/evil\\nfake.txt: Test.File.Pattern FOUND: Test.File.Pattern FOUND @ 0\n"))
      << human.out;

  const auto json = RunTool({"scan", "--json", "--exclude", "*.bin", "-r", s.path + "/infected"});
  EXPECT_EQ(json.status, 1);
  EXPECT_TRUE(Has(json.out, "{\"file\": \"" + s.path + "/infected/test-file.com\", \"signature\": \"Test.File.Md5\"}\n"));
  EXPECT_FALSE(Has(json.out, ".bin"));
  EXPECT_TRUE(Has(json.out, "{\"summary\": {\"signatures\": 6, \"files\": 1, \"errors\": 0, \"skipped\": 0, "));

  // --sort gives the same lines whatever the threads; standard input and a
  // file list join the named paths; large files are skipped, not dropped.
  s.Write("list", s.path + "/clean/readme.txt\n" + s.path + "/infected/test-file.com\n");
  std::string first;
  for (const char* jobs : {"1", "3"}) {
    auto r = RunTool({"scan", "--sort", "-j", jobs, "--max-filesize", "1M", "--file-list", s.path + "/list", "-r",
                      s.path, "-"},
                     std::string(TestString()));
    r.out.erase(r.out.find("Time: "));
    if (first.empty()) first = r.out;
    EXPECT_EQ(r.out, first);
  }
  EXPECT_TRUE(Has(first, "/large.bin: SKIPPED (2000000 bytes, over --max-filesize)\n")) << first;
  EXPECT_TRUE(Has(first, "-: Test.File.Pattern FOUND @ 0\n-: Test.File.Md5 FOUND\n"));
  EXPECT_TRUE(Has(first, "Errors: 0\nSkipped: 1\n"));

  // An MD5 line with a size matches only a file of that size.
  s.Write("sized.vdb", "Wrong md5 44d88612fea8a8f36de82e1278abb02f 69\nRight md5 44d88612fea8a8f36de82e1278abb02f 68\n");
  const auto sized = RunTool({"scan", "-d", s.path + "/sized.vdb", s.path + "/infected/test-file.com"});
  EXPECT_TRUE(Has(sized.out, "test-file.com: Right FOUND\n"));
  EXPECT_TRUE(Has(sized.out, "Detections: 1\n")) << sized.out;
}

}  // namespace
