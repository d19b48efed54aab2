// DLLs that nobody here wrote: the i386 DLLs of Debian's MinGW packages.
// Their names and exports as the loader sees them must equal what the cross
// objdump reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "pe_test_util.h"

namespace vrk::test {
namespace {

#ifdef VRK_MINGW_OBJDUMP

// What `objdump -p` says of a DLL's exports: its name, the ordinal base, the
// RVA of each non-empty slot by ordinal, and each name by slot index.
struct Exports {
  std::string name;
  uint32_t base = 0;
  std::map<uint32_t, uint32_t> rvas;
  std::map<uint32_t, std::string> names;
};

Exports Objdump(const std::string& path) {
  Exports out;
  FILE* pipe = popen((std::string(VRK_MINGW_OBJDUMP) + " -p '" + path + "'").c_str(), "r");
  char line[4096], text[2048];
  unsigned index, ordinal, rva;
  bool in_names = false;  // the name table runs from its heading to a blank line
  while (pipe && std::fgets(line, sizeof line, pipe)) {
    std::sscanf(line, "Ordinal Base %u", &out.base);  // other lines leave it alone
    if (std::sscanf(line, "Name %x %2047s", &rva, text) == 2) {
      out.name = text;
    } else if (std::strncmp(line, "[Ordinal/Name Pointer] Table", 28) == 0 || line[0] == '\n') {
      in_names = line[0] == '[';
    } else if (!in_names && std::sscanf(line, " [%u] +base[%u] %x", &index, &ordinal, &rva) == 3) {
      out.rvas[ordinal] = rva;
    } else if (in_names && std::sscanf(line, " [%u] %2047s", &index, text) == 2) {
      out.names[index] = text;
    }
  }
  if (pipe) pclose(pipe);
  return out;
}

TEST(PeRealDll, NamesAndExportsMatchObjdump) {
  std::vector<std::string> dlls;
  std::error_code error;
  for (const auto& e : std::filesystem::recursive_directory_iterator("/usr/lib/gcc/i686-w64-mingw32", error)) {
    if (e.path().extension() == ".dll") dlls.push_back(e.path());
  }
  if (dlls.empty()) GTEST_SKIP() << "no MinGW i386 DLLs installed";
  for (const std::string& path : dlls) {
    SCOPED_TRACE(path);
    const Exports expected = Objdump(path);
    ASSERT_FALSE(expected.rvas.empty());
    auto bytes = ReadWholeFile(path);
    // Accepting every import with a dummy address lists the exports (these
    // DLLs never ask for their entry point to be run).
    Natives::Reset();
    Natives::Get().accept_everything = true;
    Loaded l(bytes);
    ASSERT_NE(l.m, nullptr);
    EXPECT_EQ(std::string(l.m->fullName), expected.name.substr(0, PELOAD_NAME_SIZE - 1));
    std::map<uint32_t, uint32_t> rvas;
    std::map<uint32_t, std::string> names;
    for (const PELOAD_EXPORT* e = ImageOf(l.m)->exports; e; e = e->next) {
      if (e->address == 0xFFFFFFFF) continue;
      rvas[e->ordinal] = e->address - Base(l.m);
      if (e->name) names[e->ordinal - expected.base] = e->name;
    }
    EXPECT_EQ(rvas, expected.rvas);
    EXPECT_EQ(names, expected.names);
    for (const auto& [index, n] : names) EXPECT_EQ(PELOAD_GetProcAddress(l.m, n.c_str()), Base(l.m) + rvas[index + expected.base]);
  }
}

#else
TEST(PeRealDll, SkippedWithoutObjdump) { GTEST_SKIP() << "i686-w64-mingw32-objdump not found at configure time"; }
#endif

}  // namespace
}  // namespace vrk::test
