// The Win32 layer on a DLL of our own (dlls/vrkw32_test.c, built by MinGW
// with its C run-time): calling conventions, the thread environment block
// per thread, and calls that end early.
#include <gtest/gtest.h>

#include <barrier>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "win32_test_util.h"

namespace vrk::test {
namespace {

const std::string kDll = std::string(VRKW32_TEST_DLL_DIR) + "/vrkw32_test.dll";

TEST(Win32Call, CallingConventions) {
  struct Case {
    const char* name;
    std::vector<uint32_t> args;
    uint32_t value;
    uint32_t popped;  // stdcall removes its arguments, cdecl leaves them
  };
  const Case cases[] = {
      {"StdSum0", {}, 7, 0},
      {"StdSum1", {41}, 41, 4},
      {"StdSum3", {1, 2, 3}, 1 + 4 + 9, 12},
      {"StdSum7", {1, 2, 3, 4, 5, 6, 7}, 140, 28},
      {"CSum0", {}, 11, 0},
      {"CSum2", {5, 0xFFFFFFFF}, 3, 0},
      {"CSum5", {1, 2, 3, 4, 5}, 55, 0},
  };
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const VRKW32_RESULT r = p.Call(c.name, c.args);
    EXPECT_EQ(r.status, VRKW32_OK) << r.text;
    EXPECT_EQ(r.value, c.value);
    EXPECT_EQ(r.popped, c.popped);
  }
  // A 64-bit result in EDX:EAX, from a 64-bit argument in two words.
  const VRKW32_RESULT wide = p.Call("CWide", {0x00000001, 0x00000002, 3});
  EXPECT_EQ(uint64_t(wide.high) << 32 | wide.value, 0x0000000200000001ull * 3);
}

TEST(Win32Call, ThreadEnvironmentBlockAndMsvcrt) {
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  EXPECT_NE(p.Call("TebSelf").value, 0u);
  EXPECT_EQ(p.Call("SehHead").value, 0xFFFFFFFFu);  // no SEH frame registered
  EXPECT_EQ(p.Call("ProcessHeapFromPeb").value, 1u);
  // msvcrt's own format rules: %I64x, 16-bit %ls, _snprintf's return.
  char out[64] = {};
  EXPECT_EQ(p.Call("Format", {Word(out), sizeof out, 42}).value, 28u);
  EXPECT_STREQ(out, "ab|   42|123456789abc|wide|z");
  EXPECT_EQ(int32_t(p.Call("Format", {Word(out), 4, 42}).value), -1);
}

// Two host threads in one context: each has its own TEB, so its own last
// error and its own value in a TLS slot allocated once for the process, seen
// the same through KERNEL32 and through FS.
void LastErrorAndTlsPerThread() {
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  const uint32_t low = p.Call("NewTlsIndex").value;
  uint32_t high = 0;
  for (int i = 0; i < 70; ++i) high = p.Call("NewTlsIndex").value;  // into the expansion slots
  ASSERT_GE(high, 64u);
  std::barrier both(2);
  uint32_t seen[2][6] = {};
  auto body = [&](int t) {
    const uint32_t mine = 1000 + uint32_t(t);
    p.Call("PutLastError", {mine});
    p.Call("PutTls", {low, mine});
    p.Call("PutTls", {high, mine + 10});
    both.arrive_and_wait();  // both threads have written before either reads
    const uint32_t got[6] = {p.Call("LastError").value,   p.Call("LastErrorFromTeb").value,
                             p.Call("GetTls", {low}).value, p.Call("TlsFromTeb", {low}).value,
                             p.Call("GetTls", {high}).value, p.Call("TlsFromTeb", {high}).value};
    std::memcpy(seen[t], got, sizeof got);
  };
  std::thread other(body, 1);
  body(0);
  other.join();
  for (uint32_t t = 0; t < 2; ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(seen[t][0], 1000 + t);
    EXPECT_EQ(seen[t][1], 1000 + t);
    EXPECT_EQ(seen[t][2], 1000 + t);
    EXPECT_EQ(seen[t][3], 1000 + t);
    EXPECT_EQ(seen[t][4], 1010 + t);
    EXPECT_EQ(seen[t][5], 1010 + t);
  }
}

TEST(Win32Thread, LastErrorAndTlsPerThread) {
  LastErrorAndTlsPerThread();
  // FS holds a GDT thread-area selector, or an LDT one (table bit 2) when
  // the LDT is asked for.
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  const char* forced = std::getenv("VRKW32_FS_SEGMENT");
  EXPECT_EQ((p.Call("FsSelector").value & 4) != 0, forced && std::string(forced) == "ldt");
}

// What ends a call early ends only that call: the context goes on.
TEST(Win32Guard, EndsCallsCleanly) {
  struct Case {
    const char* name;
    std::vector<uint32_t> args;
    int status;
    const char* text;
  };
  const Case cases[] = {
      {"CallsMissing", {}, VRKW32_NOT_IMPLEMENTED,
       "KERNEL32.dll!Beep is not implemented (called from vrkw32_test.dll+0x"},
      {"Crash", {0}, VRKW32_FAULT, "SIGSEGV reading 0x00000000 at vrkw32_test.dll+0x"},
      {"Crash", {1}, VRKW32_FAULT, "SIGSEGV writing 0x00000000 at vrkw32_test.dll+0x"},
      {"Crash", {2}, VRKW32_FAULT, "SIGILL at vrkw32_test.dll+0x"},
      {"Crash", {3}, VRKW32_FAULT, "SIGFPE at vrkw32_test.dll+0x"},
      {"ExitWith", {5}, VRKW32_EXITED, "guest code called exit(5)"},
  };
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.args.empty() ? 0 : c.args[0]));
    const VRKW32_RESULT r = p.Call(c.name, c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(std::string(r.text).find(c.text), std::string::npos) << r.text;
    EXPECT_EQ(p.Call("StdSum1", {9}).value, 9u);
  }
  // Faults name the nearest export below them.
  EXPECT_NE(std::string(p.Call("Crash", {0}).text).find("(nearest export Crash+0x"), std::string::npos);
  EXPECT_EQ(p.Call("ExitWith", {7}).exitCode, 7u);
}

TEST(Win32Load, EntryPointSeesDetach) {
  int detached = 0;
  Win32Process p;
  ASSERT_NE(p.Load(kDll), nullptr) << p.last().text;
  p.Call("WatchDetach", {Word(&detached)});
  EXPECT_EQ(detached, 0);
  EXPECT_EQ(p.Destroy().status, VRKW32_OK);
  EXPECT_EQ(detached, 1);
}

TEST(Win32Load, ReportsWhatCannotLoad) {
  Win32Process p({VRKW32_TEST_DLL_DIR});
  EXPECT_EQ(p.Load("vrkw32_no_such.dll"), nullptr);
  EXPECT_EQ(p.last().status, VRKW32_NOT_FOUND);
  EXPECT_STREQ(p.last().text, "no DLL file vrkw32_no_such.dll in the search folders");
  EXPECT_EQ(p.Load(std::string(VRK_SOURCE_DIR) + "/README.md"), nullptr);
  EXPECT_EQ(p.last().status, VRKW32_LOAD_FAILED);
  // By name in the search folders, letter case ignored as on Windows.
  EXPECT_NE(p.Load("VRKW32_TEST.DLL"), nullptr) << p.last().text;
}

}  // namespace
}  // namespace vrk::test
