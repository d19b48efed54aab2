// vrkutil pe: what the PE header checks and RVA lookups say about files, their
// exports and imports, and whether the loader takes them. Files are read by
// the library's own format rules and walkers; this file only presents.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "pe/walk.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrkutil {
namespace {

using vrk::ByteView;
using vrk::pe::LoadStatus;
using vrk::pe::ExportWalk;
using vrk::pe::FileView;
using vrk::pe::ImportEntry;

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

// A file as the header functions see it: its bytes, its NT headers and the
// section headers present in it. Everything past the headers is read through
// the library's own walkers over a FileView, which bound every read.
struct PeFile {
  std::vector<uint8_t> bytes;
  uint32_t lfanew = 0;
  PE_IMAGE_NT_HEADERS32 nt{};
  std::vector<PE_IMAGE_SECTION_HEADER> sections;  // at least 96 entries, zero past the real ones
  uint32_t count = 0;                             // section headers present in the file

  ByteView File() const { return ByteView(bytes.data(), uint32_t(bytes.size())); }
  FileView View() const { return FileView(File(), sections.data(), count, nt.OptionalHeader.SizeOfHeaders); }
  // The NT headers with the section count cut to the headers present.
  PE_IMAGE_NT_HEADERS32 Bounded() const {
    PE_IMAGE_NT_HEADERS32 bounded = nt;
    bounded.FileHeader.NumberOfSections = uint16_t(count);
    return bounded;
  }
  std::string String(uint32_t rva) const {
    const char* s = View().String(rva);
    return s ? s : "?";
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
  const ByteView file = pe.File();
  if (file.size() < vrk::pe::kDosHeaderSize || !PE_EsMZ(file.data())) return "not a PE file (no MZ header)";
  if (!file.Read(vrk::pe::kLfanewOffset, pe.lfanew) || !file.Read(pe.lfanew, pe.nt))
    return "not a PE file (NT headers outside the file)";
  if (!PE_EsPE(file.data() + pe.lfanew)) return "not a PE file (no PE signature)";
  const uint32_t wanted = pe.nt.FileHeader.NumberOfSections;
  pe.sections.assign(std::max(wanted, 96u), PE_IMAGE_SECTION_HEADER{});
  while (pe.count < wanted && vrk::pe::ReadSectionHeader(file, pe.lfanew, pe.nt, pe.count, pe.sections[pe.count])) ++pe.count;
  return nullptr;
}

void PrintExports(const PeFile& pe) {
  const FileView view = pe.View();
  ExportWalk<FileView> walk;
  if (!walk.Open(view, pe.nt)) {
    std::printf("  exports: none\n");
    return;
  }
  const PE_IMAGE_EXPORT_DIRECTORY& dir = walk.directory();
  std::printf("  export name: %s\n  exports (ordinal, RVA, name): %u functions, %u names\n", pe.String(dir.Name).c_str(),
              dir.NumberOfFunctions, dir.NumberOfNames);
  std::vector<const char*> names(walk.functions(), "");
  walk.ForEachName([&](uint32_t index, const char* name) { names[index] = name; });
  for (uint32_t i = 0; i < walk.functions(); ++i) {
    const uint32_t rva = walk.FunctionRva(i);
    if (rva != 0) std::printf("    %5u  0x%08X  %s\n", dir.Base + i, rva, names[i]);
  }
}

// The imports by DLL, in the order the loader binds them.
struct ImportPrinter {
  int dlls = 0;
  LoadStatus Module(const char* dll) {
    std::printf("%s    %s:", dlls++ ? "\n" : "", dll);
    return LoadStatus::kOk;
  }
  LoadStatus Entry(const ImportEntry& entry) {
    if (entry.name) {
      std::printf(" %s", entry.name);
    } else {
      std::printf(" #%u", entry.ordinal);
    }
    return LoadStatus::kOk;
  }
};

void PrintImports(const PeFile& pe) {
  std::printf("  imports:\n");
  ImportPrinter printer;
  const LoadStatus status = vrk::pe::WalkImports(pe.View(), pe.nt, printer);
  if (printer.dlls) std::printf("\n");
  if (status != LoadStatus::kOk) {
    std::printf("    (the import table runs outside the file)\n");
  } else if (!printer.dlls) {
    std::printf("    none\n");
  }
}

// The first DLL that the file imports from and the process does not list.
struct MissingDll {
  const MODLOAD_PROCESS* process;
  std::string name;
  LoadStatus Module(const char* dll) {
    for (const PELOAD_MODULE* e = process->modules; e; e = e->next) {
      if (strcasecmp(e->fullName, dll) == 0) return LoadStatus::kOk;
    }
    name = dll;
    return LoadStatus::kModuleNotFound;
  }
  LoadStatus Entry(const ImportEntry&) { return LoadStatus::kOk; }
};

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
  PrintImports(pe);
  if (have_rva) {
    const PE_IMAGE_NT_HEADERS32 bounded = pe.Bounded();
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
    MissingDll missing{process, {}};
    PeFile pe;
    if (!Open(path, pe)) (void)vrk::pe::WalkImports(pe.View(), pe.nt, missing);
    if (!missing.name.empty()) {
      status = Fail(kExitFailure, "%s: not loaded: imports from '%s', which is not loaded", path, missing.name.c_str());
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
