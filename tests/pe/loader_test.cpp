// The image reader, loader and process records over images built by the PE
// writer: exports, names, allocator and file patterns, relocations, in-place
// use, import binding, entry points, native modules and hostile images.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "pe_test_util.h"
#include "support/alloc_trace.h"
#include "pe_writer.h"

namespace vrk::test {
namespace {

using Strings = std::vector<std::string>;

class PeLoader : public ::testing::Test {
 protected:
  void SetUp() override { Natives::Reset(); }
};

// ---- exports and names ----

TEST_F(PeLoader, ExportsNamesAndCounts) {
  PeWriter w;
  // Slot 1 is empty; "Alpha" (slot 0) and "alpha" (slot 3) differ in case
  // only; slot 2 gets two names, the later one kept.
  w.AddExports(0x1400, "Crafted.DLL", 5, {0x1100, 0, 0x1200, 0x1300},
               {{"Alpha", 0}, {"first", 2}, {"second", 2}, {"alpha", 3}});
  Loaded l(w.Bytes());
  ASSERT_NE(l.m, nullptr);
  const uint32_t base = Base(l.m);
  EXPECT_EQ(l.m->kind, PELOAD_KIND_PE);
  EXPECT_STREQ(ImageOf(l.m)->name, "Crafted.DLL");
  EXPECT_EQ(PELOAD_GetProcAddress(l.m, "ALPHA"), base + 0x1300);  // highest index wins
  EXPECT_EQ(PELOAD_GetProcAddress(l.m, "second"), base + 0x1200);
  for (const char* missing : {"first", "missing", static_cast<const char*>(nullptr)}) EXPECT_EQ(PELOAD_GetProcAddress(l.m, missing), 0u);
  EXPECT_EQ(PELOAD_GetProcAddress(nullptr, "Alpha"), 0u);
  // Ordinals 1 to 9: below the base, the slots (6 is empty), past the end.
  const uint32_t by_ordinal[] = {0, 0, 0, 0, 0, base + 0x1100, 0, base + 0x1200, base + 0x1300, 0};
  for (uint32_t n = 1; n < 10; ++n) EXPECT_EQ(PELOAD_GetProcAddress(l.m, Ordinal(n)), by_ordinal[n]) << n;
  // The list holds every slot, the empty one too, in reverse order.
  std::vector<uint32_t> ordinals;
  for (const PELOAD_EXPORT* e = ImageOf(l.m)->exports; e; e = e->next) ordinals.push_back(e->ordinal);
  EXPECT_EQ(ordinals, (std::vector<uint32_t>{8, 7, 0xFFFFFFFF, 5}));
  // Found again by its whole name, case ignored; a directory or a dropped
  // extension makes another name, which goes to the load callback.
  EXPECT_EQ(PELOAD_LoadLibraryEx("crafted.dll", l.p, 0), l.m);
  EXPECT_EQ(PELOAD_LoadLibraryEx("dir/crafted.dll", l.p, 0), nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx("crafted", l.p, 0), nullptr);
  EXPECT_EQ(Natives::Get().loads, (Strings{"dir/crafted.dll", "crafted"}));
  char cut[16] = "xxxxxxxxxxxxxxx";
  ASSERT_EQ(PELOAD_GetDllNameH(l.file.get(), cut, 5), 1);  // cut to the buffer, nothing past it
  EXPECT_EQ(std::string(cut, 6), std::string("Craf\0x", 6));
  // Freeing a PE module only counts down, stops at 0 and keeps the image.
  EXPECT_EQ(l.m->refcount, 2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(PELOAD_FreeLibrary(l.m), 1);
  EXPECT_EQ(l.m->refcount, 0);
  EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), 1u);
  EXPECT_EQ(PELOAD_GetProcAddress(l.m, "second"), base + 0x1200);
}

// ---- allocator and virtual-file patterns ----

TEST_F(PeLoader, AllocatorCallsOfACopiedLoadAndEveryRefusal) {
  PeWriter w;
  w.AddExports(0x1400, "m.dll", 1, {0x1100, 0x1104}, {{"a", 0}});
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess();
  AllocTrace trace;
  EXPECT_NE(PELOAD_LoadLibraryEx(file.get(), p, 1), nullptr);
  MODLOAD_TerminateProcess(p);
  trace.Stop();
  // (op, arguments); frees are compared by kind only.
  const std::array<uint32_t, 4> expected[] = {
      {VRKALLOC_PCALLOC, 1, sizeof(PELOAD_IMAGE)},
      {VRKALLOC_PCALLOCX, 0x2000 + 0x1000, 1},  // SizeOfImage + SectionAlignment
      {VRKALLOC_PCALLOC, 3, 12},                 // two functions and the closing slot
      {VRKALLOC_PMALLOC, sizeof(PELOAD_EXPORT)}, {VRKALLOC_PMALLOC, sizeof(PELOAD_EXPORT)}, {VRKALLOC_PFREE},
      {VRKALLOC_PCALLOC, 1, sizeof(PELOAD_MODULE) + 6},  // the entry with "m.dll"
      {VRKALLOC_PFREEX}, {VRKALLOC_PFREE}, {VRKALLOC_PFREE},  // image, export nodes
      {VRKALLOC_PFREE}, {VRKALLOC_PFREE}, {VRKALLOC_PFREE},   // image record, entry, process record
  };
  const auto calls = trace.Calls();
  ASSERT_EQ(calls.size(), std::size(expected));
  for (uint32_t i = 0; i < std::size(expected); ++i) {
    const VrkAllocCall& c = calls[i];
    const bool free = c.op == VRKALLOC_PFREE || c.op == VRKALLOC_PFREEX;
    EXPECT_EQ((std::array<uint32_t, 4>{uint32_t(c.op), free ? 0 : c.a, free ? 0 : c.b, free ? 0 : c.c}), expected[i]) << i;
  }
  // Refusing the record, block, slot table or entry fails the load; a
  // refused export node only loses that export. Nothing is left either way.
  for (uint32_t n = 1; n <= 8; ++n) {
    SCOPED_TRACE(n);
    const uint32_t blocks = LiveBlocks();
    p = NewProcess();
    vrkalloc_fail_nth(n);
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    vrkalloc_fail_nth(0);
    const bool node = n == 4 || n == 5;
    ASSERT_EQ(m != nullptr, node || n > 6);
    EXPECT_TRUE(m || !p->modules);
    uint32_t count = 0;
    for (const PELOAD_EXPORT* e = m ? ImageOf(m)->exports : nullptr; e; e = e->next) ++count;
    EXPECT_EQ(count, m ? (node ? 1u : 2u) : 0u);
    MODLOAD_TerminateProcess(p);
    EXPECT_EQ(LiveBlocks(), blocks);
  }
}

TEST_F(PeLoader, TruncatedFilesAndFailedReads) {
  auto whole = PeWriter().Bytes();
  char name[8];
  for (uint32_t size : {0u, 1u, 63u, 64u, 0x80u, 0x80u + 247u, 0x500u}) {
    SCOPED_TRACE(size);
    const int readable = size == 0x500;  // cut inside the section data: the rest reads as zeros
    // Reads that fail from there on, and a failing seek: nothing allocated.
    VFile failing(whole, VRKVFILE_COPY);
    vrkvfile_fail_reads_from(failing.get(), size);
    AllocTrace trace;
    EXPECT_EQ(PELOAD_GetDllNameH(failing.get(), name, sizeof name), readable);
    vrkvfile_fail_seek(failing.get(), 1);
    EXPECT_EQ(PELOAD_GetDllNameH(failing.get(), name, sizeof name), 0);
    EXPECT_TRUE(readable || trace.Calls().empty());
  }
}

// ---- relocations and in-place use ----

TEST_F(PeLoader, RelocationsOfType3OnlyAndShortBlocks) {
  PeWriter w;
  // Block 1: type 3, padding type 0, type 2 (low half). Block 2 says 9
  // bytes: no entries, and the next block starts 8 bytes on. Block 3: a
  // type-3 entry and one whose target ends at the image end.
  w.AddRelocations(0x1800, {{0x1000, {0x3100, 0x0104, 0x2108}}, {0x1000, {}}, {0x1000, {0x310C, 0x3FFC}}});
  w.Put32(0x180E + 4, 9);
  const std::pair<uint32_t, bool> words[] = {{0x1100, true}, {0x1104, false}, {0x1108, false}, {0x110C, true}, {0x1FFC, true}};
  for (auto [rva, relocated] : words) w.Put32(rva, 0x10000000 + rva);
  auto bytes = w.Bytes();
  VFile file(bytes, VRKVFILE_COPY);
  MODLOAD_PROCESS* p = NewProcess(file.get());
  ASSERT_NE(p->modules, nullptr);
  const uint32_t delta = Base(p->modules) - 0x10000000;
  EXPECT_NE(delta, 0u);
  for (auto [rva, relocated] : words) EXPECT_EQ(Read32(ImageOf(p->modules)->image + rva), 0x10000000 + rva + (relocated ? delta : 0));
  MODLOAD_TerminateProcess(p);
}

// One section laid out as it runs (with `characteristics`), a relocation
// directory no walk could follow, and an export at 0x300.
PeWriter InPlaceImage(uint32_t characteristics) {
  PeWriter w;
  w.nt.OptionalHeader.SectionAlignment = w.nt.OptionalHeader.SizeOfHeaders = 0x200;
  w.nt.OptionalHeader.SizeOfImage = 0x1200;
  w.sections[0].VirtualAddress = w.sections[0].PointerToRawData = 0x200;
  w.sections[0].Characteristics = characteristics;
  w.Put32(0x300, 0x10000300);  // would change if a relocation were applied
  w.Put32(0x404, 0x3100);
  w.SetDir(PE_DIRECTORY_ENTRY_BASERELOC, 0x400, 0xFFFFFFFF);
  w.AddExports(0x800, "inplace.dll", 1, {0x300}, {{"f", 0}});
  return w;
}

TEST_F(PeLoader, InPlaceOnlyForMemoryHeldFilesLaidOutToRun) {
  Natives::Get().modules["native.dll"]["g"] = 0xCAFE0000;
  const std::tuple<uint32_t, int, bool> cases[] = {  // (section flags, file mode, in place)
      {0x40000040, VRKVFILE_IN_MEMORY, true}, {0x40000040, VRKVFILE_COPY, false}, {0xC0000040, VRKVFILE_IN_MEMORY, false}};
  for (auto [characteristics, mode, in_place] : cases) {
    SCOPED_TRACE(characteristics + mode);
    PeWriter w = InPlaceImage(characteristics);
    const uint32_t iat = w.AddImports(0xA00, {{"native.dll", {{"g"}}}})[0];
    Loaded l(w.Bytes(), mode);
    ASSERT_NE(l.m, nullptr);
    // The probe: one VReadPtr of one byte at position 0, then a seek back to
    // just past the NT headers.
    uint32_t probes = 0;
    for (uint32_t i = 0; i < vrkvfile_log_size(l.file.get()); ++i) {
      const VrkVFileCall* call = vrkvfile_log_at(l.file.get(), i);
      if (call->op != VRKVFILE_READPTR) continue;
      ++probes;
      EXPECT_EQ(std::tie(call->position, call->size, call->count), std::tuple(0u, 1u, 1u));
      EXPECT_EQ(call->in_place, mode == VRKVFILE_IN_MEMORY ? 1 : 0);
      const VrkVFileCall* back = vrkvfile_log_at(l.file.get(), i + 1);
      ASSERT_TRUE(back && back->op == VRKVFILE_SEEK);
      EXPECT_EQ(back->size, 0x80u + 248u);
    }
    EXPECT_EQ(probes, 1u);
    const PELOAD_IMAGE* image = ImageOf(l.m);
    EXPECT_EQ(image->inPlace, in_place ? 1 : 0);
    EXPECT_EQ(image->image == l.bytes.data(), in_place);
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), in_place ? 0u : 1u);
    EXPECT_EQ(Read32(image->image + 0x300), 0x10000300u);  // no relocation in either case
    EXPECT_EQ(Read32(image->image + iat), 0xCAFE0000u);   // bound in the image: the file's memory in place
    EXPECT_EQ(Read32(l.bytes.data() + iat) == 0xCAFE0000u, in_place);
    char name[16];
    EXPECT_EQ(PELOAD_GetDllNameH(l.file.get(), name, sizeof name), 1);
    EXPECT_STREQ(name, "inplace.dll");
  }
}

