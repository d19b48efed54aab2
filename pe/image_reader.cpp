// Reading, relocating, export listing and starting of one PE image. The
// file is hostile: every offset, size and index it states is checked against
// the image before use; what lies outside is refused or cut off as each step
// says.
#include "pe/image_reader.h"

#include <algorithm>
#include <cstring>

#include "frame/block.h"
#include "frame/byte_view.h"
#include "pe/stdcall.h"
#include "vrkalloc.h"
#include "vrkvfile.h"

namespace vrk::pe {
namespace {

constexpr uint16_t kDosMagic = 0x5A4D;          // "MZ"; the reader takes no other order
constexpr uint32_t kNtSignature = 0x00004550;   // "PE\0\0"
constexpr uint32_t kNtSignatureAlt = 0x00004551;  // "QE\0\0", read alike
constexpr uint32_t kDosHeaderSize = 64;
constexpr uint32_t kNtHeadersSize = sizeof(PE_IMAGE_NT_HEADERS32);
constexpr uint32_t kSectionHeaderSize = sizeof(PE_IMAGE_SECTION_HEADER);
constexpr uint32_t kNoRelocationWalk = 0xFFFFFFFF;
constexpr uint32_t kInPlaceSectionFlags = 0x40000040;  // initialized, readable, nothing else
constexpr uint16_t kFileDll = 0x2000;
constexpr uint16_t kDllCallEntryPoint = 0x0001;
constexpr uint16_t kRelocHighLow = 3;
constexpr uint32_t kEmptySlot = 0xFFFFFFFF;

// Offset of section header `index` inside the image, from the headers there;
// false when it would not fit in 32 bits.
bool SectionHeaderOffset(uint32_t lfanew, const PE_IMAGE_NT_HEADERS32& nt, uint32_t index, uint32_t& offset) {
  const uint64_t at = uint64_t(lfanew) + 0x18 + nt.FileHeader.SizeOfOptionalHeader +
                      uint64_t(index) * kSectionHeaderSize;
  if (at > UINT32_MAX) return false;
  offset = uint32_t(at);
  return true;
}

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
      uint32_t header = 0;
      uint32_t flags = 0;
      if (file.Has(lfanew, kNtHeadersSize) && SectionHeaderOffset(lfanew, nt, 0, header) &&
          file.Read(header + 0x24, flags) && flags == kInPlaceSectionFlags) {
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
    uint32_t offset = 0;
    PE_IMAGE_SECTION_HEADER section;
    if (!SectionHeaderOffset(lfanew, nt, i, offset) || !headers.Read(offset, section)) break;
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
  if (!dos_view.Read(0, magic) || magic != kDosMagic || !dos_view.Read(0x3C, lfanew)) return {};
  // Positions beyond 2 GiB cannot be sought: the file cannot hold them.
  if (lfanew > uint32_t(INT32_MAX)) return {};
  if (VSeek(handle, int32_t(lfanew), 0) != 0) return {};
  PE_IMAGE_NT_HEADERS32 nt;
  if (VRead(&nt, 1, kNtHeadersSize, handle) != kNtHeadersSize) return {};
  if (nt.Signature != kNtSignature && nt.Signature != kNtSignatureAlt) return {};
  const PE_IMAGE_OPTIONAL_HEADER32& oh = nt.OptionalHeader;
  const PE_IMAGE_DATA_DIRECTORY& relocs = oh.DataDirectory[PE_DIRECTORY_ENTRY_BASERELOC];
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

  // The block: SizeOfImage plus one alignment unit of slack. A sum that
  // wraps, or a block too small to hold the NT headers that every later step
  // reads, fails the read before anything is allocated.
  const uint32_t size = oh.SizeOfImage + oh.SectionAlignment;
  if (size < oh.SizeOfImage || !ImageSpan(nullptr, size).Has(lfanew, kNtHeadersSize)) return {};
  ExecBlock block(PcallocX(size, 1, 0));
  if (!block) return {};
  const ImageSpan image(block.get(), size);
  CopySections(handle, image, oh.SizeOfHeaders);
  return ImageSpan(block.release(), size);
}

int ApplyRelocations(const ImageSpan& image) {
  if (!image) return 1;
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image.NtHeaders(nt)) return 0;
  const uint32_t delta = image.Address(0) - nt.OptionalHeader.ImageBase;
  const PE_IMAGE_DATA_DIRECTORY& dir = nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_BASERELOC];
  if (dir.Size == kNoRelocationWalk) return 0;
  // The directory is cut at the image end (and at a wrapping sum).
  uint32_t end = dir.VirtualAddress + dir.Size;
  if (end < dir.VirtualAddress || end > image.size()) end = image.size();

