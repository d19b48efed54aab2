// Relocating a PE image for the base its block happens to have. The
// relocation blocks are the file's, so the walk and every target it patches
// are bounded by the image.
#include "pe/image.h"

namespace vrk::pe {

void ApplyRelocations(const ImageSpan& image) {
  PE_IMAGE_NT_HEADERS32 nt;
  if (!image || !image.NtHeaders(nt)) return;
  const uint32_t delta = image.Address(0) - nt.OptionalHeader.ImageBase;
  const PE_IMAGE_DATA_DIRECTORY& dir = Directory(nt, PE_DIRECTORY_ENTRY_BASERELOC);
  if (dir.Size == kNoRelocationWalk) return;
  // The directory is cut at the image end (and at a wrapping sum).
  uint32_t end = dir.VirtualAddress + dir.Size;
  if (end < dir.VirtualAddress || end > image.size()) end = image.size();

  uint32_t offset = dir.VirtualAddress;
  while (offset < end) {
    uint32_t page = 0;
    uint32_t block_size = 0;
    // A block header outside the image, or a block too short to hold its own
    // header (which would never advance), ends the walk.
    if (!image.Read(offset, page) || !image.Read(offset + 4, block_size) || block_size < 8) break;
    const uint32_t entries = (block_size - 8) / 2;
    bool inside = true;
    for (uint32_t k = 0; k < entries; ++k) {
      uint16_t entry = 0;
      // Entries running off the image end the walk altogether.
      if (!image.Read(offset + 8 + 2 * k, entry)) {
        inside = false;
        break;
      }
      if ((entry >> 12) != kRelocHighLow) continue;
      // A target outside the image (or past 4 GiB) is skipped.
      const uint64_t target = uint64_t(page) + (entry & 0x0FFF);
      uint32_t value = 0;
      if (target > UINT32_MAX || !image.Read(uint32_t(target), value)) continue;
      (void)image.Write(uint32_t(target), value + delta);
    }
    if (!inside) break;
    // Every entry lay inside the image, so this cannot wrap.
    offset += 8 + 2 * entries;
  }
}

}  // namespace vrk::pe