// ---- import binding and entry points ----

TEST_F(PeLoader, FailedBindingFailsTheLoadButKeepsSlotsAndReferences) {
  Natives::Get().modules["good.dll"]["g"] = 0xCAFE0000;
  PeWriter w = InPlaceImage(0x40000040);
  const auto iats = w.AddImports(0xA00, {{"good.dll", {{"g"}}}, {"missing.dll", {{"h"}}}});
  {
    Loaded l(w.Bytes(), VRKVFILE_IN_MEMORY);
    EXPECT_EQ(l.m, nullptr);
    EXPECT_EQ(Natives::Get().loads, (Strings{"good.dll", "missing.dll"}));  // imported names go to the callback
    // The first import was bound (in the file's memory) and keeps its
    // reference; nothing of the failed module is listed.
    EXPECT_EQ(Read32(l.bytes.data() + iats[0]), 0xCAFE0000u);
    ASSERT_NE(l.p->modules, nullptr);
    EXPECT_STREQ(l.p->modules->fullName, "good.dll");
    EXPECT_EQ(l.p->modules->next, nullptr);
    EXPECT_EQ(l.p->modules->refcount, 1);
  }
  EXPECT_EQ(Natives::Get().frees, Strings{"good.dll"});
}

TEST_F(PeLoader, EntryPointDecidesAndIsCalledOnlyWhenAsked) {
  struct Case {
    const char* what;
    const std::vector<uint8_t>& code;
    std::function<void(PeWriter&)> change;
    bool loads;
  };
  const Case cases[] = {
      {"returns 1", kEntryReturns1, [](PeWriter&) {}, true},
      {"returns 0", kEntryReturns0, [](PeWriter&) {}, false},
      {"refusing, but not asked for", kEntryReturns0, [](PeWriter& w) { w.nt.OptionalHeader.DllCharacteristics = 0; }, true},
      {"refusing, but not a DLL", kEntryReturns0, [](PeWriter& w) { w.nt.FileHeader.Characteristics = 0x0102; }, true},
      {"outside the image", kEntryReturns1, [](PeWriter& w) { w.nt.OptionalHeader.AddressOfEntryPoint = 0x3000; }, false},
  };
  for (const Case& c : cases) {
    PeWriter w;
    w.SetEntryCode(0x1100, c.code);
    c.change(w);
    Loaded l(w.Bytes());
    EXPECT_EQ(l.m != nullptr, c.loads) << c.what;
    EXPECT_EQ(vrkalloc_live(VRKALLOC_FAMILY_X), c.loads ? 1u : 0u) << c.what;
  }
}

