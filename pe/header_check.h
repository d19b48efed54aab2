// Stand-alone checks of PE headers that a caller already holds in memory,
// and the mapping of RVAs to sections and file positions.
#pragma once

#include <cstdint>

#include "pe/format.h"
#include "vrk_pe.h"

namespace vrk::pe {

// "MZ" or "ZM" (see the MZ rule); "PE\0\0".
bool IsMz(const uint8_t* bytes);
bool IsPe(const uint8_t* bytes);

// Whether NT headers and their NumberOfSections section headers describe a
// sound i386 PE32 image; the values are the Windows NT status codes that
// callers are given.
enum class [[nodiscard]] HeaderVerdict : uint32_t {
  kSound = PE_STATUS_OK,
  kNotNtHeaders = PE_STATUS_INVALID_IMAGE_PROTECT,
  kMalformed = PE_STATUS_INVALID_IMAGE_FORMAT,
};
HeaderVerdict CheckImageHeader(const PE_IMAGE_NT_HEADERS32& nt, const PE_IMAGE_SECTION_HEADER* sections);

// The section holding `rva` (the highest-numbered when they overlap), and
// the file position against it; both answer every RVA.
uint32_t SectionOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva);
uint32_t FileOffsetOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva);

// Where `rva` lies in a table sorted by address, and the file bytes readable
// there (0 to 1024) with their position in `pos` (left alone for 0).
Placement SectionOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                         uint32_t& index);
uint32_t FileOffsetOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                           uint32_t& pos);

}  // namespace vrk::pe
