// PE header soundness checks and RVA lookups over caller-held header records.
// All arithmetic is unsigned 32-bit; where a sum may wrap, the check says so.
#include "pe/header_check.h"

#include <cstring>

namespace vrk::pe {
namespace {

constexpr uint32_t kMaxImageSize = 0x77000000;
constexpr uint32_t kMaxSections = 96;
constexpr uint32_t kMaxReadable = 1024;

constexpr uint32_t RoundUp(uint32_t x, uint32_t a) { return (x + a - 1) & ~(a - 1); }

}  // namespace

bool IsMz(const uint8_t* bytes) { return IsDosMagic(uint16_t(bytes[0] | bytes[1] << 8)); }

bool IsPe(const uint8_t* bytes) {
  uint32_t v;
  std::memcpy(&v, bytes, sizeof v);
  return v == kNtSignature;
}

HeaderVerdict CheckImageHeader(const PE_IMAGE_NT_HEADERS32& nt, const PE_IMAGE_SECTION_HEADER* sections) {
  const PE_IMAGE_FILE_HEADER& fh = nt.FileHeader;
  const PE_IMAGE_OPTIONAL_HEADER32& oh = nt.OptionalHeader;
  // Something that is not NT headers at all is reported apart from a
  // malformed image.
  if (nt.Signature != kNtSignature) return HeaderVerdict::kNotNtHeaders;
  if (fh.Machine == 0 && fh.SizeOfOptionalHeader == 0) return HeaderVerdict::kNotNtHeaders;

  if (!(fh.Characteristics & kFileExecutable)) return HeaderVerdict::kMalformed;
  if (oh.Magic != kMagicPe32) return HeaderVerdict::kMalformed;
  const uint32_t file_align = oh.FileAlignment;
  const uint32_t sect_align = oh.SectionAlignment;
  // A file alignment below 512 is allowed only for images laid out in the
  // file as they run (both alignments equal).
  if ((file_align & 0x1FF) != 0 && file_align != sect_align) return HeaderVerdict::kMalformed;
  if (file_align == 0) return HeaderVerdict::kMalformed;
  // Zero passes this test; the SizeOfHeaders check below catches it.
  if ((sect_align & (sect_align - 1)) != 0) return HeaderVerdict::kMalformed;
  if ((file_align & (file_align - 1)) != 0) return HeaderVerdict::kMalformed;
  if (oh.SizeOfImage > kMaxImageSize) return HeaderVerdict::kMalformed;
  if (fh.NumberOfSections > kMaxSections) return HeaderVerdict::kMalformed;
  if (fh.Machine != kMachineI386) return HeaderVerdict::kMalformed;
  if ((oh.ImageBase & 0xFFFF) != 0) return HeaderVerdict::kMalformed;
  const uint32_t headers = oh.SizeOfHeaders;
  // The last test refuses an alignment below 2 and a rounding that wraps.
  if (headers == 0 || headers >= oh.SizeOfImage || headers + sect_align - 1 <= headers)
    return HeaderVerdict::kMalformed;

  // Sections must follow one another without gaps or overlaps, each at the
  // previous one's end rounded up to the section alignment.
  uint32_t expected = RoundUp(headers, sect_align);
  for (uint32_t i = 0; i < fh.NumberOfSections; ++i) {
    const PE_IMAGE_SECTION_HEADER& s = sections[i];
    const uint32_t extent = ExtentOrRaw(s);
    const uint32_t raw_end = s.PointerToRawData + s.SizeOfRawData;
    if (raw_end < s.PointerToRawData) return HeaderVerdict::kMalformed;
    if (RoundUp(raw_end, file_align) < s.PointerToRawData) return HeaderVerdict::kMalformed;
    if (s.VirtualAddress != expected) return HeaderVerdict::kMalformed;
    if (extent == 0) return HeaderVerdict::kMalformed;
    const uint32_t next = RoundUp(extent + expected, sect_align);
    if (next <= expected) return HeaderVerdict::kMalformed;
    expected = next;
  }
  return HeaderVerdict::kSound;
}

uint32_t SectionOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva) {
  if (count == 0 || !sections) return 0;
  // From the last section down, so that among overlapping sections the one
  // with the highest index answers. Here a section reaches as far as the
  // larger of its virtual and raw sizes.
  for (int i = count - 1; i >= 0; --i) {
    const PE_IMAGE_SECTION_HEADER& s = sections[i];
    if (rva < s.VirtualAddress) continue;
    const uint32_t off = rva - s.VirtualAddress;
    if (off < s.VirtualSize || off < s.SizeOfRawData) return uint32_t(i);
  }
  return rva > sections[0].VirtualAddress ? uint32_t(count - 1) : 0;
}

uint32_t FileOffsetOfRva(const PE_IMAGE_SECTION_HEADER* sections, int count, uint32_t rva) {
  if (count == 0 || !sections) return rva;
  const uint32_t i = SectionOfRva(sections, count, rva);
  if (i == 0 && rva < sections[0].VirtualAddress) return rva;  // in the headers
  return rva - sections[i].VirtualAddress + sections[i].PointerToRawData;
}

Placement SectionOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                         uint32_t& index) {
  return LocateRva(sections, nt.FileHeader.NumberOfSections, nt.OptionalHeader.SizeOfHeaders, rva, index);
}

uint32_t FileOffsetOfRvaEx(const PE_IMAGE_SECTION_HEADER* sections, const PE_IMAGE_NT_HEADERS32& nt, uint32_t rva,
                           uint32_t& pos) {
  uint32_t i = 0;
  switch (SectionOfRvaEx(sections, nt, rva, i)) {
    case Placement::kInHeaders:
      pos = rva;
      return kMaxReadable;
    case Placement::kInSection:
    case Placement::kPastSections: {
      // Past the last section's virtual end there may still be raw bytes.
      // The raw size less the offset is taken as a signed number, as the
      // product's callers expect: an RVA 2 GiB or more past the raw data
      // wraps to a positive count at a position far outside the file, which
      // a reader of the file must bound by its length (vrkutil pe does).
      const uint32_t offset = rva - sections[i].VirtualAddress;
      const int32_t available = static_cast<int32_t>(sections[i].SizeOfRawData - offset);
      if (available < 1) return 0;
      pos = offset + sections[i].PointerToRawData;
      return available > static_cast<int32_t>(kMaxReadable) ? kMaxReadable : static_cast<uint32_t>(available);
    }
    default:
      return 0;
  }
}

}  // namespace vrk::pe