// ---- native modules and process records ----

TEST_F(PeLoader, NativeModulesThroughCallbacks) {
  Natives& n = Natives::Get();
  const std::string long_name = std::string(100, 'L') + ".so";
  for (const std::string& name : {std::string("a.so"), std::string("b.so"), long_name, long_name + "x"}) n.modules[name]["f"] = 0x1234;
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
  EXPECT_EQ(PELOAD_GetProcAddress(a, Ordinal(3)), 0u);
  EXPECT_EQ(n.lookups, (Strings{"a.so!f", "a.so!#3"}));
  EXPECT_EQ(PELOAD_LoadLibraryEx("unknown.so", p, 0), nullptr);
  EXPECT_EQ(PELOAD_LoadLibraryEx(nullptr, nullptr, 0), nullptr);
  // Down to 0: the handle is freed once and the entry leaves the list; the
  // next load by that name asks the callback again.
  PELOAD_FreeLibrary(b);
  EXPECT_EQ(n.frees, Strings{"b.so"});
  for (PELOAD_MODULE* m = p->modules; m; m = m->next) EXPECT_NE(m, b);
  n.loads.clear();
  ASSERT_NE(PELOAD_LoadLibraryEx("b.so", p, 0), nullptr);
  EXPECT_EQ(n.loads, Strings{"b.so"});
  PELOAD_FreeLibrary(a);
  EXPECT_EQ(a->refcount, 1);
  n.frees.clear();
  MODLOAD_TerminateProcess(p);
  EXPECT_EQ(n.frees, (Strings{"a.so", long_name, long_name + "x", "b.so"}));  // oldest first, each once
  MODLOAD_TerminateProcess(nullptr);
  EXPECT_EQ(PELOAD_FreeLibrary(nullptr), 1);
  p = MODLOAD_CreateProcess(nullptr, nullptr, nullptr, nullptr);  // no load callback: no native modules
  EXPECT_EQ(PELOAD_LoadLibraryEx("a.so", p, 0), nullptr);
  MODLOAD_TerminateProcess(p);
}

