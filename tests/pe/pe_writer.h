// A small PE writer for tests: builds the crafted and malformed images that a
// compiler will not produce. It starts from a sound i386 DLL with one data
// section; tests change headers and put bytes at RVAs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "vrk_pe.h"

namespace vrk::test {

class PeWriter {
 public:
  PE_IMAGE_NT_HEADERS32 nt{};
  std::vector<PE_IMAGE_SECTION_HEADER> sections;
  std::vector<std::vector<uint8_t>> raw;  // raw data of each section
  uint16_t dos_magic = 0x5A4D;
  uint32_t lfanew = 0x80;

  // Section ".data" at RVA 0x1000 of 0x1000 bytes (raw at 0x400), image base
  // 0x10000000, alignments 0x1000 / 0x200, a DLL with an empty relocation
  // block at 0x1FF8.
  PeWriter() {
    nt.Signature = 0x00004550;
    nt.FileHeader.Machine = 0x014C;
    nt.FileHeader.NumberOfSections = 1;
    nt.FileHeader.SizeOfOptionalHeader = sizeof(PE_IMAGE_OPTIONAL_HEADER32);
    nt.FileHeader.Characteristics = 0x2102;  // DLL, 32-bit, executable
    auto& oh = nt.OptionalHeader;
    oh.Magic = 0x010B;
    oh.ImageBase = 0x10000000;
    oh.SectionAlignment = 0x1000;
    oh.FileAlignment = 0x200;
    oh.SizeOfImage = 0x2000;
    oh.SizeOfHeaders = 0x400;
    oh.NumberOfRvaAndSizes = 16;
    PE_IMAGE_SECTION_HEADER& s = sections.emplace_back();
    std::memcpy(s.Name, ".data", 5);
    s.VirtualAddress = s.VirtualSize = s.SizeOfRawData = 0x1000;
    s.PointerToRawData = 0x400;
    s.Characteristics = 0xC0000040;
    raw.emplace_back(0x1000, 0);
    AddRelocations(0x1FF8, {{0x1000, {}}});
  }

  // Writes into the raw data of the section that holds the RVA.
  void Put16(uint32_t rva, uint16_t v) { std::memcpy(At(rva, 2), &v, 2); }
  void Put32(uint32_t rva, uint32_t v) { std::memcpy(At(rva, 4), &v, 4); }
  void PutString(uint32_t rva, const std::string& s) { std::memcpy(At(rva, uint32_t(s.size() + 1)), s.c_str(), s.size() + 1); }
  void SetDir(int index, uint32_t rva, uint32_t size) { nt.OptionalHeader.DataDirectory[index] = {rva, size}; }

  // An export directory at `at`: module name, ordinal base, function RVAs
  // (0 for empty slots) and (name, function index) pairs in name-table order.
  void AddExports(uint32_t at, const std::string& name, uint32_t base, const std::vector<uint32_t>& functions,
                  const std::vector<std::pair<std::string, uint16_t>>& names) {
    const uint32_t funcs = at + 40, name_ptrs = funcs + 4 * uint32_t(functions.size());
    const uint32_t ordinals = name_ptrs + 4 * uint32_t(names.size());
    uint32_t strings = ordinals + 2 * uint32_t(names.size());
    const uint32_t fields[] = {strings, base, uint32_t(functions.size()), uint32_t(names.size()), funcs, name_ptrs, ordinals};
    for (uint32_t i = 0; i < 7; ++i) Put32(at + 0x0C + 4 * i, fields[i]);
    PutString(strings, name);
    strings += uint32_t(name.size() + 1);
    for (size_t i = 0; i < functions.size(); ++i) Put32(funcs + 4 * uint32_t(i), functions[i]);
    for (size_t j = 0; j < names.size(); ++j) {
      Put32(name_ptrs + 4 * uint32_t(j), strings);
      Put16(ordinals + 2 * uint32_t(j), names[j].second);
      PutString(strings, names[j].first);
      strings += uint32_t(names[j].first.size() + 1);
    }
    SetDir(PE_DIRECTORY_ENTRY_EXPORT, at, strings - at);
  }

