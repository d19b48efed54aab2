// Import directories read through the PE family's bounds-checked walker:
// files through a view that maps RVAs by their section table, loaded images
// through the image itself.
#include "win32/pe_imports.h"

#include "pe/image_span.h"
#include "pe/walk.h"

namespace vrk::win32 {
namespace {

// Gathers the walk into ImportedDll records.
struct Collector {
  std::vector<ImportedDll>& out;

  pe::LoadStatus Module(const char* dll) {
    out.push_back(ImportedDll{dll, {}, {}});
    return pe::LoadStatus::kOk;
  }

  pe::LoadStatus Entry(const pe::ImportEntry& entry) {
    ImportedDll& dll = out.back();
    if (entry.name) {
      dll.names.emplace_back(entry.name);
    } else {
      dll.names.push_back('#' + std::to_string(entry.ordinal));
    }
    dll.ordinals.push_back(entry.name ? 0 : entry.ordinal);
    return pe::LoadStatus::kOk;
  }
};

}  // namespace

bool ReadFileImports(ByteView file, std::vector<ImportedDll>& out) {
  uint32_t lfanew = 0;
  PE_IMAGE_NT_HEADERS32 nt;
  if (!file.Read(pe::kLfanewOffset, lfanew) || !file.Read(lfanew, nt) || !pe::IsLoadableNtSignature(nt.Signature)) {
    return false;
  }
  std::vector<PE_IMAGE_SECTION_HEADER> sections(nt.FileHeader.NumberOfSections);
  for (uint32_t i = 0; i < sections.size(); ++i) {
    if (!pe::ReadSectionHeader(file, lfanew, nt, i, sections[i])) return false;
  }
  const pe::FileView view(file, sections.data(), uint32_t(sections.size()), nt.OptionalHeader.SizeOfHeaders);
  Collector collector{out};
  return pe::WalkImports(view, nt, collector) == pe::LoadStatus::kOk;
}

bool ReadImageImports(uint8_t* image, uint32_t size, std::vector<ImportedDll>& out) {
  const pe::ImageSpan span(image, size);
  PE_IMAGE_NT_HEADERS32 nt;
  if (!span.NtHeaders(nt)) return false;
  Collector collector{out};
  return pe::WalkImports(span, nt, collector, pe::ImportNames::kLookupTableOnly) == pe::LoadStatus::kOk;
}

}  // namespace vrk::win32
