// Import directories read through bounds-checked views.
#include "win32/pe_imports.h"

#include "vrk_pe.h"

namespace vrk::win32 {
namespace {

constexpr uint32_t kOrdinalFlag = 0x80000000;
constexpr uint32_t kMaxName = 1024;
constexpr uint32_t kMaxThunks = 65536;  // per DLL; more is a broken file

class RvaReader {
 public:
  // A loaded image: RVAs are offsets.
  explicit RvaReader(ByteView image) : bytes_(image) {}

  // A file: RVAs are mapped through its section table.
  bool ReadSections() {
    uint32_t lfanew = 0;
    PE_IMAGE_NT_HEADERS32 nt;
    if (!bytes_.Read(0x3C, lfanew) || !bytes_.Read(lfanew, nt)) return false;
    uint64_t table = uint64_t(lfanew) + 0x18 + nt.FileHeader.SizeOfOptionalHeader;
    for (uint32_t i = 0; i < nt.FileHeader.NumberOfSections; ++i, table += sizeof(PE_IMAGE_SECTION_HEADER)) {
      PE_IMAGE_SECTION_HEADER s;
      if (table > UINT32_MAX || !bytes_.Read(uint32_t(table), s)) return false;
      sections_.push_back(s);
    }
    mapped_ = true;
    return true;
  }

  bool NtHeaders(PE_IMAGE_NT_HEADERS32& nt) const {
    uint32_t lfanew = 0;
    return bytes_.Read(0x3C, lfanew) && bytes_.Read(lfanew, nt) && nt.Signature == 0x00004550;
  }

  template <class T>
  bool Read(uint32_t rva, T& out) const {
    uint32_t offset = 0;
    return Map(rva, offset) && bytes_.Read(offset, out);
  }

  bool String(uint32_t rva, std::string& out) const {
    uint32_t offset = 0;
    if (!Map(rva, offset)) return false;
    out.clear();
    for (uint32_t i = 0; i < kMaxName; ++i) {
      if (!bytes_.Has(offset, i + 1)) return false;
      const char c = char(bytes_[offset + i]);
      if (c == '\0') return true;
      out += c;
    }
    return false;
  }

 private:
  // Headers map to themselves; a section's RVA to its raw data.
  bool Map(uint32_t rva, uint32_t& offset) const {
    if (!mapped_) {
      offset = rva;
      return true;
    }
    for (const PE_IMAGE_SECTION_HEADER& s : sections_) {
      const uint32_t size = s.VirtualSize ? s.VirtualSize : s.SizeOfRawData;
      if (rva >= s.VirtualAddress && rva - s.VirtualAddress < size) {
        const uint32_t within = rva - s.VirtualAddress;
        if (within >= s.SizeOfRawData || s.PointerToRawData > UINT32_MAX - within) return false;
        offset = s.PointerToRawData + within;
        return true;
      }
    }
    offset = rva;
    return sections_.empty() || rva < sections_.front().VirtualAddress;
  }

  ByteView bytes_;
  bool mapped_ = false;
  std::vector<PE_IMAGE_SECTION_HEADER> sections_;
};

bool ReadImports(const RvaReader& reader, bool from_image, std::vector<ImportedDll>& out) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!reader.NtHeaders(nt)) return false;
  const uint32_t dir = nt.OptionalHeader.DataDirectory[PE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
  if (dir == 0) return true;
  for (uint64_t d = dir;; d += sizeof(PE_IMAGE_IMPORT_DESCRIPTOR)) {
    PE_IMAGE_IMPORT_DESCRIPTOR desc;
    if (d > UINT32_MAX || !reader.Read(uint32_t(d), desc)) return false;
    if (desc.FirstThunk == 0) return true;
    ImportedDll dll;
    if (!reader.String(desc.Name, dll.dll)) return false;
    // In an image the address table holds addresses by now: only the
    // lookup table still names the functions.
    const uint32_t lookup = desc.OriginalFirstThunk ? desc.OriginalFirstThunk : from_image ? 0 : desc.FirstThunk;
    for (uint32_t k = 0; lookup && k < kMaxThunks; ++k) {
      const uint64_t at = uint64_t(lookup) + 4ull * k;
      uint32_t thunk = 0;
      if (at > UINT32_MAX || !reader.Read(uint32_t(at), thunk)) return false;
      if (thunk == 0) break;
      if (thunk & kOrdinalFlag) {
        dll.names.push_back("#" + std::to_string(thunk & 0xFFFF));
        dll.ordinals.push_back(thunk & 0xFFFF);
      } else {
        std::string name;
        if (thunk > UINT32_MAX - 2 || !reader.String(thunk + 2, name)) return false;
        dll.names.push_back(std::move(name));
        dll.ordinals.push_back(0);
      }
    }
    out.push_back(std::move(dll));
  }
}

}  // namespace

bool ReadFileImports(ByteView file, std::vector<ImportedDll>& out) {
  RvaReader reader(file);
  return reader.ReadSections() && ReadImports(reader, false, out);
}

bool ReadImageImports(ByteView image, std::vector<ImportedDll>& out) {
  return ReadImports(RvaReader(image), true, out);
}

}  // namespace vrk::win32