  uint32_t offset = dir.VirtualAddress;
  while (offset < end) {
    uint32_t page = 0;
    uint32_t block_size = 0;
    // A block header outside the image, or a block too short to hold its own
    // header (which would never advance), ends the walk.
    if (!image.Read(offset, page) || !image.Read(offset + 4, block_size) || block_size < 8) break;
    const uint32_t entries = (block_size - 8) / 2;
    bool inside = true;
    for (uint32_t k = 0; k < entries; ++k) {
      uint16_t entry = 0;
      // Entries running off the image end the walk altogether.
      if (!image.Read(offset + 8 + 2 * k, entry)) {
        inside = false;
        break;
      }
      if ((entry >> 12) != kRelocHighLow) continue;
      // A target outside the image (or past 4 GiB) is skipped.
      const uint64_t target = uint64_t(page) + (entry & 0x0FFF);
      uint32_t value = 0;
      if (target > UINT32_MAX || !image.Read(uint32_t(target), value)) continue;
      (void)image.Write(uint32_t(target), value + delta);
    }
    if (!inside) break;
    // Every entry lay inside the image, so this cannot wrap.
    offset += 8 + 2 * entries;
  }
  return 0;
}

ExportSlot* BuildExportTable(const ImageSpan& image) {
  PE_IMAGE_NT_HEADERS32 nt;
  PE_IMAGE_EXPORT_DIRECTORY dir{};
  const bool has_dir = image.NtHeaders(nt) &&
                       nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_EXPORT].VirtualAddress != 0 &&
                       image.Read(nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_EXPORT].VirtualAddress, dir);
  // No directory (or one outside the image): no exports, the closing slot
  // alone.
  uint32_t functions = 0;
  if (has_dir && image.Has(dir.AddressOfFunctions, 0)) {
    // The function array is cut to the entries that lie inside the image.
    functions = std::min(dir.NumberOfFunctions, (image.size() - dir.AddressOfFunctions) / 4);
  }
  Block<ExportSlot> slots(Pcalloc(functions + 1, sizeof(ExportSlot), 0));
  if (!slots) return nullptr;
  for (uint32_t i = 0; i < functions; ++i) {
    uint32_t rva = 0;
    (void)image.Read(dir.AddressOfFunctions + 4 * i, rva);
    if (rva != 0) {
      // Forwarders (RVAs inside the export directory) are entered like any
      // other address; nothing here reads what an address points at.
      slots[i].address = image.Address(rva);
      slots[i].ordinal = dir.Base + i;
    } else {
      slots[i].address = kEmptySlot;
      slots[i].ordinal = kEmptySlot;
    }
  }
  if (functions != 0) {
    for (uint32_t j = 0; j < dir.NumberOfNames; ++j) {
      uint16_t index = 0;
      uint32_t name_rva = 0;
      // Both arrays end the walk where they leave the image; an index past
      // the function array or a name that does not end inside the image
      // skips that one name.
      if (!image.Read(dir.AddressOfNameOrdinals + 2 * j, index) || !image.Read(dir.AddressOfNames + 4 * j, name_rva))
        break;
      if (index >= functions) continue;
      if (const char* name = image.String(name_rva)) slots[index].name = name;  // later names win
    }
  }
  return slots.release();
}

void AddExports(const ExportSlot* slots, PELOAD_EXPORT** head) {
  for (const ExportSlot* slot = slots; slot->address != 0; ++slot) {
    auto* node = static_cast<PELOAD_EXPORT*>(Pmalloc(sizeof(PELOAD_EXPORT), 0));
    if (!node) continue;  // the module just lacks that export
    node->name = slot->name;
    node->ordinal = slot->ordinal;
    node->address = slot->address;
    node->next = *head;
    *head = node;
  }
}

void FreeExports(PELOAD_EXPORT* head) {
  while (head) {
    PELOAD_EXPORT* next = head->next;
    Pfree(head);
    head = next;
  }
}

int GetImageName(const ImageSpan& image, char* dst, uint32_t len) {
  if (!image) return 0;
  if (len == 0) return 1;
  std::memset(dst, 0, len);
  PE_IMAGE_NT_HEADERS32 nt;
  PE_IMAGE_EXPORT_DIRECTORY dir{};
  // Without a readable export directory the name is empty (rather than
  // whatever lies at RVA 0).
  if (!image.NtHeaders(nt)) return 1;
  const uint32_t dir_rva = nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
  if (dir_rva == 0 || !image.Read(dir_rva, dir)) return 1;
  // A name running to the image end without a terminator is cut there.
  const uint32_t length = std::min(image.BoundedLength(dir.Name), len - 1);
  if (length != 0) std::memcpy(dst, image.At(dir.Name, length), length);
  return 1;
}

VRK_MODULE_CALL int CallEntryPoint(const ImageSpan& image, MODLOAD_PROCESS* process) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image || !image.NtHeaders(nt)) return 1;
  if (!(nt.FileHeader.Characteristics & kFileDll)) return 1;
  if (!(nt.OptionalHeader.DllCharacteristics & kDllCallEntryPoint)) return 1;
  // An entry point outside the image is never jumped to: the module is
  // refused as if its entry point had said no.
  uint8_t* const code = image.At(nt.OptionalHeader.AddressOfEntryPoint, 1);
  if (!code) return 0;
  const auto start = reinterpret_cast<DllEntryPoint>(code);
  return start(image.base(), kDllProcessAttach, process);
}

void FreeImage(PELOAD_IMAGE* record) {
  if (!record) return;
  if (record->inPlace != 1 && record->image) PfreeX(record->image);
  FreeExports(record->exports);
  Pfree(record);
}

}  // namespace vrk::pe
