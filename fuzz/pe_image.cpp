// Fuzz target of the PE family. The input is taken four ways: as NT headers
// and a section table for the header checks and RVA lookups; as a file read
// by RVA through the walkers that the vrkutil tool uses; as a virtual file
// (copying and memory-held) for the DLL-name reader; and as the first module
// of a process record whose native callbacks refuse every import.
//
// No byte of the input is ever run. A load calls the entry point only after
// the export slot table has been allocated, so the allocator stand-in is told
// to refuse that allocation and everything after it: the load then runs the
// reading, in-place probe, relocation and import-binding stages over the
// input and stops before the export and start stages.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pe/walk.h"
#include "vrk_pe.h"
#include "vrk_standin_ctl.h"

namespace {

void* RefuseLoad(const char*, uint32_t, uint32_t) { return nullptr; }
void NoFree(void*) {}
uint32_t NoProc(void*, const char*) { return 0; }

void HeaderChecks(const uint8_t* data, size_t size) {
  if (size < sizeof(PE_IMAGE_NT_HEADERS32)) return;
  PE_IMAGE_NT_HEADERS32 nt;
  std::memcpy(&nt, data, sizeof nt);
  // The verifier reads at most 96 section headers (it refuses more before
  // walking them); the lookups read as many as they are told, so they get
  // the count that the input really holds.
  std::vector<PE_IMAGE_SECTION_HEADER> sections(96);
  const size_t available = (size - sizeof nt) / sizeof(PE_IMAGE_SECTION_HEADER);
  std::memcpy(sections.data(), data + sizeof nt, std::min<size_t>(available, 96) * sizeof(PE_IMAGE_SECTION_HEADER));
  (void)PE_VerifyImageHeader(&nt, sections.data());
  const uint16_t count = uint16_t(std::min<size_t>({available, 96, nt.FileHeader.NumberOfSections}));
  PE_IMAGE_NT_HEADERS32 bounded = nt;
  bounded.FileHeader.NumberOfSections = count;
  uint32_t rvas[4] = {0, nt.OptionalHeader.AddressOfEntryPoint, nt.OptionalHeader.SizeOfHeaders, 0xFFFFFFFF};
  std::memcpy(&rvas[0], data + size - 4, 4);
  for (uint32_t rva : rvas) {
    uint32_t index = 0, pos = 0;
    (void)PE_SeccionDeRVA(sections.data(), count, rva);
    (void)PE_SeekDeRVA(sections.data(), count, rva);
    (void)PE_SeccionDeRVAEx(sections.data(), &bounded, rva, &index);
    (void)PE_SeekDeRVAEx(sections.data(), &bounded, rva, &pos);
  }
  (void)PE_EsMZ(data);
  (void)PE_EsPE(data);
}

void Reader(std::vector<uint8_t>& bytes, int mode) {
  VFileHandle file = vrkvfile_open_memory(bytes.data(), uint32_t(bytes.size()), mode);
  if (!file) return;
  char name[PELOAD_NAME_SIZE];
  (void)PELOAD_GetDllNameH(file, name, sizeof name);

  // Allocations of a load: the process record (1), the image record (2),
  // the image block (3, not taken in place) and then the export slot table.
  // Refusing from 4 on (copying library) or from 3 on (memory-held, where
  // the image may be the file itself) stops every load before its entry
  // point.
  vrkalloc_fail_from(mode == VRKVFILE_COPY ? 4 : 3);
  MODLOAD_PROCESS* process = MODLOAD_CreateProcess(file, RefuseLoad, NoFree, NoProc);
  vrkalloc_reset();
  if (process && process->modules) std::abort();  // a module loaded: its entry point could have run
  MODLOAD_TerminateProcess(process);
  vrkvfile_close(file);
}

// The tool's reading of a file: every export and import through a FileView.
struct Ignore {
  vrk::pe::LoadStatus Module(const char*) { return vrk::pe::LoadStatus::kOk; }
  vrk::pe::LoadStatus Entry(const vrk::pe::ImportEntry&) { return vrk::pe::LoadStatus::kOk; }
};

void FileWalks(vrk::ByteView file, uint32_t lfanew, const PE_IMAGE_NT_HEADERS32& nt) {
  std::vector<PE_IMAGE_SECTION_HEADER> sections(nt.FileHeader.NumberOfSections);
  uint32_t count = 0;
  while (count < sections.size() && vrk::pe::ReadSectionHeader(file, lfanew, nt, count, sections[count])) ++count;
  const vrk::pe::FileView view(file, sections.data(), count, nt.OptionalHeader.SizeOfHeaders);
  vrk::pe::ExportWalk<vrk::pe::FileView> exports;
  volatile uint32_t sink = 0;
  if (exports.Open(view, nt)) {
    for (uint32_t i = 0; i < exports.functions(); ++i) sink = sink + exports.FunctionRva(i);
    exports.ForEachName([&](uint32_t index, const char* name) { sink = sink + index + uint8_t(name[0]); });
  }
  Ignore ignore;
  (void)vrk::pe::WalkImports(view, nt, ignore);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  HeaderChecks(data, size);
  const vrk::ByteView file(data, uint32_t(size));
  uint32_t lfanew = 0;
  PE_IMAGE_NT_HEADERS32 nt;
  if (file.Read(vrk::pe::kLfanewOffset, lfanew) && file.Read(lfanew, nt)) {
    FileWalks(file, lfanew, nt);
    // Walking the relocations of a huge, zero-filled image is sound but slow
    // (linear in the image size, with every page touched); such inputs teach
    // the fuzzer nothing the small ones do not.
    if (vrk::pe::ImageBlockSize(nt) > (16u << 20)) return 0;
  }
  // The loader may write into a memory-held file (import binding in place):
  // it gets a private copy.
  std::vector<uint8_t> bytes(data, data + size);
  bytes.reserve(1);
  Reader(bytes, VRKVFILE_COPY);
  bytes.assign(data, data + size);
  Reader(bytes, VRKVFILE_IN_MEMORY);
  return 0;
}
