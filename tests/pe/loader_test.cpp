// The image reader, loader and process records over images built by the PE
// writer: exports, relocations, in-place use, import binding decisions,
// entry points, native modules, allocator patterns and hostile images.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "pe_test_util.h"
#include "pe_writer.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrk::test {
namespace {

class PeLoader : public ::testing::Test {
 protected:
  void SetUp() override { Natives::Reset(); }
};

uint32_t Base(const PELOAD_MODULE* m) { return uint32_t(reinterpret_cast<uintptr_t>(ImageOf(m)->image)); }

// ---- exports and names ----

TEST_F(PeLoader, ExportsByNameAndOrdinal) {
  PeWriter w;
  // Slot 1 is empty; "Alpha" (slot 0) and "alpha" (slot 3) differ in case
  // only; slot 2 gets two names, the later one kept.
  w.AddExports(0x1400, "crafted.dll", 5, {0x1100, 0, 0x1200, 0x1300},
               {{"Alpha", 0}, {"first", 2}, {"second", 2}, {"alpha", 3}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess();
  PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
  ASSERT_NE(m, nullptr);
  const uint32_t base = Base(m);
  EXPECT_STREQ(m->fullName, "crafted.dll");
  EXPECT_STREQ(ImageOf(m)->name, "crafted.dll");
  EXPECT_EQ(m->kind, PELOAD_KIND_PE);
  EXPECT_EQ(m->refcount, 1);
  EXPECT_EQ(PELOAD_GetProcAddress(m, "ALPHA"), base + 0x1300);  // highest index wins
  EXPECT_EQ(PELOAD_GetProcAddress(m, "second"), base + 0x1200);
  EXPECT_EQ(PELOAD_GetProcAddress(m, "first"), 0u);
  EXPECT_EQ(PELOAD_GetProcAddress(m, "missing"), 0u);
  EXPECT_EQ(PELOAD_GetProcAddress(m, reinterpret_cast<const char*>(5)), base + 0x1100);
  EXPECT_EQ(PELOAD_GetProcAddress(m, reinterpret_cast<const char*>(6)), 0u);  // empty slot
  EXPECT_EQ(PELOAD_GetProcAddress(m, reinterpret_cast<const char*>(8)), base + 0x1300);
  EXPECT_EQ(PELOAD_GetProcAddress(m, reinterpret_cast<const char*>(1)), 0u);
  EXPECT_EQ(PELOAD_GetProcAddress(m, nullptr), 0u);
  EXPECT_EQ(PELOAD_GetProcAddress(nullptr, "Alpha"), 0u);
  // The list holds every slot, the empty one too, in reverse order.
  std::vector<uint32_t> ordinals;
  for (const PELOAD_EXPORT* e = ImageOf(m)->exports; e; e = e->next) ordinals.push_back(e->ordinal);
  EXPECT_EQ(ordinals, (std::vector<uint32_t>{8, 7, 0xFFFFFFFF, 5}));
  MODLOAD_TerminateProcess(p);
}

TEST_F(PeLoader, FoundByWholeNameCaseIgnoredAndCounted) {
  PeWriter w;
  w.AddExports(0x1400, "Crafted.DLL", 1, {0x1100}, {{"f", 0}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess();
  PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx("crafted.dll", p, 0), m);
  EXPECT_EQ(m->refcount, 2);
  // A directory or a dropped extension is another name: it goes to the
  // load callback, which does not know it.
  EXPECT_EQ(PELOAD_LoadLibraryEx("dir/crafted.dll", p, 0), nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx("crafted", p, 0), nullptr);
  EXPECT_EQ(Natives::Get().loads, (std::vector<std::string>{"dir/crafted.dll", "crafted"}));
  // Freeing a PE module only counts down, and stops at 0.
  EXPECT_EQ(PELOAD_FreeLibrary(m), 1);
  EXPECT_EQ(PELOAD_FreeLibrary(m), 1);
  EXPECT_EQ(PELOAD_FreeLibrary(m), 1);
  EXPECT_EQ(m->refcount, 0);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), 1u);
  EXPECT_EQ(PELOAD_GetProcAddress(m, "f"), Base(m) + 0x1100);
  MODLOAD_TerminateProcess(p);
}

TEST_F(PeLoader, LongExportNameIsCutTo39AndFoundSo) {
  const std::string long_name(45, 'n');
  PeWriter w;
  w.AddExports(0x1400, long_name, 1, {0x1100}, {});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  char buffer[64];
  std::memset(buffer, 'x', sizeof buffer);
  ASSERT_EQ(PELOAD_GetDllNameH(file.get(), buffer, 10), 1);
  EXPECT_STREQ(buffer, "nnnnnnnnn");
  EXPECT_EQ(buffer[10], 'x');
  MODLOAD_PROCESS* p = NewProcess();
  PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(std::string(m->fullName), long_name.substr(0, 39));
  EXPECT_EQ(std::string(m->name), long_name.substr(0, 15));
  EXPECT_EQ(PELOAD_LoadLibraryEx(long_name.substr(0, 39).c_str(), p, 0), m);
  EXPECT_EQ(PELOAD_LoadLibraryEx(long_name.substr(0, 15).c_str(), p, 0), nullptr);
  MODLOAD_TerminateProcess(p);
}

TEST_F(PeLoader, NoExportDirectoryMeansNoExportsAndEmptyName) {
  PeWriter w;
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  char buffer[8] = "xxxxxxx";
  EXPECT_EQ(PELOAD_GetDllNameH(file.get(), buffer, sizeof buffer), 1);
  EXPECT_STREQ(buffer, "");
  MODLOAD_PROCESS* p = NewProcess(file.get());
  ASSERT_NE(p->modules, nullptr);
  EXPECT_STREQ(p->modules->fullName, "");
  EXPECT_EQ(ImageOf(p->modules)->exports, nullptr);
  MODLOAD_TerminateProcess(p);
}

// ---- allocator and virtual-file patterns ----

TEST_F(PeLoader, AllocatorCallsOfACopiedLoad) {
  PeWriter w;
  w.AddExports(0x1400, "m.dll", 1, {0x1100, 0x1104}, {{"a", 0}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess();
  vrkalloc_log_enable(1);
  PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
  ASSERT_NE(m, nullptr);
  MODLOAD_TerminateProcess(p);
  vrkalloc_log_enable(0);
  struct Call {
    int op;
    uint32_t a, b, c;
  };
  const Call expected[] = {
      {VRKALLOC_PCALLOC, 1, sizeof(PELOAD_IMAGE), 0},
      {VRKALLOC_PCALLOCX, 0x2000 + 0x1000, 1, 0},  // SizeOfImage + SectionAlignment
      {VRKALLOC_PCALLOC, 3, 12, 0},                 // two functions and the closing slot
      {VRKALLOC_PMALLOC, sizeof(PELOAD_EXPORT), 0, 0},
      {VRKALLOC_PMALLOC, sizeof(PELOAD_EXPORT), 0, 0},
      {VRKALLOC_PFREE, 0, 0, 0},
      {VRKALLOC_PCALLOC, 1, sizeof(PELOAD_MODULE) + 6, 0},  // the entry with "m.dll"
      {VRKALLOC_PFREEX, 0, 0, 0},
      {VRKALLOC_PFREE, 0, 0, 0},  // export nodes
      {VRKALLOC_PFREE, 0, 0, 0},
      {VRKALLOC_PFREE, 0, 0, 0},  // image record
      {VRKALLOC_PFREE, 0, 0, 0},  // entry
      {VRKALLOC_PFREE, 0, 0, 0},  // process record
  };
  ASSERT_EQ(vrkalloc_log_size(), std::size(expected));
  for (uint32_t i = 0; i < std::size(expected); ++i) {
    SCOPED_TRACE(i);
    const VrkAllocCall* c = vrkalloc_log_at(i);
    EXPECT_EQ(c->op, expected[i].op);
    if (c->op != VRKALLOC_PFREE && c->op != VRKALLOC_PFREEX) {
      EXPECT_EQ(c->a, expected[i].a);
      EXPECT_EQ(c->b, expected[i].b);
      EXPECT_EQ(c->c, expected[i].c);
    }
  }
}

TEST_F(PeLoader, EveryRefusedAllocationLeavesNothing) {
  PeWriter w;
  w.AddExports(0x1400, "m.dll", 1, {0x1100, 0x1104, 0x1108}, {{"a", 0}, {"b", 1}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  for (uint32_t n = 1; n <= 10; ++n) {
    SCOPED_TRACE(n);
    const uint32_t blocks = LiveBlocks();
    MODLOAD_PROCESS* p = NewProcess();
    vrkalloc_fail_nth(n);
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    vrkalloc_fail_nth(0);
    // Refusing the record, block, slot table or entry fails the load; a
    // refused export node only loses that export.
    if (n == 4 || n == 5 || n == 6) {
      ASSERT_NE(m, nullptr);
      uint32_t count = 0;
      for (const PELOAD_EXPORT* e = ImageOf(m)->exports; e; e = e->next) ++count;
      EXPECT_EQ(count, 2u);
    } else if (n <= 7) {
      EXPECT_EQ(m, nullptr);
      EXPECT_EQ(p->modules, nullptr);
    } else {
      EXPECT_NE(m, nullptr);
    }
    MODLOAD_TerminateProcess(p);
    EXPECT_EQ(LiveBlocks(), blocks);
  }
}

TEST_F(PeLoader, FailedReadsAllocateNothing) {
  PeWriter w;
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  char name[8];
  vrkvfile_fail_seek(file.get(), 1);
  vrkalloc_log_enable(1);
  EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 0);
  EXPECT_EQ(vrkalloc_log_size(), 0u);
  vrkvfile_fail_seek(file.get(), 0);
  for (uint32_t limit : {0u, 63u, 0x80u + 247u}) {
    SCOPED_TRACE(limit);
    vrkvfile_fail_reads_from(file.get(), limit);
    EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 0);
    EXPECT_EQ(vrkalloc_log_size(), 0u);
  }
  // Sections that come up short leave zeros: the read still succeeds.
  vrkvfile_fail_reads_from(file.get(), 0x500);
  EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 1);
  vrkalloc_log_enable(0);
}

// ---- relocations ----

TEST_F(PeLoader, RelocationsOfType3OnlyAndShortBlocks) {
  PeWriter w;
  w.Put32(0x1100, 0x10001234);
  w.Put32(0x1104, 0x10000000);
  w.Put32(0x1108, 0x10000010);
  w.Put32(0x110C, 0x10000020);
  w.Put32(0x1FFC, 0x10000030);  // at the end of the section
  // Block 1: type 3, padding type 0, type 2 (low half). Block 2 says 9
  // bytes: no entries, and the next block starts 8 bytes on. Block 3 holds
  // a type-3 entry and one whose target would straddle the image end.
  w.Put32(0x1800, 0x1000);
  w.Put32(0x1804, 14);
  w.Put16(0x1808, 0x3100);
  w.Put16(0x180A, 0x0104);
  w.Put16(0x180C, 0x2108);
  w.Put32(0x180E, 0x1000);
  w.Put32(0x1812, 9);
  w.Put32(0x1816, 0x1000);
  w.Put32(0x181A, 12);
  w.Put16(0x181E, 0x310C);
  w.Put16(0x1820, 0x3FFC);
  w.SetDir(PE_DIRECTORY_ENTRY_BASERELOC, 0x1800, 0x22);
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess(file.get());
  ASSERT_NE(p->modules, nullptr);
  const uint8_t* image = ImageOf(p->modules)->image;
  const uint32_t delta = Base(p->modules) - 0x10000000;
  EXPECT_EQ(Read32(image + 0x1100), 0x10001234 + delta);
  EXPECT_EQ(Read32(image + 0x1104), 0x10000000u);
  EXPECT_EQ(Read32(image + 0x1108), 0x10000010u);
  EXPECT_EQ(Read32(image + 0x110C), 0x10000020 + delta);
  EXPECT_EQ(Read32(image + 0x1FFC), 0x10000030 + delta);
  MODLOAD_TerminateProcess(p);
}

TEST_F(PeLoader, RelocationSizeZeroIsRefused) {
  PeWriter w;
  w.SetDir(PE_DIRECTORY_ENTRY_BASERELOC, 0x1FF8, 0);
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  char name[8];
  EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 0);
  MODLOAD_PROCESS* p = NewProcess(file.get());
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->modules, nullptr);
  MODLOAD_TerminateProcess(p);
}

TEST_F(PeLoader, SignaturesTheReaderTakes) {
  struct Case {
    uint16_t dos;
    uint32_t nt;
    bool loads;
  };
  const Case cases[] = {{0x5A4D, 0x4550, true}, {0x5A4D, 0x4551, true}, {0x4D5A, 0x4550, false}, {0x5A4D, 0x4552, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.nt);
    PeWriter w;
    w.dos_magic = c.dos;
    w.nt.Signature = c.nt;
    auto bytes = w.Bytes();
    VFile file(bytes, VRKVFILE_COPY);
    char name[8];
    EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), c.loads ? 1 : 0);
  }
}