// ---- hostile images ----

// Every hostile image must be read, loaded and torn down, copied and in
// place, without touching memory outside the image (the sanitizer build
// watches) and without leaks. A loaded module's name is the one read.
TEST_F(PeLoader, HostileImages) {
  Natives::Get().accept_everything = true;
  struct Case {
    const char* what;
    std::function<void(PeWriter&)> change;
    bool readable, loads;
    std::function<void(PELOAD_MODULE*)> check = nullptr;
  };
  auto no_exports = [](PELOAD_MODULE* m) { EXPECT_STREQ(m->fullName, ""); EXPECT_EQ(ImageOf(m)->exports, nullptr); };
  const Case cases[] = {
      {"no export directory", [](PeWriter&) {}, true, true, no_exports},
      {"DOS magic ZM", [](PeWriter& w) { w.dos_magic = 0x4D5A; }, false, false},
      {"NT signature QE", [](PeWriter& w) { w.nt.Signature = 0x4551; }, true, true},
      {"NT signature RE", [](PeWriter& w) { w.nt.Signature = 0x4552; }, false, false},
      {"e_lfanew beyond 2 GiB", [](PeWriter& w) { w.lfanew = 0xFFFFFFF0; }, false, false},
      {"headers larger than the file", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfHeaders = 0xFFFFFF00; }, true, true},
      {"image too small for its NT headers", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfImage = 0x40; w.nt.OptionalHeader.SectionAlignment = 0x10; }, false, false},
      {"block size wraps", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfImage = 0xFFFFF000; }, false, false},
      {"section outside the block", [](PeWriter& w) { w.sections[0].VirtualAddress = 0x7FFF0000; }, true, true},
      {"section raw size past the block", [](PeWriter& w) { w.sections[0].SizeOfRawData = 0x7FFFFFFF; }, true, true},
      {"raw data beyond 2 GiB", [](PeWriter& w) { w.sections[0].PointerToRawData = 0x90000000; }, true, true},
      {"section table past the headers read", [](PeWriter& w) { w.nt.OptionalHeader.SizeOfHeaders = 0x100; w.Put32(0x1100, 0x12345678); }, true, true,
       [](PELOAD_MODULE* m) { EXPECT_EQ(Read32(ImageOf(m)->image + 0x1100), 0u); }},
      {"relocation directory of size 0", [](PeWriter& w) { w.SetDir(5, 0x1FF8, 0); }, false, false},
      {"relocation block of size 0", [](PeWriter& w) { w.Put32(0x1FFC, 0); }, true, true},
      {"relocation block running off the image", [](PeWriter& w) { w.Put32(0x1FFC, 0x7FFFFFF0); }, true, true},
      {"relocation directory outside", [](PeWriter& w) { w.SetDir(5, 0x7FFFFFF0, 0x100); }, true, true},
      {"relocation targets outside", [](PeWriter& w) { w.AddRelocations(0x1F00, {{0x7FFFF000, {0x3000}}, {0xFFFFF000, {0x3FFF}}, {0x2FFE, {0x3000}}}); }, true, true},
      {"export directory outside", [](PeWriter& w) { w.SetDir(0, 0x7FFFFFF0, 40); }, true, true, no_exports},
      {"huge function count", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}}); w.Put32(0x1414, 0xFFFFFFFF); }, true, true},
      {"name index past the functions", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}, {"g", 1}, {"h", 0xFFFF}}); }, true, true,
       [](PELOAD_MODULE* m) { EXPECT_EQ(PELOAD_GetProcAddress(m, "g"), 0u); }},
      {"name outside the image", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {{"f", 0}}); w.Put32(0x1400 + 40 + 4, 0x7FFFFFF0); }, true, true,
       [](PELOAD_MODULE* m) { EXPECT_EQ(PELOAD_GetProcAddress(m, "f"), 0u); }},
      {"module name of 45 characters", [](PeWriter& w) { w.AddExports(0x1400, std::string(45, 'n'), 1, {0x1100}, {}); }, true, true,
       [](PELOAD_MODULE* m) { EXPECT_EQ(std::string(m->fullName), std::string(39, 'n')); EXPECT_EQ(std::string(m->name), std::string(15, 'n')); }},
      {"module name unterminated at the section end", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {}); w.Put32(0x140C, 0x1FFC); w.Put32(0x1FFC, 0x41414141); }, true, true},
      {"function array outside", [](PeWriter& w) { w.AddExports(0x1400, "x.dll", 1, {0x1100}, {}); w.Put32(0x141C, 0xFFFFFFF0); }, true, true},
      {"import descriptor outside", [](PeWriter& w) { w.SetDir(1, 0x7FFFFFF0, 20); }, true, false},
      {"import DLL name outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x140C, 0x7FFFFFFF); }, true, false},
      {"import name outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"", 0x7FFFFFF0}}}}); }, true, false},
      {"thunk table outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x1400, 0x7FFFFFF0); }, true, false},
      {"address table outside", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}}}}); w.Put32(0x1410, 0x7FFFFFF0); }, true, false},
      {"imports bound", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"f"}, {"", 0x80000003}, {"", 0x8000FFFF}}}}); }, true, true},
      // Larger ordinals would be taken for name pointers; 0 is no ordinal.
      {"ordinal above 0xFFFF", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"", 0x80010000}}}}); }, true, false},
      {"ordinal 0", [](PeWriter& w) { w.AddImports(0x1400, {{"n.dll", {{"", 0x80000000}}}}); }, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PeWriter w;
    c.change(w);
    auto bytes = w.Bytes();
    for (int mode : {VRKVFILE_COPY, VRKVFILE_IN_MEMORY}) {
      char name[PELOAD_NAME_SIZE] = "";
      EXPECT_EQ(PELOAD_GetDllNameH(VFile(bytes, mode).get(), name, sizeof name), c.readable ? 1 : 0);
      Loaded l(bytes, mode);
      EXPECT_EQ(l.m != nullptr, c.loads);
      if (l.m && c.check) c.check(l.m);
      EXPECT_STREQ(l.m ? l.m->fullName : name, name);
    }
  }
}

}  // namespace
}  // namespace vrk::test
