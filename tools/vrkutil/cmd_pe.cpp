// vrkutil pe: what the PE header checks and RVA lookups say about files, their
// exports and imports, and whether the loader takes them.
#include <cstdio>
#include <strings.h>

#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrkutil {
namespace {

int Run(const Invocation& in);

enum { kLoad, kRva };
constexpr Option kOptions[] = {{kLoad, 0, "load", false}, {kRva, 0, "rva", true}};

const Command kPe{
    "pe", "[--rva X] FILE... | --load DLL...", "PE header verdicts, sections, exports, imports; trial loads",
    "For each FILE prints the header verdict of PE_VerifyImageHeader, the machine,\n"
    "image base and sections, the export directory's name and exports (ordinal,\n"
    "RVA, name) and the imports by DLL. --rva X also maps the RVA X through both\n"
    "section lookups.\n"
    "--load loads the DLLs in the order given into one process record whose\n"
    "native callbacks refuse every module, and says which loaded and why not.\n"
    "This RUNS the entry points of DLLs that ask for it: use it on trusted files.\n"
    "Exit status 1 when a file is not PE (or, with --load, does not load).",
    Run, kOptions};

const char* VerdictName(uint32_t status) {
  switch (status) {
    case PE_STATUS_OK: return "sound";
    case PE_STATUS_INVALID_IMAGE_PROTECT: return "STATUS_INVALID_IMAGE_PROTECT";
    case PE_STATUS_INVALID_IMAGE_FORMAT: return "STATUS_INVALID_IMAGE_FORMAT";
    default: return "unknown";
  }
}

const char* PlacementName(int code) {
  static const char* const kNames[] = {"in section", "in headers", "before sections", "in gap", "past sections"};
  return code >= 0 && code <= 4 ? kNames[code] : "?";
}

// The file as the header functions see it: NT headers and section table
// copied out of the bytes, with every later read bounded by the file.
struct PeFile {
  std::vector<uint8_t> bytes;
  PE_IMAGE_NT_HEADERS32 nt{};
  std::vector<PE_IMAGE_SECTION_HEADER> sections;  // at least 96 entries, zero past the real ones
  uint32_t count = 0;                             // section headers present in the file

  bool Has(uint32_t off, uint32_t len) const { return off <= bytes.size() && len <= bytes.size() - off; }
  bool U32(uint32_t off, uint32_t& v) const {
    if (!Has(off, 4)) return false;
    std::memcpy(&v, bytes.data() + off, 4);
    return true;
  }
  bool U16(uint32_t off, uint16_t& v) const {
    if (!Has(off, 2)) return false;
    std::memcpy(&v, bytes.data() + off, 2);
    return true;
  }
  // File offset of an RVA with at least `len` bytes there, through the Ex lookup.
  bool Map(uint32_t rva, uint32_t len, uint32_t& off) const {
    PE_IMAGE_NT_HEADERS32 bounded = nt;
    bounded.FileHeader.NumberOfSections = uint16_t(count);
    uint32_t pos = 0;
    const int n = PE_SeekDeRVAEx(sections.data(), &bounded, rva, &pos);
    if (n < int(len) || !Has(pos, len)) return false;
    off = pos;
    return true;
  }
  std::string String(uint32_t rva) const {
    uint32_t off = 0;
    if (!Map(rva, 1, off)) return "?";
    std::string s;
    while (off < bytes.size() && bytes[off] != 0 && s.size() < 256) s += char(bytes[off++]);
    return s;
  }
};

bool ReadFile(const char* path, std::vector<uint8_t>& out) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  uint8_t buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) out.insert(out.end(), buffer, buffer + n);
  std::fclose(f);
  return true;
}

// Fills `pe` from the file at `path`; an error text when it is not PE.
const char* Open(const char* path, PeFile& pe) {
  if (!ReadFile(path, pe.bytes)) return "cannot be read";
  uint32_t lfanew = 0;
  if (pe.bytes.size() < 64 || !PE_EsMZ(pe.bytes.data())) return "not a PE file (no MZ header)";
  if (!pe.U32(0x3C, lfanew) || !pe.Has(lfanew, sizeof pe.nt)) return "not a PE file (NT headers outside the file)";
  if (!PE_EsPE(pe.bytes.data() + lfanew)) return "not a PE file (no PE signature)";
  std::memcpy(&pe.nt, pe.bytes.data() + lfanew, sizeof pe.nt);
  const uint64_t table = uint64_t(lfanew) + 0x18 + pe.nt.FileHeader.SizeOfOptionalHeader;
  const uint32_t wanted = pe.nt.FileHeader.NumberOfSections;
  pe.sections.assign(wanted > 96 ? wanted : 96, PE_IMAGE_SECTION_HEADER{});
  for (uint32_t i = 0; i < wanted; ++i) {
    const uint64_t at = table + 40ull * i;
    if (at + 40 > pe.bytes.size()) break;
    std::memcpy(&pe.sections[i], pe.bytes.data() + at, 40);
    pe.count = i + 1;
  }
  return nullptr;
}