// ---- in-place use ----

// One section laid out as it runs, no relocation walk, importing one
// function of a native module into its address table at `iat`.
PeWriter InPlaceImage(uint32_t characteristics) {
  PeWriter w;
  w.nt.OptionalHeader.SectionAlignment = 0x200;
  w.nt.OptionalHeader.FileAlignment = 0x200;
  w.nt.OptionalHeader.SizeOfHeaders = 0x200;
  w.sections[0].VirtualAddress = 0x200;
  w.sections[0].Characteristics = characteristics;
  w.nt.OptionalHeader.SizeOfImage = 0x1200;
  w.Put32(0x300, 0x10000300);  // would change if a relocation were applied
  w.Put32(0x400, 0x0);
  w.Put32(0x404, 0x3100);
  w.SetDir(PE_DIRECTORY_ENTRY_BASERELOC, 0x400, 0xFFFFFFFF);
  w.AddExports(0x800, "inplace.dll", 1, {0x300}, {{"f", 0}});
  return w;
}

TEST_F(PeLoader, InPlaceOnlyForMemoryHeldFilesLaidOutToRun) {
  Natives::Get().modules["native.dll"]["g"] = 0xCAFE0000;
  struct Case {
    const char* what;
    uint32_t characteristics;
    int mode;
    bool in_place;
  };
  const Case cases[] = {
      {"memory, 0x40000040", 0x40000040, VRKVFILE_IN_MEMORY, true},
      {"copying library", 0x40000040, VRKVFILE_COPY, false},
      {"writable section", 0xC0000040, VRKVFILE_IN_MEMORY, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PeWriter w = InPlaceImage(c.characteristics);
    const uint32_t iat = w.AddImports(0xA00, {{"native.dll", {{"g"}}}})[0];
    auto bytes = w.Bytes();
    VFile file(bytes, c.mode);
    MODLOAD_PROCESS* p = NewProcess();
    vrkvfile_log_clear(file.get());
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    ASSERT_NE(m, nullptr);
    // The probe: one VReadPtr of one byte at position 0, after which the
    // file position goes back to just past the NT headers.
    uint32_t probes = 0;
    for (uint32_t i = 0; i < vrkvfile_log_size(file.get()); ++i) {
      const VrkVFileCall* call = vrkvfile_log_at(file.get(), i);
      if (call->op != VRKVFILE_READPTR) continue;
      ++probes;
      EXPECT_EQ(call->position, 0u);
      EXPECT_EQ(call->size, 1u);
      EXPECT_EQ(call->count, 1u);
      EXPECT_EQ(call->in_place, c.mode == VRKVFILE_IN_MEMORY ? 1 : 0);
      const VrkVFileCall* back = vrkvfile_log_at(file.get(), i + 1);
      ASSERT_NE(back, nullptr);
      EXPECT_EQ(back->op, VRKVFILE_SEEK);
      EXPECT_EQ(back->size, 0x80u + 248u);
    }
    EXPECT_EQ(probes, 1u);
    const PELOAD_IMAGE* image = ImageOf(m);
    EXPECT_EQ(image->inPlace, c.in_place ? 1 : 0);
    EXPECT_EQ(image->image == bytes.data(), c.in_place);
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), c.in_place ? 0u : 1u);
    EXPECT_EQ(Read32(image->image + 0x300), 0x10000300u);  // no relocation in either case
    EXPECT_EQ(Read32(image->image + iat), 0xCAFE0000u);  // bound in the image (the file's memory in place)
    EXPECT_EQ(Read32(bytes.data() + iat) == 0xCAFE0000u, c.in_place);
    char name[16];
    EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 1);
    EXPECT_STREQ(name, "inplace.dll");
    MODLOAD_TerminateProcess(p);
  }
}

