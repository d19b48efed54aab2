// Fuzz target of the PE family. The input is taken three ways: as a file
// read as vrkutil pe reads it (header checks, RVA lookups, the export and
// import walks over a FileView); as a virtual file (copying and memory-held)
// for the DLL-name reader; and as the first module of a process record whose
// native callbacks refuse every import.
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

// The file as vrkutil pe reads it: its NT headers and the section headers
// present through the header checks and RVA lookups, the long section names,
// its exports and imports through the walks over a FileView.
struct Ignore {
  vrk::pe::LoadStatus Module(const char*) { return vrk::pe::LoadStatus::kOk; }
  vrk::pe::LoadStatus Entry(const vrk::pe::ImportEntry&) { return vrk::pe::LoadStatus::kOk; }
};

void FileChecks(vrk::ByteView file, uint32_t lfanew, const PE_IMAGE_NT_HEADERS32& nt) {
  // At least 96 headers for the verifier; the lookups get those present.
  std::vector<PE_IMAGE_SECTION_HEADER> sections(std::max<size_t>(96, nt.FileHeader.NumberOfSections));
  uint32_t count = 0;
  while (count < nt.FileHeader.NumberOfSections && vrk::pe::ReadSectionHeader(file, lfanew, nt, count, sections[count])) ++count;
  (void)PE_VerifyImageHeader(&nt, sections.data());
  PE_IMAGE_NT_HEADERS32 bounded = nt;
  bounded.FileHeader.NumberOfSections = uint16_t(count);
  uint32_t rvas[4] = {0, nt.OptionalHeader.AddressOfEntryPoint, nt.OptionalHeader.SizeOfHeaders, 0xFFFFFFFF};
  (void)file.Read(file.size() - 4, rvas[0]);
  for (uint32_t rva : rvas) {
    uint32_t index = 0, pos = 0;
    (void)PE_SeccionDeRVA(sections.data(), int(count), rva);
    (void)PE_SeekDeRVA(sections.data(), int(count), rva);
    (void)PE_SeccionDeRVAEx(sections.data(), &bounded, rva, &index);
    (void)PE_SeekDeRVAEx(sections.data(), &bounded, rva, &pos);
  }
  volatile uint32_t sink = 0;  // keeps what the reads give alive
  for (uint32_t i = 0; i < count; ++i) sink = sink + (vrk::pe::LongSectionName(file, nt.FileHeader, sections[i]) != nullptr);
  const vrk::pe::FileView view(file, sections.data(), count, nt.OptionalHeader.SizeOfHeaders);
  vrk::pe::ExportWalk<vrk::pe::FileView> exports;
  if (exports.Open(view, nt)) {
    for (uint32_t i = 0; i < exports.functions(); ++i) sink = sink + exports.FunctionRva(i);
    exports.ForEachName([&](uint32_t index, const char* name) { sink = sink + index + uint8_t(name[0]); });
  }
  Ignore ignore;
  (void)vrk::pe::WalkImports(view, nt, ignore);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const vrk::ByteView file(data, uint32_t(size));
  uint32_t lfanew = 0;
  PE_IMAGE_NT_HEADERS32 nt;
  if (file.Read(vrk::pe::kLfanewOffset, lfanew) && file.Read(lfanew, nt)) {
    FileChecks(file, lfanew, nt);
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