void PrintExports(const PeFile& pe) {
  const PE_IMAGE_DATA_DIRECTORY& d = pe.nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_EXPORT];
  uint32_t off = 0;
  PE_IMAGE_EXPORT_DIRECTORY dir{};
  if (d.VirtualAddress == 0 || !pe.Map(d.VirtualAddress, sizeof dir, off)) {
    std::printf("  exports: none\n");
    return;
  }
  std::memcpy(&dir, pe.bytes.data() + off, sizeof dir);
  std::printf("  export name: %s\n  exports (ordinal, RVA, name): %u functions, %u names\n", pe.String(dir.Name).c_str(),
              dir.NumberOfFunctions, dir.NumberOfNames);
  const uint32_t functions = dir.NumberOfFunctions < 65536 ? dir.NumberOfFunctions : 65536;
  std::vector<std::string> names(functions);
  for (uint32_t j = 0; j < dir.NumberOfNames && j < 65536; ++j) {
    uint32_t o1 = 0, o2 = 0, name_rva = 0;
    uint16_t index = 0;
    if (!pe.Map(dir.AddressOfNameOrdinals + 2 * j, 2, o1) || !pe.Map(dir.AddressOfNames + 4 * j, 4, o2)) break;
    pe.U16(o1, index);
    pe.U32(o2, name_rva);
    if (index < functions) names[index] = pe.String(name_rva);
  }
  for (uint32_t i = 0; i < functions; ++i) {
    uint32_t o = 0, rva = 0;
    if (!pe.Map(dir.AddressOfFunctions + 4 * i, 4, o)) break;
    pe.U32(o, rva);
    if (rva != 0) std::printf("    %5u  0x%08X  %s\n", dir.Base + i, rva, names[i].c_str());
  }
}

// The DLL names that the file imports from (bounded walk).
std::vector<std::string> ImportedDlls(const PeFile& pe, bool print) {
  std::vector<std::string> dlls;
  const uint32_t start = pe.nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  if (start == 0) return dlls;
  for (uint32_t k = 0; k < 4096; ++k) {
    uint32_t off = 0;
    PE_IMAGE_IMPORT_DESCRIPTOR desc{};
    if (!pe.Map(start + 20 * k, sizeof desc, off)) break;
    std::memcpy(&desc, pe.bytes.data() + off, sizeof desc);
    if (desc.FirstThunk == 0) break;
    dlls.push_back(pe.String(desc.Name));
    if (!print) continue;
    std::printf("    %s:", dlls.back().c_str());
    const uint32_t lookup = desc.OriginalFirstThunk ? desc.OriginalFirstThunk : desc.FirstThunk;
    for (uint32_t t = 0; t < 65536; ++t) {
      uint32_t o = 0, thunk = 0;
      if (!pe.Map(lookup + 4 * t, 4, o) || !pe.U32(o, thunk) || thunk == 0) break;
      if (thunk & 0x80000000) {
        std::printf(" #%u", thunk & 0x7FFFFFFF);
      } else {
        std::printf(" %s", pe.String(thunk + 2).c_str());
      }
    }
    std::printf("\n");
  }
  return dlls;
}

