// vrkutil crc32, md5 and fingerprint: md5sum-compatible lines, escaped
// names, the check mode reading those lines back, and unreadable files.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace {

using vrk::test::RunTool;

constexpr const char* kDigitsMd5 = "25f9e794323b453885f5181f1b624d0b";  // "123456789"

TEST(CliChecksum, LinesAndTheirCheck) {
  const vrk::test::TempDir d;
  const std::string digits = d.Write("digits", "123456789");
  const std::string empty = d.Write("empty", "");
  const std::string odd = d.Write("back\\slash\nnewline", "abc");

  EXPECT_EQ(RunTool({"crc32", digits}).out, "cbf43926  " + digits + "\n");
  EXPECT_EQ(RunTool({"md5", digits, empty}).out,
            std::string(kDigitsMd5) + "  " + digits + "\nd41d8cd98f00b204e9800998ecf8427e  " + empty + "\n");
  // md5sum's escaping: one line per file, whatever its name holds.
  EXPECT_EQ(RunTool({"md5", odd}).out, "\\900150983cd24fb0d6963f7d28e17f72  " + d.path() + "/back\\\\slash\\nnewline\n");
  EXPECT_EQ(RunTool({"crc32", odd}).out, "\\352441c2  " + d.path() + "/back\\\\slash\\nnewline\n");
  EXPECT_EQ(RunTool({"md5", "--limit", "3", digits}).out, "202cb962ac59075b964b07152d234b70  " + digits + "\n");

  // -c reads back what the command printed, escaped names included.
  for (const char* command : {"crc32", "md5"}) {
    SCOPED_TRACE(command);
    const std::string list = d.Write(std::string(command) + ".sums", RunTool({command, digits, empty, odd}).out);
    auto r = RunTool({command, "-c", list});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, digits + ": OK\n" + empty + ": OK\n\\" + d.path() + "/back\\\\slash\\nnewline: OK\n");
    d.Write("digits", "12345678X");
    r = RunTool({command, "--check", list});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(digits + ": FAILED\n"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("1 computed checksum(s) did NOT match"), std::string::npos) << r.err;
    d.Write("digits", "123456789");
    EXPECT_EQ(RunTool({command, "-c"}, "not a checksum line\n").status, 1);
  }
}

// Standard input is streamed: 600 MiB through a pipe are summed under a
// 256 MiB address-space limit, which reading them whole would exceed.
TEST(CliChecksum, StandardInputIsStreamed) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer reserves more address space than the limit allows";
#else
  const auto run = [](const std::string& pipeline) {
    std::string out;
    FILE* p = popen(("ulimit -v 262144; head -c 629145600 /dev/zero | " + pipeline).c_str(), "r");
    if (!p) return std::string("popen failed");
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, p)) out += buffer;
    return pclose(p) == 0 ? out : "failed: " + out;
  };
  EXPECT_EQ(run(std::string(VRKUTIL_PATH) + " md5 -"), run("md5sum"));
  EXPECT_EQ(run(std::string(VRKUTIL_PATH) + " crc32 -"), "676c5ed4  -\n");
#endif
}

TEST(CliChecksum, FingerprintAndFailures) {
  const vrk::test::TempDir d;
  const std::string digits = d.Write("digits", "123456789");
  const auto r = RunTool({"fingerprint", "--key", "0x2a", digits});
  // The name, then 38 words; "123456789" zero-padded to 64 bytes, register
  // from 0; the third block starts past the file.
  EXPECT_EQ(r.out.rfind(digits + "\n   0  0000002a  key\n   1  ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("   3  --------  bytes 128-191 (not computed: beyond the file)\n"), std::string::npos);

  // Each unreadable file costs one line on stderr with the system's reason;
  // the others are still done.
  const auto missing = RunTool({"crc32", digits, d / "missing", d.path()});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "cbf43926  " + digits + "\n");
  EXPECT_EQ(missing.err, "vrkutil: " + d / "missing" + ": No such file or directory\nvrkutil: " + d.path() +
                             ": Is a directory\n");
}

}  // namespace
