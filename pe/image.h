// The stages one PE image goes through, each in a file of its own: reading it
// from a virtual file into memory laid out as it runs (image_read.cpp),
// relocating it (image_relocate.cpp), listing its exports and reading its
// name (image_exports.cpp) and starting it (image_entry.cpp). Every stage
// reads the image through ImageSpan only. The loader runs them in order
// (pipeline.cpp).
#pragma once

#include <cstdint>

#include "frame/block.h"
#include "pe/format.h"
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

// Reads the module in `handle` (the caller's; sought and read, not closed)
// into `image`: the file's own memory when the virtual-file library holds it
// and the file is laid out to run in place (in_place = 1), else a PcallocX
// block of SizeOfImage + SectionAlignment bytes. kOk, or why the file cannot
// be read as a module; nothing is then allocated and `image` stays empty.
LoadStatus ReadImage(VFileHandle handle, int& in_place, ImageSpan& image);

// Adds (base - ImageBase) to every 32-bit absolute relocation target. An
// empty image is left alone.
void ApplyRelocations(const ImageSpan& image);

// The export slot table (Pcalloc'd), or an empty holder when the allocator
// refuses it. An image without a readable export directory gives a table of
// the closing slot alone.
Block<ExportSlot> BuildExportTable(const ImageSpan& image);

// Pushes one Pmalloc'd node per slot onto *head (so the list ends up in
// reverse slot order); a node the allocator refuses is left out.
void AddExports(const ExportSlot* slots, PELOAD_EXPORT** head);

void FreeExports(PELOAD_EXPORT* head);

// Copies the export-directory name into dst as a bounded string copy (at most
// len - 1 characters, zero-padded). An image without a readable name gives an
// empty one; an empty image leaves dst alone.
void GetImageName(const ImageSpan& image, char* dst, uint32_t len);

// Runs the DLL entry point with (base, 1, process) when the image asks for
// it. kOk when it is not called or lets the module load; kEntryRefused when
// it returns 0, kEntryOutside (without a call) when it lies outside the image.
LoadStatus CallEntryPoint(const ImageSpan& image, MODLOAD_PROCESS* process);

}  // namespace vrk::pe