// ---- import binding ----

TEST_F(PeLoader, FailedBindingFailsTheLoadButKeepsSlotsAndReferences) {
  Natives::Get().modules["good.dll"]["g"] = 0xCAFE0000;
  PeWriter w = InPlaceImage(0x40000040);
  const auto iats = w.AddImports(0xA00, {{"good.dll", {{"g"}}}, {"missing.dll", {{"h"}}}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_IN_MEMORY);
  MODLOAD_PROCESS* p = NewProcess();
  EXPECT_EQ(PELOAD_LoadLibraryEx(file.get(), p, 1), nullptr);
  // The first import was bound (in the file's memory) and keeps its
  // reference; nothing of the failed module is listed.
  EXPECT_EQ(Read32(bytes.data() + iats[0]), 0xCAFE0000u);
  ASSERT_NE(p->modules, nullptr);
  EXPECT_STREQ(p->modules->fullName, "good.dll");
  EXPECT_EQ(p->modules->next, nullptr);
  EXPECT_EQ(p->modules->refcount, 1);
  MODLOAD_TerminateProcess(p);
  EXPECT_EQ(Natives::Get().frees, (std::vector<std::string>{"good.dll"}));
}

TEST_F(PeLoader, OrdinalImports) {
  Natives::Get().modules["n.dll"]["#7"] = 0x7777;
  Natives::Get().modules["n.dll"]["#65535"] = 0xFFFF0;
  struct Case {
    uint32_t thunk;
    bool loads;
  };
  const Case cases[] = {{0x80000007, true}, {0x8000FFFF, true}, {0x80010000, false}, {0xFFFFFFFF, false}, {0x80000000, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.thunk);
    Natives::Get().lookups.clear();
    PeWriter w;
    const uint32_t iat = w.AddImports(0x1400, {{"n.dll", {{"", c.thunk}}}})[0];
    auto bytes = w.Bytes();
    VFile file(bytes, VRKVFILE_COPY);
    MODLOAD_PROCESS* p = NewProcess();
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    EXPECT_EQ(m != nullptr, c.loads);
    if (m) {
      EXPECT_EQ(Read32(ImageOf(m)->image + iat), Natives::Get().modules["n.dll"]["#" + std::to_string(c.thunk & 0xFFFF)]);
    }
    // An ordinal above 0xFFFF never reaches getProc as a would-be name.
    if (c.thunk == 0x80010000 || c.thunk == 0xFFFFFFFF) {
      EXPECT_TRUE(Natives::Get().lookups.empty());
    }
    MODLOAD_TerminateProcess(p);
  }
}

// ---- entry points ----

TEST_F(PeLoader, EntryPointDecidesAndIsCalledOnlyWhenAsked) {
  struct Case {
    const char* what;
    std::function<void(PeWriter&)> change;
    bool loads;
  };
  const Case cases[] = {
      {"returns 1", [](PeWriter& w) { w.SetEntryCode(0x1100, kEntryReturns1); }, true},
      {"returns 0", [](PeWriter& w) { w.SetEntryCode(0x1100, kEntryReturns0); }, false},
      {"refusing, but not asked for", [](PeWriter& w) { w.SetEntryCode(0x1100, kEntryReturns0); w.nt.OptionalHeader.DllCharacteristics = 0; }, true},
      {"refusing, but not a DLL", [](PeWriter& w) { w.SetEntryCode(0x1100, kEntryReturns0); w.nt.FileHeader.Characteristics = 0x0102; }, true},
      {"outside the image", [](PeWriter& w) { w.SetEntryCode(0x1100, kEntryReturns1); w.nt.OptionalHeader.AddressOfEntryPoint = 0x3000; }, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PeWriter w;
    c.change(w);
    auto bytes = w.Bytes();
    VFile file(bytes, VRKVFILE_COPY);
    MODLOAD_PROCESS* p = NewProcess();
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    EXPECT_EQ(m != nullptr, c.loads);
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), c.loads ? 1u : 0u);
    MODLOAD_TerminateProcess(p);
  }
}

