// The loader over DLLs that a compiler built: pe_test_a (exports by name and
// by ordinal only, data pointing at itself, an entry point that records its
// arguments), pe_test_b (imports from A by name and ordinal and from a native
// module) and pe_test_refuse (imports from A, then refuses to load).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pe_test_util.h"

namespace vrk::test {
namespace {

#ifdef VRK_PE_TEST_DLL_DIR

using Strings = std::vector<std::string>;

// Served to pe_test_b as vrk_native.dll!HostMul (plain C convention, as the
// DLL declares it).
extern "C" int HostMul(int a, int b) { return a * b; }

template <class T>
T Export(PELOAD_MODULE* m, const char* name) {
  return reinterpret_cast<T>(uintptr_t(PELOAD_GetProcAddress(m, name)));
}

class PeDll : public ::testing::Test {
 protected:
  void SetUp() override {
    Natives::Reset();
    Natives::Get().modules["vrk_native.dll"]["HostMul"] = uint32_t(reinterpret_cast<uintptr_t>(&HostMul));
    for (auto [bytes, name] : {std::pair{&a_, "a"}, {&b_, "b"}, {&refuse_, "refuse"}}) {
      *bytes = ReadWholeFile(std::string(VRK_PE_TEST_DLL_DIR) + "/pe_test_" + name + ".dll");
      ASSERT_FALSE(bytes->empty()) << name;
    }
  }
  std::vector<uint8_t> a_, b_, refuse_;
};

TEST_F(PeDll, EntryPointRelocationsAndExports) {
  for (int mode : {VRKVFILE_COPY, VRKVFILE_IN_MEMORY}) {
    SCOPED_TRACE(mode);
    VFile file(a_, mode);
    MODLOAD_PROCESS* p = NewProcess(file.get());
    ASSERT_NE(p, nullptr);
    PELOAD_MODULE* a = PELOAD_LoadLibraryEx("PE_TEST_A.DLL", p, 0);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->refcount, 2);
    EXPECT_EQ(ImageOf(a)->inPlace, 0);  // a linked DLL is never laid out to run in place
    // The entry point ran once with (base, 1, the process record).
    EXPECT_EQ(*Export<int*>(a, "a_entry_calls"), 1);
    EXPECT_EQ(*Export<void**>(a, "a_entry_base"), ImageOf(a)->image);
    EXPECT_EQ(*Export<unsigned*>(a, "a_entry_reason"), 1u);
    EXPECT_EQ(*Export<void**>(a, "a_entry_reserved"), p);
    // The pointer in A's data was relocated to A's own data at this base.
    int* counter = Export<int*>(a, "a_counter");
    ASSERT_NE(counter, nullptr);
    EXPECT_EQ(*counter, 41);
    EXPECT_EQ(*Export<int**>(a, "a_counter_ptr"), counter);
    // Code runs: by name, and the ordinal-only export by ordinal.
    EXPECT_EQ(Export<int (*)(int)>(a, "AddOne")(41), 42);
    EXPECT_EQ(Export<int* (*)()>(a, "CounterAddress")(), counter);
    EXPECT_EQ(PELOAD_GetProcAddress(a, "Triple"), 0u);
    auto triple = reinterpret_cast<int (*)(int)>(uintptr_t(PELOAD_GetProcAddress(a, Ordinal(7))));
    ASSERT_NE(triple, nullptr);
    EXPECT_EQ(triple(5), 15);
    // The same file again: a second module with data of its own, which the name now finds.
    PELOAD_MODULE* again = PELOAD_LoadLibraryEx(file.get(), p, 1);
    ASSERT_TRUE(again && again != a);
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), 2u);
    *counter = 1;
    EXPECT_EQ(*Export<int*>(again, "a_counter"), 41);
    EXPECT_EQ(PELOAD_LoadLibraryEx("pe_test_a.dll", p, 0), again);
    MODLOAD_TerminateProcess(p);
  }
}

TEST_F(PeDll, ImportsFromAPeDllAndANativeModule) {
  VFile fa(a_, VRKVFILE_COPY), fb(b_, VRKVFILE_IN_MEMORY), fr(refuse_, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess(fa.get());
  PELOAD_MODULE* b = PELOAD_LoadLibraryEx(fb.get(), p, 1);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Export<int (*)(int)>(b, "Combined")(4), (4 + 1) * (4 * 3));
  // A refusing entry point: its DLL is not listed and its image is gone, but
  // the reference that its binding took on A stays, as B's does.
  EXPECT_EQ(PELOAD_LoadLibraryEx(fr.get(), p, 1), nullptr);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), 2u);
  EXPECT_EQ(PELOAD_LoadLibraryEx("pe_test_a.dll", p, 0)->refcount, 4);
  EXPECT_EQ(Natives::Get().loads, Strings{"vrk_native.dll"});
  Strings order;  // oldest first
  for (PELOAD_MODULE* m = p->modules; m; m = m->next) order.insert(order.begin(), m->fullName);
  EXPECT_EQ(order, (Strings{"pe_test_a.dll", "vrk_native.dll", "pe_test_b.dll"}));
  MODLOAD_TerminateProcess(p);
  EXPECT_EQ(Natives::Get().frees, Strings{"vrk_native.dll"});
}

TEST_F(PeDll, EveryRefusedAllocationOfAChainedLoadLeavesNothing) {
  VFile fa(a_, VRKVFILE_COPY), fb(b_, VRKVFILE_COPY);
  for (uint32_t n = 1; n <= 40; ++n) {
    SCOPED_TRACE(n);
    const uint32_t blocks = LiveBlocks();
    vrkalloc_fail_nth(n);
    MODLOAD_PROCESS* p = NewProcess(fa.get());
    if (p) (void)PELOAD_LoadLibraryEx(fb.get(), p, 1);
    vrkalloc_fail_nth(0);
    MODLOAD_TerminateProcess(p);
    EXPECT_EQ(LiveBlocks(), blocks);
    EXPECT_EQ(Natives::Get().live, 0);  // every native handle handed back once
  }
}

#else
TEST(PeDll, SkippedWithoutMinGW) { GTEST_SKIP() << "i686-w64-mingw32-gcc not found at configure time"; }
#endif

}  // namespace
}  // namespace vrk::test
