// vrkutil pe: what the PE header checks and RVA lookups say about files, their
// exports and imports, and whether the loader takes them. Files are read by
// the library's own format rules and walkers; this file only presents.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <cstring>
#include <string>
#include <vector>

#include "command.h"
#include "io/file_input.h"
#include "pe/walk.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace vrkutil {
namespace {

using vrk::ByteView;
using vrk::pe::ExportWalk;
using vrk::pe::FileView;
using vrk::pe::ImportEntry;
using vrk::pe::LoadStatus;

int Run(const Invocation& in);

enum { kLoad, kRva };
constexpr Option kOptions[] = {{kLoad, 0, "load", false}, {kRva, 0, "rva", true}};

const Command kPe{
    "pe", "[--rva X] FILE... | --load DLL...", "PE header verdicts, sections, exports, imports; trial loads",
    "For each FILE prints the header verdict of PE_VerifyImageHeader and, for a\n"
    "PE32 image, the machine, image base and sections, warnings for data\n"
    "directories that the file does not hold, the export directory's name and\n"
    "exports (ordinal, RVA, name, forwarder) and the imports by DLL. --rva X also\n"
    "maps the RVA X through both section lookups.\n"
    "--load loads the DLLs in the order given into one process record whose\n"
    "native callbacks refuse every module, and says which loaded and why not.\n"
    "Only images whose header verdict is sound are loaded.\n"
    "FILE '-' is standard input, read into memory (256 MiB at most).\n"
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

constexpr const char* kDirectoryNames[PE_NUMBEROF_DIRECTORY_ENTRIES] = {
    "export", "import", "resource", "exception", "certificate", "base relocation", "debug", "architecture",
    "global pointer", "TLS", "load configuration", "bound import", "import address", "delay import",
    "CLR runtime", "reserved"};
constexpr uint32_t kCertificateDirectory = 4;  // its address is a file position, not an RVA

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
  // What the optional header says the image is; only PE32 is read further,
  // since every later field sits elsewhere in other layouts.
  bool IsPe32() const { return nt.OptionalHeader.Magic == vrk::pe::kMagicPe32; }
  std::string Kind() const {
    char text[64];
    const uint16_t machine = nt.FileHeader.Machine;
    if (nt.OptionalHeader.Magic == vrk::pe::kMagicPe32Plus && machine == vrk::pe::kMachineAmd64) return "PE32+ (x86-64)";
    if (nt.OptionalHeader.Magic == vrk::pe::kMagicPe32Plus) {
      std::snprintf(text, sizeof text, "PE32+ (machine 0x%04X)", machine);
    } else if (IsPe32()) {
      std::snprintf(text, sizeof text, machine == vrk::pe::kMachineI386 ? "PE32 (i386)" : "PE32 (machine 0x%04X)", machine);
    } else {
      std::snprintf(text, sizeof text, "optional-header magic 0x%04X", nt.OptionalHeader.Magic);
    }
    return text;
  }
};

// Standard input is read into memory up to this size.
constexpr size_t kStdinLimit = size_t{256} << 20;

// Fills `pe` from the file at `path` ("-": standard input); an error text
// when it cannot be read or is not PE.
std::string Open(const char* path, PeFile& pe) {
  if (std::string error; !vrktool::ReadWholeFile(path, pe.bytes, error, kStdinLimit)) return error;
  const ByteView file = pe.File();
  if (file.size() < vrk::pe::kDosHeaderSize || !PE_EsMZ(file.data())) return "not a PE file (no MZ header)";
  if (!file.Read(vrk::pe::kLfanewOffset, pe.lfanew) || !file.Read(pe.lfanew, pe.nt))
    return "not a PE file (NT headers outside the file)";
  if (!PE_EsPE(file.data() + pe.lfanew)) return "not a PE file (no PE signature)";
  const uint32_t wanted = pe.nt.FileHeader.NumberOfSections;
  pe.sections.assign(std::max(wanted, 96u), PE_IMAGE_SECTION_HEADER{});
  while (pe.count < wanted && vrk::pe::ReadSectionHeader(file, pe.lfanew, pe.nt, pe.count, pe.sections[pe.count])) ++pe.count;
  return "";
}

void PrintSections(const PeFile& pe) {
  std::printf("  sections (%u):\n", pe.count);
  for (uint32_t i = 0; i < pe.count; ++i) {
    const PE_IMAGE_SECTION_HEADER& s = pe.sections[i];
    char name[9] = {};
    std::memcpy(name, s.Name, 8);
    const char* long_name = vrk::pe::LongSectionName(pe.File(), pe.nt.FileHeader, s);
    std::printf("    %-8s RVA 0x%08X  virtual size 0x%08X  raw 0x%08X + 0x%08X\n", long_name ? long_name : name,
                s.VirtualAddress, s.VirtualSize, s.PointerToRawData, s.SizeOfRawData);
  }
}

// Data directories whose bytes the file does not hold: the loader would
// find zeros there, or nothing.
void WarnDirectories(const PeFile& pe) {
  const uint32_t size = pe.File().size();
  const uint32_t count = std::min<uint32_t>(pe.nt.OptionalHeader.NumberOfRvaAndSizes, PE_NUMBEROF_DIRECTORY_ENTRIES);
  for (uint32_t i = 0; i < count; ++i) {
    const PE_IMAGE_DATA_DIRECTORY& d = pe.nt.OptionalHeader.DataDirectory[i];
    if (d.VirtualAddress == 0 || d.Size == 0) continue;
    uint32_t position = d.VirtualAddress;
    const bool mapped = i == kCertificateDirectory || pe.View().Map(d.VirtualAddress, position) != 0;
    const char* where = !mapped                                              ? "lies in no section's raw data"
                        : position > size || d.Size > size - position ? "lies past the end of the file"
                                                                             : nullptr;
    if (where) {
      std::printf("  warning: the %s directory (%s 0x%08X, 0x%X bytes) %s\n", kDirectoryNames[i],
                  i == kCertificateDirectory ? "file position" : "RVA", d.VirtualAddress, d.Size, where);
    }
  }
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
  const PE_IMAGE_DATA_DIRECTORY& exports = vrk::pe::Directory(pe.nt, PE_DIRECTORY_ENTRY_EXPORT);
  for (uint32_t i = 0; i < walk.functions(); ++i) {
    const uint32_t rva = walk.FunctionRva(i);
    if (rva == 0) continue;
    std::printf("    %5u  0x%08X  %s", dir.Base + i, rva, names[i]);
    // A forwarder names a function of another module instead of code.
    if (vrk::pe::IsForwarder(exports, rva)) std::printf("  forwarded to %s", pe.String(rva).c_str());
    std::printf("\n");
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

void PrintRva(const PeFile& pe, uint32_t rva) {
  const PE_IMAGE_NT_HEADERS32 bounded = pe.Bounded();
  uint32_t index = 0, pos = 0;
  const int code = PE_SeccionDeRVAEx(pe.sections.data(), &bounded, rva, &index);
  const int readable = PE_SeekDeRVAEx(pe.sections.data(), &bounded, rva, &pos);
  std::printf("  RVA 0x%08X: section %u, file position 0x%08X; Ex: %s, section %u", rva,
              PE_SeccionDeRVA(pe.sections.data(), int(pe.count), rva), PE_SeekDeRVA(pe.sections.data(), int(pe.count), rva),
              PlacementName(code), index);
  if (readable <= 0) {
    std::printf(", nothing readable\n");
    return;
  }
  // The count comes from the section header, and for an RVA far past the raw
  // data its arithmetic wraps to a position outside the file: the bytes
  // readable are those the file holds there.
  const uint32_t size = pe.File().size();
  const uint32_t held = pos < size ? size - pos : 0;
  if (held == 0) {
    std::printf(", file position 0x%08X past the end of the file (0x%X bytes), nothing readable\n", pos, size);
    return;
  }
  std::printf(", file position 0x%08X with %u bytes readable", pos, std::min<uint32_t>(uint32_t(readable), held));
  if (uint32_t(readable) > held) std::printf(" (the section claims %d)", readable);
  std::printf("\n");
}

void Describe(const char* path, const PeFile& pe, bool have_rva, uint32_t rva) {
  const uint32_t verdict = PE_VerifyImageHeader(&pe.nt, pe.sections.data());
  std::printf("%s\n  verdict: 0x%08X %s\n", path, verdict, VerdictName(verdict));
  if (!pe.IsPe32()) {
    std::printf("  %s image: not read further\n", pe.Kind().c_str());
    return;
  }
  const auto& oh = pe.nt.OptionalHeader;
  std::printf("  machine: 0x%04X  image base: 0x%08X  size of image: 0x%X\n", pe.nt.FileHeader.Machine, oh.ImageBase,
              oh.SizeOfImage);
  PrintSections(pe);
  WarnDirectories(pe);
  PrintExports(pe);
  PrintImports(pe);
  if (have_rva) PrintRva(pe, rva);
}

// Finds the first import that the process cannot serve, as binding would.
struct ImportCheck {
  const MODLOAD_PROCESS* process;
  PELOAD_MODULE* module = nullptr;
  std::string dll, import;
  LoadStatus Module(const char* name) {
    dll = name;
    for (module = process->modules; module; module = module->next) {
      if (strcasecmp(module->fullName, name) == 0) return LoadStatus::kOk;
    }
    return LoadStatus::kModuleNotFound;
  }
  LoadStatus Entry(const ImportEntry& entry) {
    const char* key = entry.name ? entry.name : reinterpret_cast<const char*>(uintptr_t(entry.ordinal));
    if (PELOAD_GetProcAddress(module, key) != 0) return LoadStatus::kOk;
    import = entry.name ? "'" + std::string(entry.name) + "'" : "ordinal " + std::to_string(entry.ordinal);
    return LoadStatus::kProcNotFound;
  }
};

// Why the loader refused a PE32 file with a sound header: the first cause in
// the order its stages meet them, found by the checks and walks they use.
std::string WhyNotLoaded(const PeFile& pe, const MODLOAD_PROCESS* process) {
  uint16_t magic = 0;
  uint32_t block = 0;
  (void)pe.File().Read(0, magic);
  LoadStatus status = vrk::pe::CheckDosHeader(magic, pe.lfanew);
  if (status == LoadStatus::kOk) status = vrk::pe::CheckNtHeaders(pe.nt);
  if (status == LoadStatus::kOk) status = vrk::pe::CheckImageBlock(pe.nt, pe.lfanew, block);
  ImportCheck check{process, nullptr, {}, {}};
  if (status == LoadStatus::kOk) status = vrk::pe::WalkImports(pe.View(), pe.nt, check);
  if (status == LoadStatus::kOk && vrk::pe::AsksForEntryPoint(pe.nt)) {
    status = pe.nt.OptionalHeader.AddressOfEntryPoint < block ? LoadStatus::kEntryRefused : LoadStatus::kEntryOutside;
  }
  switch (status) {
    case LoadStatus::kNotMz: return "its DOS header says \"ZM\"; the loader takes \"MZ\" only";
    case LoadStatus::kHeadersTooFar: return "its NT headers lie beyond 2 GiB";
    case LoadStatus::kNotPe: return "its NT signature is not one the loader takes";
    case LoadStatus::kNoRelocations: return "it has no base relocations";
    case LoadStatus::kImageTooSmall: return "its image is too small to hold its NT headers";
    case LoadStatus::kImportOutside: return "its import table runs outside the file";
    case LoadStatus::kBadOrdinal: return "it imports an ordinal above 0xFFFF";
    case LoadStatus::kModuleNotFound: return "it imports from '" + check.dll + "', which is not loaded";
    case LoadStatus::kProcNotFound: return "it imports " + check.import + " from '" + check.dll + "', which does not export it";
    case LoadStatus::kEntryOutside: return "its entry point lies outside the image";
    case LoadStatus::kEntryRefused: return "its entry point returned 0";
    default: return "the allocator refused a block";  // the only cause left
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
  // The files stay in memory while the process record lives; the loader
  // reads them as virtual files over that memory.
  std::vector<std::unique_ptr<PeFile>> kept;
  std::vector<VFileHandle> handles;
  for (const char* path : files) {
    kept.push_back(std::make_unique<PeFile>());
    PeFile& pe = *kept.back();
    if (const std::string error = Open(path, pe); !error.empty()) {
      status = Fail(kExitFailure, "%s: not loaded: %s", path, error.c_str());
      continue;
    }
    // The loader reads what it is given: only the header checks keep a
    // foreign or malformed image (x86-64 code, say) from being run.
    const uint32_t verdict = PE_VerifyImageHeader(&pe.nt, pe.sections.data());
    if (verdict != PE_STATUS_OK) {
      status = Fail(kExitFailure, "%s: not loaded: %s image, header verdict 0x%08X %s", path, pe.Kind().c_str(), verdict,
                    VerdictName(verdict));
      continue;
    }
    VFileHandle h = vrkvfile_open_memory(pe.bytes.data(), static_cast<uint32_t>(pe.bytes.size()), VRKVFILE_COPY);
    if (!h) {
      status = Fail(kExitFailure, "%s: not loaded: cannot open it as a virtual file", path);
      continue;
    }
    handles.push_back(h);
    if (PELOAD_MODULE* m = PELOAD_LoadLibraryEx(h, process, 1)) {
      std::printf("%s: loaded as '%s'\n", path, m->fullName);
    } else {
      status = Fail(kExitFailure, "%s: not loaded: %s", path, WhyNotLoaded(pe, process).c_str());
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
    if (const std::string error = Open(path, pe); !error.empty()) {
      status = Fail(kExitFailure, "%s: %s", path, error.c_str());
      continue;
    }
    Describe(path, pe, have_rva, static_cast<uint32_t>(rva));
  }
  return status;
}

}  // namespace

VRK_COMMAND(kPe);

}  // namespace vrkutil
