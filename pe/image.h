// The stages one PE image goes through, each in a file of its own: reading it
// from a virtual file into memory laid out as it runs (image_read.cpp),
// relocating it (image_relocate.cpp), listing its exports and reading its
// name (image_exports.cpp) and starting it (image_entry.cpp). Every stage
// reads the image through ImageSpan only. The loader runs them in order
// (pipeline.cpp).
#pragma once

#include <cstdint>

#include "pe/image_span.h"
#include "vrk_pe.h"

namespace vrk::pe {

// One slot of the temporary export table, in function-array order. The last
// slot of a table stays zero and ends it.
struct ExportSlot {
  uint32_t address;
  uint32_t ordinal;
  const char* name;
};
static_assert(sizeof(ExportSlot) == 12, "three 32-bit words on i386");

// Reads the module in `handle` (the caller's; sought and read, not closed).
// Gives the file's own memory when the virtual-file library holds it and the
// file is laid out to run in place (in_place = 1), else a PcallocX block of
// SizeOfImage + SectionAlignment bytes. An empty span when the file cannot be
// read as a module; nothing is then allocated.
ImageSpan ReadImage(VFileHandle handle, int& in_place);

// Adds (base - ImageBase) to every 32-bit absolute relocation target.
// 1 for an empty image, else 0.
int ApplyRelocations(const ImageSpan& image);

// The export slot table (Pcalloc'd; the caller frees it with Pfree), or null
// when the allocator refuses it. An image without a readable export
// directory gives a table of the closing slot alone.
ExportSlot* BuildExportTable(const ImageSpan& image);

// Pushes one Pmalloc'd node per slot onto *head (so the list ends up in
// reverse slot order); a node the allocator refuses is left out.
void AddExports(const ExportSlot* slots, PELOAD_EXPORT** head);

void FreeExports(PELOAD_EXPORT* head);

// Copies the export-directory name into dst as a bounded string copy (at most
// len - 1 characters, zero-padded). 0 for an empty image, else 1; an image
// without a readable name gives an empty one.
int GetImageName(const ImageSpan& image, char* dst, uint32_t len);

// Runs the DLL entry point with (base, 1, process) when the image asks for
// it; 1 when it is not called, else its result (0: the module refuses).
int CallEntryPoint(const ImageSpan& image, MODLOAD_PROCESS* process);

}  // namespace vrk::pe