// ---- native modules and process records ----

TEST_F(PeLoader, NativeModulesThroughCallbacks) {
  Natives& n = Natives::Get();
  const std::string long_name = std::string(100, 'L') + ".so";
  for (const std::string& name : {std::string("a.so"), std::string("b.so"), long_name, long_name + "x"})
    n.modules[name]["f"] = 0x1234;
  MODLOAD_PROCESS* p = NewProcess();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->modules, nullptr);
  PELOAD_MODULE* a = PELOAD_LoadLibraryEx("a.so", p, 0);
  PELOAD_MODULE* b = PELOAD_LoadLibraryEx("b.so", p, 0);
  PELOAD_MODULE* l = PELOAD_LoadLibraryEx(long_name.c_str(), p, 0);
  PELOAD_MODULE* lx = PELOAD_LoadLibraryEx((long_name + "x").c_str(), p, 0);
  ASSERT_TRUE(a && b && l && lx);
  EXPECT_NE(l, lx);  // found by the whole name, not a prefix
  EXPECT_EQ(PELOAD_LoadLibraryEx("A.SO", p, 0), a);
  EXPECT_EQ(a->refcount, 2);
  EXPECT_EQ(a->kind, PELOAD_KIND_NATIVE);
  EXPECT_EQ(PELOAD_GetProcAddress(a, "f"), 0x1234u);
  EXPECT_EQ(PELOAD_GetProcAddress(a, reinterpret_cast<const char*>(3)), 0u);
  EXPECT_EQ(n.lookups, (std::vector<std::string>{"a.so!f", "a.so!#3"}));
  EXPECT_EQ(PELOAD_LoadLibraryEx("unknown.so", p, 0), nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx(nullptr, nullptr, 0), nullptr);
  // Down to 0: the handle is freed once and the entry leaves the list; the
  // next load by that name asks the callback again.
  PELOAD_FreeLibrary(b);
  EXPECT_EQ(n.frees, (std::vector<std::string>{"b.so"}));
  for (PELOAD_MODULE* m = p->modules; m; m = m->next) EXPECT_NE(m, b);
  n.loads.clear();
  PELOAD_MODULE* b2 = PELOAD_LoadLibraryEx("b.so", p, 0);
  ASSERT_NE(b2, nullptr);
  EXPECT_EQ(n.loads, (std::vector<std::string>{"b.so"}));
  PELOAD_FreeLibrary(a);
  EXPECT_EQ(a->refcount, 1);
  n.frees.clear();
  MODLOAD_TerminateProcess(p);
  // Oldest first, every handle once.
  EXPECT_EQ(n.frees, (std::vector<std::string>{"a.so", long_name, long_name + "x", "b.so"}));
  MODLOAD_TerminateProcess(nullptr);
}