void Describe(const char* path, const PeFile& pe, bool have_rva, uint32_t rva) {
  const uint32_t verdict = PE_VerifyImageHeader(&pe.nt, pe.sections.data());
  const auto& oh = pe.nt.OptionalHeader;
  std::printf("%s\n  verdict: 0x%08X %s\n  machine: 0x%04X  image base: 0x%08X  size of image: 0x%X\n", path, verdict,
              VerdictName(verdict), pe.nt.FileHeader.Machine, oh.ImageBase, oh.SizeOfImage);
  std::printf("  sections (%u):\n", pe.count);
  for (uint32_t i = 0; i < pe.count; ++i) {
    const PE_IMAGE_SECTION_HEADER& s = pe.sections[i];
    char name[9] = {};
    std::memcpy(name, s.Name, 8);
    std::printf("    %-8s RVA 0x%08X  virtual size 0x%08X  raw 0x%08X + 0x%08X\n", name, s.VirtualAddress, s.VirtualSize,
                s.PointerToRawData, s.SizeOfRawData);
  }
  PrintExports(pe);
  std::printf("  imports:\n");
  if (ImportedDlls(pe, true).empty()) std::printf("    none\n");
  if (have_rva) {
    PE_IMAGE_NT_HEADERS32 bounded = pe.nt;
    bounded.FileHeader.NumberOfSections = uint16_t(pe.count);
    uint32_t index = 0, pos = 0;
    const int code = PE_SeccionDeRVAEx(pe.sections.data(), &bounded, rva, &index);
    const int readable = PE_SeekDeRVAEx(pe.sections.data(), &bounded, rva, &pos);
    std::printf("  RVA 0x%08X: section %u, file position 0x%08X; Ex: %s, section %u", rva,
                PE_SeccionDeRVA(pe.sections.data(), int(pe.count), rva), PE_SeekDeRVA(pe.sections.data(), int(pe.count), rva),
                PlacementName(code), index);
    if (readable > 0) {
      std::printf(", file position 0x%08X with %d bytes readable\n", pos, readable);
    } else {
      std::printf(", nothing readable\n");
    }
  }
}

// Native callbacks of --load: no native module exists.
void* NoNative(const char*, uint32_t, uint32_t) { return nullptr; }
void NoFree(void*) {}
uint32_t NoProc(void*, const char*) { return 0; }

int Load(std::span<const char* const> files) {
  int status = kExitOk;
  MODLOAD_PROCESS* process = MODLOAD_CreateProcess(nullptr, NoNative, NoFree, NoProc);
  if (!process) return Fail(kExitFailure, "cannot create a process record");
  std::vector<VFileHandle> handles;
  for (const char* path : files) {
    VFileHandle h = vrkvfile_open_path(path, VRKVFILE_COPY);
    if (!h) {
      status = Fail(kExitFailure, "%s: cannot be read", path);
      continue;
    }
    handles.push_back(h);
    char name[PELOAD_NAME_SIZE];
    if (!PELOAD_GetDllNameH(h, name, sizeof name)) {
      status = Fail(kExitFailure, "%s: not loaded: cannot be read as a module (not PE, truncated, or no relocations)", path);
      continue;
    }
    PELOAD_MODULE* m = PELOAD_LoadLibraryEx(h, process, 1);
    if (m) {
      std::printf("%s: loaded as '%s'\n", path, m->fullName);
      continue;
    }
    // Say which imported DLL is missing when one is.
    std::string missing;
    PeFile pe;
    if (!Open(path, pe)) {
      for (const std::string& dll : ImportedDlls(pe, false)) {
        bool found = false;
        for (PELOAD_MODULE* e = process->modules; e && !found; e = e->next) found = strcasecmp(e->fullName, dll.c_str()) == 0;
        if (!found) {
          missing = dll;
          break;
        }
      }
    }
    if (!missing.empty()) {
      status = Fail(kExitFailure, "%s: not loaded: imports from '%s', which is not loaded", path, missing.c_str());
    } else {
      status = Fail(kExitFailure, "%s: not loaded: an import is missing from its module, or the entry point refused", path);
    }
  }
  MODLOAD_TerminateProcess(process);
  for (VFileHandle h : handles) vrkvfile_close(h);
  return status;
}

int Run(const Invocation& in) {
  long long rva = -1;
  if (NumberOption(kPe, in, kRva, 0, 0xFFFFFFFFll, rva) != kExitOk) return kExitUsage;
  const bool have_rva = rva >= 0;
  const auto files = in.operands();
  if (files.empty()) return UsageError(kPe, "expected at least one FILE");
  if (in.Has(kLoad)) return Load(files);
  int status = kExitOk;
  for (const char* path : files) {
    PeFile pe;
    if (const char* error = Open(path, pe)) {
      status = Fail(kExitFailure, "%s: %s", path, error);
      continue;
    }
    Describe(path, pe, have_rva, static_cast<uint32_t>(rva));
  }
  return status;
}

}  // namespace

VRK_COMMAND(kPe);

}  // namespace vrkutil
