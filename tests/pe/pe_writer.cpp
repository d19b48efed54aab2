// The tests' PE writer.
#include "pe_writer.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace vrk::test {

PeWriter::PeWriter() {
  nt.Signature = 0x00004550;
  nt.FileHeader.Machine = 0x014C;
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
  AddSection(".data", 0x1000, 0x1000);
  AddRelocations(0x1FF8, {{0x1000, {}}});
}

void PeWriter::AddSection(const char* name, uint32_t rva, uint32_t size, uint32_t characteristics) {
  PE_IMAGE_SECTION_HEADER s{};
  std::memcpy(s.Name, name, std::min(std::strlen(name), sizeof s.Name));
  s.VirtualAddress = rva;
  s.VirtualSize = size;
  s.SizeOfRawData = size;
  s.Characteristics = characteristics;
  sections.push_back(s);
  raw.emplace_back(size, 0);
  nt.OptionalHeader.SizeOfImage = std::max(nt.OptionalHeader.SizeOfImage, rva + size);
}

uint8_t* PeWriter::At(uint32_t rva, uint32_t length) {
  for (size_t i = 0; i < sections.size(); ++i) {
    const uint32_t va = sections[i].VirtualAddress;
    if (rva >= va && rva - va <= raw[i].size() && length <= raw[i].size() - (rva - va)) return raw[i].data() + (rva - va);
  }
  throw std::out_of_range("PeWriter: RVA outside every section");
}

void PeWriter::Put8(uint32_t rva, uint8_t v) { *At(rva, 1) = v; }
void PeWriter::Put16(uint32_t rva, uint16_t v) { std::memcpy(At(rva, 2), &v, 2); }
void PeWriter::Put32(uint32_t rva, uint32_t v) { std::memcpy(At(rva, 4), &v, 4); }
void PeWriter::PutBytes(uint32_t rva, const std::vector<uint8_t>& bytes) {
  if (!bytes.empty()) std::memcpy(At(rva, uint32_t(bytes.size())), bytes.data(), bytes.size());
}
void PeWriter::PutString(uint32_t rva, const std::string& s) {
  std::memcpy(At(rva, uint32_t(s.size() + 1)), s.c_str(), s.size() + 1);
}

void PeWriter::AddExports(uint32_t at, const std::string& name, uint32_t base, const std::vector<uint32_t>& functions,
                          const std::vector<std::pair<std::string, uint16_t>>& names) {
  const uint32_t funcs = at + 40;
  const uint32_t name_ptrs = funcs + 4 * uint32_t(functions.size());
  const uint32_t ordinals = name_ptrs + 4 * uint32_t(names.size());
  uint32_t strings = ordinals + 2 * uint32_t(names.size());
  Put32(at + 0x0C, strings);
  PutString(strings, name);
  strings += uint32_t(name.size() + 1);
  Put32(at + 0x10, base);
  Put32(at + 0x14, uint32_t(functions.size()));
  Put32(at + 0x18, uint32_t(names.size()));
  Put32(at + 0x1C, funcs);
  Put32(at + 0x20, name_ptrs);
  Put32(at + 0x24, ordinals);
  for (size_t i = 0; i < functions.size(); ++i) Put32(funcs + 4 * uint32_t(i), functions[i]);
  for (size_t j = 0; j < names.size(); ++j) {
    Put32(name_ptrs + 4 * uint32_t(j), strings);
    Put16(ordinals + 2 * uint32_t(j), names[j].second);
    PutString(strings, names[j].first);
    strings += uint32_t(names[j].first.size() + 1);
  }
  SetDir(PE_DIRECTORY_ENTRY_EXPORT, at, strings - at);
}

