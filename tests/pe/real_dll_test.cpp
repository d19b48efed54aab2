// DLLs that nobody here wrote: the i386 DLLs of Debian's MinGW packages.
// Their names and exports as the loader sees them must equal what the
// cross objdump reports, and loads whose imports are all refused must fail
// cleanly.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "pe_test_util.h"
#include "vrk_pe.h"

namespace vrk::test {
namespace {

#ifdef VRK_MINGW_OBJDUMP

void FindDlls(const std::string& dir, std::vector<std::string>& out) {
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    if (e->d_type == DT_DIR) {
      FindDlls(path, out);
    } else if (name.size() > 4 && name.substr(name.size() - 4) == ".dll") {
      out.push_back(path);
    }
  }
  closedir(d);
}

struct ObjdumpExports {
  std::string name;
  std::map<uint32_t, uint32_t> rva_by_ordinal;   // non-empty slots
  std::map<uint32_t, std::string> name_by_index;  // index into the address table
  uint32_t ordinal_base = 0;
};

ObjdumpExports Objdump(const std::string& path) {
  ObjdumpExports out;
  const std::string command = std::string(VRK_MINGW_OBJDUMP) + " -p '" + path + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char line[4096];
  enum { kNone, kAddresses, kNames } section = kNone;
  while (std::fgets(line, sizeof line, pipe)) {
    std::string s(line);
    if (s.rfind("Name ", 0) == 0) {
      std::istringstream in(s.substr(5));
      std::string rva;
      in >> rva >> out.name;
    } else if (s.rfind("Ordinal Base", 0) == 0) {
      out.ordinal_base = uint32_t(std::stoul(s.substr(12)));
    } else if (s.rfind("Export Address Table -- Ordinal Base", 0) == 0) {
      section = kAddresses;
    } else if (s.rfind("[Ordinal/Name Pointer] Table", 0) == 0) {
      section = kNames;
    } else if (s == "\n" && section == kNames) {
      section = kNone;
    } else if (section == kAddresses) {
      unsigned index, ordinal, rva;
      if (std::sscanf(line, " [%u] +base[%u] %x", &index, &ordinal, &rva) == 3) out.rva_by_ordinal[ordinal] = rva;
    } else if (section == kNames) {
      unsigned index;
      char name[2048];
      if (std::sscanf(line, " [%u] %2047s", &index, name) == 2) out.name_by_index[index] = name;
    }
  }
  pclose(pipe);
  return out;
}

TEST(PeRealDll, NamesAndExportsMatchObjdump) {
  std::vector<std::string> dlls;
  FindDlls("/usr/lib/gcc/i686-w64-mingw32", dlls);
  if (dlls.empty()) GTEST_SKIP() << "no MinGW i386 DLLs installed";
  for (const std::string& path : dlls) {
    SCOPED_TRACE(path);
    const ObjdumpExports expected = Objdump(path);
    auto bytes = ReadWholeFile(path);
    VFile file(bytes, VRKVFILE_COPY);
    char name[PELOAD_NAME_SIZE];
    ASSERT_EQ(PELOAD_GetDllNameH(file.get(), name, sizeof name), 1);
    EXPECT_EQ(std::string(name), expected.name.substr(0, PELOAD_NAME_SIZE - 1));

    // Refusing every import: the load fails and leaves nothing (the leak
    // check after the test counts).
    Natives::Reset();
    MODLOAD_PROCESS* refusing = NewProcess();
    EXPECT_EQ(PELOAD_LoadLibraryEx(file.get(), refusing, 1), nullptr);
    EXPECT_EQ(refusing->modules, nullptr);
    MODLOAD_TerminateProcess(refusing);

    // Accepting every import with a dummy address lists the exports (these
    // DLLs never ask for their entry point to be run).
    Natives::Get().accept_everything = true;
    MODLOAD_PROCESS* p = NewProcess();
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(file.get(), p, 1);
    ASSERT_NE(m, nullptr);
    const uint32_t base = uint32_t(reinterpret_cast<uintptr_t>(ImageOf(m)->image));
    std::map<uint32_t, uint32_t> rvas;
    std::map<uint32_t, std::string> names;
    for (const PELOAD_EXPORT* e = ImageOf(m)->exports; e; e = e->next) {
      if (e->address == 0xFFFFFFFF) continue;
      rvas[e->ordinal] = e->address - base;
      if (e->name) names[e->ordinal - expected.ordinal_base] = e->name;
    }
    EXPECT_EQ(rvas, expected.rva_by_ordinal);
    // objdump lists each name with the index its ordinal-table entry gives.
    std::map<uint32_t, std::string> expected_names;
    for (const auto& [index, n] : expected.name_by_index) expected_names[index] = n;
    EXPECT_EQ(names.size(), expected_names.size());
    for (const auto& [index, n] : names) EXPECT_EQ(PELOAD_GetProcAddress(m, n.c_str()), base + rvas[index + expected.ordinal_base]);
    MODLOAD_TerminateProcess(p);
    Natives::Reset();
  }
}

#else
TEST(PeRealDll, SkippedWithoutObjdump) { GTEST_SKIP() << "i686-w64-mingw32-objdump not found at configure time"; }
#endif

}  // namespace
}  // namespace vrk::test
