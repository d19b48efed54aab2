// The import directory of a PE module, read either from its file (RVAs
// mapped through the section table) or from its loaded image (RVA = offset),
// by the PE family's walker. Every read is bounds-checked: the file is as
// hostile as any other input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/byte_view.h"

namespace vrk::win32 {

struct ImportedDll {
  std::string dll;
  // Names; an ordinal import is "#N" with `ordinals` holding N at the same index.
  std::vector<std::string> names;
  std::vector<uint32_t> ordinals;  // 0 for an import by name
};

// The imports of the PE file in `file`; false when it is not a PE file or its
// import directory does not lie inside it.
bool ReadFileImports(ByteView file, std::vector<ImportedDll>& out);
// The same from a loaded image of `size` bytes, whose lookup tables still
// hold the names (its address tables hold addresses by now).
bool ReadImageImports(uint8_t* image, uint32_t size, std::vector<ImportedDll>& out);

}  // namespace vrk::win32
