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

ImageSpan ReadImage(VFileHandle handle, int& in_place) {
  in_place = 0;
  uint8_t dos[kDosHeaderSize];
  if (VSeek(handle, 0, 0) != 0) return {};
  if (VRead(dos, 1, kDosHeaderSize, handle) != kDosHeaderSize) return {};
  const ByteView dos_view(dos, kDosHeaderSize);
  uint16_t magic = 0;
  uint32_t lfanew = 0;
  if (!dos_view.Read(0, magic) || !IsLoadableDosMagic(magic) || !dos_view.Read(kLfanewOffset, lfanew)) return {};
  // Positions beyond 2 GiB cannot be sought: the file cannot hold them.
  if (lfanew > uint32_t(INT32_MAX)) return {};
  if (VSeek(handle, int32_t(lfanew), 0) != 0) return {};
  PE_IMAGE_NT_HEADERS32 nt;
  if (VRead(&nt, 1, kNtHeadersSize, handle) != kNtHeadersSize) return {};
  if (!IsLoadableNtSignature(nt.Signature)) return {};
  const PE_IMAGE_OPTIONAL_HEADER32& oh = nt.OptionalHeader;
  const PE_IMAGE_DATA_DIRECTORY& relocs = Directory(nt, PE_DIRECTORY_ENTRY_BASERELOC);
  // Images are never loaded at their preferred base, so one without
  // relocations cannot run.
  if (relocs.Size == 0) return {};

  // A file laid out as it runs (one section, equal alignments, no relocation
  // walk) may be used where the virtual-file library holds it.
  if (relocs.Size == kNoRelocationWalk && nt.FileHeader.NumberOfSections == 1 &&
      oh.SectionAlignment == oh.FileAlignment) {
    uint32_t size = 0;
    if (uint8_t* memory = ProbeInPlace(handle, lfanew, nt, size)) {
      in_place = 1;
      return ImageSpan(memory, size);
    }
  }

  // A block whose size wraps, or one too small to hold the NT headers that
  // every later step reads, fails the read before anything is allocated.
  const uint64_t block_size = ImageBlockSize(nt);
  if (block_size > UINT32_MAX) return {};
  const uint32_t size = uint32_t(block_size);
  if (!ImageSpan(nullptr, size).Has(lfanew, kNtHeadersSize)) return {};
  ExecBlock block(PcallocX(size, 1, 0));
  if (!block) return {};
  const ImageSpan image(block.get(), size);
  CopySections(handle, image, oh.SizeOfHeaders);
  return ImageSpan(block.release(), size);
}

}  // namespace vrk::pe
