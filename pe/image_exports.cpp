// The exports of a PE image: the temporary slot table built from its export
// directory, the export list made from it, and the module's own name.
#include <algorithm>
#include <cstring>

#include "pe/image.h"
#include "pe/walk.h"
#include "vrkalloc.h"

namespace vrk::pe {

Block<ExportSlot> BuildExportTable(const ImageSpan& image) {
  PE_IMAGE_NT_HEADERS32 nt;
  ExportWalk<ImageSpan> walk;
  // No directory (or one outside the image): no exports, the closing slot
  // alone.
  const uint32_t functions = image.NtHeaders(nt) && walk.Open(image, nt) ? walk.functions() : 0;
  Block<ExportSlot> slots(Pcalloc(functions + 1, sizeof(ExportSlot), 0));
  if (!slots) return slots;
  for (uint32_t i = 0; i < functions; ++i) {
    const uint32_t rva = walk.FunctionRva(i);
    if (rva != 0) {
      // Forwarders (RVAs inside the export directory) are entered like any
      // other address; nothing here reads what an address points at.
      slots[i].address = image.Address(rva);
      slots[i].ordinal = walk.directory().Base + i;
    } else {
      slots[i].address = kEmptySlot;
      slots[i].ordinal = kEmptySlot;
    }
  }
  walk.ForEachName([&](uint32_t index, const char* name) { slots[index].name = name; });  // later names win
  return slots;
}

void AddExports(const ExportSlot* slots, PELOAD_EXPORT** head) {
  for (const ExportSlot* slot = slots; slot->address != 0; ++slot) {
    auto* node = static_cast<PELOAD_EXPORT*>(Pmalloc(sizeof(PELOAD_EXPORT), 0));
    if (!node) continue;  // the module just lacks that export
    node->name = slot->name;
    node->ordinal = slot->ordinal;
    node->address = slot->address;
    node->next = *head;
    *head = node;
  }
}

void FreeExports(PELOAD_EXPORT* head) {
  while (head) {
    PELOAD_EXPORT* next = head->next;
    Pfree(head);
    head = next;
  }
}

void GetImageName(const ImageSpan& image, char* dst, uint32_t len) {
  if (!image || len == 0) return;
  std::memset(dst, 0, len);
  PE_IMAGE_NT_HEADERS32 nt;
  ExportWalk<ImageSpan> walk;
  // Without a readable export directory the name is empty (rather than
  // whatever lies at RVA 0).
  if (!image.NtHeaders(nt) || !walk.Open(image, nt)) return;
  // A name running to the image end without a terminator is cut there.
  const uint32_t name = walk.directory().Name;
  const uint32_t length = std::min(image.BoundedLength(name), len - 1);
  if (length != 0) std::memcpy(dst, image.At(name, length), length);
}

}  // namespace vrk::pe
