// Bounds-checked walks over the parts of a PE image that every reader needs:
// the section table, the export directory and the import directory. They
// read through a view, so that the library's loaded image (ImageSpan, where
// an RVA is an offset) and a file held in memory (FileView, where RVAs map
// through the section table) follow one set of rules. Header-only, like the
// format it reads.
//
// A view offers:
//   template <class T> bool Read(uint32_t rva, T& out) const;  // false unless wholly inside
//   const char* String(uint32_t rva) const;  // null unless it ends inside
//   uint32_t Available(uint32_t rva) const;  // bytes readable from rva on
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "frame/byte_view.h"
#include "pe/format.h"

namespace vrk::pe {

// Section header `index` of the table that follows the NT headers at
// `lfanew`; false when it does not lie wholly inside `bytes` (a ByteView or
// an ImageSpan, read from offset 0).
template <class Bytes>
bool ReadSectionHeader(const Bytes& bytes, uint32_t lfanew, const PE_IMAGE_NT_HEADERS32& nt, uint32_t index,
                       PE_IMAGE_SECTION_HEADER& out) {
  const uint64_t at = SectionHeaderOffset(lfanew, nt.FileHeader, index);
  return at <= UINT32_MAX && bytes.Read(uint32_t(at), out);
}

// The name of a section whose header says "/n": the string at offset n of the
// COFF string table in `file`, or null when the name is a plain one or the
// string does not end inside the file.
inline const char* LongSectionName(ByteView file, const PE_IMAGE_FILE_HEADER& fh, const PE_IMAGE_SECTION_HEADER& s) {
  uint32_t offset = 0;
  if (!LongNameOffset(s.Name, offset)) return nullptr;
  const uint64_t at = StringTableOffset(fh) + offset;
  if (at >= file.size()) return nullptr;
  const ByteView rest = file.From(uint32_t(at));
  return std::memchr(rest.data(), 0, rest.size()) ? reinterpret_cast<const char*>(rest.data()) : nullptr;
}

// A PE file held in memory, read by RVA. An RVA maps to a file position as
// the Ex lookup maps it: one in the headers to itself, one inside a section
// (or past the last one) into that section's raw data. A read must lie
// inside that raw data and inside the file.
class FileView {
 public:
  FileView(ByteView file, const PE_IMAGE_SECTION_HEADER* sections, uint32_t count, uint32_t size_of_headers)
      : file_(file), sections_(sections), count_(count), size_of_headers_(size_of_headers) {}

  // The file position of `rva` in `position`, and how many bytes of raw data
  // follow it there, whether or not the file is that long; 0 when the RVA
  // lies in no raw data (a gap, past a section's raw size, or a position
  // that would wrap).
  uint32_t Map(uint32_t rva, uint32_t& position) const {
    uint32_t index = 0;
    switch (LocateRva(sections_, count_, size_of_headers_, rva, index)) {
      case Placement::kInHeaders:
        position = rva;
        return size_of_headers_ - rva;
      case Placement::kInSection:
      case Placement::kPastSections: {
        uint32_t at = 0;
        const uint32_t raw = RawBytesAt(sections_[index], rva, at);
        if (raw == 0 || at < sections_[index].PointerToRawData) return 0;
        position = at;
        return raw;
      }
      default:
        return 0;
    }
  }

  uint32_t Available(uint32_t rva) const {
    uint32_t available = 0;
    (void)At(rva, available);
    return available;
  }

  template <class T>
  bool Read(uint32_t rva, T& out) const {
    uint32_t available = 0;
    const uint8_t* p = At(rva, available);
    if (available < sizeof(T)) return false;
    std::memcpy(&out, p, sizeof(T));
    return true;
  }

  const char* String(uint32_t rva) const {
    uint32_t available = 0;
    const uint8_t* p = At(rva, available);
    return p && std::memchr(p, 0, available) ? reinterpret_cast<const char*>(p) : nullptr;
  }

 private:
  // The bytes at `rva`, cut at the file's end; null when there are none.
  const uint8_t* At(uint32_t rva, uint32_t& available) const {
    uint32_t position = 0;
    const uint32_t raw = Map(rva, position);
    if (raw == 0 || position >= file_.size()) return nullptr;
    available = std::min(raw, file_.size() - position);
    return file_.data() + position;
  }

  ByteView file_;
  const PE_IMAGE_SECTION_HEADER* sections_;
  uint32_t count_;
  uint32_t size_of_headers_;
};

// The export directory of an image, read through a view (which must outlive
// the walk).
template <class View>
class ExportWalk {
 public:
  // Reads the directory; false (no exports) when the image has none or it
  // does not lie wholly inside the view.
  bool Open(const View& view, const PE_IMAGE_NT_HEADERS32& nt) {
    view_ = &view;
    const uint32_t rva = Directory(nt, PE_DIRECTORY_ENTRY_EXPORT).VirtualAddress;
    if (rva == 0 || !view.Read(rva, dir_)) return false;
    // The function array is cut to the entries that lie inside the view.
    functions_ = std::min(dir_.NumberOfFunctions, view.Available(dir_.AddressOfFunctions) / 4);
    return true;
  }

