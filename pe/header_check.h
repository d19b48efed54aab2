// Stand-alone checks of PE headers that a caller already holds in memory,
// and the mapping of RVAs to sections and file positions.
#pragma once

#include <cstdint>

#include "vrk_pe.h"

namespace vrk::pe {

bool IsMz(const uint8_t* bytes);
bool IsPe(const uint8_t* bytes);
uint32_t VerifyImageHeader(const PE_IMAGE_NT_HEADERS32& nt, const PE_IMAGE_SECTION_HEADER* sections);
uint32_t SectionOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva);
uint32_t FileOffsetOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva);
int SectionOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                   uint32_t& index);
int FileOffsetOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                      uint32_t& pos);

}  // namespace vrk::pe
