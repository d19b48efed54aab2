// Exported PE header checks and RVA mapping: thin shims over vrk::pe.
#include "pe/header_check.h"

extern "C" {

VRK_API int PE_EsMZ(const void* bytes) noexcept { return vrk::pe::IsMz(static_cast<const uint8_t*>(bytes)) ? 1 : 0; }

VRK_API int PE_EsPE(const void* bytes) noexcept { return vrk::pe::IsPe(static_cast<const uint8_t*>(bytes)) ? 1 : 0; }

VRK_API uint32_t PE_VerifyImageHeader(const PE_IMAGE_NT_HEADERS32* nt, const PE_IMAGE_SECTION_HEADER* sections) noexcept {
  return uint32_t(vrk::pe::CheckImageHeader(*nt, sections));
}

VRK_API uint32_t PE_SeccionDeRVA(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva) noexcept {
  return vrk::pe::SectionOfRva(sections, count, rva);
}

VRK_API uint32_t PE_SeekDeRVA(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva) noexcept {
  return vrk::pe::FileOffsetOfRva(sections, count, rva);
}

VRK_API int PE_SeccionDeRVAEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32* nt, uint32_t rva,
                              uint32_t* index) noexcept {
  return int(vrk::pe::SectionOfRvaEx(sections, *nt, rva, *index));
}

VRK_API int PE_SeekDeRVAEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32* nt, uint32_t rva,
                           uint32_t* pos) noexcept {
  return int(vrk::pe::FileOffsetOfRvaEx(sections, *nt, rva, *pos));
}

}  // extern "C"