TEST_F(PeLoader, RefusedNativeEntryHandsTheHandleBack) {
  Natives::Get().modules["a.so"] = {};
  MODLOAD_PROCESS* p = NewProcess();
  vrkalloc_fail_nth(1);
  EXPECT_EQ(PELOAD_LoadLibraryEx("a.so", p, 0), nullptr);
  EXPECT_EQ(Natives::Get().frees, (std::vector<std::string>{"a.so"}));
  MODLOAD_TerminateProcess(p);
  vrkalloc_fail_nth(1);
  EXPECT_EQ(NewProcess(), nullptr);
}

TEST_F(PeLoader, NoLoadCallbackMeansNoNativeModules) {
  MODLOAD_PROCESS* p = MODLOAD_CreateProcess(nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx("a.so", p, 0), nullptr);
  EXPECT_EQ(PELOAD_FreeLibrary(nullptr), 1);
  MODLOAD_TerminateProcess(p);
}

// ---- hostile images ----

// Every hostile image must be read, loaded and torn down without touching
// memory outside the image (the sanitizer build watches) and without leaks.
TEST_F(PeLoader, HostileImages) {
  Natives::Get().accept_everything = true;
  struct Case {
    const char* what;
    std::function<void(PeWriter&)> change;
    bool loads;
    std::function<void(const PELOAD_MODULE*)> check = nullptr;
  };
  const Case cases[] = {
      {"e_lfanew beyond 2 GiB", [](PeWriter& w) { w.lfanew = 0x80; w.nt.Signature = 0; }, false},
      {"headers larger than the file", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfHeaders = 0xFFFFFF00; }, true},
      {"image too small for its NT headers", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfImage = 0x40; w.nt.OptionalHeader.SectionAlignment = 0x10; }, false},
      {"block size wraps", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfImage = 0xFFFFF000; }, false},
      {"section outside the block", [](PeWriter& w) { w.sections[0].VirtualAddress = 0x7FFF0000; }, true},
      {"section raw size past the block", [](PeWriter& w) { w.auto_raw = false; w.sections[0].PointerToRawData = 0x400; w.sections[0].SizeOfRawData = 0x7FFFFFFF; }, true},
      {"raw data beyond 2 GiB", [](PeWriter& w) { w.auto_raw = false; w.sections[0].PointerToRawData = 0x90000000; }, true},
      {"section table past the headers read", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfHeaders = 0x100; w.Put32(0x1100, 0x12345678); }, true,
       [](const PELOAD_MODULE* m) { EXPECT_EQ(Read32(ImageOf(m)->image + 0x1100), 0u); }},
      {"65535 sections", [](PeWriter& w) { w.auto_count = false; w.nt.FileHeader.NumberOfSections = 0xFFFF; }, true},
      {"relocation block of size 0", [](PeWriter& w) { w.Put32(0x1FFC, 0); }, true},
      {"relocation block running off the image", [](PeWriter& w) { w.Put32(0x1FFC, 0x7FFFFFF0); }, true},
      {"relocation directory wrapping", [](PeWriter& w) { w.SetDir(5, 0x1FF8, 0xFFFFFFF0); }, true},
      {"relocation directory outside", [](PeWriter& w) { w.SetDir(5, 0x7FFFFFF0, 0x100); }, true},
      {"relocation targets outside", [](PeWriter& w) { w.AddRelocations(0x1F00, {{0x7FFFF000, {0x3000}}, {0xFFFFF000, {0x3FFF}}, {0x2FFE, {0x3000}}}); }, true},
      {"export directory outside", [](PeWriter& w) { w.SetDir(0, 0x7FFFFFF0, 40); }, true,
       [](const PELOAD_MODULE* m) { EXPECT_STREQ(m->fullName, ""); EXPECT_EQ(ImageOf(m)->exports, nullptr); }},
      {"export directory straddling the end", [](PeWriter& w) { w.SetDir(0, 0x2FF0, 40); }, true},
      {"huge function count", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}}); w.Put32(0x1414, 0xFFFFFFFF); }, true},
      {"huge name count", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}}); w.Put32(0x1418, 0xFFFFFFFF); }, true},
      {"name index past the functions", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}, {"g", 1}, {"h", 0xFFFF}}); }, true,
       [](const PELOAD_MODULE* m) { EXPECT_EQ(PELOAD_GetProcAddress(const_cast<PELOAD_MODULE*>(m), "g"), 0u); }},
      {"name outside the image", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}}); w.Put32(0x1400 + 40 + 4, 0x7FFFFFF0); }, true,
       [](const PELOAD_MODULE* m) { EXPECT_EQ(PELOAD_GetProcAddress(const_cast<PELOAD_MODULE*>(m), "f"), 0u); }},
      {"module name unterminated at the image end", [](PeWriter& w) {
         w.AddExports(0x1400, "x.dll", 1, {0x1100}, {});
         w.Put32(0x140C, 0x1FFC);
         w.Put32(0x1FFC, 0x41414141);
         w.nt.OptionalHeader.SectionAlignment = 0x1000;
       }, true},
      {"function array outside", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {}); w.Put32(0x141C, 0xFFFFFFF0); }, true},
      {"import descriptor outside", [](PeWriter& w) { w.SetDir(1, 0x7FFFFFF0, 20); }, false},
      {"import descriptor straddling", [](PeWriter& w) { w.SetDir(1, 0x2FFC, 20); }, false},
      {"import DLL name outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x140C, 0x7FFFFFFF); }, false},
      {"import name outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"", 0x7FFFFFF0}}}}); }, false},
      {"import name near 4 GiB", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"", 0x7FFFFFFF}}}}); }, false},
      {"thunk table outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x1400, 0x7FFFFFF0); }, false},
      {"address table outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x1410, 0x7FFFFFF0); }, false},
      {"imports bound", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}, {"", 0x80000003}}}}); }, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PeWriter w;
    c.change(w);
    auto bytes = w.Bytes();
    if (std::string(c.what) == "e_lfanew beyond 2 GiB") std::memcpy(bytes.data() + 0x3C, "\xF0\xFF\xFF\xFF", 4);
    for (int mode : {VRKVFILE_COPY, VRKVFILE_IN_MEMORY}) {
      VFile file(bytes, mode);
      char name[PELOAD_NAME_SIZE];
      const std::string what = c.what;
      const bool readable = what != "e_lfanew beyond 2 GiB" && what != "image too small for its NT headers" &&
                            what != "block size wraps";
      EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), readable ? 1 : 0);
      MODLOAD_PROCESS* p = NewProcess();
      PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
      EXPECT_EQ(m != nullptr, c.loads);
      if (m && c.check) c.check(m);
      MODLOAD_TerminateProcess(p);
    }
  }
}

TEST_F(PeLoader, TruncatedFiles) {
  PeWriter w;
  const auto whole = w.Bytes();
  for (size_t size : {size_t(0), size_t(1), size_t(63), size_t(64), size_t(0x80), size_t(0x80 + 247)}) {
    SCOPED_TRACE(size);
    std::vector<uint8_t> bytes = whole;  // keeps its capacity: data() stays valid at size 0
    bytes.resize(size);
    VFile file(bytes, VRKVFILE_IN_MEMORY);
    char name[8];
    EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 0);
    MODLOAD_PROCESS* p = NewProcess(file.get());
    EXPECT_EQ(p->modules, nullptr);
    MODLOAD_TerminateProcess(p);
  }
  // Cut inside the section data: the rest reads as zeros.
  std::vector<uint8_t> bytes = whole;
  bytes.resize(0x500);
  VFile file(bytes, VRKVFILE_COPY);
  char name[8];
  EXPECT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 1);
}

}  // namespace
}  // namespace vrk::test
