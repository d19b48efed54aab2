// The PE/COFF format as this family reads it: signatures, fixed offsets,
// where the section table lies, which section holds an RVA and where that
// RVA lies in the file. Header-only and stateless, so that the vrkutil tool
// reads files by the same rules as the library without the library exporting
// anything for it.
#pragma once

#include <cstdint>

#include "vrk_pe.h"

namespace vrk::pe {

// ---- DOS header ----

inline constexpr uint32_t kDosHeaderSize = 64;
inline constexpr uint32_t kLfanewOffset = 0x3C;  // e_lfanew: file position of the NT headers
inline constexpr uint16_t kDosMagic = 0x5A4D;    // "MZ"
inline constexpr uint16_t kDosMagicSwapped = 0x4D5A;  // "ZM"

// The MZ rule differs between the two halves of the family on purpose. The
// header checks tell a caller what a file is, and MS-DOS ran an executable
// behind either byte order, so they recognise "MZ" and "ZM". The image reader
// loads, and Windows loads a PE image only behind "MZ", so it takes "MZ"
// alone: a "ZM" file is an executable, but not one that any loader runs.
constexpr bool IsDosMagic(uint16_t magic) { return magic == kDosMagic || magic == kDosMagicSwapped; }
constexpr bool IsLoadableDosMagic(uint16_t magic) { return magic == kDosMagic; }

// ---- NT headers ----

inline constexpr uint32_t kNtSignature = 0x00004550;     // "PE\0\0"
inline constexpr uint32_t kNtSignatureAlt = 0x00004551;  // "QE\0\0": the image reader reads it alike
inline constexpr uint32_t kNtHeadersSize = sizeof(PE_IMAGE_NT_HEADERS32);
inline constexpr uint16_t kMachineI386 = 0x014C;
inline constexpr uint16_t kMachineAmd64 = 0x8664;
inline constexpr uint16_t kMagicPe32 = 0x010B;
inline constexpr uint16_t kMagicPe32Plus = 0x020B;
inline constexpr uint16_t kFileExecutable = 0x0002;
inline constexpr uint16_t kFileDll = 0x2000;
// A bit the standard reserves; here it asks the loader to call the entry point.
inline constexpr uint16_t kDllCallEntryPoint = 0x0001;

// The header checks accept only "PE\0\0"; the image reader takes "QE\0\0" too.
constexpr bool IsLoadableNtSignature(uint32_t signature) {
  return signature == kNtSignature || signature == kNtSignatureAlt;
}

constexpr const PE_IMAGE_DATA_DIRECTORY& Directory(const PE_IMAGE_NT_HEADERS32& nt, int index) {
  return nt.OptionalHeader.DataDirectory[index];
}

// The loader calls the entry point only of a DLL that asks for it.
constexpr bool AsksForEntryPoint(const PE_IMAGE_NT_HEADERS32& nt) {
  return (nt.FileHeader.Characteristics & kFileDll) != 0 &&
         (nt.OptionalHeader.DllCharacteristics & kDllCallEntryPoint) != 0;
}

// The bytes a copied image occupies: SizeOfImage plus one section-alignment
// unit of slack. In 64 bits: the 32-bit sum may wrap, which the reader refuses.
constexpr uint64_t ImageBlockSize(const PE_IMAGE_NT_HEADERS32& nt) {
  return uint64_t(nt.OptionalHeader.SizeOfImage) + nt.OptionalHeader.SectionAlignment;
}

// ---- What the image reader takes ----

// Why a PE image does not load. The loader's stages answer with it, and so do
// the checks and walks below, which the vrkutil tool shares to say why.
enum class [[nodiscard]] LoadStatus : uint8_t {
  kOk,
  kIoError,         // a seek or read of the headers failed or came up short
  kNoMemory,        // the allocator refused a block
  kNotMz,           // the DOS header does not start with "MZ"
  kHeadersTooFar,   // e_lfanew lies beyond 2 GiB, where no file position reaches
  kNotPe,           // the NT signature is neither "PE\0\0" nor "QE\0\0"
  kNoRelocations,   // no base relocations
  kImageTooSmall,   // SizeOfImage + SectionAlignment wraps, or cannot hold the NT headers
  kImportOutside,   // an import descriptor, name, thunk or slot lies outside the image
  kBadOrdinal,      // an import by an ordinal above 0xFFFF
  kModuleNotFound,  // an imported DLL is neither listed nor given by the load callback
  kProcNotFound,    // an imported function is missing from its module
  kEntryOutside,    // the entry point lies outside the image
  kEntryRefused,    // the entry point returned 0
};

// The DOS header as the image reader takes it: "MZ" (see the MZ rule) and an
// e_lfanew that a seek can reach (file positions end at 2 GiB).
constexpr LoadStatus CheckDosHeader(uint16_t magic, uint32_t lfanew) {
  if (!IsLoadableDosMagic(magic)) return LoadStatus::kNotMz;
  if (lfanew > uint32_t(INT32_MAX)) return LoadStatus::kHeadersTooFar;
  return LoadStatus::kOk;
}

// The NT headers as the image reader takes them. Images are never loaded at
// their preferred base, so one without relocations cannot run.
constexpr LoadStatus CheckNtHeaders(const PE_IMAGE_NT_HEADERS32& nt) {
  if (!IsLoadableNtSignature(nt.Signature)) return LoadStatus::kNotPe;
  if (Directory(nt, PE_DIRECTORY_ENTRY_BASERELOC).Size == 0) return LoadStatus::kNoRelocations;
  return LoadStatus::kOk;
}

// The block of a copied image, in `size`: it must not wrap and must hold the
// NT headers that every later stage reads.
constexpr LoadStatus CheckImageBlock(const PE_IMAGE_NT_HEADERS32& nt, uint32_t lfanew, uint32_t& size) {
  const uint64_t block = ImageBlockSize(nt);
  if (block > UINT32_MAX) return LoadStatus::kImageTooSmall;
  size = uint32_t(block);
  if (lfanew > size || kNtHeadersSize > size - lfanew) return LoadStatus::kImageTooSmall;
  return LoadStatus::kOk;
}

// ---- Section table ----

inline constexpr uint32_t kSectionHeaderSize = sizeof(PE_IMAGE_SECTION_HEADER);

// The section table follows the optional header, whose size the file header
// states: e_lfanew + 4 (signature) + 20 (file header) + SizeOfOptionalHeader.
// Taken in 64 bits so that hostile values cannot wrap; callers bound it.
inline constexpr uint32_t kOptionalHeaderOffset = 0x18;
constexpr uint64_t SectionHeaderOffset(uint32_t lfanew, const PE_IMAGE_FILE_HEADER& fh, uint32_t index) {
  return uint64_t(lfanew) + kOptionalHeaderOffset + fh.SizeOfOptionalHeader + uint64_t(index) * kSectionHeaderSize;
}

// The extent of a section as the verifier and the Ex lookups see it: the
// virtual size, falling back to the raw size for sections that leave it 0.
constexpr uint32_t ExtentOrRaw(const PE_IMAGE_SECTION_HEADER& s) {
  return s.VirtualSize != 0 ? s.VirtualSize : s.SizeOfRawData;
}

// Where an RVA lies against a section table taken as sorted by address (the
// Ex lookup); `index` names the section concerned.
enum class Placement : int {
  kInSection = PE_RVA_IN_SECTION,
  kInHeaders = PE_RVA_IN_HEADERS,            // before the first section, below SizeOfHeaders
  kBeforeSections = PE_RVA_BEFORE_SECTIONS,  // before the first section, past the headers
  kInGap = PE_RVA_IN_GAP,                    // after section `index`, before the next one
  kPastSections = PE_RVA_PAST_SECTIONS,      // at or after the end of the last section
};

constexpr Placement LocateRva(const PE_IMAGE_SECTION_HEADER* sections, uint32_t count, uint32_t size_of_headers,
                              uint32_t rva, uint32_t& index) {
  if (count != 0 && sections) {
    // The first section starting above the RVA ends the scan.
    for (uint32_t i = 0; i < count; ++i) {
      const PE_IMAGE_SECTION_HEADER& s = sections[i];
      if (rva < s.VirtualAddress) {
        if (i == 0) break;
        index = i - 1;
        return Placement::kInGap;
      }
      if (rva < s.VirtualAddress + ExtentOrRaw(s)) {  // the sum wraps as it will
        index = i;
        return Placement::kInSection;
      }
    }
    if (rva >= sections[0].VirtualAddress) {
      index = count - 1;
      return Placement::kPastSections;
    }
  }
  index = 0;
  return rva >= size_of_headers ? Placement::kBeforeSections : Placement::kInHeaders;
}

// The raw data of section `s` at `rva` (at or past its start): how many of its
// bytes follow (0 when the RVA lies at or past the end of its raw data), with
// their file position in `position` (left alone for 0). The position wraps
// modulo 2^32 as the file header's fields do; readers of a real file bound it.
constexpr uint32_t RawBytesAt(const PE_IMAGE_SECTION_HEADER& s, uint32_t rva, uint32_t& position) {
  const uint32_t offset = rva - s.VirtualAddress;
  // Compared unsigned: taken as a signed difference, the raw size less an
  // offset 2 GiB or more past it comes out positive.
  if (offset >= s.SizeOfRawData) return 0;
  position = offset + s.PointerToRawData;
  return s.SizeOfRawData - offset;
}

// COFF long section names: "/n" stands for the string at offset n (decimal)
// of the string table that follows the symbol table. False for plain names.
constexpr bool LongNameOffset(const uint8_t (&name)[8], uint32_t& offset) {
  if (name[0] != '/' || name[1] < '0' || name[1] > '9') return false;
  uint32_t value = 0;
  for (uint32_t i = 1; i < 8 && name[i] != 0; ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
    value = value * 10 + uint32_t(name[i] - '0');  // seven digits cannot overflow
  }
  offset = value;
  return true;
}

inline constexpr uint32_t kCoffSymbolSize = 18;
constexpr uint64_t StringTableOffset(const PE_IMAGE_FILE_HEADER& fh) {
  return uint64_t(fh.PointerToSymbolTable) + uint64_t(fh.NumberOfSymbols) * kCoffSymbolSize;
}

// ---- Exports, imports, relocations ----

// Export slots whose function RVA is 0 get this as address and ordinal.
inline constexpr uint32_t kEmptySlot = 0xFFFFFFFF;

// An export whose RVA lies inside the export directory is a forwarder: the
// RVA names a "MODULE.Function" string, not code.
constexpr bool IsForwarder(const PE_IMAGE_DATA_DIRECTORY& exports, uint32_t rva) {
  return rva >= exports.VirtualAddress && rva - exports.VirtualAddress < exports.Size;
}

// Import thunks with the top bit set carry an ordinal in the low 31 bits;
// only ordinals up to 0xFFFF can be told apart from name pointers.
inline constexpr uint32_t kOrdinalFlag = 0x80000000;
inline constexpr uint32_t kMaxOrdinal = 0xFFFF;

// A base-relocation Size that no walk can follow. It marks files laid out to
// run as they are, whose first section is initialized, readable data only.
inline constexpr uint32_t kNoRelocationWalk = 0xFFFFFFFF;
inline constexpr uint32_t kInPlaceSectionFlags = 0x40000040;
inline constexpr uint16_t kRelocHighLow = 3;  // 32-bit absolute

}  // namespace vrk::pe
