// A small PE writer for tests: builds the crafted and malformed images that a
// compiler will not produce. Starts from a sound i386 DLL with one data
// section; tests change headers and put bytes at RVAs.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "vrk_pe.h"

namespace vrk::test {

class PeWriter {
 public:
  // One section ".data" at RVA 0x1000 of 0x1000 bytes (raw at 0x400), image
  // base 0x10000000, alignments 0x1000 / 0x200, a DLL with an empty
  // relocation block at RVA 0x1FF8.
  PeWriter();

  PE_IMAGE_NT_HEADERS32 nt{};
  std::vector<PE_IMAGE_SECTION_HEADER> sections;
  std::vector<std::vector<uint8_t>> raw;  // raw data of each section
  uint16_t dos_magic = 0x5A4D;
  uint32_t lfanew = 0x80;
  bool auto_count = true;  // NumberOfSections follows `sections`
  bool auto_raw = true;    // PointerToRawData / SizeOfRawData follow `raw`

  // Adds a section at `rva` with `size` bytes of raw data.
  void AddSection(const char* name, uint32_t rva, uint32_t size, uint32_t characteristics = 0xC0000040);

  // Writes into the raw data of the section that holds the RVA.
  void Put8(uint32_t rva, uint8_t v);
  void Put16(uint32_t rva, uint16_t v);
  void Put32(uint32_t rva, uint32_t v);
  void PutBytes(uint32_t rva, const std::vector<uint8_t>& bytes);
  void PutString(uint32_t rva, const std::string& s);  // with its terminator

  void SetDir(int index, uint32_t rva, uint32_t size) {
    nt.OptionalHeader.DataDirectory[index].VirtualAddress = rva;
    nt.OptionalHeader.DataDirectory[index].Size = size;
  }

  // An export directory at `at`: module name, ordinal base, function RVAs
  // (0 for empty slots) and (name, function index) pairs in name-table order.
  void AddExports(uint32_t at, const std::string& name, uint32_t base, const std::vector<uint32_t>& functions,
                  const std::vector<std::pair<std::string, uint16_t>>& names);

  // An import directory at `at`; each thunk is a name or, when the name is
  // empty, the raw thunk value (ordinal imports set the top bit).
  struct Thunk {
    std::string name;
    uint32_t raw = 0;
  };
  struct Import {
    std::string dll;
    std::vector<Thunk> thunks;
  };
  // Gives the RVA of each import's address table.
  std::vector<uint32_t> AddImports(uint32_t at, const std::vector<Import>& imports);

  // Relocation blocks at `at`: each (page RVA, entries); the directory
  // covers them all.
  void AddRelocations(uint32_t at, const std::vector<std::pair<uint32_t, std::vector<uint16_t>>>& blocks);

  // Sets the entry-point bytes at `rva` and asks for the call.
  void SetEntryCode(uint32_t rva, const std::vector<uint8_t>& code);

  std::vector<uint8_t> Bytes() const;

 private:
  uint8_t* At(uint32_t rva, uint32_t length);
};

// x86 code of stdcall entry points that return 1 or 0 (and pop 12 bytes).
inline const std::vector<uint8_t> kEntryReturns1 = {0xB8, 0x01, 0x00, 0x00, 0x00, 0xC2, 0x0C, 0x00};
inline const std::vector<uint8_t> kEntryReturns0 = {0x31, 0xC0, 0xC2, 0x0C, 0x00};

}  // namespace vrk::test