std::vector<uint32_t> PeWriter::AddImports(uint32_t at, const std::vector<Import>& imports) {
  // Descriptors, then per import a lookup table and an address table, then
  // the strings.
  uint32_t next = at + 20 * uint32_t(imports.size() + 1);
  std::vector<uint32_t> iats;
  for (size_t i = 0; i < imports.size(); ++i) {
    const uint32_t n = uint32_t(imports[i].thunks.size()) + 1;
    const uint32_t ilt = next, iat = next + 4 * n;
    next = iat + 4 * n;
    const uint32_t desc = at + 20 * uint32_t(i);
    Put32(desc + 0x00, ilt);
    Put32(desc + 0x0C, next);
    Put32(desc + 0x10, iat);
    PutString(next, imports[i].dll);
    next += uint32_t(imports[i].dll.size() + 1);
    for (size_t k = 0; k < imports[i].thunks.size(); ++k) {
      uint32_t value = imports[i].thunks[k].raw;
      if (!imports[i].thunks[k].name.empty()) {
        value = next;
        Put16(next, 0);  // hint
        PutString(next + 2, imports[i].thunks[k].name);
        next += uint32_t(imports[i].thunks[k].name.size() + 3);
      }
      Put32(ilt + 4 * uint32_t(k), value);
      Put32(iat + 4 * uint32_t(k), value);
    }
    iats.push_back(iat);
  }
  SetDir(PE_DIRECTORY_ENTRY_IMPORT, at, 20 * uint32_t(imports.size() + 1));
  return iats;
}

void PeWriter::AddRelocations(uint32_t at, const std::vector<std::pair<uint32_t, std::vector<uint16_t>>>& blocks) {
  uint32_t p = at;
  for (const auto& [page, entries] : blocks) {
    Put32(p, page);
    Put32(p + 4, 8 + 2 * uint32_t(entries.size()));
    for (size_t k = 0; k < entries.size(); ++k) Put16(p + 8 + 2 * uint32_t(k), entries[k]);
    p += 8 + 2 * uint32_t(entries.size());
  }
  SetDir(PE_DIRECTORY_ENTRY_BASERELOC, at, p - at);
}

void PeWriter::SetEntryCode(uint32_t rva, const std::vector<uint8_t>& code) {
  PutBytes(rva, code);
  nt.OptionalHeader.AddressOfEntryPoint = rva;
  nt.OptionalHeader.DllCharacteristics |= 0x0001;
}

std::vector<uint8_t> PeWriter::Bytes() const {
  PE_IMAGE_NT_HEADERS32 h = nt;
  std::vector<PE_IMAGE_SECTION_HEADER> table = sections;
  if (auto_count) h.FileHeader.NumberOfSections = uint16_t(table.size());
  const uint32_t table_at = lfanew + 0x18 + h.FileHeader.SizeOfOptionalHeader;
  // A hostile SizeOfHeaders does not make the file any larger.
  uint32_t end = std::max<uint32_t>(std::min<uint32_t>(h.OptionalHeader.SizeOfHeaders, 0x1000), table_at + 40 * uint32_t(table.size()));
  end = std::max<uint32_t>(end, lfanew + sizeof h);
  if (auto_raw) {
    uint32_t pos = end;
    const uint32_t fa = h.OptionalHeader.FileAlignment ? h.OptionalHeader.FileAlignment : 1;
    for (size_t i = 0; i < table.size(); ++i) {
      pos = (pos + fa - 1) / fa * fa;
      table[i].PointerToRawData = pos;
      table[i].SizeOfRawData = uint32_t(raw[i].size());
      pos += uint32_t(raw[i].size());
    }
  }
  // Raw data that a hostile header places far away is left out of the file.
  auto placed = [&](size_t i) { return i < raw.size() && !raw[i].empty() && table[i].PointerToRawData < 0x1000000; };
  for (size_t i = 0; i < table.size(); ++i) {
    if (placed(i)) end = std::max<uint32_t>(end, table[i].PointerToRawData + uint32_t(raw[i].size()));
  }
  std::vector<uint8_t> out(end, 0);
  std::memcpy(out.data(), &dos_magic, 2);
  std::memcpy(out.data() + 0x3C, &lfanew, 4);
  std::memcpy(out.data() + lfanew, &h, sizeof h);
  for (size_t i = 0; i < table.size(); ++i) {
    std::memcpy(out.data() + table_at + 40 * i, &table[i], 40);
    if (placed(i)) std::memcpy(out.data() + table[i].PointerToRawData, raw[i].data(), raw[i].size());
  }
  return out;
}

}  // namespace vrk::test
