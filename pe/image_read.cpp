// Reading a PE image from a virtual file into memory laid out as it runs, or
// using the file's own memory where it is laid out that way already. The file
// is hostile: every offset and size it states is checked against the block
// before anything is read into it.
#include <algorithm>

#include "frame/block.h"
#include "frame/byte_view.h"
#include "pe/image.h"
#include "pe/walk.h"
#include "vrkalloc.h"
#include "vrkvfile.h"

namespace vrk::pe {
namespace {

// The in-place probe: only a file that the virtual-file library holds in
// memory, laid out to run as it is (see ReadImage), is used without a copy.
// Gives the file's memory, or null to copy. The file position is restored.
uint8_t* ProbeInPlace(VFileHandle handle, uint32_t lfanew, const PE_IMAGE_NT_HEADERS32& nt, uint32_t& size) {
  const int32_t position = VTell(handle);
  uint8_t* in_place = nullptr;
  if (VSeek(handle, 0, 0) == 0) {
    uint8_t own = 0;
    void* pointer = &own;
    if (VReadPtr(&pointer, 1, 1, handle) == 1 && pointer != &own) {
      // The library hands out a pointer, not a length: the file's length
      // bounds the memory behind it, and the first section header must lie
      // inside that before its flags are read.
      const uint32_t length = VFilelength(handle);
      const ByteView file(static_cast<const uint8_t*>(pointer), length == 0xFFFFFFFF ? 0 : length);
      PE_IMAGE_SECTION_HEADER first;
      if (file.Has(lfanew, kNtHeadersSize) && ReadSectionHeader(file, lfanew, nt, 0, first) &&
          first.Characteristics == kInPlaceSectionFlags) {
        in_place = static_cast<uint8_t*>(pointer);
        size = length;
      }
    }
  }
  VSeek(handle, position, 0);
  return in_place;
}

// Copies the headers and every section into the block. A section that
// starts outside the block is skipped, one that runs past its end is cut at
// the end; a section whose seek fails is left zero rather than filled from
// wherever the file stands. Short reads are not errors: they leave zeros.
void CopySections(VFileHandle handle, const ImageSpan& image, uint32_t size_of_headers) {
  const uint32_t header_area = std::min(size_of_headers, image.size());
  VSeek(handle, 0, 0);
  VRead(image.At(0, header_area), 1, header_area, handle);

  // The section table is taken from the headers as they now stand in the
  // block, which is also what every later step reads. It must lie inside the
  // header area that was read: past it the walk would take zeros, or the
  // data of sections it has just copied, for section headers.
  const ImageSpan headers(image.base(), header_area);
  PE_IMAGE_NT_HEADERS32 nt;
  uint32_t lfanew = 0;
  if (!image.NtHeaders(nt, &lfanew)) return;
  for (uint32_t i = 0; i < nt.FileHeader.NumberOfSections; ++i) {
    PE_IMAGE_SECTION_HEADER section;
    if (!ReadSectionHeader(headers, lfanew, nt, i, section)) break;
    if (section.VirtualAddress >= image.size()) continue;
    if (section.PointerToRawData > uint32_t(INT32_MAX)) continue;  // cannot be sought
    const uint32_t length = std::min(section.SizeOfRawData, image.size() - section.VirtualAddress);
    if (VSeek(handle, int32_t(section.PointerToRawData), 0) != 0) continue;
    VRead(image.At(section.VirtualAddress, length), 1, length, handle);
  }
}

}  // namespace

LoadStatus ReadImage(VFileHandle handle, int& in_place, ImageSpan& image) {
  in_place = 0;
  uint8_t dos[kDosHeaderSize];
  if (VSeek(handle, 0, 0) != 0) return LoadStatus::kIoError;
  if (VRead(dos, 1, kDosHeaderSize, handle) != kDosHeaderSize) return LoadStatus::kIoError;
  const ByteView dos_view(dos, kDosHeaderSize);
  uint16_t magic = 0;
  uint32_t lfanew = 0;
  (void)dos_view.Read(0, magic);
  (void)dos_view.Read(kLfanewOffset, lfanew);
  if (const LoadStatus s = CheckDosHeader(magic, lfanew); s != LoadStatus::kOk) return s;
  if (VSeek(handle, int32_t(lfanew), 0) != 0) return LoadStatus::kIoError;
  PE_IMAGE_NT_HEADERS32 nt;
  if (VRead(&nt, 1, kNtHeadersSize, handle) != kNtHeadersSize) return LoadStatus::kIoError;
  if (const LoadStatus s = CheckNtHeaders(nt); s != LoadStatus::kOk) return s;

  // A file laid out as it runs (one section, equal alignments, no relocation
  // walk) may be used where the virtual-file library holds it.
  const PE_IMAGE_OPTIONAL_HEADER32& oh = nt.OptionalHeader;
  if (Directory(nt, PE_DIRECTORY_ENTRY_BASERELOC).Size == kNoRelocationWalk && nt.FileHeader.NumberOfSections == 1 &&
      oh.SectionAlignment == oh.FileAlignment) {
    uint32_t size = 0;
    if (uint8_t* memory = ProbeInPlace(handle, lfanew, nt, size)) {
      in_place = 1;
      image = ImageSpan(memory, size);
      return LoadStatus::kOk;
    }
  }

  // The block is checked before anything is allocated.
  uint32_t size = 0;
  if (const LoadStatus s = CheckImageBlock(nt, lfanew, size); s != LoadStatus::kOk) return s;
  ExecBlock block(PcallocX(size, 1, 0));
  if (!block) return LoadStatus::kNoMemory;
  CopySections(handle, ImageSpan(block.get(), size), oh.SizeOfHeaders);
  image = ImageSpan(block.release(), size);
  return LoadStatus::kOk;
}

}  // namespace vrk::pe