  const PE_IMAGE_EXPORT_DIRECTORY& directory() const { return dir_; }
  uint32_t functions() const { return functions_; }

  // The RVA of function `i` (below functions()); 0 marks an empty slot.
  uint32_t FunctionRva(uint32_t i) const {
    uint32_t rva = 0;
    (void)view_->Read(dir_.AddressOfFunctions + 4 * i, rva);
    return rva;
  }

  // Calls fn(index, name) for each name, in name-table order. Both arrays end
  // the walk where they leave the view; an index past the (cut) function
  // array, or a name that does not end inside the view, skips that name.
  template <class Fn>
  void ForEachName(Fn&& fn) const {
    if (functions_ == 0) return;
    for (uint32_t j = 0; j < dir_.NumberOfNames; ++j) {
      uint16_t index = 0;
      uint32_t name_rva = 0;
      if (!view_->Read(dir_.AddressOfNameOrdinals + 2 * j, index) || !view_->Read(dir_.AddressOfNames + 4 * j, name_rva))
        break;
      if (index >= functions_) continue;
      if (const char* name = view_->String(name_rva)) fn(index, name);
    }
  }

 private:
  const View* view_ = nullptr;
  PE_IMAGE_EXPORT_DIRECTORY dir_{};
  uint32_t functions_ = 0;
};

// One import: its name (past the two-byte hint, which nobody uses) or, for an
// import by ordinal, null and the ordinal; and the RVA of the address-table
// slot that receives its address, which lies 4 bytes inside the view.
struct ImportEntry {
  const char* name;
  uint32_t ordinal;
  uint32_t slot;
};

// Where the names of a descriptor's imports are read: the lookup table, or
// the address table when OriginalFirstThunk is 0, as a loader finds them in
// a file; in an image already bound the address table holds addresses, so a
// reader of it asks for the lookup table only.
enum class ImportNames : uint8_t { kLookupOrAddressTable, kLookupTableOnly };

// Walks the import directory: visitor.Module(dll_name) once per descriptor,
// then visitor.Entry(entry) for each thunk of its lookup table (see
// ImportNames), in table order. The walk ends
// with kOk at the descriptor whose FirstThunk is 0 (or at once without an
// import directory); with the visitor's first result other than kOk; with
// kImportOutside at a descriptor, DLL name, thunk, import name or slot
// outside the view; or with kBadOrdinal at an ordinal above 0xFFFF, which a
// lookup would take for a name pointer. A cut walk would leave address-table
// slots unbound, so nothing past such a point is visited.
template <class View, class Visitor>
LoadStatus WalkImports(const View& view, const PE_IMAGE_NT_HEADERS32& nt, Visitor& visitor,
                       ImportNames names = ImportNames::kLookupOrAddressTable) {
  const uint32_t dir = Directory(nt, PE_DIRECTORY_ENTRY_IMPORT).VirtualAddress;
  if (dir == 0) return LoadStatus::kOk;
  for (uint64_t d = dir;; d += sizeof(PE_IMAGE_IMPORT_DESCRIPTOR)) {
    PE_IMAGE_IMPORT_DESCRIPTOR desc;
    if (d > UINT32_MAX || !view.Read(uint32_t(d), desc)) return LoadStatus::kImportOutside;
    if (desc.FirstThunk == 0) return LoadStatus::kOk;
    const char* dll = view.String(desc.Name);
    if (!dll) return LoadStatus::kImportOutside;
    if (const LoadStatus s = visitor.Module(dll); s != LoadStatus::kOk) return s;
    const uint32_t lookup = desc.OriginalFirstThunk != 0 ? desc.OriginalFirstThunk : desc.FirstThunk;
    if (desc.OriginalFirstThunk == 0 && names == ImportNames::kLookupTableOnly) continue;
    for (uint64_t k = 0;; ++k) {
      const uint64_t thunk_rva = lookup + 4 * k;
      const uint64_t slot_rva = desc.FirstThunk + 4 * k;
      uint32_t thunk = 0;
      if (thunk_rva > UINT32_MAX || !view.Read(uint32_t(thunk_rva), thunk)) return LoadStatus::kImportOutside;
      if (thunk == 0) break;
      ImportEntry entry{nullptr, 0, 0};
      if (thunk & kOrdinalFlag) {
        entry.ordinal = thunk & ~kOrdinalFlag;
        if (entry.ordinal > kMaxOrdinal) return LoadStatus::kBadOrdinal;
      } else if (thunk > UINT32_MAX - 2 || !(entry.name = view.String(thunk + 2))) {
        return LoadStatus::kImportOutside;
      }
      if (slot_rva > UINT32_MAX || view.Available(uint32_t(slot_rva)) < 4) return LoadStatus::kImportOutside;
      entry.slot = uint32_t(slot_rva);
      if (const LoadStatus s = visitor.Entry(entry); s != LoadStatus::kOk) return s;
    }
  }
}

}  // namespace vrk::pe