  // An import directory at `at`: descriptors, then per DLL a lookup and an
  // address table, then the strings. A thunk is a name or, when the name is
  // empty, the raw thunk value. Gives the RVA of each address table.
  struct Thunk {
    std::string name;
    uint32_t raw = 0;
  };
  std::vector<uint32_t> AddImports(uint32_t at, const std::vector<std::pair<std::string, std::vector<Thunk>>>& dlls) {
    uint32_t next = at + 20 * uint32_t(dlls.size() + 1);
    std::vector<uint32_t> iats;
    for (size_t i = 0; i < dlls.size(); ++i) {
      const auto& [dll, thunks] = dlls[i];
      const uint32_t ilt = next, iat = next + 4 * uint32_t(thunks.size() + 1);
      next = iat + 4 * uint32_t(thunks.size() + 1);
      Put32(at + 20 * uint32_t(i), ilt);
      Put32(at + 20 * uint32_t(i) + 0x0C, next);
      Put32(at + 20 * uint32_t(i) + 0x10, iat);
      PutString(next, dll);
      next += uint32_t(dll.size() + 1);
      for (size_t k = 0; k < thunks.size(); ++k) {
        uint32_t value = thunks[k].raw;
        if (!thunks[k].name.empty()) {  // a hint of 0, then the name
          value = next;
          PutString(next + 2, thunks[k].name);
          next += uint32_t(thunks[k].name.size() + 3);
        }
        Put32(ilt + 4 * uint32_t(k), value);
        Put32(iat + 4 * uint32_t(k), value);
      }
      iats.push_back(iat);
    }
    SetDir(PE_DIRECTORY_ENTRY_IMPORT, at, 20 * uint32_t(dlls.size() + 1));
    return iats;
  }

  // Relocation blocks at `at`, each (page RVA, entries); the directory covers them all.
  void AddRelocations(uint32_t at, const std::vector<std::pair<uint32_t, std::vector<uint16_t>>>& blocks) {
    uint32_t p = at;
    for (const auto& [page, entries] : blocks) {
      Put32(p, page);
      Put32(p + 4, 8 + 2 * uint32_t(entries.size()));
      for (size_t k = 0; k < entries.size(); ++k) Put16(p + 8 + 2 * uint32_t(k), entries[k]);
      p += 8 + 2 * uint32_t(entries.size());
    }
    SetDir(PE_DIRECTORY_ENTRY_BASERELOC, at, p - at);
  }

  // Puts stdcall entry-point code at `rva` and asks for the call.
  void SetEntryCode(uint32_t rva, const std::vector<uint8_t>& code) {
    std::memcpy(At(rva, uint32_t(code.size())), code.data(), code.size());
    nt.OptionalHeader.AddressOfEntryPoint = rva;
    nt.OptionalHeader.DllCharacteristics |= 0x0001;
  }

  // The file: headers at `lfanew` (0x80 when it says more than 0xFFF), the
  // section table after them, each section's raw data at its
  // PointerToRawData unless a hostile header puts it 16 MiB away or more.
  std::vector<uint8_t> Bytes() const {
    const uint32_t nt_at = lfanew < 0x1000 ? lfanew : 0x80;
    const uint32_t table_at = nt_at + 0x18 + nt.FileHeader.SizeOfOptionalHeader;
    // A hostile SizeOfHeaders does not make the file any larger.
    uint32_t end = std::max({std::min<uint32_t>(nt.OptionalHeader.SizeOfHeaders, 0x1000),
                             table_at + 40 * uint32_t(sections.size()), nt_at + uint32_t(sizeof nt)});
    auto placed = [&](size_t i) { return !raw[i].empty() && sections[i].PointerToRawData < 0x1000000; };
    for (size_t i = 0; i < raw.size(); ++i) {
      if (placed(i)) end = std::max<uint32_t>(end, sections[i].PointerToRawData + uint32_t(raw[i].size()));
    }
    std::vector<uint8_t> out(end, 0);
    if (out.size() < 0x40) return out;  // never: the NT headers lie past 0x40
    std::memcpy(out.data(), &dos_magic, 2);
    std::memcpy(out.data() + 0x3C, &lfanew, 4);
    std::memcpy(out.data() + nt_at, &nt, sizeof nt);
    std::memcpy(out.data() + table_at, sections.data(), 40 * sections.size());
    for (size_t i = 0; i < raw.size(); ++i) {
      if (placed(i)) std::memcpy(out.data() + sections[i].PointerToRawData, raw[i].data(), raw[i].size());
    }
    return out;
  }

 private:
  uint8_t* At(uint32_t rva, uint32_t length) {
    for (size_t i = 0; i < sections.size(); ++i) {
      const uint32_t off = rva - sections[i].VirtualAddress;
      if (rva >= sections[i].VirtualAddress && off <= raw[i].size() && length <= raw[i].size() - off) return raw[i].data() + off;
    }
    throw std::out_of_range("PeWriter: RVA outside every section");
  }
};

// x86 code of stdcall entry points that return 1 or 0 (and pop 12 bytes).
inline const std::vector<uint8_t> kEntryReturns1 = {0xB8, 0x01, 0x00, 0x00, 0x00, 0xC2, 0x0C, 0x00};
inline const std::vector<uint8_t> kEntryReturns0 = {0x31, 0xC0, 0xC2, 0x0C, 0x00};

}  // namespace vrk::test
